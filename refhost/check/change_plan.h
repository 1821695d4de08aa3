#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zefs::refhost {

/// One change of a file: a write of `bytes` at `offset`, or a truncate to `offset`.
struct Change {
  enum class Kind { kWrite, kTruncate };

  Kind kind;
  std::int64_t offset;
  std::string bytes;
};

/// Changes for a file of `fileSize` bytes that hit the edges of its map: overwrites across segment
/// boundaries, an append, a cut, a write behind the end that leaves a hole, an overwrite at that
/// hole, and for some files a growth without data. They are to be applied in order, follow from the
/// arguments alone, and are small beside a large file and at most a few times as long as a small
/// one.
std::vector<Change> PlanChanges(std::int64_t fileSize, std::uint32_t segmentSize,
                                std::uint64_t seed);

/// The most that a file grows by while it is changed, and the most that is written to it, in
/// segments.
inline constexpr int kMostGrowthInSegments = 7;
inline constexpr int kMostWrittenInSegments = 9;

/// A size that such a file never outgrows while it is changed, whatever the seed. INT64_MAX if that
/// is no offset any more: such a file cannot be changed.
std::int64_t LargestSize(std::int64_t fileSize, std::uint32_t segmentSize);

}  // namespace zefs::refhost
