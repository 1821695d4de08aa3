// Container offsets that the host finds later: the list of wanted ones, and what a table does with
// the answers.

#include <algorithm>
#include <cerrno>

#include <gmock/gmock.h>

#include "tests/persistent/flush_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/support/held_lock.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using Aldenta::Qnd::Morene::Zefs::ExtLMDB;
using testing::ElementsAre;
using testing::IsEmpty;

const DataCacheNode::ObjectID kOid = Oid(70, 5);
const DataCacheNode::ObjectID kOther = Oid(71, 6);
constexpr std::int32_t kWanted = -1;
constexpr std::int32_t kGivenUp = -2;

/// What the host is asked, or answers, about the extent that starts at `key`.
DCOffset Record(std::int64_t key, const DataCacheNode::ObjectID& oid, std::int64_t dcOffset) {
  return {key, oid.dcid, oid.fp, dcOffset};
}

class BackfillTest : public FlushTest {
 protected:
  using Offsets = std::vector<DCOffset>;

  BackfillTest() { TrackOffsets(); }
  ~BackfillTest() override { Faults::Reset(); }

  /// Each extent of the table that stands in the cache: "[start, end) dcid objectOffset dcOffset".
  std::vector<std::string> InCache() {
    std::vector<std::string> extents;
    for (const auto& [key, entry] : peer().extCache()) {
      ExtLMDB ext;
      entry.FillExtLMDB(&ext, key, nullptr, &table());
      extents.push_back(Shown(ext));
    }
    log_.Take();
    return extents;
  }

  int Backfill(Offsets offsets) {
    const Offsets given = offsets;
    const int ret = table().BackfillDcOffset(offsets);
    EXPECT_EQ(Bytes(given), Bytes(offsets)) << "the list stays the caller's";
    return ret;
  }

  static std::string Bytes(const Offsets& offsets) {
    std::string bytes;
    for (const DCOffset& offset : offsets) {
      Aldenta::Qnd::Morene::Zefs::ObjectID oid;
      oid.dcid = offset.dcid;
      oid.fp = offset.fp;
      bytes += OffsetBytes(offset.key, oid, offset.dcOffset);
    }
    return bytes;
  }

  Offsets List() {
    Offsets list;
    EXPECT_EQ(0, table().GetEmptyDcOffsetList(&list));
    return list;
  }
  bool IsOut() const { return fs::exists(File("dcoffset.tmp")); }
  std::string OnFile() const { return BytesOf(File("dcoffset")); }
};

// --- the list
// --------------------------------------------------------------------------------------

TEST_F(BackfillTest, WithoutAPlaceForTheListNothingIsHandedOut) {
  LoadOver();
  table().AppendToRefreshDcOffsetList(0, 70, kOid.fp);
  log_.Take();
  EXPECT_EQ(-1, table().GetEmptyDcOffsetList(nullptr));
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_EQ(OffsetBytes(0, kOid, kWanted), OnFile());
  EXPECT_FALSE(IsOut());
}

TEST_F(BackfillTest, WithoutAStoreFileTheListStaysAsItIs) {
  LoadOver();
  Offsets list(1);
  EXPECT_EQ(0, table().GetEmptyDcOffsetList(&list));
  EXPECT_EQ(1U, list.size());
  EXPECT_FALSE(IsOut());
}

TEST_F(BackfillTest, WhatAFlushStoredWithoutAnOffsetIsOnTheListAndTheFileIsSetAside) {
  LoadOver();
  WriteKnown(0, 10, kOid, 0, kWanted);
  WriteKnown(20, 30, kOther, 0, 4096);
  WriteKnown(40, 50, kOther, 0, kWanted);
  Flush();
  EXPECT_EQ(Bytes({Record(0, kOid, kWanted), Record(40, kOther, kWanted)}), Bytes(List()));
  EXPECT_TRUE(IsOut());
  EXPECT_FALSE(fs::exists(File("dcoffset")));
}

