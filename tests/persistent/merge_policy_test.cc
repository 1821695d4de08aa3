// When a merge is due, and when a flush waits for it, as functions of values.

#include "persistent/merge_policy.h"

#include <cstdint>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Aldenta::Qnd::Morene::Zefs::FlushOutcome;
using Aldenta::Qnd::Morene::Zefs::MergeIsDue;
using Aldenta::Qnd::Morene::Zefs::MergeThresholds;
using Aldenta::Qnd::Morene::Zefs::MustWaitForMerge;

constexpr std::uint32_t kMax = std::numeric_limits<std::uint32_t>::max();

TEST(MergePolicy, AMergeIsDueAboveAnyThresholdAndNotAtIt) {
  struct Row {
    const char* what;
    FlushOutcome outcome;  // tmpOpened, wroteSmall, entries, commits, seconds
    MergeThresholds above;
    bool due;
  };
  const std::vector<Row> rows = {
      {"nothing at all", {false, false, 0, 0, 0}, {0, 0, 0}, false},
      {"all at their thresholds", {false, true, 10, 20, 30}, {10, 20, 30}, false},
      {"one record more", {false, true, 11, 20, 30}, {10, 20, 30}, true},
      {"one commit more", {false, true, 10, 21, 30}, {10, 20, 30}, true},
      {"one second more", {false, true, 10, 20, 31}, {10, 20, 30}, true},
      {"no matter which was written", {false, false, 11, 0, 0}, {10, 20, 30}, true},
      {"an open tmp database is enough", {true, false, 0, 0, 0}, {kMax, kMax, kMax}, true},
      {"a commit of the first with a threshold of 0", {false, true, 0, 1, 0}, {0, 0, 0}, true},
      {"the largest thresholds", {false, true, kMax, kMax, kMax}, {kMax, kMax, kMax}, false},
      {"records beyond 32 bits", {false, true, 1UL << 32, 0, 0}, {kMax, kMax, kMax}, true},
      {"commits beyond 32 bits", {false, true, 0, 1L << 32, 0}, {kMax, kMax, kMax}, true},
      {"a clock that was set back", {false, true, 0, 0, -5}, {0, 0, 0}, false},
      {"a counter below 0", {false, true, 0, -1, 0}, {0, 0, 0}, false},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(row.due, MergeIsDue(row.outcome, row.above)) << row.what;
  }
}

TEST(MergePolicy, AFlushWaitsWhenAskedOrWhenWhatItWroteHasOutgrownTheLimit) {
  struct Row {
    const char* what;
    bool tmpOpened;
    bool wroteSmall;
    std::uint64_t entries;
    bool asked;
    std::uint32_t maxEntries;
    bool waits;
  };
  const std::vector<Row> rows = {
      {"at the limit", false, true, 10, false, 10, false},
      {"above, small, no tmp yet", false, true, 11, false, 10, true},
      {"above, small, tmp opened since", true, true, 11, false, 10, false},
      {"above, tmp written", true, false, 11, false, 10, true},
      {"above, tmp written and gone since", false, false, 11, false, 10, true},
      {"nothing written", false, false, 0, false, 0, false},
      {"asked, and nothing else", false, false, 0, true, kMax, true},
      {"asked, although tmp was opened since", true, true, 11, true, 10, true},
      {"beyond 32 bits", false, true, 1UL << 32, false, kMax, true},
  };
  for (const Row& row : rows) {
    const FlushOutcome outcome{row.tmpOpened, row.wroteSmall, row.entries, 0, 0};
    EXPECT_EQ(row.waits, MustWaitForMerge(outcome, row.asked, row.maxEntries)) << row.what;
  }
}

}  // namespace
