// Which nodes still wait for an object id, and whether the host must take the references again.

#include <map>
#include <memory>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "host/bloom_filter.h"
#include "tests/persistent/read_path_fixture.h"
#include "tests/support/held_lock.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using zefs::DataCacheNode;
using zefs::test::Oid;

/// A host that answers as it is told, and keeps what it was asked.
class Answers final : public zefs::DataCacheManagementInterface {
 public:
  int GetNodeObjectID(void* node, DataCacheNode::ObjectID* out, bool flag) override {
    asked_.emplace_back(node, flag);
    if (out->dcid != 0 || out->fp != crfp_digest_t{} || out->attrWord != 0) {
      ++notEmpty_;
    }
    const auto given = answers_.find(node);
    if (given == answers_.end()) {
      return 0;
    }
    *out = given->second.second;
    return given->second.first;
  }
  int ProtectShare(zefs::DataTransferManagement* /*transfer*/, const std::string& /*shareScope*/,
                   const std::string& /*share*/) override {
    return 0;
  }

  std::map<const void*, std::pair<int, DataCacheNode::ObjectID>> answers_;
  std::vector<std::pair<const void*, bool>> asked_;
  int notEmpty_ = 0;  ///< calls whose object id was not all zero
};

class WritingNodesTest : public zefs::test::PersistentTableTest {
 protected:
  using Entries = std::vector<DataCacheNodePointerWithStatus>;

  WritingNodesTest() { table_ = std::make_unique<CMappingLMDB>(&host_, "PROVISION"); }

  void Write(long sOff, long eOff, void* node) {
    table().insert(sOff, eOff, nullptr, 0, 0, node, -1, nullptr);
    host_.asked_.clear();
    host_.notEmpty_ = 0;
    log_.Take();
  }
  void Answer(const DataCacheNode& node, int status, const ObjectID& oid = {}) {
    host_.answers_[&node] = {status, oid};
  }

  Entries Listed(bool internalFlush) {
    Entries entries(1);  // to be dropped
    table().GetWritingNodes(&entries, internalFlush);
    return entries;
  }
  /// The nodes listed, and their status.
  std::vector<std::pair<const DataCacheNode*, int>> Nodes(bool internalFlush) {
    std::vector<std::pair<const DataCacheNode*, int>> nodes;
    for (const auto& entry : Listed(internalFlush)) {
      nodes.emplace_back(entry.node, entry.status);
    }
    return nodes;
  }
  std::vector<long> Pending() { return {peer().objList().begin(), peer().objList().end()}; }

  Answers host_;
  DataCacheNode a_;
  DataCacheNode b_;
  DataCacheNode c_;
};

TEST_F(WritingNodesTest, NodesStandInTheOrderOfTheirWritesWithWhatTheHostSaysOfThem) {
  Write(50, 60, &b_);
  Write(0, 10, &a_);
  Write(20, 30, &c_);
  Answer(a_, 0, Oid(70, 1));
  Answer(b_, -1, Oid(71, 2));
  Answer(c_, 17);
  const Entries entries = Listed(false);
  ASSERT_EQ(3U, entries.size());
  EXPECT_EQ(&b_, entries[0].node);
  EXPECT_EQ(-1, entries[0].status);
  EXPECT_EQ(71U, entries[0].objectID.dcid) << "whatever the status";
  EXPECT_EQ(&a_, entries[1].node);
  EXPECT_EQ(0, entries[1].status);
  EXPECT_EQ(70U, entries[1].objectID.dcid);
  EXPECT_EQ(Oid(70, 1).fp, entries[1].objectID.fp);
  EXPECT_EQ(&c_, entries[2].node);
  EXPECT_EQ(17, entries[2].status);
  EXPECT_EQ(0U, entries[2].objectID.dcid);
  EXPECT_EQ(0, host_.notEmpty_) << "each is asked with an object id of zeros";
}