TEST_F(BackfillTest, AListThatCannotBeOpenedIsTheStoresFailure) {
  LoadOver();
  table().AppendToRefreshDcOffsetList(0, 70, kOid.fp);
  Faults::OnlyBelow(Directory().string());
  Faults::FailNth(Call::kOpen, 1, EACCES);
  Offsets list(1);
  EXPECT_EQ(-1, table().GetEmptyDcOffsetList(&list));
  EXPECT_THAT(list, IsEmpty());
  EXPECT_FALSE(IsOut());
}

TEST_F(BackfillTest, AFreshOffsetIsWantedWhateverTheTableHolds) {
  LoadOver();
  EXPECT_EQ(0, table().AppendToRefreshDcOffsetList(0, 70, kOid.fp));
  EXPECT_EQ(0, table().AppendToRefreshDcOffsetList(1L << 40, 71, kOther.fp));
  EXPECT_EQ(Bytes({Record(0, kOid, kWanted), Record(1L << 40, kOther, kWanted)}), Bytes(List()));
  Set(&Config::dcOffsetTrackingEnabled, false);
  EXPECT_EQ(0, table().AppendToRefreshDcOffsetList(5, 70, kOid.fp));
  EXPECT_FALSE(fs::exists(File("dcoffset")));
}

TEST_F(BackfillTest, AFreshOffsetThatCannotBeWrittenGivesTheCode) {
  LoadOver();
  Faults::OnlyBelow(Directory().string());
  Faults::FailNth(Call::kOpen, 1, EACCES);
  EXPECT_EQ(EACCES, table().AppendToRefreshDcOffsetList(0, 70, kOid.fp));
  Faults::FailNth(Call::kWrite, 1, ENOSPC);
  EXPECT_EQ(-1, table().AppendToRefreshDcOffsetList(0, 70, kOid.fp));
  EXPECT_EQ(0, table().AppendToRefreshDcOffsetList(10, 70, kOid.fp));
  EXPECT_EQ(112U, OnFile().size()) << "both, as the first was kept";
}

TEST_F(BackfillTest, AskingForAFreshOffsetTakesNoLockOfTheTable) {
  LoadOver();
  const UniqueLock cache(peer().rwLock());  // whoever took one would wait for ever
  const UniqueLock databases(peer().tableLock());
  const UniqueLock prefetched(peer().prefetchLock());
  EXPECT_EQ(0, table().AppendToRefreshDcOffsetList(0, 70, kOid.fp));
}

// --- answers
// ---------------------------------------------------------------------------------------

TEST_F(BackfillTest, AnAnswerGoesIntoTheCacheAndTheNextFlushRewritesTheRecordWithIt) {
  LoadOver({WholeRecord(0, 100, kOid, 7, kWanted)});
  peer().dataChanged() = false;
  EXPECT_EQ(0, Backfill({Record(0, kOid, 4096)}));
  EXPECT_THAT(InCache(), ElementsAre("[0, 100) 70 7 4096"));
  EXPECT_THAT(Pending(), ElementsAre(100));
  EXPECT_THAT(KeysWithNode(), IsEmpty());
  EXPECT_TRUE(peer().dataChanged());
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 100, kOid, 7, kWanted))) << "not before a flush";

  Flush();
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 100, kOid, 7, 4096)));
  EXPECT_THAT(InCache(), IsEmpty());
  EXPECT_EQ("", OnFile()) << "nothing is wanted any more";
}

TEST_F(BackfillTest, AnExtentInTheCacheGetsItsAnswerThere) {
  LoadOver();
  WriteKnown(0, 100, kOid, 7, kWanted);
  EXPECT_EQ(0, Backfill({Record(0, kOid, 4096)}));
  EXPECT_THAT(InCache(), ElementsAre("[0, 100) 70 7 4096"));
  EXPECT_THAT(Pending(), ElementsAre(100, 100));
  Flush();
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 100, kOid, 7, 4096)));
}

TEST_F(BackfillTest, OfAnOffsetTheLow32BitsCount) {
  LoadOver({WholeRecord(0, 100, kOid, 0, kWanted), WholeRecord(100, 200, kOther, 0, kWanted)});
  EXPECT_EQ(0, Backfill({Record(0, kOid, (1L << 40) + 5), Record(100, kOther, 0xffffffff)}));
  EXPECT_THAT(InCache(), ElementsAre("[0, 100) 70 0 5", "[100, 200) 71 0 -1"));
  EXPECT_EQ("", OnFile()) << "for the store both are known";
}

