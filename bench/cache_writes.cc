#include "bench/cache_writes.h"

#include <cstdint>

namespace zefs_bench {

namespace {

/// `write` with the range in which it meets `held`.
Write Onto(const Write& held, Meeting meeting, Write write) {
  const std::int64_t length = held.eOff - held.sOff;
  write.sOff = held.sOff;
  write.eOff = held.eOff;
  if (meeting == Meeting::kTail) {
    write.sOff += length / 2;
  } else if (meeting == Meeting::kInside) {
    write.sOff += length / 4;
    write.eOff -= length / 4;
  }
  return write;
}

}  // namespace

const char* NameOf(Meeting meeting) {
  switch (meeting) {
    case Meeting::kAscending:
      return "ascending";
    case Meeting::kBetween:
      return "between";
    case Meeting::kSame:
      return "same";
    case Meeting::kTail:
      return "tail";
    case Meeting::kInside:
      return "inside";
  }
  return "";
}

CacheWrites MakeCacheWrites(Meeting meeting, std::size_t size) {
  const std::size_t batch = size / 10;
  std::vector<Write> writes = AppendWrites(size + batch, Containers::kReal);
  if (meeting == Meeting::kBetween) {
    Shuffle(&writes);
  }
  const auto middle = writes.begin() + static_cast<std::ptrdiff_t>(size);
  CacheWrites made{{writes.begin(), middle}, {middle, writes.end()}};
  if (Overlaps(meeting)) {
    Shuffle(&made.held);
    for (std::size_t i = 0; i < batch; ++i) {
      made.batch[i] = Onto(made.held[i], meeting, made.batch[i]);
    }
    Shuffle(&made.held);  // or the batch would meet them in the order in which they came
  }
  return made;
}

}  // namespace zefs_bench
