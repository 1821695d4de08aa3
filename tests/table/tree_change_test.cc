#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/table/tree_change_fixture.h"

// The steps of a change, one node operation at a time, and what a commit makes of them.

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using zefs::test::Forward;
using zefs::test::Oid;
using zefs::test::Seen;
using zefs::test::TreeChangeTest;

TEST_F(TreeChangeTest, AddingToACleanLeafOfThreeGivesAShadowAndARightSiblingOfTwoEach) {
  TwoALeaf(2);
  Insert(12, 13);
  ASSERT_THAT(LeafSizes(), ElementsAre(3, 2));
  CKeyNode& oldRoot = Root();
  CExtNode& oldLeaf = Leaf(0);
  const std::vector<Seen> before = ReaderView();

  const Outcome outcome = Add(13, 14);
  EXPECT_EQ(1, outcome.result) << "the parent is clean and the keys changed: a shadow of its own";
  ASSERT_EQ(1U, outcome.out.size());
  auto* root = dynamic_cast<CKeyNode*>(outcome.out[0]);
  ASSERT_NE(nullptr, root);
  EXPECT_NE(&oldRoot, root);
  EXPECT_TRUE(root->dirty);
  ASSERT_EQ(3U, root->keys.size());
  EXPECT_EQ(2, root->keys[0].wnode->getItemNum());
  EXPECT_EQ(2, root->keys[1].wnode->getItemNum());
  EXPECT_EQ(oldLeaf.shadowNode, root->keys[0].wnode) << "the replacement is left of its sibling";
  EXPECT_EQ(10, root->keys[0].sOff);
  EXPECT_EQ(13, root->keys[0].eOff);
  EXPECT_EQ(13, root->keys[1].sOff);
  EXPECT_EQ(16, root->keys[1].eOff);
  EXPECT_THAT(peer_.oldNodes(), ElementsAre(std::min<CMapNode*>(&oldLeaf, &oldRoot),
                                            std::max<CMapNode*>(&oldLeaf, &oldRoot)));
  EXPECT_EQ(3U, peer_.dirtyNodes().size());
  EXPECT_EQ(before, ReaderView()) << "nothing is visible before the commit";
  EXPECT_EQ(3, oldLeaf.getItemNum());

  peer_.wroot() = root;
  table_.consist();
  EXPECT_EQ(2U, peer_.oldNodes().size()) << "the commit frees nothing";
  EXPECT_THAT(peer_.dirtyNodes(), IsEmpty());
  peer_.FreeOldNodes();
  EXPECT_EQ(5U + 1U, ReaderView().size());
  EXPECT_TRUE(peer_.rroot()->checkNode(true));
}

TEST_F(TreeChangeTest, TheParentTakesBothKeysInPlaceIfItIsDirty) {
  TwoALeaf(2);
  Insert(12, 13);
  Insert(22, 23);
  ASSERT_THAT(LeafSizes(), ElementsAre(3, 3));
  const Outcome first = Add(13, 14);  // splits the first leaf: shadows it and the root
  ASSERT_EQ(1, first.result);
  auto* const root = dynamic_cast<CKeyNode*>(first.out.back());
  peer_.wroot() = root;
  ASSERT_EQ(3U, root->keys.size());
  const std::size_t dirty = peer_.dirtyNodes().size();
  const Outcome second = Add(23, 24);  // splits the other one
  EXPECT_EQ(0, second.result);
  EXPECT_THAT(second.out, IsEmpty()) << "the dirty root stands where it stood";
  EXPECT_EQ(4U, root->keys.size()) << "and has taken both keys";
  EXPECT_EQ(dirty + 2, peer_.dirtyNodes().size()) << "a shadow and a sibling, both leaves";
  Commit();
  EXPECT_EQ(root, peer_.rroot());
  EXPECT_THAT(LeafSizes(), ElementsAre(2, 2, 2, 2));
  EXPECT_TRUE(peer_.rroot()->checkNode(true));
}

TEST_F(TreeChangeTest, AnExtentInAHoleGoesToTheChildOnItsRight) {
  TwoALeaf(3);
  Insert(16, 18);
  EXPECT_THAT(LeafSizes(), ElementsAre(2, 3, 2));
  EXPECT_EQ(16, Leaf(1).getStartOffset());
  ExpectSound();
}