TEST_F(BackfillTest, AGivenUpAnswerIsPutInAndNotStoredAgain) {
  LoadOver({WholeRecord(0, 100, kOid, 0, kWanted)});
  EXPECT_EQ(0, Backfill({Record(0, kOid, kGivenUp)}));
  EXPECT_THAT(InCache(), ElementsAre("[0, 100) 70 0 -2"));
  EXPECT_FALSE(fs::exists(File("dcoffset")));
}

TEST_F(BackfillTest, ARecordWithoutAnAnswerIsPutInAllTheSameAndStoredAgain) {
  LoadOver({WholeRecord(0, 100, kOid, 0, 17)});
  EXPECT_EQ(0, Backfill({Record(0, kOid, kWanted)}));
  EXPECT_THAT(InCache(), ElementsAre("[0, 100) 70 0 -1"));
  EXPECT_EQ(OffsetBytes(0, kOid, kWanted), OnFile());
}

TEST_F(BackfillTest, AnExtentOverwrittenSinceIsLeftAloneAndItsRecordIsKeptIfItIsStillOpen) {
  LoadOver({WholeRecord(0, 100, kOid, 0, kWanted), WholeRecord(100, 200, kOid, 0, kWanted),
            WholeRecord(200, 300, kOid, 0, kWanted), WholeRecord(300, 400, kOid, 0, kWanted)});
  WriteKnown(0, 400, kOther);
  EXPECT_EQ(0, Backfill({Record(0, kOid, 4096), Record(100, kOid, kWanted),
                         Record(200, kOid, kGivenUp), Record(300, kOid, -3)}));
  EXPECT_THAT(InCache(), ElementsAre("[0, 400) 71 0 -3"));
  EXPECT_THAT(Pending(), ElementsAre(400));
  Offsets list = List();
  ASSERT_EQ(2U, list.size()) << "of the negative ones all but -2";
  EXPECT_EQ(400, list[0].key + list[1].key);
}

TEST_F(BackfillTest, ContainerAndFingerprintMustBothBeTheSame) {
  LoadOver({WholeRecord(0, 100, kOid, 0, kWanted)});
  DCOffset otherContainer = Record(0, kOid, 1);
  otherContainer.dcid = 71;
  DCOffset otherFingerprint = Record(0, kOid, 1);
  otherFingerprint.fp[31] = 1;
  EXPECT_EQ(0, Backfill({otherContainer, otherFingerprint}));
  EXPECT_THAT(InCache(), IsEmpty());
}

TEST_F(BackfillTest, ARecordBehindTheLastExtentIsSkipped) {
  LoadOver({WholeRecord(0, 100, kOid, 0, kWanted)});
  EXPECT_EQ(0, Backfill({Record(100, kOid, 1), Record(INT64_MAX, kOid, 2), Record(99, kOid, 3)}));
  EXPECT_THAT(InCache(), ElementsAre("[0, 100) 70 0 3"));
}

TEST_F(BackfillTest, ARecordInAHoleAnswersForTheNextExtentIfItHasTheSameData) {
  LoadOver({WholeRecord(50, 100, kOid, 0, kWanted), WholeRecord(150, 200, kOther, 0, kWanted)});
  EXPECT_EQ(0, Backfill({Record(0, kOid, 1), Record(100, kOid, 2)}));
  EXPECT_THAT(InCache(), ElementsAre("[50, 100) 70 0 1"));
}

TEST_F(BackfillTest, OfAnExtentThatIsPartlyHiddenTheVisiblePieceIsPutIn) {
  LoadOver({WholeRecord(0, 100, kOid, 7, kWanted)});
  WriteKnown(0, 40, kOther);
  WriteKnown(80, 100, kOther);
  EXPECT_EQ(0, Backfill({Record(40, kOid, 4096)}));
  EXPECT_THAT(InCache(),
              ElementsAre("[0, 40) 71 0 -3", "[40, 80) 70 47 4096", "[80, 100) 71 0 -3"));
  Flush();
  EXPECT_THAT(Small(),
              ElementsAre(WholeRecord(0, 40, kOther, 0, -3), WholeRecord(40, 80, kOid, 47, 4096),
                          WholeRecord(80, 100, kOther, 0, -3)));
}

