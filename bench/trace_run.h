#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "bench/process_usage.h"
#include "bench/trace.h"

namespace zefs_bench {

/// What reads have shown: how many extents, and a digest of the parts of them that were asked for,
/// in their order.
class Shown {
 public:
  std::uint64_t extents() const { return extents_; }

  void Add(std::int64_t sOff, std::int64_t eOff, std::int64_t objOff, std::uint32_t object) {
    ++extents_;
    for (const std::uint64_t word :
         {static_cast<std::uint64_t>(sOff), static_cast<std::uint64_t>(eOff),
          static_cast<std::uint64_t>(objOff) << 32U | object}) {
      digest_ = (digest_ ^ word) * kPrime;
      digest_ ^= digest_ >> kHalf;
    }
  }
  bool operator==(const Shown& other) const {
    return extents_ == other.extents_ && digest_ == other.digest_;
  }

 private:
  static constexpr std::uint64_t kPrime = 0x9e3779b97f4a7c15U;
  static constexpr unsigned kHalf = 32;

  std::uint64_t extents_ = 0;
  std::uint64_t digest_ = 0;
};

/// A run of a trace, and the seconds by the wall that it took.
struct TraceRun {
  double writeSeconds = 0;  ///< with the commits
  double readSeconds = 0;
  Shown shown;
};

/// Reads [start, end) of a unit.
template <typename Subject>
void ReadInto(Subject& subject, std::size_t unit, std::int64_t start, std::int64_t end,
              Shown* shown) {
  subject.Read(unit, start, end,
               [=](std::int64_t sOff, std::int64_t eOff, std::int64_t objOff, const auto& id) {
                 const std::int64_t from = std::max(sOff, start);
                 shown->Add(from, std::min(eOff, end), objOff + (from - sOff), id.attrWord);
               });
}

/// Runs the requests of a trace over and over, until all of `writes`, which WritesOf has made of
/// it, are written; without any it runs once. Each `batch` of them is made durable, and so is the
/// rest.
template <typename Subject>
TraceRun RunTrace(const Trace& trace, const std::vector<Write>& writes, std::size_t batch,
                  Subject& subject) {
  using Operation = zefs::refhost::TraceRequest::Operation;
  TraceRun run;
  auto write = writes.begin();
  std::size_t waiting = 0;
  Operation operation = Operation::kRead;
  double since = WallSeconds();
  const auto switchTo = [&](Operation next) {  // the clock is read where it has to be only
    if (next != operation) {
      const double now = WallSeconds();
      (operation == Operation::kWrite ? run.writeSeconds : run.readSeconds) += now - since;
      since = now;
      operation = next;
    }
  };
  do {
    for (const auto& request : trace.requests) {
      switchTo(request.operation);
      if (request.operation == Operation::kRead) {
        ReadInto(subject, request.unit, request.start, request.end, &run.shown);
        continue;
      }
      subject.Insert(request.unit, *write++);
      if (++waiting == batch) {
        subject.Flush();
        waiting = 0;
      }
    }
  } while (write != writes.end());
  switchTo(Operation::kWrite);
  subject.Flush();
  switchTo(Operation::kRead);
  return run;
}

/// All that the units hold.
template <typename Subject>
Shown ShownByAllUnits(std::size_t units, Subject& subject) {
  Shown shown;
  for (std::size_t unit = 0; unit < units; ++unit) {
    ReadInto(subject, unit, 0, kUnitRoom, &shown);
  }
  return shown;
}

}  // namespace zefs_bench
