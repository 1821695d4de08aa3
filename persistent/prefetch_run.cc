#include "persistent/prefetch_run.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

/// Extents of one block each that fit into `span`: room to reserve, no limit.
std::size_t BlocksIn(std::uint32_t span) {
  constexpr unsigned int kBlockShift = 12;
  constexpr std::uint32_t kMask = 0x7ffff;
  return (span >> kBlockShift) & kMask;
}

std::uint64_t Distance(std::int64_t a, std::int64_t b) {
  return static_cast<std::uint64_t>(std::max(a, b)) - static_cast<std::uint64_t>(std::min(a, b));
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): moved from where it replaces the run
void MergePrefetched(PrefetchRun fetched, std::uint32_t span, PrefetchRun* run) {
  if (run->empty()) {
    *run = std::move(fetched);
    return;
  }
  const std::int64_t oldStart = run->front().sOff;
  const std::int64_t oldEnd = run->back().eOff;
  const std::int64_t newStart = fetched.front().sOff;
  const std::int64_t newEnd = fetched.back().eOff;
  const bool apart = oldEnd < newStart || newEnd < oldStart;
  const bool oldCovers = oldStart <= newStart && newEnd <= oldEnd;
  const bool newCovers = newStart <= oldStart && oldEnd <= newEnd;
  if (!apart && oldCovers) {
    return;
  }
  if (apart || newCovers) {
    *run = std::move(fetched);
    return;
  }

  const auto inSpan = [&](const ExtLMDB& ext) { return Distance(ext.sOff, newStart) <= span; };
  PrefetchRun merged;
  merged.reserve(std::min(run->size() + fetched.size(), BlocksIn(span)));
  const PrefetchRun* second = nullptr;
  if (oldStart < newStart) {
    std::copy_if(run->begin(), run->end(), std::back_inserter(merged), inSpan);
    if (merged.empty()) {
      *run = std::move(fetched);
      return;
    }
    second = &fetched;
  } else {
    merged = std::move(fetched);
    second = run;
  }
  const std::int64_t lastStart = merged.back().sOff;
  std::copy_if(second->begin(), second->end(), std::back_inserter(merged),
               [&](const ExtLMDB& ext) { return ext.sOff > lastStart && inSpan(ext); });
  *run = std::move(merged);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