TEST_F(BackfillTest, OfTwoAnswersTheLaterOneCounts) {
  LoadOver({WholeRecord(0, 100, kOid, 0, kWanted)});
  EXPECT_EQ(0, Backfill({Record(0, kOid, 1), Record(0, kOid, 2)}));
  EXPECT_THAT(InCache(), ElementsAre("[0, 100) 70 0 2"));
}

TEST_F(BackfillTest, AnEmptyListTakesBackTheListThatIsOut) {
  LoadOver();
  table().AppendToRefreshDcOffsetList(0, 70, kOid.fp);
  List();
  EXPECT_TRUE(IsOut());
  EXPECT_EQ(0, Backfill({}));
  EXPECT_FALSE(IsOut());
  EXPECT_THAT(InCache(), IsEmpty());
}

TEST_F(BackfillTest, TheLogTellsEachLookUpAndWriteAndThenTheStore) {
  LoadOver({WholeRecord(0, 100, kOid, 7, kWanted)});
  EXPECT_EQ(0, Backfill({Record(0, kOid, 4096)}));
  const auto lines = Lines();
  const auto indexOf = [&](const std::string& line) {
    const auto at = std::find(lines.begin(), lines.end(), line);
    EXPECT_NE(at, lines.end()) << line;
    return at - lines.begin();
  };
  const auto lookUp = indexOf("0 CMappingLMDB::lower_bound(), vOffset=0");
  const auto write =
      indexOf("0 CMappingLMDB::insert2Cache(), start=0, end=100, offset=7, data=(nil)");
  const auto merge = indexOf("0 DcOffsetStore::MergeDcOffset, file: " + Path("dcoffset"));
  EXPECT_LT(lookUp, write);
  EXPECT_LT(write, merge);
  EXPECT_EQ("0 DcOffsetStore::MergeDcOffset, file: " + Path("dcoffset") + " , done!", lines.back());
}

// --- nodes
// -----------------------------------------------------------------------------------------

TEST_F(BackfillTest, AnExtentKeepsItsNodeWhichIsNotReleased) {
  LoadOver();
  DataCacheNode* const node = Ready(kOid, 33);
  EXPECT_EQ(0, table().insert(0, 100, &kOid, 7, 0, node, kWanted, nullptr));
  EXPECT_EQ(0, Backfill({Record(0, kOid, 4096)}));
  EXPECT_EQ(node, peer().extDataPointers().at(100));
  EXPECT_THAT(peer().toBeReleased(), IsEmpty());
  EXPECT_THAT(peer().sharedDataPointers(), IsEmpty());
  EXPECT_THAT(InCache(), ElementsAre("[0, 100) 70 7 4096"));
  EXPECT_THAT(Flush(), ElementsAre(node));
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 100, kOid, 7, 33)))
      << "a flush knows the offset from the node";
}

TEST_F(BackfillTest, AllFieldsOfTheObjectIdAreKept) {
  const auto oid = Oid(1UL << 40, 0x01020304);
  LoadOver({WholeRecord(0, 100, oid, -5, kWanted)});
  EXPECT_EQ(0, Backfill({Record(0, oid, 4096)}));
  Flush();
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 100, oid, -5, 4096)));
}

class BackfillSharedNodeTest : public BackfillTest {
 protected:
  /// Two pieces of one node, of which the first has been backfilled.
  void SetUp() override {
    LoadOver();
    node_ = Ready(kOid, kWanted);
    EXPECT_EQ(0, table().insert(0, 100, &kOid, 0, 0, node_, kWanted, nullptr));
    WriteKnown(40, 60, kOther);
    EXPECT_EQ((std::set<long>{40, 100}), peer().sharedDataPointers().at(node_));
    EXPECT_EQ(0, Backfill({Record(0, kOid, 4096)}));
  }

