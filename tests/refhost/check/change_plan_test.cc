#include "refhost/check/change_plan.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

bool Same(const std::vector<Change>& a, const std::vector<Change>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const Change& x, const Change& y) {
    return x.kind == y.kind && x.offset == y.offset && x.bytes == y.bytes;
  });
}

/// What a plan does to a file, added up over many seeds.
struct Seen {
  int acrossBoundary = 0;
  int appends = 0;
  int cuts = 0;
  int growths = 0;
  int behindEnd = 0;
};

Seen Look(std::int64_t fileSize, std::uint32_t segment) {
  Seen seen;
  for (std::uint64_t seed = 0; seed < 50; ++seed) {
    std::int64_t size = fileSize;
    for (const Change& change : PlanChanges(fileSize, segment, seed)) {
      EXPECT_GE(change.offset, 0);
      const auto length = static_cast<std::int64_t>(change.bytes.size());
      if (change.kind == Change::Kind::kTruncate) {
        seen.cuts += change.offset < size ? 1 : 0;
        seen.growths += change.offset > size ? 1 : 0;
        size = change.offset;
        EXPECT_LE(size, LargestSize(fileSize, segment));
        continue;
      }
      EXPECT_GT(length, 0);
      EXPECT_LE(length, 2 * static_cast<std::int64_t>(segment));
      const bool crosses = change.offset / segment != (change.offset + length - 1) / segment;
      seen.acrossBoundary += change.offset + length <= size && crosses ? 1 : 0;
      seen.appends += change.offset == size ? 1 : 0;
      seen.behindEnd += change.offset > size ? 1 : 0;
      size = std::max(size, change.offset + length);
      EXPECT_LE(size, LargestSize(fileSize, segment));
    }
  }
  return seen;
}

TEST(ChangePlan, FollowsFromItsArgumentsAlone) {
  EXPECT_TRUE(Same(PlanChanges(100000, 16384, 7), PlanChanges(100000, 16384, 7)));
  EXPECT_FALSE(Same(PlanChanges(100000, 16384, 7), PlanChanges(100000, 16384, 8)));
}

TEST(ChangePlan, HoldsEveryKindOfChange) {
  const Seen seen = Look(100000, 16384);
  EXPECT_GE(seen.acrossBoundary, 50);
  EXPECT_GE(seen.appends, 50);
  EXPECT_GE(seen.cuts, 40);
  EXPECT_GE(seen.growths, 10);
  EXPECT_GE(seen.behindEnd, 50);
}

TEST(ChangePlan, WritesNoMoreThanIsToldWhateverTheSize) {
  constexpr std::uint32_t kSegment = 4096;
  for (const std::int64_t size : {0, 1, 100, 1000, 4095, 4096, 4097, 8191, 8192, 100000}) {
    std::uint64_t most = 0;
    for (std::uint64_t seed = 0; seed < 2000; ++seed) {
      std::uint64_t written = 0;
      for (const Change& change : PlanChanges(size, kSegment, seed)) {
        written += change.bytes.size();
      }
      most = std::max(most, written);
    }
    EXPECT_LE(most, std::uint64_t{kMostWrittenInSegments} * kSegment) << size;
    EXPECT_LE(LargestSize(size, kSegment), size + kMostGrowthInSegments * std::int64_t{kSegment});
  }
}

TEST(ChangePlan, FileThatCouldOutgrowEveryOffsetHasTheLargestSize) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(kMax, LargestSize(kMax, 1 << 20));
  EXPECT_EQ(kMax, LargestSize(kMax - 7 * 512 + 1, 512));
  EXPECT_EQ(kMax - 1, LargestSize(kMax - 7 * 512 - 1, 512));
}

TEST(ChangePlan, ChangesEmptyAndTinyFilesToo) {
  for (const std::int64_t size : {0, 1, 2, 511, 512, 513}) {
    SCOPED_TRACE(size);
    EXPECT_GE(Look(size, 512).appends, 50);
  }
}

}  // namespace
}  // namespace zefs::refhost
