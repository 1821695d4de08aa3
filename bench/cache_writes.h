#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "bench/workload.h"

namespace zefs_bench {

/// How the writes that are measured meet the extents that the cache holds already. But for
/// kAscending both come in random order, and none of these extents is met twice.
enum class Meeting {
  kAscending,  ///< not: each write lies behind all before it
  kBetween,    ///< not: each write fills a hole between two
  kSame,       ///< each write replaces one whole
  kTail,       ///< each write covers the back half of one
  kInside,     ///< each write lies strictly inside one, so that three pieces come of it
};
inline constexpr std::array kMeetings = {Meeting::kAscending, Meeting::kBetween, Meeting::kSame,
                                         Meeting::kTail, Meeting::kInside};

/// For the name of a benchmark.
const char* NameOf(Meeting meeting);

constexpr bool Overlaps(Meeting meeting) {
  return meeting != Meeting::kAscending && meeting != Meeting::kBetween;
}

struct CacheWrites {
  std::vector<Write> held;   ///< the writes that fill the cache
  std::vector<Write> batch;  ///< those that are measured
};

/// `size` writes that fill the cache and a tenth as many that are measured.
CacheWrites MakeCacheWrites(Meeting meeting, std::size_t size);

}  // namespace zefs_bench
