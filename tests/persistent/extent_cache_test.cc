// Where a write stops: which entries of the extent cache it leaves, cut or erased, and which keys
// it leaves for the flush.

#include <climits>
#include <cstdlib>
#include <tuple>
#include <utility>

#include <gmock/gmock.h>

#include "support/cpu_counters.h"
#include "tests/persistent/extent_cache_fixture.h"
#include "tests/support/fault_injection.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using zefs::test::Call;
using zefs::test::Faults;
using zefs::test::NoOverlapLine;
using zefs::test::Oid;
using zefs::test::Piece;
using zefs::test::WriteLine;
using zefs::test::Written;

using Offsets = std::vector<long>;

class ExtentCacheWriteTest : public zefs::test::ExtentCacheTest {
 protected:
  const ObjectID old_ = Oid(70, 1);
  const ObjectID new_ = Oid(80, 9);
};

// --- what a write stores
// --------------------------------------------------------------------------

TEST_F(ExtentCacheWriteTest, IntoAnEmptyCacheStoresOneEntry) {
  const auto node = cache_.NewNode();
  peer().dataChanged() = false;
  EXPECT_EQ(0, table().insert(100, 200, &new_, 7, 0, node, 33, nullptr));
  EXPECT_THAT(Extents(), ElementsAre(Written(100, 200, new_, 7, 33)));
  EXPECT_EQ((Nodes{{200, node}}), NodesByKey());
  EXPECT_THAT(SharedNodes(), IsEmpty());
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(PendingKeys(), ElementsAre(200));
  EXPECT_EQ(200, peer().fileSize());
  EXPECT_EQ(-1, peer().committedFileSize());
  EXPECT_TRUE(peer().dataChanged());
  EXPECT_THAT(cache_.asked_, IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(100, 200, 7, node)));
}

TEST_F(ExtentCacheWriteTest, WithoutAnObjectIdStoresZeros) {
  EXPECT_EQ(0, table().insert(0, 10, nullptr, 5, 0, nullptr, -2, nullptr));
  EXPECT_THAT(Extents(), ElementsAre(Written(0, 10, ObjectID{}, 5, -2)));
  EXPECT_THAT(NodesByKey(), IsEmpty());
}

TEST_F(ExtentCacheWriteTest, WithoutAnObjectIdKeepsNothingOfTheEntryThatItReplaces) {
  Write(0, 10, old_);
  EXPECT_EQ(0, table().insert(0, 10, nullptr, 0, 0, nullptr, -1, nullptr));
  EXPECT_THAT(Extents(), ElementsAre(Written(0, 10, ObjectID{})));
}

TEST_F(ExtentCacheWriteTest, KeepsTheLowThirtyTwoBitsOfTheObjectOffset) {
  const struct {
    long given;
    std::int32_t kept;
  } kCases[] = {{0, 0},           {INT32_MAX, INT32_MAX}, {0x80000000, INT32_MIN},
                {0xffffffff, -1}, {0x100000000, 0},       {0x7fffffff00000005, 5},
                {-3, -3}};
  for (const auto& offset : kCases) {
    Write(0, 10, new_, nullptr, offset.given);
    EXPECT_THAT(Extents(), ElementsAre(Written(0, 10, new_, offset.kept))) << offset.given;
    EXPECT_THAT(Lines(), ElementsAre(WriteLine(0, 10, offset.given, nullptr))) << "all bits";
  }
}

TEST_F(ExtentCacheWriteTest, HasNoUseForAChecksumOrATraceFile) {
  char* text = nullptr;
  std::size_t size = 0;
  FILE* const trace = open_memstream(&text, &size);
  EXPECT_EQ(0, table().insert(0, 10, &new_, 0, 0x1234, nullptr, -1, trace));
  EXPECT_EQ(0, table().insert(4, 6, &new_, 0, 0x1234, nullptr, -1, trace));
  EXPECT_EQ(0, table().append(10, 20, &new_, 0, 0x1234, nullptr, trace));
  std::fclose(trace);
  EXPECT_EQ(0U, size);
  std::free(text);
  EXPECT_THAT(Extents(), ElementsAre(Piece(0, 4, new_), Written(4, 6, new_), Piece(6, 10, new_, 6),
                                     Written(10, 20, new_)));
}