TEST_F(WritingNodesTest, TheHostIsGivenTheInverseOfTheFlag) {
  Write(0, 10, &a_);
  Listed(false);
  Listed(true);
  EXPECT_THAT(host_.asked_, ElementsAre(Pair(&a_, true), Pair(&a_, false)));
}

TEST_F(WritingNodesTest, TheLogTellsTheFlag) {
  Listed(false);
  Listed(true);
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::GetWritingNodes(), internal_flush=0",
                                   "0 CMappingLMDB::GetWritingNodes(), internal_flush=1"));
}

TEST_F(WritingNodesTest, ANodeOfSeveralKeysIsListedAndAskedOnce) {
  Write(0, 100, &a_);
  Write(40, 60, &b_);  // cuts the extent of a_ in two
  Write(200, 210, &a_);
  for (const bool internalFlush : {false, true}) {
    host_.asked_.clear();
    EXPECT_THAT(Nodes(internalFlush), ElementsAre(Pair(&a_, 0), Pair(&b_, 0)));
    EXPECT_THAT(host_.asked_, ElementsAre(Pair(&a_, !internalFlush), Pair(&b_, !internalFlush)));
  }
}

TEST_F(WritingNodesTest, ANodeThatAnswersOneToAnInternalFlushIsLeftOutAndAskedAgainForEachKey) {
  Write(0, 10, &a_);
  Write(10, 20, &b_);
  Write(20, 30, &a_);
  Answer(a_, 1, Oid(70));
  EXPECT_THAT(Nodes(true), ElementsAre(Pair(&b_, 0)));
  EXPECT_THAT(host_.asked_, ElementsAre(Pair(&a_, false), Pair(&b_, false), Pair(&a_, false)));
  EXPECT_EQ(0, host_.notEmpty_) << "the second question starts from zeros too";
}

TEST_F(WritingNodesTest, OneIsAStatusAsAnyOtherWithoutAnInternalFlush) {
  Write(0, 10, &a_);
  Write(20, 30, &a_);
  Answer(a_, 1);
  EXPECT_THAT(Nodes(false), ElementsAre(Pair(&a_, 1)));
  EXPECT_THAT(host_.asked_, ElementsAre(Pair(&a_, true)));
}

TEST_F(WritingNodesTest, AnInternalFlushLeavesNoOtherAnswerOut) {
  Write(0, 10, &a_);
  for (const int status : {0, -1, 2}) {
    Answer(a_, status);
    EXPECT_THAT(Nodes(true), ElementsAre(Pair(&a_, status)));
  }
}

TEST_F(WritingNodesTest, KeysWithoutANodeOrWithANullOneAreNotAskedFor) {
  Write(0, 10, nullptr);
  Write(20, 30, &a_);
  Write(40, 50, &b_);
  peer().extDataPointers()[50] = nullptr;
  EXPECT_THAT(Nodes(false), ElementsAre(Pair(&a_, 0)));
  EXPECT_THAT(host_.asked_, testing::SizeIs(1));
}

TEST_F(WritingNodesTest, ANodeThatNoPendingKeyHasIsNotListed) {
  Write(0, 10, &a_);
  peer().objList().clear();
  EXPECT_THAT(Nodes(false), IsEmpty());
}

TEST_F(WritingNodesTest, NothingIsTakenOffTheList) {
  Write(0, 10, &a_);
  Write(0, 10, &b_);
  Write(20, 30, nullptr);
  const auto nodes = peer().extDataPointers();
  for (const bool internalFlush : {false, true}) {
    Listed(internalFlush);
    EXPECT_THAT(Pending(), ElementsAre(10, 10, 30));
    EXPECT_EQ(3U, peer().objListCount());
    EXPECT_EQ(nodes, peer().extDataPointers());
    EXPECT_THAT(Nodes(internalFlush), ElementsAre(Pair(&b_, 0)));
  }
}