TEST_F(TreeChangeTest, AnExtentBehindEverythingGoesToTheLastChild) {
  TwoALeaf(3);
  Insert(100, 101);
  EXPECT_THAT(LeafSizes(), ElementsAre(2, 2, 3));
  ExpectSound();
}

TEST_F(TreeChangeTest, AnExtentBeforeEverythingGoesToTheFirstChild) {
  TwoALeaf(3);
  Insert(0, 1);
  EXPECT_THAT(LeafSizes(), ElementsAre(3, 2, 2));
  ExpectSound();
}

TEST_F(TreeChangeTest, DeletingInsideALeafOfThreeStopsTheCopyingAtTheParent) {
  TwoALeaf(2);
  Insert(12, 13);
  CKeyNode& root = Root();
  CExtNode& leaf = Leaf(0);
  const Outcome outcome = Delete(12, 13);  // neither the first nor the last: the range stays
  EXPECT_THAT(outcome.out, IsEmpty());
  EXPECT_FALSE(root.dirty);
  ASSERT_THAT(peer_.dirtyKeys(), ElementsAre(&root.keys[0]));
  EXPECT_EQ(&leaf, root.keys[0].rnode);
  EXPECT_EQ(leaf.shadowNode, root.keys[0].wnode);
  EXPECT_EQ(5U, ReaderView().size());
  EXPECT_EQ(4U, WriterView().size());
  Commit();
  EXPECT_EQ(&root, peer_.rroot()) << "the root was never copied";
  EXPECT_THAT(LeafSizes(), ElementsAre(2, 2));
  EXPECT_TRUE(root.checkNode(true));
}

TEST_F(TreeChangeTest, AddingInsideALeafOfTwoStopsTheCopyingAtTheParent) {
  Append(10, 12);
  Append(16, 18);
  Append(20, 22);
  Append(26, 28);
  CKeyNode& root = Root();
  const Outcome outcome = Add(13, 14);
  EXPECT_EQ(0, outcome.result);
  EXPECT_THAT(outcome.out, IsEmpty());
  EXPECT_FALSE(root.dirty);
  EXPECT_THAT(peer_.dirtyKeys(), ElementsAre(&root.keys[0]));
  Commit();
  EXPECT_EQ(&root, peer_.rroot());
  EXPECT_TRUE(root.checkNode(true));
}

TEST_F(TreeChangeTest, DeletingTheFirstExtentOfALeafShadowsTheParent) {
  TwoALeaf(2);
  Insert(12, 13);
  CKeyNode& oldRoot = Root();
  const Outcome outcome = Delete(10, 12);
  ASSERT_EQ(1U, outcome.out.size());
  auto* root = dynamic_cast<CKeyNode*>(outcome.out[0]);
  ASSERT_NE(nullptr, root);
  EXPECT_NE(&oldRoot, root);
  EXPECT_EQ(12, root->keys[0].sOff);
  EXPECT_EQ(10, oldRoot.keys[0].sOff);
  peer_.wroot() = root;
  Commit();
  EXPECT_TRUE(root->checkNode(true));
}

TEST_F(TreeChangeTest, RangesChangeUpwardOnlyAsFarAsTheyMust) {
  AppendRow(60, 10, 5);  // three levels
  ASSERT_TRUE(Root().keys[0].rnode->isKeyNode());
  CKeyNode& root = Root();
  auto* const second = static_cast<CKeyNode*>(root.keys[1].rnode);
  const Key inner = second->keys[2];  // its range is not at an edge of its parent
  const long sOff = inner.sOff;
  Insert(sOff - 2, sOff - 1);
  EXPECT_EQ(&root, peer_.rroot()) << "the parent's range stood, so the root was not copied";
  EXPECT_NE(second, root.keys[1].rnode);
  ExpectSound();
}

TEST_F(TreeChangeTest, ALeafOfTwoThatLosesOneBorrowsFromARightSiblingOfThree) {
  TwoALeaf(3);
  Insert(22, 23);
  ASSERT_THAT(LeafSizes(), ElementsAre(2, 3, 2));
  const Outcome outcome = Delete(10, 12);
  peer_.wroot() = outcome.out.at(0);
  Commit();
  EXPECT_THAT(LeafSizes(), ElementsAre(2, 2, 2));
  EXPECT_EQ(14, Leaf(0).getStartOffset());
  EXPECT_EQ(22, Leaf(0).getEndOffset());
  EXPECT_EQ(22, Leaf(1).getStartOffset());
  EXPECT_EQ(22, Root().keys[0].eOff);
  EXPECT_EQ(22, Root().keys[1].sOff);
  EXPECT_TRUE(Root().checkNode(true));
}