TEST_F(ExtentCacheWriteTest, AtTheLargestOffsetIsStoredAndCutAsAnyOther) {
  Write(0, LONG_MAX, old_);
  Write(LONG_MAX - 1, LONG_MAX, new_);
  EXPECT_THAT(Extents(),
              ElementsAre(Piece(0, LONG_MAX - 1, old_), Written(LONG_MAX - 1, LONG_MAX, new_)));
  EXPECT_EQ(LONG_MAX, peer().fileSize());
}

TEST_F(ExtentCacheWriteTest, OfNoBytesChangesNothing) {
  const auto node = cache_.NewNode();
  const auto other = cache_.NewNode();
  Write(0, 100, old_, node);
  Write(40, 60, old_, other);
  const auto extents = Extents();
  const auto nodes = NodesByKey();
  const auto shares = SharedNodes();
  ForgetSteps();
  peer().dataChanged() = false;
  for (const auto& [sOff, eOff] : std::vector<std::pair<long, long>>{{50, 50},
                                                                     {50, 49},
                                                                     {0, 0},
                                                                     {100, 100},
                                                                     {200, 200},
                                                                     {90, 10},
                                                                     {LONG_MAX, LONG_MAX},
                                                                     {LONG_MAX, LONG_MIN}}) {
    EXPECT_EQ(0, table().insert(sOff, eOff, &new_, 0, 0, node, 1, nullptr));
    EXPECT_EQ(0, table().append(sOff, eOff, &new_, 0, 0, nullptr, nullptr));
  }
  EXPECT_EQ(extents, Extents());
  EXPECT_EQ(nodes, NodesByKey());
  EXPECT_EQ(shares, SharedNodes());
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(PendingKeys(), IsEmpty());
  EXPECT_EQ(100, peer().fileSize());
  EXPECT_FALSE(peer().dataChanged());
  EXPECT_THAT(cache_.asked_, IsEmpty());
  EXPECT_THAT(Lines(), IsEmpty());
}

// --- what a write cuts
// ----------------------------------------------------------------------------

TEST_F(ExtentCacheWriteTest, LeavesAnEntryThatEndsWhereItStarts) {
  const auto node = cache_.NewNode();
  Write(0, 100, old_, node, 5, 6);
  ForgetSteps();
  Write(100, 150, new_);
  EXPECT_THAT(Extents(), ElementsAre(Written(0, 100, old_, 5, 6), Written(100, 150, new_)));
  EXPECT_THAT(PendingKeys(), ElementsAre(150));
  EXPECT_THAT(cache_.asked_, IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(100, 150, 0, nullptr)));
}

TEST_F(ExtentCacheWriteTest, EndsItsScanAtAnEntryThatStartsWhereItEnds) {
  const auto node = cache_.NewNode();
  Write(150, 200, old_, node, 5, 6);
  Write(200, 300, old_, node);
  ForgetSteps();
  Write(100, 150, new_);
  EXPECT_THAT(Extents(), ElementsAre(Written(100, 150, new_), Written(150, 200, old_, 5, 6),
                                     Written(200, 300, old_)));
  EXPECT_THAT(PendingKeys(), ElementsAre(150));
  EXPECT_EQ((Nodes{{200, node}, {300, node}}), NodesByKey());
  EXPECT_THAT(cache_.asked_, IsEmpty());
  EXPECT_THAT(Lines(),
              ElementsAre(WriteLine(100, 150, 0, nullptr), NoOverlapLine(150, 200, 100, 150)));
}

TEST_F(ExtentCacheWriteTest, EndsItsScanAtAnEntryBehindAHole) {
  Write(180, 200, old_);
  ForgetSteps();
  Write(100, 150, new_);
  EXPECT_THAT(Extents(), ElementsAre(Written(100, 150, new_), Written(180, 200, old_)));
  EXPECT_THAT(Lines(),
              ElementsAre(WriteLine(100, 150, 0, nullptr), NoOverlapLine(180, 200, 100, 150)));
}

