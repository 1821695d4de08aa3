#include <climits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "tests/table/table_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using zefs::refhost::LogRecorder;
using zefs::test::Forward;
using zefs::test::Oid;
using zefs::test::Seen;
using zefs::test::TableTest;
using zefs::test::TraceFile;

class InsertTest : public TableTest {
 protected:
  /// "level text" of each line since the last call.
  std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (const auto& record : log_.Take()) {
      lines.push_back(std::to_string(record.level) + ' ' + record.text);
    }
    return lines;
  }

  LogRecorder log_;
};

TEST_F(InsertTest, IntoAnEmptyTableAddsExactlyOne) {
  Insert(10, 20);
  EXPECT_EQ(1, table_.size());
  EXPECT_THAT(Lines(), ElementsAre("0 add extent [10, 20, 0]"));
  ExpectSound();
}

TEST_F(InsertTest, BehindTheLastAndBeforeTheFirstDeletesNothing) {
  AppendRow(10, 100, 100);
  Lines();
  Insert(1100, 1150);
  EXPECT_THAT(Lines(), ElementsAre("0 add extent [1100, 1150, 0]"));
  Insert(50, 100);
  EXPECT_THAT(Lines(), ElementsAre("0 add extent [50, 100, 0]"));
  EXPECT_EQ(12, table_.size());
  ExpectSound();
}

TEST_F(InsertTest, IntoAHoleDeletesNothing) {
  AppendRow(10, 100, 10);
  Lines();
  Insert(310, 400);
  EXPECT_THAT(Lines(), ElementsAre("0 add extent [310, 400, 0]"));
  EXPECT_EQ(11, table_.size());
  ExpectSound();
}

TEST_F(InsertTest, ExactlyOverAnExtentKeepsTheSize) {
  AppendRow(10, 100, 100);
  Lines();
  Insert(300, 400, Oid(90), 5);
  EXPECT_THAT(Lines(), ElementsAre("0 delete extent [300, 400]", "0 add extent [300, 400, 5]"));
  EXPECT_EQ(10, table_.size());
  EXPECT_EQ(90U, table_.find(300, nullptr)->objectID.dcid);
  ExpectSound();
}

TEST_F(InsertTest, InsideAnExtentLeavesTwoPiecesAndTheNewOne) {
  int node = 0;
  const ObjectID old = Oid(70, 3);
  table_.insert(100, 200, &old, 1000, 55, &node, -1, nullptr);
  Lines();
  Insert(130, 160, Oid(90), 7);
  EXPECT_THAT(Lines(), ElementsAre("0 delete extent [100, 200]", "0 add extent [100, 130, 1000]",
                                   "0 add extent [160, 200, 1060]", "0 add extent [130, 160, 7]"));
  EXPECT_THAT(Forward(table_), ElementsAre(Seen{100, 130, 1000, 70}, Seen{130, 160, 7, 90},
                                           Seen{160, 200, 1060, 70}));
  for (const long offset : {100L, 160L}) {
    const auto piece = table_.find(offset, nullptr);
    EXPECT_EQ(&node, piece->data) << "both pieces keep the node";
    EXPECT_EQ(55, piece->objCksum);
    EXPECT_EQ(-1, piece->dcOffset);
    EXPECT_EQ(old.fp, piece->objectID.fp);
    EXPECT_EQ(old.attrByte, piece->objectID.attrByte);
    EXPECT_EQ(old.attrWord, piece->objectID.attrWord);
    EXPECT_EQ(old.attrFlag, piece->objectID.attrFlag);
  }
  EXPECT_EQ(nullptr, table_.find(130, nullptr)->data);
  ExpectSound();
}

TEST_F(InsertTest, UpToTheEndOfAnExtentLeavesNoBackPiece) {
  Insert(100, 200, Oid(70), 1000);
  Insert(150, 200, Oid(90));
  EXPECT_THAT(Forward(table_), ElementsAre(Seen{100, 150, 1000, 70}, Seen{150, 200, 0, 90}));
  ExpectSound();
}

