#include <climits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "tests/table/table_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using zefs::refhost::LogRecorder;
using zefs::test::Forward;
using zefs::test::Oid;
using zefs::test::Seen;
using zefs::test::TableTest;

using ObjectIDs = CMappingTable::ObjectIDs;

class SetObjectIdTest : public TableTest {};

TEST_F(SetObjectIdTest, MovesTheBytesToTheNewContainerAndFingerprint) {
  Insert(0, 10, Oid(70, 1));
  Insert(10, 30, Oid(70, 1));
  Ext* const ext = table_.find(10, nullptr).operator->();
  table_.SetObjectID(ext, Oid(80, 2));
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(70, 10), Pair(80, 20)));
  EXPECT_THAT(peer_.fps(), testing::UnorderedElementsAre(Pair(TextOf(Oid(0, 1).fp), 1),
                                                         Pair(TextOf(Oid(0, 2).fp), 1)));
  const auto changed = table_.find(10, nullptr);
  EXPECT_EQ(ext, changed.operator->()) << "in place";
  EXPECT_EQ(80U, changed->objectID.dcid);
  EXPECT_EQ(Oid(80, 2).fp, changed->objectID.fp);
  EXPECT_EQ(Oid(80, 2).attrByte, changed->objectID.attrByte);
  EXPECT_EQ(Oid(80, 2).attrWord, changed->objectID.attrWord);
  EXPECT_EQ(Oid(80, 2).attrFlag, changed->objectID.attrFlag);
  ExpectSound();
}

/// Its virtual accessors must not be called.
struct Closed : Ext {
  using Ext::Ext;
  ObjectID getObjectID() override { throw SysException(1); }
  void setObjectID(const ObjectID&) override { throw SysException(1); }
  long getSOff() override { throw SysException(1); }
  long getEOff() override { throw SysException(1); }
};

TEST_F(SetObjectIdTest, WritesTheFieldsWithoutAVirtualCall) {
  const ObjectID oid = Oid(70, 1);
  Closed ext(0, 10, &oid, 0, 0, nullptr);
  EXPECT_NO_THROW(table_.SetObjectID(&ext, Oid(80, 2)));
  EXPECT_EQ(80U, ext.objectID.dcid);
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(80, 10)));
}

/// Where the range operations look.
struct Spying : CMappingTable {
  using CMappingTable::CMappingTable;
  iterator lower_bound(long offset, SharedLock* lock) override {
    EXPECT_EQ(nullptr, lock);
    asked.push_back(offset);
    return CMappingTable::lower_bound(offset, lock);
  }
  std::vector<long> asked;
};

TEST(RangeSlotTest, LookUpsGoThroughTheVirtualSlot) {
  Spying table(nullptr);
  table.append(0, 10, nullptr, 0, 0, nullptr, nullptr);
  table.GetObjectIdsAndOffsets(3, 7);
  EXPECT_THAT(table.asked, ElementsAre(3, 7));
  table.asked.clear();
  table.GetObjectIdsAndOffsets(10, 20);
  EXPECT_THAT(table.asked, ElementsAre(10)) << "nothing is there: the end is not looked for";
  table.asked.clear();
  table.UpdateObjectIdsByRange(0, 0, {{Oid(64), 5, 6}, {Oid(64), 8, 9}});
  EXPECT_THAT(table.asked, ElementsAre(5));
}

TEST_F(SetObjectIdTest, ToTheSameObjectChangesNoCount) {
  Insert(0, 10, Oid(70, 1));
  table_.SetObjectID(table_.begin().operator->(), Oid(70, 1));
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(70, 10)));
  EXPECT_EQ(1U, peer_.fps().size());
}