TEST_F(TreeChangeTest, ALeafOfTwoThatLosesOneMergesWithARightSiblingOfTwo) {
  TwoALeaf(3);
  CExtNode& third = Leaf(2);
  const Outcome outcome = Delete(10, 12);
  peer_.wroot() = outcome.out.at(0);
  ASSERT_EQ(2, peer_.wroot()->getItemNum()) << "the sibling's key goes";
  EXPECT_EQ(3, static_cast<CKeyNode*>(peer_.wroot())->keys[0].wnode->getItemNum());
  Commit();
  EXPECT_THAT(LeafSizes(), ElementsAre(3, 2));
  EXPECT_EQ(&third, Leaf(0).next) << "the emptied leaf has left the chain";
  EXPECT_EQ(&Leaf(0), third.prev);
  EXPECT_TRUE(Root().checkNode(true));
  EXPECT_EQ(ReaderView(), Forward(table_));
}

TEST_F(TreeChangeTest, TheLastLeafBorrowsFromItsLeftSibling) {
  TwoALeaf(3);
  Insert(22, 23);
  ASSERT_THAT(LeafSizes(), ElementsAre(2, 3, 2));
  const Outcome outcome = Delete(34, 36);
  peer_.wroot() = outcome.out.at(0);
  Commit();
  EXPECT_THAT(LeafSizes(), ElementsAre(2, 2, 2));
  EXPECT_EQ(24, Leaf(2).getStartOffset());
  EXPECT_EQ(23, Root().keys[1].eOff);
  EXPECT_EQ(24, Root().keys[2].sOff);
  EXPECT_TRUE(Root().checkNode(true));
  EXPECT_EQ(ReaderView(), Forward(table_));
}

TEST_F(TreeChangeTest, TheLastLeafMergesWithItsLeftSibling) {
  TwoALeaf(3);
  const Outcome outcome = Delete(30, 32);
  peer_.wroot() = outcome.out.at(0);
  Commit();
  EXPECT_THAT(LeafSizes(), ElementsAre(2, 3));
  EXPECT_EQ(20, Leaf(1).getStartOffset());
  EXPECT_EQ(36, Leaf(1).getEndOffset());
  EXPECT_EQ(nullptr, Leaf(1).next);
  EXPECT_TRUE(Root().checkNode(true));
  EXPECT_EQ(ReaderView(), Forward(table_));
}

TEST_F(TreeChangeTest, AMiddleLeafPrefersItsRightSiblingThoughTheLeftCouldLend) {
  TwoALeaf(3);
  Insert(12, 13);
  ASSERT_THAT(LeafSizes(), ElementsAre(3, 2, 2));
  const Outcome outcome = Delete(20, 22);
  peer_.wroot() = outcome.out.at(0);
  Commit();
  EXPECT_THAT(LeafSizes(), ElementsAre(3, 3));
  EXPECT_TRUE(Root().checkNode(true));
}

TEST_F(TreeChangeTest, KeyNodesBorrowAndMergeToo) {
  AppendRow(200, 10, 5);
  for (long i = 1; i <= 200; i += 1) {
    const Outcome outcome = Delete(i * 10, i * 10 + 5);
    if (!outcome.out.empty()) {
      peer_.wroot() = outcome.out.front();
    }
    if (peer_.wroot()->isKeyNode() && peer_.wroot()->getItemNum() == 1) {
      break;  // the driver's part: tested with it
    }
    Commit();
    ASSERT_TRUE(peer_.rroot()->checkNode(true)) << i;
    ASSERT_EQ(static_cast<std::size_t>(200 - i), ReaderView().size());
    ASSERT_EQ(ReaderView(), Forward(table_)) << i;
  }
  EXPECT_LT(ReaderView().size(), 150U);
  if (!peer_.dirtyNodes().empty()) {
    Commit();
  }
}

