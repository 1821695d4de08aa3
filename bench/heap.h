#pragma once

#include <cstddef>
#include <malloc.h>

namespace zefs_bench {

/// Bytes of heap in use, the allocator's own headers and rounding included.
inline std::size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

/// Gives free memory back, so that one map does not begin in the holes that another has left.
inline void TrimHeap() {
  malloc_trim(0);
}

}  // namespace zefs_bench