TEST_F(SetObjectIdTest, FromAndToAnIdThatIsNoContainer) {
  Insert(0, 10, Oid(0, 1));
  table_.SetObjectID(table_.begin().operator->(), Oid(70, 2));
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(70, 10)));
  table_.SetObjectID(table_.begin().operator->(), Oid(63, 2));
  EXPECT_THAT(peer_.dcids(), IsEmpty());
  EXPECT_THAT(peer_.fps(), IsEmpty());
}

class ListObjectIdsTest : public TableTest {
 protected:
  /// The ranges listed for [start, end).
  std::vector<std::pair<long, long>> List(unsigned long start, unsigned long end) {
    std::vector<std::pair<long, long>> ranges;
    for (const auto& element : table_.GetObjectIdsAndOffsets(start, end)) {
      ranges.emplace_back(element.startOffset, element.endOffset);
    }
    return ranges;
  }
};

TEST_F(ListObjectIdsTest, OfAnEmptyTableOrBehindTheLastExtentIsEmpty) {
  EXPECT_THAT(List(0, 100), IsEmpty());
  AppendRow(3);
  EXPECT_THAT(List(40, 100), IsEmpty());
}

TEST_F(ListObjectIdsTest, OfARangeWithoutBytesInsideAnExtentIsEmpty) {
  Insert(0, 100);
  EXPECT_THAT(List(50, 50), IsEmpty());
}

TEST_F(ListObjectIdsTest, WholeFromBelowNotTheOneThatHoldsTheEnd) {
  AppendRow(5);
  EXPECT_THAT(List(15, 35), ElementsAre(Pair(10, 20), Pair(20, 30)))
      << "one reaches in from below and is whole; the one that holds 35 is left out";
  EXPECT_THAT(List(15, 40), ElementsAre(Pair(10, 20), Pair(20, 30), Pair(30, 40)))
      << "one that ends at the end is listed";
  EXPECT_THAT(List(0, 1000).size(), 5U);
}

TEST_F(ListObjectIdsTest, ElementsCarryTheObjectIdWhole) {
  Insert(0, 10, Oid(70, 5));
  const ObjectIDs list = table_.GetObjectIdsAndOffsets(0, 10);
  ASSERT_EQ(1U, list.size());
  EXPECT_EQ(70U, list[0].objectID.dcid);
  EXPECT_EQ(Oid(70, 5).fp, list[0].objectID.fp);
  EXPECT_EQ(Oid(70, 5).attrByte, list[0].objectID.attrByte);
  EXPECT_EQ(Oid(70, 5).attrWord, list[0].objectID.attrWord);
  EXPECT_EQ(Oid(70, 5).attrFlag, list[0].objectID.attrFlag);
}

TEST_F(ListObjectIdsTest, ARangeTheWrongWayRoundStopsAtTheEnd) {
  AppendRow(5);
  EXPECT_THAT(List(40, 15), ElementsAre(Pair(40, 50), Pair(50, 60)));
  EXPECT_THAT(List(0, ULONG_MAX), IsEmpty()) << "the largest number is the offset -1";
  EXPECT_EQ(5U, List(0, LONG_MAX).size());
}

TEST_F(ListObjectIdsTest, TakesNoLock) {
  AppendRow(2);
  const CMappingTable::UniqueLock writer(peer_.lock());
  EXPECT_EQ(2U, List(0, 100).size());
}

class UpdateObjectIdsTest : public TableTest {
 protected:
  static ObjectIDs::value_type Element(long start, const ObjectID& oid) { return {oid, start, 0}; }
  std::vector<std::uint64_t> Dcids() {
    std::vector<std::uint64_t> dcids;
    for (const Seen& seen : Forward(table_)) {
      dcids.push_back(seen.dcid);
    }
    return dcids;
  }
};

TEST_F(UpdateObjectIdsTest, AnEmptyListReturnsZeroWithoutLocking) {
  Insert(0, 10, Oid(70, 1));
  const CMappingTable::UniqueLock writer(peer_.lock());
  EXPECT_EQ(0, table_.UpdateObjectIdsByRange(0, 10, {}));
  EXPECT_THAT(Dcids(), ElementsAre(70));
}