TEST_F(TreeChangeTest, KeyNodesAtTheEndBorrowFromAndMergeWithTheirLeftSibling) {
  AppendRow(200, 10, 5);
  std::size_t left = 200;
  for (long i = 200; i >= 1; --i) {
    const Outcome outcome = Delete(i * 10, i * 10 + 5);
    if (!outcome.out.empty()) {
      peer_.wroot() = outcome.out.front();
    }
    Commit();
    ASSERT_EQ(--left, ReaderView().size());
    ASSERT_TRUE(peer_.rroot()->checkNode(true)) << i;
    ASSERT_EQ(ReaderView(), Forward(table_)) << i;
    if (peer_.rroot()->getItemNum() == 2) {
      break;  // a root of one key is the driver's part
    }
  }
  EXPECT_LT(left, 190U);
}

TEST_F(TreeChangeTest, DeletingAtTheEdgeOfEveryLevelReachesTheRootAndInsideItDoesNot) {
  AppendRow(60, 10, 5);  // three levels
  CKeyNode& oldRoot = Root();
  ASSERT_TRUE(oldRoot.keys[1].rnode->isKeyNode());
  const long first = oldRoot.keys[1].sOff;
  Insert(first + 5, first + 6);  // three in that leaf: no repair
  CKeyNode& root = Root();
  const Outcome outcome = Delete(first, first + 5);
  ASSERT_EQ(1U, outcome.out.size()) << "each level's range changed: a new root";
  EXPECT_NE(&root, outcome.out[0]);
  EXPECT_EQ(first + 5, static_cast<CKeyNode*>(outcome.out[0])->keys[1].sOff);
  peer_.wroot() = outcome.out[0];
  Commit();
  EXPECT_TRUE(Root().checkNode(true));

  CKeyNode& before = Root();
  auto* const second = static_cast<CKeyNode*>(before.keys[1].rnode);
  const long inner = second->keys[2].sOff;
  Insert(inner + 5, inner + 6);
  ASSERT_EQ(&before, &Root());
  EXPECT_THAT(Delete(inner, inner + 5).out, IsEmpty()) << "the range of its parent stood";
  Commit();
  EXPECT_EQ(&before, &Root());
  EXPECT_TRUE(Root().checkNode(true));
}

TEST_F(TreeChangeTest, ASiblingThatIsDirtyAlreadyIsNotShadowedAgain) {
  TwoALeaf(3);
  Insert(22, 23);
  const Outcome first = Delete(22, 23);  // leaves a shadow of the second leaf behind
  ASSERT_THAT(first.out, IsEmpty());
  const std::size_t old = peer_.oldNodes().size();
  const Outcome second = Delete(10, 12);  // merges with it
  peer_.wroot() = second.out.at(0);
  // The first leaf and the root got a shadow each; the dirty sibling was emptied, and goes as it
  // is.
  EXPECT_EQ(old + 3, peer_.oldNodes().size());
  EXPECT_EQ(3U, peer_.dirtyNodes().size());
  Commit();
  EXPECT_THAT(LeafSizes(), ElementsAre(3, 2));
  EXPECT_TRUE(Root().checkNode(true));
}

TEST_F(TreeChangeTest, ADirtyKeyNodeTakesAChangedRangeInPlace) {
  CExtNode child(true);
  child.extents = {Ext::Probe(10, 20), Ext::Probe(20, 30)};
  std::vector<CMapNode*> children{&child};
  CKeyNode node(&children, true);
  std::vector<CMapNode*> out;
  EXPECT_EQ(0, node.addExt(&table_, Ext::Probe(5, 8), &out));
  EXPECT_EQ(5, node.keys[0].sOff);
  EXPECT_EQ(0, node.deleteExt(&table_, 20, 30, &out));
  EXPECT_EQ(20, node.keys[0].eOff);
  EXPECT_THAT(out, IsEmpty());
  EXPECT_THAT(peer_.dirtyNodes(), IsEmpty());
}

TEST_F(TreeChangeTest, ADirtyLeafTakesAnExtentInPlaceAndReportsNothing) {
  CExtNode leaf(true);
  leaf.extents = {Ext::Probe(10, 20), Ext::Probe(30, 40)};
  std::vector<CMapNode*> out;
  EXPECT_EQ(0, leaf.addExt(&table_, Ext::Probe(22, 28), &out));
  EXPECT_THAT(out, IsEmpty());
  EXPECT_EQ(3, leaf.getItemNum());
  EXPECT_THAT(peer_.dirtyNodes(), IsEmpty());
}

