// What a plan lists, how, and what it leaves behind for look-ups.

#include <climits>
#include <map>

#include <gmock/gmock.h>

#include "tests/persistent/extent_cache_fixture.h"
#include "tests/persistent/millis_switch.h"
#include "tests/persistent/prefetch_fixture.h"
#include "tests/support/fault_injection.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using zefs::test::Call;
using zefs::test::Faults;
using zefs::test::MillisSwitch;
using zefs::test::OidOf;
using zefs::test::Part;
using zefs::test::RecordOf;
using zefs::test::Text;
using zefs::test::WatchCalls;

class PrefetchPlanTest : public zefs::test::PrefetchTest {
 protected:
  /// The path of one of the table's files, as the log shows it.
  std::string Path(const char* name) const { return File(name).string(); }

  std::string StepLine(long offset, const char* name) const {
    return Text("0 CMappingLMDB::GetNextExtInDBChain(), off=%ld, db=%s", offset,
                Path(name).c_str());
  }

  /// A record was read, whole.
  static std::string RecordLine(const Part& part) {
    return Text(
        "0 CMappingLMDB::ExtLMDBEntry::FillExtLMDB(), start=%ld, end=%ld, dcid=%lu, offset=%ld, "
        "data=(nil)",
        part.sOff, part.eOff, part.dcid, part.objOff);
  }

  /// An extent that is in no table.
  static ExtLMDB ExtOf(const Part& part) {
    ExtLMDB ext;
    ext.sOff = part.sOff;
    ext.eOff = part.eOff;
    ext.objOff = part.objOff;
    ext.objectID = OidOf(part);
    return ext;
  }
};

// --- ranges ------------------------------------------------------------------------------------