TEST_F(UpdateObjectIdsTest, TheLastElementTakesAllThatRemainAndStopsAtTheEnd) {
  for (long i = 0; i < 6; ++i) {
    Insert(i * 10, i * 10 + 10, Oid(70, 1));
  }
  EXPECT_EQ(0, table_.UpdateObjectIdsByRange(0, 0, {Element(20, Oid(80, 1))}));
  EXPECT_THAT(Dcids(), ElementsAre(70, 70, 80, 80, 80, 80));
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(70, 20), Pair(80, 40)));
  EXPECT_THAT(peer_.fps(), ElementsAre(Pair(TextOf(Oid(0, 1).fp), 6)));
  ExpectSound();
}

TEST_F(UpdateObjectIdsTest, EachExtentMeetsTheFirstElementThatStartsAboveIt) {
  for (long i = 0; i < 6; ++i) {
    Insert(i * 10, i * 10 + 10, Oid(70, 1));
  }
  // The first element's limit is its own start, where the walk begins: it meets nothing. The second
  // takes those below its own start, the last one all others.
  const ObjectIDs list{Element(10, Oid(81, 1)), Element(30, Oid(82, 1)), Element(40, Oid(83, 1))};
  table_.UpdateObjectIdsByRange(0, 0, list);
  EXPECT_THAT(Dcids(), ElementsAre(70, 82, 82, 83, 83, 83));
}

TEST_F(UpdateObjectIdsTest, AnExtentReachedFromInsideMeetsTheFirstElement) {
  Insert(0, 10, Oid(70, 1));
  Insert(10, 20, Oid(70, 1));
  const ObjectIDs list{Element(5, Oid(81, 1)), Element(15, Oid(82, 1))};
  table_.UpdateObjectIdsByRange(0, 0, list);
  EXPECT_THAT(Dcids(), ElementsAre(81, 82));
}

TEST_F(UpdateObjectIdsTest, AnotherFingerprintIsPassedOver) {
  Insert(0, 10, Oid(70, 1));
  Insert(10, 20, Oid(71, 2));
  Insert(20, 30, Oid(72, 1));
  table_.UpdateObjectIdsByRange(0, 0, {Element(0, Oid(80, 1))});
  EXPECT_THAT(Dcids(), ElementsAre(80, 71, 80));
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(71, 10), Pair(80, 20)));
}

TEST_F(UpdateObjectIdsTest, OnlyTheContainerChanges) {
  Insert(0, 10, Oid(70, 1));
  ObjectID other = Oid(80, 1);
  other.attrByte = 200;
  other.attrWord = 201;
  other.attrFlag = 202;
  table_.UpdateObjectIdsByRange(0, 0, {Element(0, other)});
  const ObjectID oid = table_.begin()->objectID;
  EXPECT_EQ(80U, oid.dcid);
  EXPECT_EQ(Oid(70, 1).attrByte, oid.attrByte);
  EXPECT_EQ(Oid(70, 1).attrWord, oid.attrWord);
  EXPECT_EQ(Oid(70, 1).attrFlag, oid.attrFlag);
}

TEST_F(UpdateObjectIdsTest, OffsetsCompareUnsigned) {
  Insert(-20, -10, Oid(70, 1));
  Insert(0, 10, Oid(70, 1));
  const ObjectIDs list{Element(-20, Oid(81, 1)), Element(LONG_MAX, Oid(82, 1)),
                       Element(5, Oid(83, 1))};
  table_.UpdateObjectIdsByRange(0, 0, list);
  // -20 is a very large unsigned number: neither below its own start nor below LONG_MAX.
  EXPECT_THAT(Dcids(), ElementsAre(83, 83));
}