TEST_F(TreeChangeTest, ADirtyKeyNodeTakesAShadowOfTheSameRangeForBothViews) {
  auto* const child = new CExtNode(false);  // freed with the nodes that shadows replace
  child->extents = {Ext::Probe(10, 20), Ext::Probe(30, 40)};
  std::vector<CMapNode*> children{child};
  CKeyNode node(&children, true);
  std::vector<CMapNode*> out;
  EXPECT_EQ(0, node.addExt(&table_, Ext::Probe(22, 28), &out));
  EXPECT_THAT(out, IsEmpty());
  const std::unique_ptr<CMapNode> shadow(node.keys[0].wnode);
  EXPECT_NE(child, shadow.get());
  EXPECT_EQ(shadow.get(), node.keys[0].rnode);
  EXPECT_THAT(peer_.dirtyKeys(), IsEmpty()) << "there is nothing to turn at the commit";
  EXPECT_THAT(peer_.dirtyNodes(), ElementsAre(shadow.get()));
  peer_.dirtyNodes().clear();
  peer_.FreeOldNodes();
}

TEST_F(TreeChangeTest, WhatAChildReportsGoesBehindWhatTheVectorHolds) {
  TwoALeaf(2);
  CExtNode other(true);
  std::vector<CMapNode*> out{&other};
  const ObjectID oid = Oid(64);
  EXPECT_EQ(1, peer_.wroot()->addExt(&table_, Ext(5, 6, &oid, 0, 0, nullptr), &out));
  ASSERT_EQ(2U, out.size());
  EXPECT_EQ(&other, out[0]);
  peer_.wroot() = out[1];
  Commit();
  EXPECT_TRUE(Root().checkNode(true));
}

TEST_F(TreeChangeTest, WithoutASiblingTheUnderflowStaysAndIsReportedToNobody) {
  // A key node with one key comes about by no operation: it is built by hand.
  auto* leaf = new CExtNode(true);
  leaf->extents = {Ext::Probe(0, 10), Ext::Probe(10, 20)};
  std::vector<CMapNode*> children{leaf};
  CKeyNode node(&children, true);
  std::vector<CMapNode*> out;
  EXPECT_EQ(-1, node.deleteExt(&table_, 0, 10, &out));
  EXPECT_THAT(out, IsEmpty());
  EXPECT_EQ(1, leaf->getItemNum());
  EXPECT_EQ(10, node.keys[0].sOff) << "the key has the child's new range";
  delete leaf;
}

TEST_F(TreeChangeTest, AShadowOfALeafIsADirtyCopyOnBothLists) {
  TwoALeaf(3);
  CExtNode& middle = Leaf(1);
  auto* copy = dynamic_cast<CExtNode*>(middle.shadow(&table_));
  ASSERT_NE(nullptr, copy);
  EXPECT_TRUE(copy->dirty);
  EXPECT_FALSE(middle.dirty);
  EXPECT_EQ(4U, copy->extents.capacity());
  EXPECT_EQ(2, copy->getItemNum());
  EXPECT_EQ(copy, middle.shadowNode);
  EXPECT_EQ(nullptr, copy->shadowNode);
  EXPECT_THAT(peer_.dirtyNodes(), ElementsAre(copy));
  EXPECT_THAT(peer_.oldNodes(), ElementsAre(&middle));
  EXPECT_EQ(middle.prev, copy->prev);
  EXPECT_EQ(middle.next, copy->next);
  EXPECT_EQ(&middle, copy->prev->next) << "clean neighbours keep the readers' chain";
  EXPECT_EQ(&middle, copy->next->prev);

  auto* nextCopy = dynamic_cast<CExtNode*>(middle.next->shadow(&table_));
  EXPECT_EQ(copy, nextCopy->prev) << "a neighbour that has a shadow is met in its shadow";
  EXPECT_EQ(nextCopy, copy->next) << "and a dirty neighbour is told";
  Root().keys[1].wnode = copy;
  Root().keys[2].wnode = nextCopy;
  peer_.dirtyKeys() = {&Root().keys[1], &Root().keys[2]};
  Commit();
  EXPECT_TRUE(Root().checkNode(true));
  EXPECT_EQ(ReaderView(), Forward(table_));
}

