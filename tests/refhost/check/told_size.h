#pragma once

#include <cstdint>
#include <string>

// For programs whose fstat calls the linker sends to told_size.cc.

namespace zefs::test {

/// While it lives, fstat tells this size of the file at `path`, which exists, whatever it really
/// is: files that no file system at hand could hold. One at a time.
class ToldSize {
 public:
  ToldSize(const std::string& path, std::int64_t size);
  ~ToldSize();
  ToldSize(const ToldSize&) = delete;
  ToldSize& operator=(const ToldSize&) = delete;
};

}  // namespace zefs::test
