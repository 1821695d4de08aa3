#include <new>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "tests/table/tree_change_fixture.h"

// A tree that is inconsistent, or out of memory: what is thrown, and that the table lock is free
// again.

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::TreeChangeTest;

// --- a shadow that fails ---------------------------------------------------------------------

struct LeafWithoutShadow : CExtNode {
  using CExtNode::CExtNode;
  CMapNode* shadow(CMappingTable*) override { return nullptr; }
};

/// A leaf whose shadow is of the wrong kind.
struct LeafWithKeyNodeAsShadow : CExtNode {
  using CExtNode::CExtNode;
  CMapNode* shadow(CMappingTable*) override { return &node; }
  CKeyNode node{true};
};

struct KeyNodeWithoutShadow : CKeyNode {
  using CKeyNode::CKeyNode;
  CMapNode* shadow(CMappingTable*) override { return nullptr; }
};

/// A key node whose shadow is of the wrong kind.
struct KeyNodeWithLeafAsShadow : CKeyNode {
  using CKeyNode::CKeyNode;
  CMapNode* shadow(CMappingTable*) override { return &leaf; }
  CExtNode leaf{true};
};

class FailedShadowTest : public TreeChangeTest {
 protected:
  /// Adds or deletes below `node`; the code it throws, 0 for none. No line is logged.
  int AddTo(CMapNode& node, long sOff, long eOff) {
    return CodeOf([&] { node.addExt(&table_, Ext::Probe(sOff, eOff), &out_); });
  }
  int DeleteFrom(CMapNode& node, long sOff, long eOff) {
    return CodeOf([&] { node.deleteExt(&table_, sOff, eOff, &out_); });
  }
  template <typename Call>
  int CodeOf(Call call) {
    zefs::refhost::LogRecorder log;
    int code = 0;
    try {
      call();
    } catch (const SysException& e) {
      code = e.code;
    }
    EXPECT_TRUE(log.Take().empty());
    return code;
  }

  std::vector<CMapNode*> out_;
};

TEST_F(FailedShadowTest, OfALeafThrowsFourteen) {
  LeafWithoutShadow leaf(false);
  leaf.extents = {Ext::Probe(0, 10), Ext::Probe(10, 20)};
  EXPECT_EQ(14, AddTo(leaf, 20, 30));
  EXPECT_EQ(14, DeleteFrom(leaf, 0, 10));
  EXPECT_EQ(2, leaf.getItemNum());
  LeafWithKeyNodeAsShadow wrong(false);
  wrong.extents = leaf.extents;
  EXPECT_EQ(14, AddTo(wrong, 20, 30));
  EXPECT_EQ(14, DeleteFrom(wrong, 0, 10));
}

TEST_F(FailedShadowTest, OfAKeyNodeWhoseChildWasReplacedThrowsFourteen) {
  CExtNode child(false);
  child.extents = {Ext::Probe(0, 10), Ext::Probe(10, 20), Ext::Probe(20, 30)};
  std::vector<CMapNode*> children{&child};
  KeyNodeWithoutShadow node(&children, false);
  EXPECT_EQ(14, DeleteFrom(node, 0, 10)) << "by one with another range";
  KeyNodeWithLeafAsShadow wrong(&children, false);
  EXPECT_EQ(14, AddTo(wrong, 30, 40)) << "a shadow of the wrong kind";
  for (CMapNode* made : peer_.dirtyNodes()) {
    delete made;
  }
  peer_.dirtyNodes().clear();
  peer_.oldNodes().clear();
}

TEST_F(FailedShadowTest, AKeyNodeWithoutKeysAsRootIsOutOfRange) {
  struct Emptied : CKeyNode {
    using CKeyNode::CKeyNode;
    int getItemNum() override { return 1; }
    int deleteExt(CMappingTable*, long, long, std::vector<CMapNode*>*) override { return 0; }
    long getEndOffset() override { return 100; }
    CMapNode* lower_bound(long, int* index) override {
      *index = 0;
      return &leaf;
    }
    CExtNode leaf{false};
  };
  auto* root = new Emptied(false);
  root->leaf.extents = {Ext::Probe(0, 100)};
  delete peer_.rroot();
  peer_.rroot() = peer_.wroot() = root;
  peer_.SetSize(1);
  try {
    table_.truncate(0, nullptr);
    FAIL() << "the access to the first key is tested";
  } catch (const std::out_of_range& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("vector::_M_range_check"));
  }
  EXPECT_TRUE(peer_.lock().try_lock());
  peer_.lock().unlock();
}

