#include "refhost/cache/node_ledger.h"

#include <memory>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

CacheNode::Bytes SomeBytes() {
  return std::make_shared<const std::string>("bytes");
}

TEST(NodeLedger, EveryNodeIsMadeReleasedAndFreedOnce) {
  NodeCounts counts;
  NodeLedger ledger(&counts);
  CacheNode* const a = ledger.Make(SomeBytes());
  CacheNode* const b = ledger.Make(SomeBytes());
  ledger.Release({a->ForTable(), b->ForTable()});
  EXPECT_EQ(2U, ledger.size()) << "the table may still hold their addresses";
  ledger.Settle();
  EXPECT_EQ(0U, ledger.size());
  EXPECT_EQ(2U, counts.made);
  EXPECT_EQ(2U, counts.released);
  EXPECT_EQ(2U, counts.freed);
  EXPECT_EQ("", counts.Problem());
}

TEST(NodeLedger, ReleasedNodeLosesItsBytesAndStays) {
  NodeCounts counts;
  NodeLedger ledger(&counts);
  const CacheNode::Bytes bytes = SomeBytes();
  CacheNode* const node = ledger.Make(bytes);
  EXPECT_EQ(bytes, node->bytes());
  EXPECT_EQ(2, bytes.use_count());
  ledger.Release({node->ForTable()});
  EXPECT_EQ(1, bytes.use_count());
  EXPECT_EQ(nullptr, node->bytes());
  EXPECT_TRUE(node->released());
}

TEST(NodeLedger, SecondReleaseIsCounted) {
  NodeCounts counts;
  NodeLedger ledger(&counts);
  CacheNode* const node = ledger.Make(SomeBytes());
  ledger.Release({node->ForTable()});
  ledger.Release({node->ForTable()});
  EXPECT_EQ(1U, counts.released);
  EXPECT_EQ(1U, counts.releasedTwice);
  EXPECT_EQ("nodes of the data cache: 1 released twice", counts.Problem());
}

TEST(NodeLedger, NodeOfAnotherTableIsCountedAndLeftAlone) {
  NodeCounts counts;
  NodeLedger ledger(&counts);
  NodeLedger other(&counts);
  CacheNode* const node = other.Make(SomeBytes());
  ledger.Release({node->ForTable()});
  EXPECT_FALSE(node->released());
  EXPECT_EQ(1U, counts.foreign);
  other.Release({node->ForTable()});
  other.Settle();
  EXPECT_EQ("nodes of the data cache: 1 released by a table that they are not of",
            counts.Problem());
}

TEST(NodeLedger, NodeThatDidNotComeBackIsLeakedIfTheTableIsEmpty) {
  NodeCounts counts;
  NodeLedger ledger(&counts);
  ledger.Make(SomeBytes());
  ledger.Settle();
  EXPECT_EQ(1U, counts.leaked);
  EXPECT_EQ(1U, counts.freed);
  EXPECT_EQ("nodes of the data cache: 1 never released", counts.Problem());
}

TEST(NodeLedger, NodeThatDidNotComeBackIsNoErrorIfTheTableIsGone) {
  NodeCounts counts;
  {
    NodeLedger ledger(&counts);
    ledger.Make(SomeBytes());
  }
  EXPECT_EQ(1U, counts.freed);
  EXPECT_EQ(1U, counts.dropped);
  EXPECT_EQ("", counts.Problem());
}

TEST(NodeCounts, TellsEveryKindOfError) {
  NodeCounts counts;
  counts.askedAfterRelease = 2;
  counts.readAfterRelease = 3;
  EXPECT_EQ(
      "nodes of the data cache: 2 asked for their object after their release, 3 read after their "
      "release",
      counts.Problem());
}

}  // namespace
}  // namespace zefs::refhost
