#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "tests/table/table_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using zefs::refhost::LogRecorder;
using zefs::test::ByKeys;
using zefs::test::Oid;
using zefs::test::Seen;
using zefs::test::TableTest;
using zefs::test::TraceFile;

class AppendTest : public TableTest {};

TEST_F(AppendTest, AFreshTableHasOneEmptyCleanLeafAsBothRoots) {
  EXPECT_FALSE(peer_.rroot()->isKeyNode());
  EXPECT_EQ(peer_.rroot(), peer_.wroot());
  EXPECT_FALSE(peer_.rroot()->dirty);
  EXPECT_EQ(0, peer_.rroot()->getItemNum());
  EXPECT_EQ(0, peer_.rroot()->getStartOffset());
  EXPECT_EQ(0, peer_.rroot()->getEndOffset());
  ExpectSound();
}

TEST_F(AppendTest, TheFirstThreeStayInOneLeaf) {
  for (int n = 1; n <= 3; ++n) {
    Append(n * 10, n * 10 + 10);
    EXPECT_FALSE(peer_.rroot()->isKeyNode());
    EXPECT_EQ(n, peer_.rroot()->getItemNum());
    ExpectSound();
  }
}

TEST_F(AppendTest, TheFourthSplitsTheLeafAndMakesARootOfTwoKeys) {
  AppendRow(4);
  ASSERT_TRUE(peer_.rroot()->isKeyNode());
  EXPECT_EQ(2U, Root().keys.size());
  EXPECT_THAT(LeafSizes(), ElementsAre(2, 2));
  EXPECT_EQ(10, Root().keys[0].sOff);
  EXPECT_EQ(30, Root().keys[0].eOff);
  EXPECT_EQ(30, Root().keys[1].sOff);
  EXPECT_EQ(50, Root().keys[1].eOff);
  EXPECT_EQ(&Leaf(1), Leaf(0).next);
  EXPECT_EQ(&Leaf(0), Leaf(1).prev);
  EXPECT_EQ(nullptr, Leaf(0).prev);
  EXPECT_EQ(nullptr, Leaf(1).next);
  EXPECT_FALSE(Leaf(1).dirty);
  EXPECT_FALSE(Root().dirty);
  ExpectSound();
}

TEST_F(AppendTest, AKeyNodeOfElevenKeysSplitsIntoFiveAndSix) {
  AppendRow(21);
  EXPECT_EQ(10U, Root().keys.size());
  Append(220, 230);
  ASSERT_EQ(2U, Root().keys.size());
  EXPECT_EQ(5, Root().keys[0].rnode->getItemNum());
  EXPECT_EQ(6, Root().keys[1].rnode->getItemNum());
  ExpectSound();
}

TEST_F(AppendTest, ManyKeepTheTreeSoundAndInOrder) {
  for (int n = 1; n <= 2000; ++n) {
    Append(n * 10, n * 10 + 7);
    if (n % 97 == 0) {
      ExpectSound();
    }
  }
  EXPECT_EQ(2000, table_.size());
  ExpectSound();
}

TEST_F(AppendTest, NothingIsTestedSoAnExtentOutOfOrderGoesBehindAll) {
  Append(100, 110);
  Append(0, 10);
  std::vector<Seen> stored;
  ByKeys(peer_.rroot(), false, &stored);
  EXPECT_THAT(stored, ElementsAre(Seen{100, 110, 0, 64}, Seen{0, 10, 0, 64}));
  Append(50, 50);
  EXPECT_EQ(3, table_.size()) << "not even a range without bytes is refused";
}

TEST_F(AppendTest, KeepsWhatItIsGiven) {
  int node = 0;
  const ObjectID oid = Oid(80, 9);
  ASSERT_EQ(0, table_.append(5, 6, &oid, 7, 8, &node, nullptr));
  const auto it = table_.begin();
  EXPECT_EQ(5, it->sOff);
  EXPECT_EQ(6, it->eOff);
  EXPECT_EQ(7, it->objOff);
  EXPECT_EQ(8, it->objCksum);
  EXPECT_EQ(&node, it->data);
  EXPECT_EQ(-1, it->dcOffset);
  EXPECT_EQ(80U, it->objectID.dcid);
  EXPECT_EQ(oid.fp, it->objectID.fp);
  EXPECT_EQ(oid.attrByte, it->objectID.attrByte);
  EXPECT_EQ(oid.attrWord, it->objectID.attrWord);
  EXPECT_EQ(oid.attrFlag, it->objectID.attrFlag);
}

