// What a look-up finds in memory: the cached extents, what they hide of the databases, and the
// prefetched extents in front of both.

#include <climits>

#include <gmock/gmock.h>

#include "tests/persistent/read_path_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;
using testing::StartsWith;
using zefs::test::Part;
using zefs::test::PartOf;

const std::optional<Part> kNothing;

class ReadPathMemoryTest : public zefs::test::ReadPathTest {};

// --- cache ---------------------------------------------------------------------------------------

TEST_F(ReadPathMemoryTest, ACachedExtentShowsWithEverythingButItsChecksum) {
  CMappingLMDB& table = LoadOver({});
  int node = 0;
  const ObjectID oid = zefs::test::Oid(70, 9);
  table.insert(10, 20, &oid, 30, 55, &node, 66, nullptr);
  auto found = table.lower_bound(15, nullptr);
  EXPECT_EQ((Part{10, 20, 70, 30}), PartOf(*found));
  EXPECT_EQ(oid.fp, found->objectID.fp);
  EXPECT_EQ(oid.attrByte, found->objectID.attrByte);
  EXPECT_EQ(oid.attrWord, found->objectID.attrWord);
  EXPECT_EQ(oid.attrFlag, found->objectID.attrFlag);
  EXPECT_EQ(0, found->objCksum);
  EXPECT_EQ(66, found->dcOffset);
  EXPECT_EQ(&node, found->data);
  EXPECT_EQ(&table, dynamic_cast<ExtLMDB&>(*found).owner_);
}

TEST_F(ReadPathMemoryTest, AnEntryIsMadeAnExtentWithTheNodeOfItsKeyOrNone) {
  LoadOver({});
  int node = 0;
  Cache({10, 20, 70, 3}, &node);
  Cache({30, 40, 71, 4});
  ExtLMDB out;
  peer().getExtLMDBFromExtLMDBEntry(20, &peer().extCache().at(20), &out);
  EXPECT_EQ((Part{10, 20, 70, 3}), PartOf(out));
  EXPECT_EQ(&node, out.data);
  EXPECT_EQ(&table(), out.owner_);
  peer().getExtLMDBFromExtLMDBEntry(40, &peer().extCache().at(40), &out);
  EXPECT_EQ((Part{30, 40, 71, 4}), PartOf(out));
  EXPECT_EQ(nullptr, out.data);
}

TEST_F(ReadPathMemoryTest, ACacheEntryBehindTheOffsetWithNothingOlderIsTheAnswer) {
  const Part cached{10, 20, 70};
  LoadOver({});
  Cache(cached);
  EXPECT_THAT(At(3), Optional(cached));
  EXPECT_THAT(InCacheAt(3), Optional(cached));
}

TEST_F(ReadPathMemoryTest, ACachedExtentThatBeginsWithAnOlderOneWinsOutright) {
  const Part cached{10, 12, 71};
  LoadOver({{10, 100, 70}});
  Cache(cached);
  EXPECT_THAT(At(5), Optional(cached));
  EXPECT_THAT(Lines(), Not(Contains(StartsWith("0 modify"))));
  EXPECT_THAT(At(12), Optional(Part{12, 100, 70, 2}));
}

TEST_F(ReadPathMemoryTest, AnOlderExtentShowsInTheGapsBetweenCachedOnes) {
  const Part first{20, 30, 71};
  const Part second{50, 60, 72};
  LoadOver({{10, 100, 70, 7}});
  Cache(first);
  Cache(second);
  log_.Take();

  EXPECT_THAT(At(0), Optional(Part{10, 20, 70, 7}));
  EXPECT_THAT(Lines(), Contains("0 modify end 100 to 20"));
  EXPECT_THAT(At(25), Optional(first));
  EXPECT_THAT(Lines(), Not(Contains(HasSubstr("lowerBoundDB")))) << "the databases are not asked";
  EXPECT_THAT(At(30), Optional(Part{30, 50, 70, 27}));
  const auto lines = Lines();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_THAT(std::vector<std::string>(lines.end() - 3, lines.end()),
              ElementsAre("0 modify end 100 to 50", "0 modify start 10 to 30, add objOffset 20",
                          "0 CMappingLMDB::end()"));
  EXPECT_THAT(At(60), Optional(Part{60, 100, 70, 57}));
  EXPECT_THAT(Lines(), Contains("0 modify start 10 to 60, add objOffset 50"));
}

