#include <gtest/gtest.h>

#include "tests/table/table_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::Oid;
using zefs::test::TableTest;
using zefs::test::TraceFile;

/// What `call` writes to standard output.
template <typename Call>
std::string Written(Call call) {
  testing::internal::CaptureStdout();
  call();
  return testing::internal::GetCapturedStdout();
}

/// The line of a check that must fail.
std::string FindingOf(CMapNode& node, bool isRoot) {
  bool sound = true;
  std::string written = Written([&] { sound = node.checkNode(isRoot); });
  EXPECT_FALSE(sound);
  return written;
}

class CheckTest : public TableTest {
 protected:
  static std::unique_ptr<CExtNode> LeafOf(const std::vector<std::pair<long, long>>& ranges) {
    auto leaf = std::make_unique<CExtNode>(false);
    for (const auto& [sOff, eOff] : ranges) {
      leaf->extents.push_back(Ext::Probe(sOff, eOff));
    }
    return leaf;
  }
};

TEST_F(CheckTest, TheEmptyRootOfAFreshTableIsSound) {
  EXPECT_EQ("", Written([&] { EXPECT_TRUE(peer_.rroot()->checkNode(true)); }));
}

TEST_F(CheckTest, TheSameLeafBelowARootHasNotEnoughItems) {
  EXPECT_EQ("node [0, 0] has not enough Items :  0\n", FindingOf(*peer_.rroot(), false));
}

TEST_F(CheckTest, LeafFindings) {
  auto leaf = LeafOf({{0, 10}, {10, 20}});
  auto other = LeafOf({{20, 30}, {30, 40}});
  EXPECT_TRUE(leaf->checkNode(false));

  leaf->dirty = true;
  EXPECT_EQ("node [0, 20] is dirty node\n", FindingOf(*leaf, false));
  leaf->shadowNode = other.get();
  EXPECT_EQ("node [0, 20] has shadow node\n", FindingOf(*leaf, false)) << "this comes first";
  leaf->dirty = false;
  leaf->shadowNode = nullptr;

  leaf->next = other.get();
  EXPECT_EQ("node [0, 20]'s next node's prev node is not itself\n", FindingOf(*leaf, false));
  other->prev = leaf.get();
  EXPECT_TRUE(leaf->checkNode(false));
  leaf->next = nullptr;
  EXPECT_EQ("node [20, 40]'s prev node's next node is not itself\n", FindingOf(*other, false));

  EXPECT_EQ("node [0, 50] has too many Items : 4\n",
            FindingOf(*LeafOf({{0, 10}, {10, 20}, {20, 30}, {40, 50}}), false));
  EXPECT_EQ("At node [0, 12], extent [12, 12] is not valid\n",
            FindingOf(*LeafOf({{0, 10}, {12, 12}}), false));
  EXPECT_EQ("At node [0, 20], extent [0, 10] is not ordered.\n",
            FindingOf(*LeafOf({{0, 10}, {9, 20}}), false));
}

class KeyCheckTest : public CheckTest {
 protected:
  KeyCheckTest() {
    for (long i = 0; i < 5; ++i) {
      leaves_.push_back(LeafOf({{i * 20, i * 20 + 10}, {i * 20 + 10, i * 20 + 20}}));
      CMapNode* const leaf = leaves_.back().get();
      node_.keys.push_back(Key{leaf->getStartOffset(), leaf->getEndOffset(), leaf, leaf});
    }
  }
  std::vector<std::unique_ptr<CExtNode>> leaves_;
  CKeyNode node_{false};
};

TEST_F(KeyCheckTest, ASoundNode) {
  EXPECT_TRUE(node_.checkNode(false));
}

TEST_F(KeyCheckTest, ADirtyNodeFailsUntilItIsCommitted) {
  node_.dirty = true;
  EXPECT_EQ("node [0, 100] is dirty node\n", FindingOf(node_, false));
  node_.consist();
  EXPECT_TRUE(node_.checkNode(false));
}

TEST_F(KeyCheckTest, TooFewAndTooManyKeys) {
  node_.keys.pop_back();
  EXPECT_EQ("node [0, 80] has not enough Items :  4\n", FindingOf(node_, false));
  EXPECT_TRUE(node_.checkNode(true)) << "a root is excused";
  node_.keys.resize(11, node_.keys.back());
  EXPECT_EQ("node [0, 80] has too many Items : 11\n", FindingOf(node_, true));
}

TEST_F(KeyCheckTest, AKeyThatDiffersFromItsChild) {
  node_.keys[1].eOff = 41;
  EXPECT_EQ("At node [0, 100], key [20, 41] has different range with it's point [20, 40] \n",
            FindingOf(node_, false));
  node_.keys[1] = Key{21, 40, leaves_[1].get(), leaves_[1].get()};
  EXPECT_EQ("At node [0, 100], key [21, 40] has different range with it's point [20, 40] \n",
            FindingOf(node_, false));
}

TEST_F(KeyCheckTest, TwoViewsThatDiffer) {
  node_.keys[2].wnode = nullptr;
  EXPECT_EQ("At node [0, 100], key [40, 60]'s rnode and wnode is not consist\n",
            FindingOf(node_, false));
}

TEST_F(KeyCheckTest, AKeyWithoutBytes) {
  auto empty = LeafOf({{100, 100}});
  node_.keys.push_back(Key{100, 100, empty.get(), empty.get()});
  EXPECT_EQ("At node [0, 100], key [100, 100] is not valid\n", FindingOf(node_, false));
}

TEST_F(KeyCheckTest, KeysOutOfOrder) {
  std::swap(node_.keys[1], node_.keys[2]);
  EXPECT_EQ("At node [0, 100], key [40, 60] is not ordered\n", FindingOf(node_, false));
}