TEST_F(FailedShadowTest, RunningOutOfMemoryPassesThroughAndReleasesTheLock) {
  struct OutOfMemory : CExtNode {
    using CExtNode::CExtNode;
    int addExt(CMappingTable*, const Ext&, std::vector<CMapNode*>*) override {
      throw std::bad_alloc();
    }
    int appendExt(CMappingTable*, const Ext&, std::vector<CMapNode*>*) override {
      throw std::bad_alloc();
    }
    int deleteExt(CMappingTable*, long, long, std::vector<CMapNode*>*) override {
      throw std::bad_alloc();
    }
  };
  auto* root = new OutOfMemory(false);
  root->extents = {Ext::Probe(0, 100)};
  delete peer_.rroot();
  peer_.rroot() = peer_.wroot() = root;
  peer_.SetSize(1);
  const auto lockIsFree = [this] {
    const bool free = peer_.lock().try_lock();
    if (free) {
      peer_.lock().unlock();
    }
    return free;
  };
  EXPECT_THROW(table_.append(100, 110, nullptr, 0, 0, nullptr, nullptr), std::bad_alloc);
  EXPECT_TRUE(lockIsFree());
  EXPECT_THROW(table_.insert(200, 210, nullptr, 0, 0, nullptr, -1, nullptr), std::bad_alloc);
  EXPECT_TRUE(lockIsFree());
  EXPECT_THROW(table_.truncate(50, nullptr), std::bad_alloc);
  EXPECT_TRUE(lockIsFree());
  EXPECT_EQ(1, table_.size());
}

TEST_F(FailedShadowTest, OnTheWayOutOfATableTheLockIsReleased) {
  auto* leaf = new LeafWithoutShadow(false);
  leaf->extents = {Ext::Probe(0, 10), Ext::Probe(10, 20)};
  delete peer_.rroot();
  peer_.rroot() = leaf;
  peer_.wroot() = leaf;
  EXPECT_EQ(14, CodeOf([&] { table_.insert(5, 15, nullptr, 0, 0, nullptr, -1, nullptr); }));
  ASSERT_TRUE(peer_.lock().try_lock());
  peer_.lock().unlock();
  peer_.SetSize(2);  // so that the table looks at all
  EXPECT_EQ(14, CodeOf([&] { table_.insert(5, 15, nullptr, 0, 0, nullptr, -1, nullptr); }));
  ASSERT_TRUE(peer_.lock().try_lock());
  peer_.lock().unlock();
  EXPECT_EQ(14, CodeOf([&] { table_.truncate(5, nullptr); }));
  ASSERT_TRUE(peer_.lock().try_lock());
  peer_.lock().unlock();
  EXPECT_EQ(2, table_.size());
}

TEST_F(FailedShadowTest, OfAKeyNodeWhoseChildChangedItsRangeThrowsFourteen) {
  CExtNode child(true);
  child.extents = {Ext::Probe(0, 10), Ext::Probe(10, 20), Ext::Probe(20, 30)};
  std::vector<CMapNode*> children{&child};
  KeyNodeWithoutShadow node(&children, false);
  EXPECT_EQ(14, DeleteFrom(node, 0, 10));
  EXPECT_EQ(14, AddTo(node, 5, 8));
  KeyNodeWithLeafAsShadow wrong(&children, false);
  wrong.keys[0].sOff = 7;
  EXPECT_EQ(14, DeleteFrom(wrong, 10, 20)) << "a shadow of the wrong kind";
}

TEST_F(FailedShadowTest, OfAKeyNodeWhoseKeysChangeThrowsFourteen) {
  CExtNode child(true);
  child.extents = {Ext::Probe(0, 10), Ext::Probe(10, 20), Ext::Probe(20, 30)};
  std::vector<CMapNode*> children{&child};
  KeyNodeWithoutShadow node(&children, false);
  EXPECT_EQ(14, AddTo(node, 30, 40)) << "the child split";
  delete child.next;
  peer_.dirtyNodes().clear();
}

TEST_F(FailedShadowTest, OfASiblingThatIsToRepairThrowsFourteen) {
  CExtNode child(true);
  LeafWithoutShadow sibling(false);
  child.extents = {Ext::Probe(0, 10), Ext::Probe(10, 20)};
  sibling.extents = {Ext::Probe(20, 30), Ext::Probe(30, 40)};
  std::vector<CMapNode*> children{&child, &sibling};
  CKeyNode node(&children, true);
  EXPECT_EQ(14, DeleteFrom(node, 0, 10));
}

}  // namespace