  DataCacheNode* node_ = nullptr;
};

TEST_F(BackfillSharedNodeTest, BothPiecesKeepTheNodeButTheBackfilledOneIsNoSharerAnyMore) {
  EXPECT_EQ(node_, peer().extDataPointers().at(40));
  EXPECT_EQ(node_, peer().extDataPointers().at(100));
  EXPECT_THAT(peer().toBeReleased(), IsEmpty());
  EXPECT_EQ((std::set<long>{100}), peer().sharedDataPointers().at(node_));
  EXPECT_THAT(Flush(), ElementsAre(node_));
  EXPECT_THAT(Cached(), IsEmpty());
}

// A host that goes on using a node that two pieces share must expect it back early.
TEST_F(BackfillSharedNodeTest, TheNodeCountsAsReleasedWithItsLastSharerThoughTheOtherPieceUsesIt) {
  WriteKnown(60, 100, kOther);
  EXPECT_THAT(peer().toBeReleased(), ElementsAre(node_));
  EXPECT_EQ(node_, peer().extDataPointers().at(40));
}

// --- prefetched extents
// ----------------------------------------------------------------------------

TEST_F(BackfillTest, PrefetchedExtentsAreDroppedBeforeTheFirstLookUp) {
  LoadOver({WholeRecord(0, 100, kOid, 0, kWanted)});
  Set(&Config::prefetchEnabled, 1);
  std::list<Aldenta::Qnd::Morene::Zefs::CMappingTable::DCInfo> plan;
  table().GetDCInfoList({0, 100, 0}, &plan);
  ASSERT_EQ(1U, peer().prefetchExts().size());
  peer().prefetchExts().front().objectID = kOther;  // as if it were stale
  EXPECT_EQ(0, Backfill({Record(0, kOid, 4096)}));
  EXPECT_THAT(peer().prefetchExts(), IsEmpty());
  EXPECT_THAT(InCache(), ElementsAre("[0, 100) 70 0 4096"));
  EXPECT_EQ(4096, table().lower_bound(0, nullptr)->dcOffset);
}

TEST_F(BackfillTest, PrefetchedExtentsAreDroppedForAnEmptyListToo) {
  LoadOver();
  Set(&Config::prefetchEnabled, -1);
  peer().prefetchExts().resize(3);
  EXPECT_EQ(0, Backfill({}));
  EXPECT_THAT(peer().prefetchExts(), IsEmpty());
}

TEST_F(BackfillTest, WithPrefetchingOffTheyStayAndTheirLockIsNotTaken) {
  LoadOver();
  peer().prefetchExts().resize(3);
  const UniqueLock held(peer().prefetchLock());  // whoever took it would wait for ever
  EXPECT_EQ(0, Backfill({}));
  EXPECT_EQ(3U, peer().prefetchExts().size());
}

// --- failures
// --------------------------------------------------------------------------------------

class BackfillFaultTest : public BackfillTest {
 protected:
  /// A list that is out: two answers, and one record that is still open.
  void SetUp() override {
    LoadOver({WholeRecord(0, 100, kOid, 0, kWanted), WholeRecord(100, 200, kOther, 0, kWanted),
              WholeRecord(200, 300, kOid, 0, kWanted)});
    for (const auto& [key, oid] : {std::pair{0L, kOid}, {100L, kOther}, {200L, kOid}}) {
      ASSERT_EQ(0, table().AppendToRefreshDcOffsetList(key, oid.dcid, oid.fp));
    }
    list_ = List();
    ASSERT_EQ(3U, list_.size());
    aside_ = BytesOf(File("dcoffset.tmp"));
    list_[0].dcOffset = 4096;
    list_[1].dcOffset = kGivenUp;
    Faults::OnlyBelow(Directory().string());
    log_.Take();
  }

  const std::vector<std::string> filled_ = {"[0, 100) 70 0 4096", "[100, 200) 71 0 -2",
                                            "[200, 300) 70 0 -1"};