TEST_F(WritingNodesTest, NoLockIsTaken) {
  Write(0, 10, &a_);
  const CMappingTable::UniqueLock cache(peer().rwLock());  // whoever took one would wait for ever
  const CMappingTable::UniqueLock databases(peer().tableLock());
  const CMappingTable::UniqueLock prefetched(peer().prefetchLock());
  EXPECT_THAT(Nodes(false), ElementsAre(Pair(&a_, 0)));
}

// --- the references of the file ------------------------------------------------------------------

class DataChangedTest : public zefs::test::ReadPathTest {
 protected:
  bool Changed(const ObjectID& doid, bool dataChanged) {
    peer().doid() = doid;
    peer().dataChanged() = dataChanged;
    log_.Take();
    const bool changed = table().IsDataChanged();
    EXPECT_EQ(dataChanged, peer().dataChanged()) << "it only asks";
    return changed;
  }
};

TEST_F(DataChangedTest, WithoutAnObjectIdItIsTrueAndElseWhatIsNoted) {
  Make();
  const ObjectID none;
  const ObjectID some = Oid(70);
  EXPECT_TRUE(Changed(none, false));
  EXPECT_TRUE(Changed(none, true));
  EXPECT_FALSE(Changed(some, false));
  EXPECT_TRUE(Changed(some, true));
}

TEST_F(DataChangedTest, ContainerAndFingerprintMustBothBeMissing) {
  Make();
  ObjectID container;
  container.dcid = 1;
  ObjectID fingerprint;
  fingerprint.fp[31] = 1;
  ObjectID attributes;
  attributes.attrByte = 1;
  attributes.attrWord = 2;
  attributes.attrFlag = 3;
  EXPECT_FALSE(Changed(container, false));
  EXPECT_FALSE(Changed(fingerprint, false));
  EXPECT_TRUE(Changed(attributes, false)) << "these play no part";
}

TEST_F(DataChangedTest, TheLogTellsTheObjectId) {
  Make();
  ObjectID oid = Oid(4711, 0x0a0b);
  const std::string text = "0b0a" + std::string(60, '0');
  Changed(oid, false);
  table().IsDataChanged();
  oid.dcid = UINT64_MAX;
  peer().doid() = oid;
  table().IsDataChanged();
  EXPECT_THAT(Lines(), ElementsAre("1 IsDataChanged, fp:" + text + ", dcid:4711",
                                   "1 IsDataChanged, fp:" + text + ", dcid:4711",
                                   "1 IsDataChanged, fp:" + text + ", dcid:-1"));
}

TEST_F(DataChangedTest, StraightAfterTheReferencesWereTakenItDependsOnTheObjectId) {
  LoadOver({{0, 10, 70}});
  std::vector<std::pair<unsigned long, unsigned long>> dcids;
  std::unique_ptr<BloomFilter> filter;
  table().GetDCIDAndBloomFilter(&dcids, &filter);
  EXPECT_FALSE(peer().dataChanged());
  EXPECT_TRUE(table().IsDataChanged()) << "no object id was ever stored";

  ObjectID oid = Oid(70);
  table().SetDOID(&oid);
  EXPECT_FALSE(table().IsDataChanged());
  Cache({0, 10, 71});
  EXPECT_TRUE(table().IsDataChanged());
  table().GetDCIDAndBloomFilter(&dcids, &filter);
  EXPECT_FALSE(table().IsDataChanged());
  peer().ResetDOID(false);
  EXPECT_TRUE(table().IsDataChanged());
}

TEST_F(DataChangedTest, NoLockIsTaken) {
  Make();
  const CMappingTable::UniqueLock cache(peer().rwLock());  // whoever took one would wait for ever
  const CMappingTable::UniqueLock databases(peer().tableLock());
  const CMappingTable::UniqueLock prefetched(peer().prefetchLock());
  EXPECT_TRUE(table().IsDataChanged());
}

}  // namespace