TEST_F(TreeChangeTest, AShadowOfAKeyNodeSeesTheWritersChildrenInBothFields) {
  TwoALeaf(3);
  Insert(12, 13);
  Delete(12, 13);  // leaves a dirty key in the clean root
  CKeyNode& root = Root();
  CMapNode* const reader = root.keys[0].rnode;
  CMapNode* const writer = root.keys[0].wnode;
  ASSERT_NE(reader, writer);
  auto* copy = dynamic_cast<CKeyNode*>(root.shadow(&table_));
  ASSERT_NE(nullptr, copy);
  EXPECT_TRUE(copy->dirty);
  EXPECT_EQ(11U, copy->keys.capacity());
  EXPECT_EQ(writer, copy->keys[0].rnode);
  EXPECT_EQ(writer, copy->keys[0].wnode);
  EXPECT_EQ(reader, root.keys[0].rnode);
  EXPECT_EQ(reader, root.keys[0].wnode);
  EXPECT_EQ(copy, peer_.dirtyNodes().back());
  EXPECT_EQ(1U, peer_.oldNodes().count(&root));
  peer_.wroot() = copy;
  Commit();
  EXPECT_TRUE(Root().checkNode(true));
}

TEST_F(TreeChangeTest, MovingItemsBetweenLeavesAndBetweenKeyNodes) {
  CExtNode a(true);
  CExtNode b(true);
  a.extents = {Ext::Probe(0, 1)};
  b.extents = {Ext::Probe(1, 2), Ext::Probe(2, 3), Ext::Probe(3, 4)};
  EXPECT_TRUE(a.moveItems(&b, 0, 1, 2));
  EXPECT_EQ(3, a.getItemNum());
  EXPECT_EQ(0, a.getStartOffset());
  EXPECT_EQ(3, a.getEndOffset());
  EXPECT_EQ(1, b.getItemNum());
  EXPECT_EQ(3, b.getStartOffset());

  CKeyNode c(true);
  CKeyNode d(true);
  c.keys = {Key{5, 6, nullptr, nullptr}};
  d.keys = {Key{1, 2, nullptr, nullptr}, Key{3, 4, nullptr, nullptr}};
  EXPECT_TRUE(c.moveItems(&d, 1, 0, 1));
  EXPECT_EQ(3, c.getStartOffset());
  EXPECT_EQ(6, c.getEndOffset());
  EXPECT_EQ(1, d.getItemNum());
}

TEST_F(TreeChangeTest, MovingFromTheWrongKindOrFromNothing) {
  CExtNode leaf(true);
  CKeyNode node(true);
  EXPECT_FALSE(node.moveItems(&leaf, 0, 0, 0));
  EXPECT_FALSE(node.moveItems(nullptr, 0, 0, 0));
  for (CMapNode* from : {static_cast<CMapNode*>(&node), static_cast<CMapNode*>(nullptr)}) {
    try {
      leaf.moveItems(from, 0, 0, 0);
      FAIL() << "a leaf throws";
    } catch (const SysException& e) {
      EXPECT_EQ(14, e.code);
    }
  }
}

TEST_F(TreeChangeTest, TheCommitRelinksCleanNeighbours) {
  CExtNode left(false);
  CExtNode old(false);
  CExtNode copy(true);
  CExtNode right(false);
  copy.extents.push_back(Ext::Probe(0, 1));
  left.next = &old;
  right.prev = &old;
  copy.prev = &left;
  copy.next = &right;
  copy.consist();
  EXPECT_FALSE(copy.dirty);
  EXPECT_EQ(&copy, left.next);
  EXPECT_EQ(&copy, right.prev);
  CExtNode emptied(true);
  emptied.prev = &left;
  emptied.next = &copy;
  emptied.consist();
  EXPECT_EQ(&copy, left.next) << "a leaf without extents leaves the chain";
  EXPECT_EQ(&left, copy.prev);
}

TEST_F(TreeChangeTest, TheCommitOfAKeyNodeTakesTheWritersChildren) {
  CExtNode a(false);
  CExtNode b(false);
  CKeyNode node(true);
  node.keys = {Key{0, 1, &a, &b}};
  node.consist();
  EXPECT_FALSE(node.dirty);
  EXPECT_EQ(&b, node.keys[0].rnode);
}

}  // namespace
