#pragma once

#include <cstddef>

namespace zefs::test {

/// While it lives, no single allocation by new in this program gets more than `bytes` bytes: a
/// larger one finds no memory. For programs that link allocation_limit.cc; one at a time.
class AllocationLimit {
 public:
  explicit AllocationLimit(std::size_t bytes);
  ~AllocationLimit();
  AllocationLimit(const AllocationLimit&) = delete;
  AllocationLimit& operator=(const AllocationLimit&) = delete;
};

}  // namespace zefs::test