  /// The list is still out; handed back once more it is taken.
  void ExpectItCanBeHandedBack() {
    Faults::Disarm();
    EXPECT_EQ(filled_, InCache()) << "the answers are in the table already";
    EXPECT_TRUE(IsOut());
    EXPECT_EQ(aside_, BytesOf(File("dcoffset.tmp")));
    EXPECT_EQ(0, Backfill(list_));
    EXPECT_FALSE(IsOut());
    EXPECT_EQ(filled_, InCache());
    const Offsets open = List();
    ASSERT_FALSE(open.empty());
    EXPECT_EQ(200, open.back().key);
    EXPECT_EQ(0, Backfill(open));
    Flush();
    EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 100, kOid, 0, 4096),
                                     WholeRecord(100, 200, kOther, 0, kGivenUp),
                                     WholeRecord(200, 300, kOid, 0, kWanted)));
  }

  Offsets list_;
  std::string aside_;
};

TEST_F(BackfillFaultTest, AStoreThatCannotBeOpenedGivesTheCodeAndTheListCanBeHandedBack) {
  Faults::FailNth(Call::kOpen, 1, EACCES);
  EXPECT_EQ(EACCES, Backfill(list_));
  const auto lines = Lines(8);
  EXPECT_EQ("8 Failed to merge DC offset, ret=13", lines.back());
  EXPECT_EQ("8 Failed to store dcoffset, ret=13", lines.at(lines.size() - 2));
  ExpectItCanBeHandedBack();
}

TEST_F(BackfillFaultTest, ARecordThatCannotBeWrittenGivesMinusOneAndTheListCanBeHandedBack) {
  Faults::FailNth(Call::kWrite, 1, ENOSPC);
  EXPECT_EQ(-1, Backfill(list_));
  EXPECT_EQ("8 Failed to merge DC offset, ret=-1", Lines(8).back());
  ExpectItCanBeHandedBack();
}

TEST_F(BackfillFaultTest, AWriteThatIsCutShortForGoodGivesMinusOneAndTheListCanBeHandedBack) {
  Faults::ShortWriteNth(1, 20);
  Faults::FailNth(Call::kWrite, 2, ENOSPC);
  EXPECT_EQ(-1, Backfill(list_));
  Faults::Disarm();
  EXPECT_TRUE(IsOut());
  EXPECT_EQ(aside_, BytesOf(File("dcoffset.tmp")));
  EXPECT_EQ(0, Backfill(list_));
  EXPECT_FALSE(IsOut());
  EXPECT_EQ(filled_, InCache());
}

TEST_F(BackfillFaultTest, ASyncThatFailsGivesMinusOneAndTheListCanBeHandedBack) {
  Faults::FailNth(Call::kFsync, 1, EIO);
  EXPECT_EQ(-1, Backfill(list_));
  EXPECT_EQ("8 Failed to merge DC offset, ret=-1", Lines(8).back());
  ExpectItCanBeHandedBack();
}

TEST_F(BackfillFaultTest, AFileSetAsideThatCannotBeRemovedIsThrownAndTheListCanBeHandedBack) {
  Faults::FailNth(Call::kUnlink, 1, EACCES);
  EXPECT_THROW(Backfill(list_), fs::filesystem_error);
  EXPECT_THAT(Lines(8), IsEmpty());
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
  ExpectItCanBeHandedBack();
}

TEST_F(BackfillFaultTest, ALookUpThatFailsIsThrownWithAllLocksReleasedAndTheListStaysOut) {
  for (const auto& [call, nth] : {std::pair{Call::kMdbTxnBegin, 1},
                                  {Call::kMdbTxnBegin, 2},
                                  {Call::kMdbCursorOpen, 1},
                                  {Call::kMdbCursorGet, 1}}) {
    Faults::FailNth(call, nth, MDB_CORRUPTED);
    EXPECT_EQ(MDB_CORRUPTED, CodeOf([&] { Backfill(list_); }));
    Faults::Disarm();
    EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
    EXPECT_EQ(Held::kNot, HowIsHeld(peer().tableLock()));
    EXPECT_TRUE(IsOut());
    peer().ResetCache();
  }
  EXPECT_EQ(0, Backfill(list_));
  EXPECT_EQ(filled_, InCache());
}

}  // namespace
}  // namespace zefs::test
