// How a new run of prefetched extents is merged into the one that is there.

#include "persistent/prefetch_run.h"

#include <climits>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/oid.h"

namespace {

using Aldenta::Qnd::Morene::Zefs::ExtLMDB;
using Aldenta::Qnd::Morene::Zefs::MergePrefetched;
using Aldenta::Qnd::Morene::Zefs::PrefetchRun;

constexpr std::uint32_t kAnySpan = UINT32_MAX;

/// Ranges of the extents of a run, in its order.
using Ranges = std::vector<std::pair<long, long>>;

/// The checksum of an extent tells the run that it came from.
constexpr long kOld = 1;
constexpr long kNew = 2;

PrefetchRun RunOf(const Ranges& ranges, long from) {
  PrefetchRun run;
  for (const auto& [sOff, eOff] : ranges) {
    ExtLMDB ext;
    ext.sOff = sOff;
    ext.eOff = eOff;
    ext.objCksum = from;
    run.push_back(ext);
  }
  return run;
}

std::string Text(const PrefetchRun& run) {
  std::string text;
  for (const ExtLMDB& ext : run) {
    text += ext.objCksum == kOld ? " old " : " new ";
    text += std::to_string(ext.sOff) + '-' + std::to_string(ext.eOff);
  }
  return text;
}

struct Merge {
  const char* name;
  Ranges old;
  Ranges fetched;
  std::uint32_t span;
  const char* merged;
};

void PrintTo(const Merge& merge, std::ostream* out) {
  *out << merge.name;
}

class PrefetchRunTest : public testing::TestWithParam<Merge> {};

TEST_P(PrefetchRunTest, Merges) {
  PrefetchRun run = RunOf(GetParam().old, kOld);
  MergePrefetched(RunOf(GetParam().fetched, kNew), GetParam().span, &run);
  EXPECT_EQ(GetParam().merged, Text(run));
}

const Ranges kTwo = {{100, 150}, {150, 200}};

INSTANTIATE_TEST_SUITE_P(
    Apart, PrefetchRunTest,
    testing::Values(Merge{"IntoNothing", {}, {{5, 6}, {8, 9}}, 0, " new 5-6 new 8-9"},
                    Merge{"NewBehindOld", kTwo, {{201, 300}}, kAnySpan, " new 201-300"},
                    Merge{"NewBeforeOld", kTwo, {{0, 99}}, kAnySpan, " new 0-99"},
                    Merge{"NewFarBehindOldWithoutSpan", kTwo, {{5000, 5001}}, 0, " new 5000-5001"},
                    Merge{"OneBehindOne", {{10, 20}}, {{21, 30}}, kAnySpan, " new 21-30"},
                    Merge{"OneBeforeOne", {{10, 20}}, {{0, 9}}, kAnySpan, " new 0-9"}),
    [](const auto& given) { return given.param.name; });

INSTANTIATE_TEST_SUITE_P(
    OneCoversTheOther, PrefetchRunTest,
    testing::Values(
        Merge{"TheSameRange", kTwo, {{100, 200}}, kAnySpan, " old 100-150 old 150-200"},
        Merge{"NewInsideOld", kTwo, {{110, 190}}, kAnySpan, " old 100-150 old 150-200"},
        Merge{"NewInsideOldWithoutSpan", kTwo, {{110, 190}}, 0, " old 100-150 old 150-200"},
        Merge{"NewAtTheStartOfOld", kTwo, {{100, 190}}, kAnySpan, " old 100-150 old 150-200"},
        Merge{"NewAtTheEndOfOld", kTwo, {{110, 200}}, kAnySpan, " old 100-150 old 150-200"},
        Merge{"OldInsideNew", kTwo, {{90, 210}}, kAnySpan, " new 90-210"},
        Merge{"OldAtTheStartOfNew", kTwo, {{100, 201}}, kAnySpan, " new 100-201"},
        Merge{"OldAtTheEndOfNew", kTwo, {{99, 200}}, kAnySpan, " new 99-200"},
        Merge{"OldInsideNewWithoutSpan", kTwo, {{90, 95}, {205, 210}}, 0, " new 90-95 new 205-210"},
        Merge{"OneByteInsideOne", {{10, 20}}, {{15, 16}}, 0, " old 10-20"},
        Merge{"OneOverOne", {{15, 16}}, {{10, 20}}, 0, " new 10-20"}),
    [](const auto& given) { return given.param.name; });

INSTANTIATE_TEST_SUITE_P(
    OldFirst, PrefetchRunTest,
    testing::Values(
        Merge{"OneOverTheEndOfOne", {{0, 100}}, {{50, 150}}, kAnySpan, " old 0-100 new 50-150"},
        Merge{"NewStartsBehindTheLastStart",
              {{0, 50}, {50, 100}},
              {{60, 80}, {80, 150}},
              kAnySpan,
              " old 0-50 old 50-100 new 60-80 new 80-150"},
        Merge{"NewAtOrBeforeTheLastStartIsDropped",
              {{0, 40}, {60, 100}},
              {{40, 60}, {60, 80}, {80, 150}},
              kAnySpan,
              " old 0-40 old 60-100 new 80-150"},
        Merge{"Touching",
              {{0, 50}, {50, 100}},
              {{100, 150}},
              kAnySpan,
              " old 0-50 old 50-100 new 100-150"},
        Merge{"TouchingOnes", {{0, 100}}, {{100, 150}}, 100, " old 0-100 new 100-150"},
        Merge{"TouchingOnesOutOfSpan", {{0, 100}}, {{100, 150}}, 99, " new 100-150"},
        Merge{"NoOldInSpan", {{0, 50}, {50, 100}}, {{80, 150}}, 29, " new 80-150"},
        Merge{"LastOldJustInSpan", {{0, 50}, {50, 100}}, {{80, 150}}, 30, " old 50-100 new 80-150"},
        Merge{"FirstOldJustOutOfSpan",
              {{0, 50}, {50, 100}},
              {{80, 150}},
              79,
              " old 50-100 new 80-150"},
        Merge{"FirstOldJustInSpan",
              {{0, 50}, {50, 100}},
              {{80, 150}},
              80,
              " old 0-50 old 50-100 new 80-150"},
        Merge{"OldBehindTheNewStartJustInSpan",
              {{0, 50}, {110, 120}, {140, 150}},
              {{100, 200}},
              10,
              " old 110-120"},
        Merge{"OldBehindTheNewStartJustOutOfSpan",
              {{0, 50}, {110, 120}, {140, 150}},
              {{100, 200}},
              9,
              " new 100-200"},
        Merge{"AddedJustInSpan",
              {{0, 100}},
              {{50, 60}, {70, 80}, {100, 150}},
              50,
              " old 0-100 new 50-60 new 70-80 new 100-150"},
        Merge{"AddedJustOutOfSpan",
              {{30, 60}},
              {{50, 60}, {70, 71}, {71, 80}},
              20,
              " old 30-60 new 50-60 new 70-71"},
        Merge{"WithoutSpanNothingOldIsKept", {{0, 100}}, {{50, 150}}, 0, " new 50-150"},
        Merge{"TheLastKeptOldStartCountsNotTheLastOld",
              {{0, 10}, {40, 50}, {90, 100}},
              {{50, 60}, {60, 70}, {95, 150}},
              30,
              " old 40-50 new 50-60 new 60-70"}),
    [](const auto& given) { return given.param.name; });

INSTANTIATE_TEST_SUITE_P(
    NewFirst, PrefetchRunTest,
    testing::Values(
        Merge{"OneOverTheStartOfOne", {{50, 150}}, {{0, 100}}, kAnySpan, " new 0-100 old 50-150"},
        Merge{"OldAtOrBeforeTheLastStartIsDropped",
              {{40, 60}, {60, 80}, {80, 150}},
              {{0, 40}, {60, 100}},
              kAnySpan,
              " new 0-40 new 60-100 old 80-150"},
        Merge{"Touching",
              {{100, 150}},
              {{0, 50}, {50, 100}},
              100,
              " new 0-50 new 50-100 old 100-150"},
        Merge{"TouchingOutOfSpan", {{100, 150}}, {{0, 50}, {50, 100}}, 99, " new 0-50 new 50-100"},
        Merge{"NewIsNotTested", {{500, 900}}, {{0, 50}, {400, 600}}, 10, " new 0-50 new 400-600"},
        Merge{"OldJustInSpan",
              {{60, 70}, {90, 120}, {120, 130}},
              {{10, 80}},
              80,
              " new 10-80 old 60-70 old 90-120"},
        Merge{"OldJustOutOfSpan", {{60, 70}, {90, 120}}, {{10, 80}}, 79, " new 10-80 old 60-70"},
        Merge{"TheSameStartAndALongerOld",
              {{0, 50}, {60, 150}},
              {{0, 100}},
              kAnySpan,
              " old 0-50 old 60-150"},
        Merge{"WithoutSpanAllOfTheNew",
              {{50, 150}},
              {{0, 40}, {40, 100}},
              0,
              " new 0-40 new 40-100"}),
    [](const auto& given) { return given.param.name; });

// The ends of the number range, and distances that no signed number holds.
INSTANTIATE_TEST_SUITE_P(Ends, PrefetchRunTest,
                         testing::Values(Merge{"FarBelow",
                                               {{LONG_MIN, LONG_MAX - 1}},
                                               {{LONG_MAX - 2, LONG_MAX}},
                                               kAnySpan,
                                               " new 9223372036854775805-9223372036854775807"},
                                         Merge{"FarBehind",
                                               {{LONG_MAX - 5, LONG_MAX}},
                                               {{0, LONG_MAX - 4}},
                                               kAnySpan,
                                               " new 0-9223372036854775803"},
                                         Merge{"TheWidestSpan",
                                               {{4294967295, 4294967400}},
                                               {{0, 4294967300}},
                                               kAnySpan,
                                               " new 0-4294967300 old 4294967295-4294967400"},
                                         Merge{"OneMoreThanTheWidestSpan",
                                               {{4294967296, 4294967400}},
                                               {{0, 4294967300}},
                                               kAnySpan,
                                               " new 0-4294967300"}),
                         [](const auto& given) { return given.param.name; });

TEST(PrefetchRun, ElementsAreCopiedWithAllTheirFields) {
  int node = 0;
  PrefetchRun run = RunOf({{0, 60}}, kOld);
  PrefetchRun fetched = RunOf({{50, 60}, {60, 90}}, kNew);
  for (PrefetchRun* const each : {&run, &fetched}) {
    for (ExtLMDB& ext : *each) {
      ext.objectID = zefs::test::Oid(70 + static_cast<std::uint64_t>(ext.sOff));
      ext.objOff = ext.sOff + 1;
      ext.dcOffset = static_cast<int>(ext.sOff) + 2;
      ext.data = &node;
    }
  }
  MergePrefetched(fetched, kAnySpan, &run);
  ASSERT_EQ(3U, run.size());
  for (const ExtLMDB& ext : run) {
    const auto oid = zefs::test::Oid(70 + static_cast<std::uint64_t>(ext.sOff));
    EXPECT_EQ(oid.dcid, ext.objectID.dcid);
    EXPECT_EQ(oid.fp, ext.objectID.fp);
    EXPECT_EQ(oid.attrWord, ext.objectID.attrWord);
    EXPECT_EQ(ext.sOff + 1, ext.objOff);
    EXPECT_EQ(ext.sOff + 2, ext.dcOffset);
    EXPECT_EQ(&node, ext.data);
  }
}

}  // namespace