TEST_F(ExtentCacheWriteTest, EqualToAnEntryReplacesIt) {
  Write(100, 200, old_, nullptr, 5, 6);
  ForgetSteps();
  Write(100, 200, new_, nullptr, 7, 8);
  EXPECT_THAT(Extents(), ElementsAre(Written(100, 200, new_, 7, 8)));
  EXPECT_THAT(PendingKeys(), ElementsAre(200));
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(100, 200, 7, nullptr)));
}

TEST_F(ExtentCacheWriteTest, CoveringAnEntryReplacesIt) {
  Write(120, 180, old_);
  ForgetSteps();
  Write(100, 200, new_);
  EXPECT_THAT(Extents(), ElementsAre(Written(100, 200, new_)));
  EXPECT_THAT(PendingKeys(), ElementsAre(200));
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(100, 200, 0, nullptr)));
}

TEST_F(ExtentCacheWriteTest, InsideAnEntryLeavesItsHeadAndItsTail) {
  Write(100, 200, old_, nullptr, 5, 6);
  ForgetSteps();
  Write(130, 160, new_);
  EXPECT_THAT(Extents(), ElementsAre(Piece(100, 130, old_, 5, 6), Written(130, 160, new_),
                                     Piece(160, 200, old_, 5 + 60, 6)));
  EXPECT_THAT(PendingKeys(), ElementsAre(200, 130, 160)) << "tail, head, the write";
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(130, 160, 0, nullptr)));
}

TEST_F(ExtentCacheWriteTest, OverTheTailOfAnEntryLeavesItsHead) {
  for (const long eOff : {200L, 250L}) {
    Write(100, 200, old_, nullptr, 5, 6);
    ForgetSteps();
    Write(130, eOff, new_);
    EXPECT_THAT(Extents(), ElementsAre(Piece(100, 130, old_, 5, 6), Written(130, eOff, new_)));
    EXPECT_THAT(PendingKeys(), ElementsAre(130, eOff));
    EXPECT_THAT(Lines(), ElementsAre(WriteLine(130, eOff, 0, nullptr)));
    peer().ResetCache();
  }
}

TEST_F(ExtentCacheWriteTest, OverTheHeadOfAnEntryLeavesItsTailUnderTheOldKey) {
  for (const long sOff : {100L, 50L}) {
    Write(100, 200, old_, nullptr, 5, 6);
    ForgetSteps();
    Write(sOff, 160, new_);
    EXPECT_THAT(Extents(), ElementsAre(Written(sOff, 160, new_), Piece(160, 200, old_, 5 + 60, 6)));
    EXPECT_THAT(PendingKeys(), ElementsAre(200, 160));
    EXPECT_THAT(Lines(), ElementsAre(WriteLine(sOff, 160, 0, nullptr)));
    peer().ResetCache();
  }
}

TEST_F(ExtentCacheWriteTest, OverSeveralEntriesCutsTheOuterAndErasesTheInner) {
  const ObjectID second = Oid(71, 2), third = Oid(72, 3), fourth = Oid(73, 4), fifth = Oid(74, 5);
  Write(0, 20, fifth);
  Write(20, 40, old_, nullptr, 1000);
  Write(50, 60, second);
  Write(60, 70, third);
  Write(80, 100, fourth, nullptr, 2000);
  Write(100, 120, fifth);
  ForgetSteps();
  Write(30, 90, new_);
  EXPECT_THAT(Extents(),
              ElementsAre(Written(0, 20, fifth), Piece(20, 30, old_, 1000), Written(30, 90, new_),
                          Piece(90, 100, fourth, 2010), Written(100, 120, fifth)));
  EXPECT_THAT(PendingKeys(), ElementsAre(30, 100, 90));
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(30, 90, 0, nullptr), NoOverlapLine(100, 120, 30, 90)));
}

TEST_F(ExtentCacheWriteTest, PiecesLoseTheByteAndTheFlagAttributeAndKeepTheWord) {
  ObjectID oid = old_;
  oid.attrByte = 0xaa;
  oid.attrWord = 0xbbbbbbbb;
  oid.attrFlag = 0xcc;
  Write(0, 100, oid);
  EXPECT_THAT(Extents(), ElementsAre(Written(0, 100, oid))) << "a write keeps all three";
  Write(40, 50, oid);
  for (const auto& extent : Extents()) {
    const bool piece = extent.eOff != 50;
    EXPECT_EQ(piece ? 0 : 0xaa, extent.attrByte);
    EXPECT_EQ(0xbbbbbbbbU, extent.attrWord);
    EXPECT_EQ(piece ? 0 : 0xcc, extent.attrFlag);
  }
}

