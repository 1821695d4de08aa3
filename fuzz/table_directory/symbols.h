#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace zefs::fuzz {

/// The functions of this program by their place in its file, those that it does not export
/// included.
class Symbols {
 public:
  Symbols();

  /// The name of the function around `offset`, as the compiler wrote it; empty if there is none.
  std::string NameOf(std::uint64_t offset) const;

 private:
  struct Function {
    std::uint64_t end;
    std::string name;
  };
  std::map<std::uint64_t, Function> byBegin_;
};

}  // namespace zefs::fuzz