TEST_F(InsertTest, FromTheStartOfAnExtentLeavesNoFrontPiece) {
  Insert(100, 200, Oid(70), 1000);
  Insert(100, 150, Oid(90));
  EXPECT_THAT(Forward(table_), ElementsAre(Seen{100, 150, 0, 90}, Seen{150, 200, 1050, 70}));
  ExpectSound();
}

TEST_F(InsertTest, AcrossSeveralRemovesAllBetweenAndCutsTheTwoAtItsEnds) {
  AppendRow(10, 100, 100);
  Lines();
  Insert(350, 720, Oid(90), 9);
  EXPECT_THAT(Lines(), ElementsAre("0 delete extent [300, 400]", "0 delete extent [400, 500]",
                                   "0 delete extent [500, 600]", "0 delete extent [600, 700]",
                                   "0 delete extent [700, 800]", "0 add extent [300, 350, 3]",
                                   "0 add extent [720, 800, 27]", "0 add extent [350, 720, 9]"));
  EXPECT_EQ(8, table_.size());
  ExpectSound();
}

TEST_F(InsertTest, AcrossHolesAndBeyondBothEnds) {
  AppendRow(10, 100, 50);
  Insert(0, 2000, Oid(90));
  EXPECT_THAT(Forward(table_), ElementsAre(Seen{0, 2000, 0, 90}));
  ExpectSound();
}

TEST_F(InsertTest, EndingInAHoleLeavesTheExtentBehindItAlone) {
  AppendRow(3, 100, 50);
  Insert(120, 180, Oid(90));
  EXPECT_THAT(Forward(table_), ElementsAre(Seen{100, 120, 1, 64}, Seen{120, 180, 0, 90},
                                           Seen{200, 250, 2, 64}, Seen{300, 350, 3, 64}));
  ExpectSound();
}

TEST_F(InsertTest, TheContainerOffsetIsNotKept) {
  const ObjectID oid = Oid(64);
  table_.insert(0, 100, &oid, 0, 0, nullptr, 4096, nullptr);
  EXPECT_EQ(-1, table_.begin()->dcOffset);
}

TEST_F(InsertTest, APieceOfAnExtentLosesAContainerOffsetWrittenIntoIt) {
  Insert(0, 100);
  table_.begin()->setDCOffset(4096);
  Insert(40, 60);
  EXPECT_EQ(-1, table_.begin()->dcOffset);
}

TEST_F(InsertTest, ANullObjectIdIsAllZero) {
  EXPECT_EQ(0, table_.insert(0, 10, nullptr, 0, 0, nullptr, -1, nullptr));
  EXPECT_EQ(0U, table_.begin()->objectID.dcid);
  EXPECT_EQ(crfp_digest_t{}, table_.begin()->objectID.fp);
}

TEST_F(InsertTest, ARangeWithoutBytesChangesNothing) {
  AppendRow(5, 100, 100);
  const auto before = Forward(table_);
  const auto counts = peer_.dcids();
  Lines();
  TraceFile trace;
  const ObjectID oid = Oid(99);
  EXPECT_EQ(0, table_.insert(250, 250, &oid, 0, 0, nullptr, -1, nullptr));
  EXPECT_EQ(0, table_.insert(260, 250, &oid, 0, 0, nullptr, -1, trace.get()));
  EXPECT_EQ(0, table_.insert(LONG_MAX, LONG_MIN, &oid, 0, 0, nullptr, -1, nullptr));
  EXPECT_EQ(before, Forward(table_));
  EXPECT_EQ(counts, peer_.dcids());
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_EQ("", trace.text());
  ExpectSound();
}