TEST_F(ReadPathMemoryTest, CachedNeighboursThatTouchClipNothing) {
  const Part middle{20, 40, 70, 9};
  LoadOver({middle});
  Cache({10, 20, 71});
  Cache({40, 50, 72});
  EXPECT_THAT(At(20), Optional(middle));
  EXPECT_THAT(Lines(), Not(Contains(StartsWith("0 modify"))));
}

TEST_F(ReadPathMemoryTest, CacheAndEachDatabaseHideWhatIsOlder) {
  LoadOver({{0, 100, 70}}, {{10, 90, 71}}, {{20, 80, 72}});
  Cache({30, 70, 73});
  EXPECT_THAT(At(0), Optional(Part{0, 10, 70, 0}));
  EXPECT_THAT(At(10), Optional(Part{10, 20, 71, 0}));
  EXPECT_THAT(At(20), Optional(Part{20, 30, 72, 0}));
  EXPECT_THAT(At(30), Optional(Part{30, 70, 73, 0}));
  EXPECT_THAT(At(70), Optional(Part{70, 80, 72, 50}));
  EXPECT_THAT(At(80), Optional(Part{80, 90, 71, 70}));
  EXPECT_THAT(At(90), Optional(Part{90, 100, 70, 90}));
}

TEST_F(ReadPathMemoryTest, ALookUpInTheCacheSeesNothingElseAndClipsNothing) {
  const Part cached{10, 20, 70, 3};
  LoadOver({{0, 5, 71}}, {{12, 30, 72}});
  Cache(cached);
  log_.Take();
  EXPECT_THAT(InCacheAt(0), Optional(cached));
  EXPECT_THAT(Lines(),
              ElementsAre("0 CMappingLMDB::lower_bound_in_cache(), vOffset=0",
                          "0 CMappingLMDB::GetNextExtentInCache(), vOffset=0",
                          "0 CMappingLMDB::ExtLMDBEntry::FillExtLMDB(), start=10, end=20, dcid=70, "
                          "offset=3, data=(nil)",
                          "0 CMappingLMDB::end()"));
  EXPECT_EQ(kNothing, InCacheAt(20));
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::lower_bound_in_cache(), vOffset=20",
                                   "0 CMappingLMDB::GetNextExtentInCache(), vOffset=20",
                                   "0 CMappingLMDB::end()"));
}

TEST_F(ReadPathMemoryTest, NothingThatIsReadFromADatabaseIsKeptInTheCache) {
  LoadOver({{10, 20, 70}});
  EXPECT_THAT(At(10), Optional(Part{10, 20, 70}));
  EXPECT_THAT(peer().extCache(), IsEmpty());
  EXPECT_THAT(peer().prefetchExts(), IsEmpty());
  EXPECT_EQ(kNothing, InCacheAt(0));
}

// --- prefetched extents
// ----------------------------------------------------------------------------

class PrefetchedTest : public ReadPathMemoryTest {
 protected:
  PrefetchedTest() { Set(&FileSystemDaemonConfig::prefetchEnabled, 1); }

  /// `count` extents of 6 bytes, each 10 behind the one before.
  void PrefetchRun(long count) {
    for (long i = 0; i < count; ++i) {
      Prefetch({10 * i, 10 * i + 6, 80 + static_cast<std::uint64_t>(i)});
    }
  }
};

TEST_F(PrefetchedTest, EachIsFoundByEveryOffsetThatItHoldsAndByNoOther) {
  LoadOver({});
  for (long count = 0; count <= 9; ++count) {
    peer().prefetchExts().clear();
    PrefetchRun(count);
    for (long offset = -1; offset <= 10 * count; ++offset) {
      const long index = offset / 10;
      const bool held = offset >= 0 && index < count && offset % 10 < 6;
      const std::optional<Part> expected =
          held ? std::optional<Part>(
                     Part{10 * index, 10 * index + 6, 80 + static_cast<std::uint64_t>(index)})
               : kNothing;
      EXPECT_EQ(expected, At(offset)) << "at " << offset << " of " << count;
    }
  }
}