TEST_F(ExtentCacheWriteTest, PiecesOfPiecesKeepTheirPlaceInTheObject) {
  Write(0, 1000, old_, nullptr, 50, 7);
  Write(100, 200, new_);
  Write(500, 600, new_);
  Write(850, 900, new_);
  Write(300, 400, new_);
  EXPECT_THAT(Extents(), ElementsAre(Piece(0, 100, old_, 50, 7), Written(100, 200, new_),
                                     Piece(200, 300, old_, 250, 7), Written(300, 400, new_),
                                     Piece(400, 500, old_, 450, 7), Written(500, 600, new_),
                                     Piece(600, 850, old_, 650, 7), Written(850, 900, new_),
                                     Piece(900, 1000, old_, 950, 7)));
}

TEST_F(ExtentCacheWriteTest, TheObjectOffsetOfATailWrapsAroundInThirtyTwoBits) {
  Write(0, 100, old_, nullptr, INT32_MAX - 5);
  Write(10, 20, new_);
  EXPECT_THAT(Extents(), ElementsAre(Piece(0, 10, old_, INT32_MAX - 5), Written(10, 20, new_),
                                     Piece(20, 100, old_, INT32_MIN + 14)));
  peer().ResetCache();
  Write(0, 0x300000000, old_, nullptr, 3);
  Write(0, 0x200000004, new_);
  EXPECT_THAT(Extents(),
              ElementsAre(Written(0, 0x200000004, new_), Piece(0x200000004, 0x300000000, old_, 7)));
}

// --- what a write leaves for later
// ----------------------------------------------------------------

TEST_F(ExtentCacheWriteTest, EveryRewriteOfAKeyWaitsForTheFlushOnceMore) {
  for (int i = 0; i < 3; ++i) {
    Write(0, 100, new_);
  }
  EXPECT_THAT(PendingKeys(), ElementsAre(100, 100, 100));
  Write(40, 50, new_);
  EXPECT_THAT(PendingKeys(), ElementsAre(100, 100, 100, 100, 40, 50));
  Write(0, 200, new_);
  EXPECT_THAT(PendingKeys(), ElementsAre(100, 100, 100, 100, 40, 50, 200))
      << "keys that left the cache stay";
}

TEST_F(ExtentCacheWriteTest, NeverShrinksTheFileSize) {
  EXPECT_EQ(-1, peer().fileSize());
  const struct {
    long sOff, eOff, size;
  } kSteps[] = {{50, 100, 100}, {0, 10, 100}, {20, 100, 100}, {90, 101, 101}, {0, 101, 101}};
  for (const auto& step : kSteps) {
    Write(step.sOff, step.eOff, new_);
    EXPECT_EQ(step.size, peer().fileSize());
    EXPECT_EQ(step.size, table().getFileSize());
  }
  peer().fileSize() = 5000;
  Write(0, 4999, new_);
  EXPECT_EQ(5000, peer().fileSize());
}

TEST_F(ExtentCacheWriteTest, MarksTheTableAsChangedEachTime) {
  for (int i = 0; i < 2; ++i) {
    peer().dataChanged() = false;
    Write(0, 10, new_);
    EXPECT_TRUE(peer().dataChanged());
  }
}

TEST_F(ExtentCacheWriteTest, TheCacheUpdateAloneDoesAsTheWrite) {
  Write(0, 100, old_);
  ForgetSteps();
  EXPECT_EQ(0, peer().insert2Cache(40, 60, &new_, 3, nullptr, 4));
  EXPECT_THAT(Extents(), ElementsAre(Piece(0, 40, old_), Written(40, 60, new_, 3, 4),
                                     Piece(60, 100, old_, 60)));
  EXPECT_THAT(PendingKeys(), ElementsAre(100, 40, 60));
}