TEST_F(InsertTest, TheLinesGoToTheTraceFileInstead) {
  Insert(100, 200, Oid(64), 10);
  Lines();
  TraceFile trace;
  const ObjectID oid = Oid(65);
  table_.insert(150, 160, &oid, 20, 0, nullptr, -1, trace.get());
  EXPECT_EQ(
      "delete extent [100, 200]\n"
      "add extent [100, 150, 10]\n"
      "add extent [160, 200, 70]\n"
      "add extent [150, 160, 20]\n",
      trace.text());
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(InsertTest, AtTheEndsOfTheNumbers) {
  Insert(LONG_MIN, LONG_MAX, Oid(64));
  Insert(0, 10, Oid(65));
  EXPECT_EQ(3, table_.size());
  Insert(LONG_MAX - 5, LONG_MAX, Oid(66));
  EXPECT_EQ(4, table_.size());
  EXPECT_EQ(66U, table_.find(LONG_MAX - 1, nullptr)->objectID.dcid);
  ExpectSound();
}

TEST_F(InsertTest, TheTreeGrowsAndShrinksByWholeLevels) {
  for (long i = 0; i < 500; ++i) {
    Insert(i * 10, i * 10 + 10);
  }
  ExpectSound();
  for (long span = 10; span <= 5000; span *= 2) {
    Insert(0, span, Oid(65));
    ExpectSound();
  }
  Insert(0, 5000);
  EXPECT_EQ(1, table_.size());
  EXPECT_FALSE(peer_.rroot()->isKeyNode());
  ExpectSound();
}

TEST_F(InsertTest, ARootThatLostAllChildrenButOneStaysAllocatedAndCounted) {
  Insert(0, 10);
  Insert(10, 20);
  Insert(20, 30);
  Insert(30, 40);
  ASSERT_TRUE(peer_.rroot()->isKeyNode());
  const std::int64_t before = CMapNode::count_;
  Insert(10, 30, Oid(65));  // 2 of 4 extents go, one comes: two leaves become one
  ASSERT_FALSE(peer_.rroot()->isKeyNode());
  EXPECT_EQ(before - 3 + 1 + 1, CMapNode::count_) << "a leaf, and the root that stepped aside";
  ExpectSound();
}

/// Which virtual operations an insert goes through.
struct Spying : CMappingTable {
  using CMappingTable::CMappingTable;
  long size() override {
    ++sizes;
    return CMappingTable::size();
  }
  iterator lower_bound(long offset, SharedLock* lock) override {
    asked.push_back(offset);
    return CMappingTable::lower_bound(offset, lock);
  }
  iterator end() override {
    ++ends;
    return CMappingTable::end();
  }
  int sizes = 0;
  int ends = 0;
  std::vector<long> asked;
};

TEST(InsertSlotTest, SizeLowerBoundAndEndAreCalledThroughTheirSlots) {
  Spying table(nullptr);
  table.insert(0, 100, nullptr, 0, 0, nullptr, -1, nullptr);
  EXPECT_EQ(1, table.sizes);
  EXPECT_THAT(table.asked, IsEmpty()) << "an empty table is not searched";
  table.insert(40, 60, nullptr, 0, 0, nullptr, -1, nullptr);
  EXPECT_THAT(table.asked, ElementsAre(40, 60));
  EXPECT_GE(table.ends, 1);
}

// --- truncate --------------------------------------------------------------------------------

class TruncateTest : public InsertTest {};

TEST_F(TruncateTest, AtZeroLeavesOneEmptyLeaf) {
  AppendRow(100);
  EXPECT_EQ(0, table_.truncate(0, nullptr));
  EXPECT_EQ(0, table_.size());
  EXPECT_TRUE(table_.begin() == table_.end());
  EXPECT_FALSE(peer_.rroot()->isKeyNode());
  EXPECT_FALSE(peer_.rroot()->dirty);
  EXPECT_EQ(0, peer_.rroot()->getItemNum());
  EXPECT_THAT(peer_.dcids(), IsEmpty());
  EXPECT_THAT(peer_.fps(), IsEmpty());
  ExpectSound();
  Insert(5, 6);
  EXPECT_EQ(1, table_.size());
  ExpectSound();
}

TEST_F(TruncateTest, AtOrBehindTheLastEndDoesNothingAndWritesNothing) {
  AppendRow(10);
  Lines();
  TraceFile trace;
  EXPECT_EQ(0, table_.truncate(110, trace.get()));
  EXPECT_EQ(0, table_.truncate(5000, trace.get()));
  EXPECT_EQ(0, table_.truncate(LONG_MAX, trace.get()));
  EXPECT_EQ(10, table_.size());
  EXPECT_EQ("", trace.text());
  EXPECT_THAT(Lines(), IsEmpty());
  ExpectSound();
}

TEST_F(TruncateTest, OfAnEmptyTableDoesNothing) {
  TraceFile trace;
  EXPECT_EQ(0, table_.truncate(0, trace.get()));
  EXPECT_EQ("", trace.text());
  ExpectSound();
}

TEST_F(TruncateTest, InsideAnExtentKeepsItsFront) {
  int node = 0;
  const ObjectID oid = Oid(70, 3);
  Insert(0, 100);
  table_.insert(100, 200, &oid, 1000, 55, &node, -1, nullptr);
  Insert(200, 300);
  table_.truncate(130, nullptr);
  EXPECT_THAT(Forward(table_), ElementsAre(Seen{0, 100, 0, 64}, Seen{100, 130, 1000, 70}));
  const auto front = table_.find(100, nullptr);
  EXPECT_EQ(&node, front->data);
  EXPECT_EQ(55, front->objCksum);
  EXPECT_EQ(-1, front->dcOffset);
  EXPECT_EQ(30U, peer_.dcids().at(70));
  EXPECT_EQ(2, table_.size());
  ExpectSound();
}

TEST_F(TruncateTest, InAHoleOrAtAStartCutsNothing) {
  AppendRow(10, 100, 50);
  table_.truncate(775, nullptr);
  EXPECT_EQ(7, table_.size());
  table_.truncate(600, nullptr);
  EXPECT_EQ(5, table_.size());
  EXPECT_EQ(550, Forward(table_).back().eOff);
  ExpectSound();
}

TEST_F(TruncateTest, DeleteLinesAlwaysGoToTheLogAndTheFrontOnlyToTheTrace) {
  Insert(0, 100, Oid(64), 10);
  Insert(100, 200, Oid(64), 20);
  Insert(200, 300, Oid(64), 30);
  Lines();
  TraceFile trace;
  table_.truncate(150, trace.get());
  EXPECT_EQ("add extent [100, 150, 20]\n\n", trace.text());
  EXPECT_THAT(Lines(), ElementsAre("0 delete extent [100, 200]", "0 delete extent [200, 300]"));
  table_.truncate(50, nullptr);
  EXPECT_THAT(Lines(), ElementsAre("0 delete extent [0, 100]", "0 delete extent [100, 150]"));
}

TEST_F(TruncateTest, WritesASingleNewlineAtItsEndIfItDidAnything) {
  AppendRow(3);
  TraceFile trace;
  table_.truncate(20, trace.get());
  EXPECT_EQ("\n", trace.text());
}

TEST_F(TruncateTest, BelowZeroDropsEverything) {
  AppendRow(3);
  table_.truncate(-5, nullptr);
  EXPECT_EQ(0, table_.size());
  ExpectSound();
}

TEST_F(TruncateTest, StepByStepKeepsTheTreeSound) {
  for (long i = 0; i < 300; ++i) {
    Insert(i * 10, i * 10 + 10);
  }
  for (long size = 3000; size >= 0; size -= 7) {
    table_.truncate(size, nullptr);
    EXPECT_EQ((size + 9) / 10, table_.size());
    ExpectSound();
  }
}

class DumpTest : public TableTest {};

TEST_F(DumpTest, OfTheTableIsANewline) {
  AppendRow(5);
  TraceFile file;
  table_.dump(file.get());
  EXPECT_EQ("\n", file.text());
  table_.dump(nullptr);
  table_.dumpTree(true, file.get());
  table_.dumpTree(false, nullptr);
  EXPECT_EQ("\n", file.text());
}

}  // namespace