TEST_F(UpdateObjectIdsTest, BehindTheLastExtentNothingHappens) {
  Insert(0, 10, Oid(70, 1));
  EXPECT_EQ(0, table_.UpdateObjectIdsByRange(0, 0, {Element(10, Oid(80, 1))}));
  EXPECT_THAT(Dcids(), ElementsAre(70));
}

// --- the writing nodes -----------------------------------------------------------------------

/// Knows the object ids of some nodes.
class Cache : public zefs::DataCacheManagementInterface {
 public:
  int GetNodeObjectID(void* node, zefs::DataCacheNode::ObjectID* out, bool flag) override {
    flags.push_back(flag);
    if (node == notReady) {
      return 1;
    }
    *out = Oid(77);
    return 0;
  }
  int ProtectShare(zefs::DataTransferManagement*, const std::string&, const std::string&) override {
    return 0;
  }
  void* notReady = nullptr;
  std::vector<bool> flags;
};

class WritingNodesTest : public testing::Test {
 protected:
  void Fill(std::size_t count) {
    nodes_.resize(count);
    for (zefs::DataCacheNode& node : nodes_) {
      peer_.writingNodes().push_back(&node);
    }
    peer_.writingNodesCount() = count;
  }

  Cache cache_;
  CMappingTable table_{&cache_};
  MappingTableTestPeer peer_{table_};
  std::vector<zefs::DataCacheNode> nodes_;
  std::vector<DataCacheNodePointerWithStatus> out_;
};

TEST_F(WritingNodesTest, OfATableThereAreNone) {
  LogRecorder log;
  EXPECT_EQ(0U, table_.GetWritingNodesCount());
  table_.GetWritingNodes(&out_, false);
  EXPECT_TRUE(out_.empty());
  const auto lines = log.Take();
  ASSERT_EQ(1U, lines.size());
  EXPECT_EQ(1, lines[0].level);
  EXPECT_EQ("returned writing nodes vector size: 0", lines[0].text);
}

TEST_F(WritingNodesTest, AnInternalFlushOfFewTakesNoLockAndLogsNothing) {
  Fill(9999);
  LogRecorder log;
  const CMappingTable::UniqueLock writer(peer_.lock());
  table_.GetWritingNodes(&out_, true);
  EXPECT_TRUE(out_.empty());
  EXPECT_EQ(9999U, table_.GetWritingNodesCount());
  EXPECT_TRUE(log.Take().empty());
}

TEST_F(WritingNodesTest, AnInternalFlushOfManyStopsAtTheFirstThatIsNotReady) {
  Fill(10000);
  cache_.notReady = &nodes_[2];
  LogRecorder log;
  table_.GetWritingNodes(&out_, true);
  ASSERT_EQ(2U, out_.size());
  EXPECT_EQ(&nodes_[0], out_[0].node);
  EXPECT_EQ(0, out_[0].status);
  EXPECT_EQ(77U, out_[0].objectID.dcid);
  EXPECT_EQ(9998U, table_.GetWritingNodesCount());
  EXPECT_EQ(&nodes_[2], peer_.writingNodes().front());
  EXPECT_THAT(cache_.flags, ElementsAre(false, false, false));
  EXPECT_EQ("returned writing nodes vector size: 2", log.Take().at(0).text);
}

TEST_F(WritingNodesTest, AnExternalCallTakesAllWithTheirStatus) {
  Fill(3);
  cache_.notReady = &nodes_[1];
  LogRecorder log;
  table_.GetWritingNodes(&out_, false);
  ASSERT_EQ(3U, out_.size());
  EXPECT_EQ(1, out_[1].status);
  EXPECT_EQ(0U, out_[1].objectID.dcid);
  EXPECT_EQ(0U, table_.GetWritingNodesCount());
  EXPECT_TRUE(peer_.writingNodes().empty());
  EXPECT_THAT(cache_.flags, ElementsAre(true, true, true));
  EXPECT_EQ("returned writing nodes vector size: 3", log.Take().at(0).text);
}

}  // namespace