TEST_F(ExtentCacheWriteTest, TouchesNoFileAndNoDatabase) {
  Write(0, 10, new_);
  EXPECT_FALSE(boost::filesystem::exists(Directory())) << "not even the directory is needed";
  Destroy();
  Load(ZEFS_GENERIC_STR);
  Faults::OnlyBelow(Directory().string());
  Write(0, 100, old_, cache_.NewNode());
  Write(40, 50, new_, cache_.NewNode());
  EXPECT_EQ(0, table().append(100, 200, &new_, 0, 0, nullptr, nullptr));
  for (std::size_t call = 0; call < zefs::test::kCalls; ++call) {
    EXPECT_EQ(0, Faults::Count(static_cast<Call>(call))) << call;
  }
  Faults::Reset();
}

TEST_F(ExtentCacheWriteTest, IsAccountedUnderItsName) {
  using Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu;
  const bool enabled = std::exchange(AutoLogCpu::enabled_, true);
  const bool initialized = std::exchange(AutoLogCpu::initialized_, true);
  Write(0, 10, new_);
  AutoLogCpu::enabled_ = enabled;
  AutoLogCpu::initialized_ = initialized;
  EXPECT_EQ(1U, mapping_lmdb_cpu_counters.count("insert"));
}

// --- append, SetObjectID
// --------------------------------------------------------------------------

TEST_F(ExtentCacheWriteTest, AppendStoresNoContainerOffset) {
  const auto node = cache_.NewNode();
  EXPECT_EQ(0, table().append(100, 200, &new_, 7, 0, node, nullptr));
  EXPECT_THAT(Extents(), ElementsAre(Written(100, 200, new_, 7, -1)));
  EXPECT_EQ((Nodes{{200, node}}), NodesByKey());
}

TEST_F(ExtentCacheWriteTest, AppendCutsAsAnyWrite) {
  Write(0, 200, old_);
  EXPECT_EQ(0, table().append(50, 100, &new_, 0, 0, nullptr, nullptr));
  EXPECT_THAT(Extents(),
              ElementsAre(Piece(0, 50, old_), Written(50, 100, new_), Piece(100, 200, old_, 100)));
}

/// A table whose own insert says what it was called with.
class OverridingTable final : public CMappingLMDB {
 public:
  using CMappingLMDB::CMappingLMDB;

  int insert(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum, void* data,
             int dcOffset, FILE* trace) override {
    seen_ = std::make_tuple(sOff, eOff, oid, objOff, objCksum, data, dcOffset, trace);
    return 4711;
  }

  std::tuple<long, long, const ObjectID*, long, long, void*, int, FILE*> seen_;
};

TEST_F(ExtentCacheWriteTest, AppendGoesThroughAnOverriddenInsert) {
  OverridingTable overriding(&cache_, ZEFS_PROVISION_STR);
  int node = 0;
  CMappingTable& asTable = overriding;
  EXPECT_EQ(4711, asTable.append(1, 2, &new_, 3, 4, &node, stderr));
  EXPECT_EQ(std::make_tuple(1L, 2L, &new_, 3L, 4L, static_cast<void*>(&node), -1, stderr),
            overriding.seen_);
  EXPECT_THAT(Peer(overriding).extCache(), IsEmpty());
}

TEST_F(ExtentCacheWriteTest, SetObjectIdChangesNeitherTheExtentNorTheTable) {
  const auto node = cache_.NewNode();
  Write(0, 100, old_, node);
  ForgetSteps();
  peer().dataChanged() = false;
  Ext ext(0, 100, &old_, 0, 0, node);
  table().SetObjectID(&ext, new_);
  EXPECT_EQ(old_.dcid, ext.objectID.dcid);
  EXPECT_EQ(old_.fp, ext.objectID.fp);
  table().SetObjectID(nullptr, new_);
  EXPECT_THAT(Extents(), ElementsAre(Written(0, 100, old_)));
  EXPECT_EQ((Nodes{{100, node}}), NodesByKey());
  EXPECT_THAT(PendingKeys(), IsEmpty());
  EXPECT_FALSE(peer().dataChanged());
  EXPECT_THAT(Lines(), IsEmpty());
}

}  // namespace