TEST_F(PrefetchPlanTest, ARangeWithoutBytesGivesNothingAndOpensNoTransaction) {
  LoadOver({{0, 100, 70}});
  Prefetch({0, 10, 99});
  const WatchCalls watch(Directory().string());
  for (const auto& [start, end] : {std::pair{0L, 0L},
                                   {50L, 50L},
                                   {51L, 50L},
                                   {LONG_MAX, LONG_MAX},
                                   {LONG_MIN, LONG_MIN},
                                   {LONG_MAX, LONG_MIN}}) {
    Plan plan(1);
    plan.front().dcid = 12;
    plan.front().rangeTag = 13;
    table().GetDCInfoList({start, end, kTag}, &plan);
    ASSERT_EQ(1U, plan.size());
    EXPECT_EQ(12U, plan.front().dcid);
    EXPECT_EQ(13U, plan.front().rangeTag);
    EXPECT_THAT(plan.front().extents, IsEmpty());
  }
  EXPECT_EQ(0, Faults::Count(Call::kMdbTxnBegin));
  EXPECT_THAT(Kept(), ElementsAre(Part{0, 10, 99}));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(PrefetchPlanTest, ARangeOfOneByteIsOneStep) {
  LoadOver({{0, 10, 70}, {10, 20, 71}});
  EXPECT_THAT(ShownPlan(5, 6), ElementsAre("70 of 10 bytes: [0 +10) from 0"));
  EXPECT_THAT(ShownPlan(9, 10), ElementsAre("70 of 10 bytes: [0 +10) from 0"));
  EXPECT_THAT(ShownPlan(10, 11), ElementsAre("71 of 10 bytes: [10 +10) from 0"));
  EXPECT_THAT(ShownPlan(-1, 0), ElementsAre("70 of 10 bytes: [0 +10) from 0 behind"));
}

TEST_F(PrefetchPlanTest, AStepIsTakenOnlyIfMoreThanOneByteOfTheRangeIsLeft) {
  LoadOver({{0, 10, 70}, {10, 20, 71}, {20, 30, 72}});
  const std::string first = "70 of 10 bytes: [0 +10) from 0";
  const std::string second = "71 of 10 bytes: [10 +10) from 0";
  EXPECT_THAT(ShownPlan(0, 10), ElementsAre(first));
  EXPECT_THAT(ShownPlan(0, 11), ElementsAre(first)) << "the last byte of the range is left out";
  EXPECT_THAT(ShownPlan(0, 12), ElementsAre(first, second));
  EXPECT_THAT(ShownPlan(9, 12), ElementsAre(first, second));
  EXPECT_THAT(ShownPlan(0, 21), ElementsAre(first, second));
  EXPECT_THAT(ShownPlan(0, LONG_MAX),
              ElementsAre(first, second, "72 of 10 bytes: [20 +10) from 0"));
}

TEST_F(PrefetchPlanTest, AnExtentThatBeginsBeforeTheRangeIsListedWhole) {
  LoadOver({{0, 100, 70, 5}}, {{40, 60, 71, 9}});
  EXPECT_THAT(ShownPlan(30, 50),
              ElementsAre("70 of 40 bytes: [0 +40) from 5", "71 of 20 bytes: [40 +20) from 9"));
  EXPECT_THAT(ShownPlan(70, 80), ElementsAre("70 of 40 bytes: [60 +40) from 65"));
}

TEST_F(PrefetchPlanTest, ARangeBehindTheLastExtentGivesAnEmptyPlanAndKeepsWhatWasKept) {
  LoadOver({{0, 10, 70}}, {{10, 20, 71}});
  Cache({20, 30, 72});
  Prefetch({0, 10, 99});
  for (const long start : {30L, 31L, LONG_MAX - 1}) {
    EXPECT_THAT(ShownPlan(start, LONG_MAX), IsEmpty());
    EXPECT_THAT(Kept(), ElementsAre(Part{0, 10, 99}));
  }
}

TEST_F(PrefetchPlanTest, OfAnEmptyTableThereIsNoPlan) {
  LoadOver({});
  EXPECT_THAT(ShownPlan(0, LONG_MAX), IsEmpty());
  EXPECT_THAT(Kept(), IsEmpty());
}

TEST_F(PrefetchPlanTest, BehindAGapTheNextExtentIsListedInRangeOnlyIfItBeginsThere) {
  LoadOver({{0, 10, 70}, {50, 60, 71}});
  const std::string first = "70 of 10 bytes: [0 +10) from 0";
  EXPECT_THAT(ShownPlan(0, 40), ElementsAre(first, "71 of 10 bytes: [50 +10) from 0 behind"));
  EXPECT_THAT(ShownPlan(0, 50), ElementsAre(first, "71 of 10 bytes: [50 +10) from 0 behind"));
  EXPECT_THAT(ShownPlan(0, 51), ElementsAre(first, "71 of 10 bytes: [50 +10) from 0"));
  EXPECT_THAT(ShownPlan(20, 30), ElementsAre("71 of 10 bytes: [50 +10) from 0 behind"));
  EXPECT_THAT(Kept(), ElementsAre(Part{0, 10, 70}, Part{50, 60, 71}));
}

TEST_F(PrefetchPlanTest, AnExtentUpToTheLargestOffsetEndsTheWalk) {
  LoadRecords({RecordOf({0, 10, 70}), RecordOf({10, LONG_MAX, 71})});
  EXPECT_THAT(Shown(PlanOf(0, LONG_MAX)).at(1), testing::StartsWith("71 of "));
  EXPECT_THAT(Kept(), ElementsAre(Part{0, 10, 70}, Part{10, LONG_MAX, 71}));
}

// --- cache and databases -------------------------------------------------------------------------

TEST_F(PrefetchPlanTest, OfTheSameRangeInCacheAndDatabaseTheCachedOneIsListed) {
  LoadOver({{0, 100, 70}}, {{0, 100, 71}});
  Cache({0, 100, 72, 3});
  EXPECT_THAT(ShownPlan(0, 100), ElementsAre("72 of 100 bytes: [0 +100) from 3"));
  EXPECT_THAT(Kept(), ElementsAre(Part{0, 100, 72, 3}));
}

TEST_F(PrefetchPlanTest, OfADatabaseExtentUnderACachedOneBothEndsAreListedAndTheLogTellsTheCuts) {
  LoadOver({{0, 100, 70, 5}});
  Cache({40, 60, 71});
  EXPECT_THAT(ShownPlan(0, 100), ElementsAre("70 of 80 bytes: [0 +40) from 5, [60 +40) from 65",
                                             "71 of 20 bytes: [40 +20) from 0"));
  EXPECT_THAT(Kept(), ElementsAre(Part{0, 40, 70, 5}, Part{40, 60, 71}, Part{60, 100, 70, 65}));
  const std::string stored = RecordLine({0, 100, 70, 5});
  EXPECT_THAT(Lines(), ElementsAre(StepLine(0, "lsml0.mdb"), StepLine(0, "data.mdb"), stored,
                                   "0 modify end 100 to 40", RecordLine({40, 60, 71}),
                                   StepLine(60, "lsml0.mdb"), StepLine(60, "data.mdb"), stored,
                                   "0 modify start 0 to 60, add objOffset 60"));
}

TEST_F(PrefetchPlanTest, ADatabaseExtentBetweenTwoCachedOnesIsCutAtBothEnds) {
  LoadOver({{0, 100, 70}});
  Cache({0, 30, 71});
  Cache({60, 100, 72});
  log_.Take();
  EXPECT_THAT(ShownPlan(30, 31), ElementsAre("70 of 30 bytes: [30 +30) from 30"));
  EXPECT_THAT(Lines(), ElementsAre(StepLine(30, "lsml0.mdb"), StepLine(30, "data.mdb"),
                                   RecordLine({0, 100, 70}), "0 modify end 100 to 60",
                                   "0 modify start 0 to 30, add objOffset 30"));
}

TEST_F(PrefetchPlanTest, AnExtentThatOnlyTouchesACachedOneIsNotCut) {
  LoadOver({{10, 20, 70}});
  Cache({0, 10, 71});
  Cache({20, 30, 72});
  EXPECT_THAT(ShownPlan(0, 30),
              ElementsAre("71 of 10 bytes: [0 +10) from 0", "70 of 10 bytes: [10 +10) from 0",
                          "72 of 10 bytes: [20 +10) from 0"));
  EXPECT_THAT(Lines(), ElementsAre(RecordLine({0, 10, 71}), StepLine(10, "lsml0.mdb"),
                                   StepLine(10, "data.mdb"), RecordLine({10, 20, 70}),
                                   RecordLine({20, 30, 72})))
      << "where the cache holds the offset no database is asked";
}

TEST_F(PrefetchPlanTest, InAGapOfTheCacheADatabaseExtentBehindTheCachedOneIsNotTaken) {
  LoadOver({{60, 70, 70}});
  Cache({50, 60, 71});
  EXPECT_THAT(ShownPlan(0, 10), ElementsAre("71 of 10 bytes: [50 +10) from 0 behind"));
  Cache({80, 90, 72});
  EXPECT_THAT(ShownPlan(70, 75), ElementsAre("72 of 10 bytes: [80 +10) from 0 behind"))
      << "nor is there one";
}

TEST_F(PrefetchPlanTest, ACachedExtentThatBeginsWithTheDatabaseOneHidesIt) {
  LoadOver({{50, 100, 70}});
  Cache({50, 60, 71});
  EXPECT_THAT(ShownPlan(0, 100),
              ElementsAre("71 of 10 bytes: [50 +10) from 0", "70 of 40 bytes: [60 +40) from 10"));
}

TEST_F(PrefetchPlanTest, TheNewestDatabaseHidesTheOlderOnes) {
  LoadOver({{0, 100, 70}}, {{20, 60, 71}}, {{40, 80, 72}});
  EXPECT_THAT(ShownPlan(0, 100),
              ElementsAre("70 of 40 bytes: [0 +20) from 0, [80 +20) from 80",
                          "71 of 20 bytes: [20 +20) from 0", "72 of 40 bytes: [40 +40) from 0"));
}

TEST_F(PrefetchPlanTest, WhatWasFetchedAheadBeforeHasNoPartInAPlan) {
  LoadOver({{0, 100, 70}});
  Prefetch({0, 100, 99});
  EXPECT_THAT(ShownPlan(0, 100), ElementsAre("70 of 100 bytes: [0 +100) from 0"));
  EXPECT_THAT(Kept(), ElementsAre(Part{0, 100, 99})) << "the old run covers the new one";
}

// --- what is listed ------------------------------------------------------------------------------

TEST_F(PrefetchPlanTest, ContainersStandInTheOrderMetEachWithItsExtentsByOffset) {
  LoadOver({{0, 10, 75}, {10, 20, 71}, {20, 30, 75, 7}, {30, 40, 64}, {40, 45, 71, 1}});
  EXPECT_THAT(ShownPlan(0, 100), ElementsAre("75 of 20 bytes: [0 +10) from 0, [20 +10) from 7",
                                             "71 of 15 bytes: [10 +10) from 0, [40 +5) from 1",
                                             "64 of 10 bytes: [30 +10) from 0"));
}

TEST_F(PrefetchPlanTest, ExtentsOfIdsBelow64AreNotListedButKept) {
  LoadOver({{0, 10, 0}, {10, 20, 63}, {20, 30, 64}, {30, 40, 63}});
  Cache({40, 50, 1});
  const MillisSwitch millis(1);
  const Plan plan = PlanOf(0, 50);
  EXPECT_THAT(Shown(plan), ElementsAre("64 of 10 bytes: [20 +10) from 0"));
  EXPECT_EQ(1U, plan.front().extents.front().millis) << "nobody asked for the time of the others";
  EXPECT_THAT(Kept(), ElementsAre(Part{0, 10, 0}, Part{10, 20, 63}, Part{20, 30, 64},
                                  Part{30, 40, 63}, Part{40, 50, 1}));
}

TEST_F(PrefetchPlanTest, EachExtentHasTheTimeAtWhichItWasListed) {
  LoadOver({{0, 10, 70}, {10, 20, 71}, {20, 30, 70}});
  const MillisSwitch millis(5000000000);
  const Plan plan = PlanOf(0, 30);
  ASSERT_EQ(2U, plan.size());
  EXPECT_EQ(5000000000U, plan.front().extents.at(0).millis);
  EXPECT_EQ(5000000001U, plan.back().extents.at(0).millis);
  EXPECT_EQ(5000000002U, plan.front().extents.at(1).millis);
}

TEST_F(PrefetchPlanTest, AnExtentIsListedWithAllOfItsObjectIdAndItsContainerOffset) {
  const ObjectID cached = zefs::test::Oid(1UL << 40, 0x01020304);
  LoadRecords({RecordOf({0, 10, 70}, 4711), RecordOf({10, 20, 71}, -2)});
  table().insert(20, 30, &cached, 0, 0, nullptr, 12, nullptr);
  std::vector<std::pair<int, ObjectID>> listed;
  for (const DCInfo& info : PlanOf(0, 30)) {
    EXPECT_EQ(kTag, info.rangeTag);
    EXPECT_EQ(0U, info.reserved);
    listed.emplace_back(info.extents.at(0).dcOffset, info.extents.at(0).objectID);
  }
  ASSERT_EQ(3U, listed.size());
  const ObjectID expected[] = {OidOf({0, 10, 70}), OidOf({10, 20, 71}), cached};
  const int offsets[] = {4711, -2, 12};
  for (std::size_t i = 0; i < listed.size(); ++i) {
    const ObjectID& oid = listed[i].second;
    EXPECT_EQ(offsets[i], listed[i].first);
    EXPECT_EQ(zefs::test::Written(0, 1, expected[i]), zefs::test::Written(0, 1, oid));
  }
}

TEST_F(PrefetchPlanTest, LengthsSumsAndObjectOffsetsAreLow32Bits) {
  constexpr long k4GiB = 1L << 32;
  LoadRecords({RecordOf({0, k4GiB, 70}), RecordOf({k4GiB, 2 * k4GiB + 5, 70, 0xffffffff}),
               RecordOf({2 * k4GiB + 5, 3 * k4GiB, 70})});
  EXPECT_THAT(ShownPlan(0, 3 * k4GiB),
              ElementsAre("70 of 0 bytes: [0 +0) from 0, [4294967296 +5) from 4294967295, "
                          "[8589934597 +4294967291) from 0"));
  EXPECT_EQ(-1, Kept().at(1).objOff) << "what is kept has the offset as it is read";
}

TEST_F(PrefetchPlanTest, ADatabaseExtentCutBehind4GiBIsListedWithTheLowHalfOfItsObjectOffset) {
  constexpr long k4GiB = 1L << 32;
  LoadOver({{0, 2 * k4GiB, 70, 3}});
  Cache({0, k4GiB + 4, 71});
  EXPECT_THAT(ShownPlan(k4GiB + 4, k4GiB + 5),
              ElementsAre("70 of 4294967292 bytes: [4294967300 +4294967292) from 7"));
  EXPECT_EQ(k4GiB + 7, Kept().at(0).objOff) << "the table keeps all of it";
}

TEST_F(PrefetchPlanTest, AnEarlierPlanInTheSameListIsLeftAlone) {
  LoadOver({{0, 10, 70}, {10, 20, 71}});
  Plan plan;
  table().GetDCInfoList({0, 20, 1}, &plan);
  plan.front().reserved = 99;
  table().GetDCInfoList({0, 20, 2}, &plan);
  EXPECT_THAT(Shown(plan),
              ElementsAre("70 of 10 bytes: [0 +10) from 0", "71 of 10 bytes: [10 +10) from 0",
                          "70 of 10 bytes: [0 +10) from 0", "71 of 10 bytes: [10 +10) from 0"));
  std::vector<std::uint32_t> tags;
  for (const DCInfo& info : plan) {
    tags.push_back(info.rangeTag);
  }
  EXPECT_THAT(tags, ElementsAre(1, 1, 2, 2));
  EXPECT_EQ(99U, plan.front().reserved);
}

TEST_F(PrefetchPlanTest, AContainerThatIsThereGetsTheExtentTheSumAndTheTagAndNothingElse) {
  Make();
  Plan plan(2);
  DCInfo& info = plan.front();
  info.dcid = 70;
  info.totalBytes = UINT32_MAX;
  info.reserved = 99;
  info.rangeTag = 1;
  std::map<unsigned long, DCInfo*> byDcid{{70, &info}};
  Peer::CheckAndFill(&plan, &byDcid, ExtOf({5, 15, 70, (1L << 40) + 2}), {0, 5, 8});
  EXPECT_THAT(Shown(plan), ElementsAre("70 of 9 bytes: [5 +10) from 2 behind", "0 of 0 bytes:"));
  EXPECT_EQ(99U, info.reserved);
  EXPECT_EQ(8U, info.rangeTag);
  EXPECT_EQ(1U, byDcid.size());

  Peer::CheckAndFill(&plan, &byDcid, ExtOf({20, 30, 63}), {0, 40, 9});
  EXPECT_EQ(2U, plan.size());
  EXPECT_EQ(1U, byDcid.size());
  EXPECT_EQ(8U, info.rangeTag);

  Peer::CheckAndFill(&plan, &byDcid, ExtOf({20, 30, 64}), {0, 21, 9});
  EXPECT_EQ(3U, plan.size()) << "a new one stands last";
  EXPECT_EQ(&plan.back(), byDcid.at(64));
  EXPECT_THAT(Shown(plan).back(), "64 of 10 bytes: [20 +10) from 0");
}

// --- what is kept --------------------------------------------------------------------------------

TEST_F(PrefetchPlanTest, WithPrefetchingOffThePlanIsTheSameAndNothingIsKept) {
  LoadOver({{0, 100, 70}}, {{20, 30, 71}});
  Cache({50, 60, 72});
  const auto planned = ShownPlan(0, 100);
  EXPECT_THAT(planned, testing::SizeIs(3));
  EXPECT_THAT(Kept(), testing::SizeIs(5));
  peer().prefetchExts().clear();
  Prefetch({500, 600, 99});
  Set(&FileSystemDaemonConfig::prefetchEnabled, 0);
  EXPECT_EQ(planned, ShownPlan(0, 100));
  EXPECT_THAT(Kept(), ElementsAre(Part{500, 600, 99}));
}

TEST_F(PrefetchPlanTest, AnyNumberButZeroSwitchesPrefetchingOn) {
  LoadOver({{0, 100, 70}});
  for (const std::int32_t enabled : {-1, 2, INT32_MIN}) {
    peer().prefetchExts().clear();
    Set(&FileSystemDaemonConfig::prefetchEnabled, enabled);
    PlanOf(0, 100);
    EXPECT_THAT(Kept(), ElementsAre(Part{0, 100, 70}));
  }
}

TEST_F(PrefetchPlanTest, APlanKeepsItsExtentsIfPrefetchingWasOnAtItsBeginningAndIsAtItsEnd) {
  LoadOver({{0, 50, 70}, {50, 100, 71}});
  for (const std::int32_t first : {0, 1}) {
    Set(&FileSystemDaemonConfig::prefetchEnabled, first);
    const MillisSwitch millis(
        1, [&] { Set(&FileSystemDaemonConfig::prefetchEnabled, first == 0 ? 1 : 0); });
    EXPECT_THAT(ShownPlan(0, 100), testing::SizeIs(2));
    EXPECT_THAT(Kept(), IsEmpty());
  }
}

TEST_F(PrefetchPlanTest, KeptExtentsHaveTheNodeAndTheTableAndAreReadBeforeTheDatabases) {
  LoadRecords({RecordOf({0, 100, 70}, 33)});
  int node = 0;
  Cache({40, 60, 71}, &node);
  PlanOf(0, 100);
  std::vector<const void*> nodes;
  for (const ExtLMDB& ext : peer().prefetchExts()) {
    nodes.push_back(ext.data);
    EXPECT_EQ(&table(), ext.owner_);
    EXPECT_EQ(ext.objectID.dcid == 70 ? 33 : -1, ext.dcOffset);
    EXPECT_EQ(zefs::test::Written(0, 1, OidOf({0, 1, ext.objectID.dcid})),
              zefs::test::Written(0, 1, ext.objectID));
  }
  EXPECT_THAT(nodes, ElementsAre(nullptr, &node, nullptr));

  const WatchCalls watch(Directory().string());
  EXPECT_THAT(At(0), Optional(Part{0, 40, 70}));
  EXPECT_THAT(At(50), Optional(Part{40, 60, 71}));
  EXPECT_THAT(At(99), Optional(Part{60, 100, 70, 60}));
  EXPECT_EQ(0, Faults::Count(Call::kMdbTxnBegin));
}

TEST_F(PrefetchPlanTest, ASecondPlanIsMergedWithinTheSpan) {
  LoadOver({{0, 50, 70}, {50, 100, 71}, {100, 150, 72}, {150, 200, 73}});
  PlanOf(0, 150);
  EXPECT_THAT(Kept(), testing::SizeIs(3));
  Set(&FileSystemDaemonConfig::prefetchSpanBytes, 50U);
  PlanOf(100, 200);
  EXPECT_THAT(Kept(), ElementsAre(Part{50, 100, 71}, Part{100, 150, 72}, Part{150, 200, 73}));
  Set(&FileSystemDaemonConfig::prefetchSpanBytes, 0U);
  PlanOf(0, 40);
  EXPECT_THAT(Kept(), ElementsAre(Part{0, 50, 70})) << "it touches the old run, of which nothing "
                                                       "begins where it begins";
}

TEST_F(PrefetchPlanTest, ARunIsMergedOnlyIfPrefetchingIsOnAndThereIsOne) {
  Make();
  Prefetch({0, 10, 99});
  const CMappingTable::UniqueLock held(peer().prefetchLock());  // whoever took it would wait
  std::vector<ExtLMDB> none;
  peer().SafeMoveToExtCache(&none);
  Set(&FileSystemDaemonConfig::prefetchEnabled, 0);
  std::vector<ExtLMDB> one{ExtOf({5, 15, 70})};
  peer().SafeMoveToExtCache(&one);
  EXPECT_THAT(Kept(), ElementsAre(Part{0, 10, 99}));
}

// --- the data object of the table ----------------------------------------------------------------

TEST_F(PrefetchPlanTest, APlanChangesNothingThatTheHostIsToldOfChanges) {
  LoadOver({{0, 100, 70}});
  peer().dataChanged() = false;
  ObjectID doid = zefs::test::Oid(99);
  peer().doid() = doid;
  PlanOf(0, 100);
  EXPECT_FALSE(table().IsDataChanged());
  EXPECT_EQ(0, table().GetDOID(&doid));
}

}  // namespace
