#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "fuzz/table_directory/case.h"
#include "fuzz/table_directory/watched_child.h"

namespace zefs::fuzz {

/// What the executions of this process have come to, told on standard output at its end.
class Tally {
 public:
  ~Tally() { Print(); }

  void CountLife(const Case& input, const Ending& ending);
  /// Keeps `input` where ZEFS_FUZZ_KEEP names a directory, the first few of each class. False if it
  /// names none.
  static bool Keep(const Case& input, const std::string& label);

 private:
  void Print() const;

  std::uint64_t lives_ = 0;
  std::map<std::string, std::uint64_t> loads_;    ///< by how the load has ended
  std::map<std::string, std::uint64_t> crashes_;  ///< by culprit and function
  std::map<std::string, std::uint64_t> damages_;  ///< crashes of a single damage, by its kind
};

}  // namespace zefs::fuzz