TEST_F(KeyCheckTest, AFindingBelowIsTheFinding) {
  leaves_[3]->dirty = true;
  EXPECT_EQ("node [60, 80] is dirty node\n", FindingOf(node_, false));
}

// --- dumps -----------------------------------------------------------------------------------

class NodeDumpTest : public TableTest {};

TEST_F(NodeDumpTest, LevelTwoIndentsBySixBlanks) {
  Append(1, 2, Oid(64), 3);
  TraceFile file;
  peer_.rroot()->dump(2, false, file.get());
  EXPECT_EQ("      [1, 2, 3]\n", file.text());
  EXPECT_EQ("      [1, 2, 3]\n", Written([&] { peer_.rroot()->dump(2, true, nullptr); }));
}

TEST_F(NodeDumpTest, KeysPrintSignedExtentsUnsigned) {
  Append(-4, -3, Oid(64), 0);
  Append(-3, -2, Oid(64), 0);
  Append(-2, -1, Oid(64), -1);
  Append(-1, 1, Oid(64), 0);
  const std::string expected =
      "[-4, -2]\n"
      "   [18446744073709551612, 18446744073709551613, 0]\n"
      "   [18446744073709551613, 18446744073709551614, 0]\n"
      "[-2, 1]\n"
      "   [18446744073709551614, 18446744073709551615, 18446744073709551615]\n"
      "   [18446744073709551615, 1, 0]\n";
  TraceFile file;
  peer_.rroot()->dump(0, false, file.get());
  EXPECT_EQ(expected, file.text());
  EXPECT_EQ(expected, Written([&] { peer_.rroot()->dump(0, false, nullptr); }));
}

TEST_F(NodeDumpTest, EachViewPrintsItsOwnChildren) {
  CExtNode reader(false);
  CExtNode writer(false);
  reader.extents.push_back(Ext::Probe(0, 1));
  writer.extents.push_back(Ext::Probe(0, 2));
  CKeyNode node(false);
  node.keys.push_back(Key{0, 1, &reader, &writer});
  TraceFile file;
  node.dump(1, false, file.get());
  EXPECT_EQ("   [0, 1]\n      [0, 1, 0]\n", file.text());
  EXPECT_EQ("   [0, 1]\n      [0, 2, 0]\n", Written([&] { node.dump(1, true, nullptr); }));
}

// --- sizes -----------------------------------------------------------------------------------

class SizeTest : public TableTest {
 protected:
  struct Size {
    long bytes = 0;
    long nodes = -1;
    long slots = -1;
  };
  Size Measure() {
    Size size;
    EXPECT_EQ("Ext size : 112, Key size : 32\n",
              Written([&] { size.bytes = table_.getTableSize(&size.nodes, &size.slots); }));
    return size;
  }
};

TEST_F(SizeTest, OfAFreshTable) {
  const Size size = Measure();
  EXPECT_EQ(512, size.bytes);
  EXPECT_EQ(1, size.nodes);
  EXPECT_EQ(4, size.slots);
}

TEST_F(SizeTest, AfterFourAppendsTheRootHasGrownByTwoSingleInserts) {
  AppendRow(4);
  const Size size = Measure();
  EXPECT_EQ(1128, size.bytes);
  EXPECT_EQ(3, size.nodes);
  EXPECT_EQ(10, size.slots);
}

TEST_F(SizeTest, TakesTheLockShared) {
  const CMappingTable::SharedLock reader(peer_.lock());
  EXPECT_EQ(512, Measure().bytes);
}

TEST_F(SizeTest, TheTreeIsMeasuredInTheReadersViewAlone) {
  AppendRow(4);
  CExtNode writer(true);
  writer.extents.reserve(100);
  CMapNode* const kept = Root().keys[0].wnode;
  Root().keys[0].wnode = &writer;
  EXPECT_EQ(1128, Measure().bytes);
  Root().keys[0].wnode = kept;
}

TEST_F(SizeTest, GetSizeAddsBothViewsToItsCounters) {
  AppendRow(4);
  unsigned long bytes = 1;
  unsigned long keyNodes = 1;
  unsigned long keySlots = 1;
  unsigned long extNodes = 1;
  unsigned long extSlots = 1;
  peer_.rroot()->GetSize(&bytes, &keyNodes, &keySlots, &extNodes, &extSlots);
  EXPECT_EQ(1129U, bytes);
  EXPECT_EQ(2U, keyNodes);
  EXPECT_EQ(3U, keySlots);
  EXPECT_EQ(3U, extNodes);
  EXPECT_EQ(9U, extSlots);

  CExtNode writer(true);
  CMapNode*& wnode = Root().keys[0].wnode;
  CMapNode* const kept = wnode;
  wnode = &writer;
  Root().keys[1].wnode = nullptr;
  bytes = keyNodes = keySlots = extNodes = extSlots = 0;
  peer_.rroot()->GetSize(&bytes, &keyNodes, &keySlots, &extNodes, &extSlots);
  EXPECT_EQ(1128U + 512U, bytes);
  EXPECT_EQ(3U, extNodes);
  EXPECT_EQ(12U, extSlots);
  wnode = kept;
  Root().keys[1].wnode = Root().keys[1].rnode;
  Root().keys[0].rnode = nullptr;
  bytes = keyNodes = keySlots = extNodes = extSlots = 0;
  peer_.rroot()->GetSize(&bytes, &keyNodes, &keySlots, &extNodes, &extSlots);
  EXPECT_EQ(2U, extNodes) << "a null child is passed over";
  Root().keys[0].rnode = kept;
}

}  // namespace