TEST_F(AppendTest, ANullObjectIdIsAllZeroAndNotCounted) {
  ASSERT_EQ(0, table_.append(0, 10, nullptr, 0, 0, nullptr, nullptr));
  EXPECT_EQ(0U, table_.begin()->objectID.dcid);
  EXPECT_EQ(crfp_digest_t{}, table_.begin()->objectID.fp);
  EXPECT_TRUE(peer_.dcids().empty());
  EXPECT_TRUE(peer_.fps().empty());
}

TEST_F(AppendTest, TheLineGoesToTheLogOrToTheTraceFile) {
  LogRecorder log;
  Append(1, 2, Oid(64), 3);
  auto lines = log.Take();
  ASSERT_EQ(1U, lines.size());
  EXPECT_EQ(0, lines[0].level);
  EXPECT_EQ("append extent [1, 2, 3]", lines[0].text);

  TraceFile trace;
  const ObjectID oid = Oid(64);
  table_.append(4, 5, &oid, 6, 0, nullptr, trace.get());
  EXPECT_EQ("append extent [4, 5, 6]\n", trace.text());
  EXPECT_TRUE(log.Take().empty());
}

TEST_F(AppendTest, OffsetsPrintUnsigned) {
  LogRecorder log;
  Append(-2, -1, Oid(64), -3);
  EXPECT_EQ("append extent [18446744073709551614, 18446744073709551615, 18446744073709551613]",
            log.Take().at(0).text);
}

TEST_F(AppendTest, NodesAreCountedWhileTheyLive) {
  const std::int64_t before = CMapNode::count_;
  {
    CMappingTable table(nullptr);
    EXPECT_EQ(before + 1, CMapNode::count_);
    for (long i = 0; i < 4; ++i) {
      table.append(i, i + 1, nullptr, 0, 0, nullptr, nullptr);
    }
    EXPECT_EQ(before + 3, CMapNode::count_);
  }
  EXPECT_EQ(before, CMapNode::count_);
}

class NodeLimitsTest : public testing::Test {};

TEST_F(NodeLimitsTest, OfALeaf) {
  CExtNode leaf(true);
  EXPECT_EQ(4U, leaf.extents.capacity());
  EXPECT_TRUE(leaf.dirty);
  EXPECT_EQ(nullptr, leaf.next);
  EXPECT_EQ(nullptr, leaf.prev);
  EXPECT_EQ(nullptr, leaf.shadowNode);
  EXPECT_FALSE(leaf.isKeyNode());
  for (int n = 0; n <= 4; ++n) {
    EXPECT_EQ(n, leaf.getItemNum());
    EXPECT_EQ(n >= 2, leaf.hasEnoughItems()) << n;
    EXPECT_EQ(n > 2, leaf.canBorrowItem()) << n;
    EXPECT_EQ(n > 3, leaf.hasTooManyItems()) << n;
    leaf.extents.push_back(Ext::Probe(n, n + 1));
  }
}

TEST_F(NodeLimitsTest, OfAKeyNode) {
  CKeyNode node(false);
  EXPECT_EQ(11U, node.keys.capacity());
  EXPECT_FALSE(node.dirty);
  EXPECT_TRUE(node.isKeyNode());
  EXPECT_EQ(0, node.getStartOffset());
  EXPECT_EQ(0, node.getEndOffset());
  for (int n = 0; n <= 11; ++n) {
    EXPECT_EQ(n, node.getItemNum());
    EXPECT_EQ(n >= 5, node.hasEnoughItems()) << n;
    EXPECT_EQ(n > 5, node.canBorrowItem()) << n;
    EXPECT_EQ(n > 10, node.hasTooManyItems()) << n;
    node.keys.push_back(Key{n, n + 1, nullptr, nullptr});
  }
  EXPECT_EQ(0, node.getStartOffset());
  EXPECT_EQ(12, node.getEndOffset());
}

TEST_F(NodeLimitsTest, ARootFromChildrenSortsThemAndReservesNothing) {
  CExtNode left(false);
  CExtNode right(false);
  left.extents.push_back(Ext::Probe(0, 10));
  right.extents.push_back(Ext::Probe(10, 30));
  std::vector<CMapNode*> children{&right, &left};
  const CKeyNode root(&children, false);
  ASSERT_EQ(2U, root.keys.size());
  EXPECT_EQ(2U, root.keys.capacity());
  EXPECT_EQ(&left, root.keys[0].rnode);
  EXPECT_EQ(&left, root.keys[0].wnode);
  EXPECT_EQ(&right, root.keys[1].rnode);
  EXPECT_EQ(0, root.keys[0].sOff);
  EXPECT_EQ(10, root.keys[0].eOff);
  EXPECT_EQ(10, root.keys[1].sOff);
  EXPECT_EQ(30, root.keys[1].eOff);
}

}  // namespace