TEST_F(PrefetchedTest, ItHidesTheCacheAndTheDatabases) {
  LoadOver({{0, 100, 70}});
  Cache({20, 60, 71});
  Prefetch({30, 40, 72});
  log_.Take();
  EXPECT_THAT(At(30), Optional(Part{30, 40, 72}));
  EXPECT_THAT(Lines(),
              ElementsAre("0 CMappingLMDB::lower_bound(), vOffset=30",
                          "0 CMappingLMDB::GetNextExtent(), vOffset=30", "0 CMappingLMDB::end()"));
  EXPECT_THAT(At(39), Optional(Part{30, 40, 72}));
  EXPECT_THAT(At(40), Optional(Part{20, 60, 71}));
}

TEST_F(PrefetchedTest, ItClipsNothingAndIsNoNextExtentBehindAHole) {
  LoadOver({{0, 20, 70}, {50, 60, 70}});
  Prefetch({10, 15, 72});
  Prefetch({30, 40, 73});
  EXPECT_THAT(At(5), Optional(Part{0, 20, 70})) << "not cut at 10";
  EXPECT_THAT(At(15), Optional(Part{0, 20, 70}));
  EXPECT_THAT(At(25), Optional(Part{50, 60, 70})) << "not the one at 30";
  EXPECT_THAT(At(30), Optional(Part{30, 40, 73}));
}

TEST_F(PrefetchedTest, AllOfItIsCopied) {
  LoadOver({});
  int node = 0;
  Prefetch({10, 20, 70, 1L << 40}, &node);
  peer().prefetchExts().back().objCksum = 5;
  peer().prefetchExts().back().dcOffset = 6;
  peer().prefetchExts().back().owner_ = nullptr;
  const auto found = table().lower_bound(10, nullptr);
  EXPECT_EQ((Part{10, 20, 70, 1L << 40}), PartOf(*found));
  EXPECT_EQ(zefs::test::Oid(70, 70).fp, found->objectID.fp);
  EXPECT_EQ(&node, found->data);
  EXPECT_EQ(5, found->objCksum);
  EXPECT_EQ(6, found->dcOffset);
  EXPECT_EQ(nullptr, dynamic_cast<ExtLMDB&>(*found).owner_);
}

TEST_F(PrefetchedTest, ItIsNotLookedAtWhilePrefetchingIsOff) {
  const Part stored{0, 100, 70};
  LoadOver({stored});
  Prefetch({30, 40, 72});
  Set(&FileSystemDaemonConfig::prefetchEnabled, 0);
  EXPECT_THAT(At(30), Optional(stored));
  Set(&FileSystemDaemonConfig::prefetchEnabled, -1);
  EXPECT_THAT(At(30), Optional(Part{30, 40, 72})) << "any number but 0";
}

TEST_F(PrefetchedTest, ALookUpInTheCacheDoesNotSeeIt) {
  LoadOver({});
  Prefetch({30, 40, 72});
  EXPECT_EQ(kNothing, InCacheAt(30));
}

TEST_F(PrefetchedTest, AStepForwardGoesThroughIt) {
  CMappingLMDB& table = LoadOver({{0, 30, 70}, {40, 50, 70}});
  Prefetch({30, 40, 72});
  auto at = table.begin();
  EXPECT_EQ((Part{0, 30, 70}), PartOf(*at));
  ++at;
  EXPECT_EQ((Part{30, 40, 72}), PartOf(*at));
  ++at;
  EXPECT_EQ((Part{40, 50, 70}), PartOf(*at));
  ++at;
  EXPECT_EQ(table.end(), at);
}

TEST_F(PrefetchedTest, NothingIsFoundAtTheLargestOffset) {
  LoadOver({});
  Prefetch({30, LONG_MAX, 72});
  EXPECT_THAT(At(LONG_MAX - 1), Optional(Part{30, LONG_MAX, 72}));
  EXPECT_EQ(kNothing, At(LONG_MAX));
}

}  // namespace
