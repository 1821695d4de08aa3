// Which data-cache node backs which cached extent: who is asked for an object id, who shares a
// node, and when a node goes back to the host.

#include <gmock/gmock.h>

#include "tests/persistent/extent_cache_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using zefs::DataCacheNode;
using zefs::test::AddSharedLine;
using zefs::test::NoOverlapLine;
using zefs::test::Oid;
using zefs::test::Piece;
using zefs::test::ReleaseLine;
using zefs::test::RemapLine;
using zefs::test::RemoveLine;
using zefs::test::RemoveSharedLine;
using zefs::test::WriteLine;
using zefs::test::Written;

class ExtentCacheNodesTest : public zefs::test::ExtentCacheTest {
 protected:
  const ObjectID old_ = Oid(70, 1);
  const ObjectID new_ = Oid(80, 9);
  const ObjectID fresh_ = Oid(90, 20);
  DataCacheNode* const node_ = cache_.NewNode();   // behind what is displaced
  DataCacheNode* const other_ = cache_.NewNode();  // of the write that displaces
};

// --- the freshest object id
// -----------------------------------------------------------------------

TEST_F(ExtentCacheNodesTest, PiecesCarryTheObjectIdThatTheirNodeHasGotByThen) {
  Write(100, 200, old_, node_, 5, 6);
  cache_.MakeReady(node_, fresh_, 77);
  Write(130, 160, new_);
  EXPECT_THAT(Extents(), ElementsAre(Piece(100, 130, fresh_, 5, 77), Written(130, 160, new_),
                                     Piece(160, 200, fresh_, 65, 77)));
  EXPECT_THAT(cache_.asked_, ElementsAre(node_));
  EXPECT_TRUE(cache_.allFlagged_);
}

TEST_F(ExtentCacheNodesTest, ANodeOfTheSameContainerChangesNothingOfThePieces) {
  Write(100, 200, old_, node_, 5, 6);
  cache_.MakeReady(node_, Oid(old_.dcid, 55), 77);
  Write(130, 160, new_);
  EXPECT_THAT(Extents(), ElementsAre(Piece(100, 130, old_, 5, 6), Written(130, 160, new_),
                                     Piece(160, 200, old_, 65, 6)));
  EXPECT_THAT(cache_.asked_, ElementsAre(node_));
}

TEST_F(ExtentCacheNodesTest, ANodeThatIsNotReadyLeavesThePiecesTheirObjectId) {
  Write(100, 200, old_, node_, 5, 6);
  node_->dcOffset = 77;
  Write(130, 160, new_);
  EXPECT_THAT(Extents(), ElementsAre(Piece(100, 130, old_, 5, 6), Written(130, 160, new_),
                                     Piece(160, 200, old_, 65, 6)));
  EXPECT_THAT(cache_.asked_, ElementsAre(node_));
  EXPECT_TRUE(cache_.allFlagged_);
}

TEST_F(ExtentCacheNodesTest, AHeadOrATailAloneIsRefreshedToo) {
  Write(100, 200, old_, node_, 5, 6);
  cache_.MakeReady(node_, fresh_, 77);
  Write(150, 200, new_);
  EXPECT_THAT(Extents(), ElementsAre(Piece(100, 150, fresh_, 5, 77), Written(150, 200, new_)));
  cache_.MakeReady(node_, old_, 88);
  Write(100, 120, new_);
  EXPECT_THAT(Extents(), ElementsAre(Written(100, 120, new_), Piece(120, 150, old_, 25, 88),
                                     Written(150, 200, new_)));
}

TEST_F(ExtentCacheNodesTest, OnlyThePieceThatIsCutIsRefreshed) {
  Write(0, 100, old_, node_);
  Write(40, 50, new_);
  cache_.MakeReady(node_, fresh_, 77);
  Write(60, 70, new_);
  EXPECT_THAT(Extents(),
              ElementsAre(Piece(0, 40, old_), Written(40, 50, new_), Piece(50, 60, fresh_, 50, 77),
                          Written(60, 70, new_), Piece(70, 100, fresh_, 70, 77)));
}

TEST_F(ExtentCacheNodesTest, TheNodesOfAllOverlappedEntriesAreAskedOnceEachFromFrontToBack) {
  std::vector<DataCacheNode*> nodes;
  for (long at = 0; at < 60; at += 10) {
    nodes.push_back(ReadyNode(fresh_, 1));
    Write(at, at + 10, old_, at == 30 ? nullptr : nodes.back());
  }
  ForgetSteps();
  Write(15, 45, new_, nodes[2]);
  EXPECT_THAT(cache_.asked_, ElementsAre(nodes[1], nodes[2], nodes[4]))
      << "those that vanish too, also the node of the write itself";
  EXPECT_TRUE(cache_.allFlagged_);
}

/// A cache that answers `result_` after it has written to the object id, and keeps what it was
/// given to write to.
class ScribblingCache final : public zefs::DataCacheManagementInterface {
 public:
  int GetNodeObjectID(void* /*node*/, DataCacheNode::ObjectID* out, bool /*flag*/) override {
    given_ = *out;
    *out = Oid(90, 20);
    return result_;
  }
  int ProtectShare(zefs::DataTransferManagement* /*transfer*/, const std::string& /*shareScope*/,
                   const std::string& /*share*/) override {
    return 0;
  }
  DataCacheNode::ObjectID given_ = Oid(1, 2);
  int result_ = 0;
};

TEST_F(ExtentCacheNodesTest, AFailedQueryCountsForNothingWhateverItHasWritten) {
  for (const int result : {-1, 1, 22}) {
    ScribblingCache scribbling;
    scribbling.result_ = result;
    CMappingLMDB table(&scribbling, ZEFS_PROVISION_STR);
    table.insert(0, 100, &old_, 0, 0, node_, 6, nullptr);
    table.insert(50, 100, &new_, 0, 0, nullptr, 7, nullptr);
    EXPECT_THAT(zefs::test::CachedIn(Peer(table).extCache()),
                ElementsAre(Piece(0, 50, old_, 0, 6), Written(50, 100, new_, 0, 7)));
    EXPECT_EQ(0U, scribbling.given_.dcid) << "the query starts from an empty object id";
    EXPECT_EQ(0, scribbling.given_.attrByte);
    EXPECT_EQ(0U, scribbling.given_.attrWord);
    EXPECT_EQ(0, scribbling.given_.attrFlag);
  }
}

// --- pieces on one node
// ---------------------------------------------------------------------------

TEST_F(ExtentCacheNodesTest, AWriteInsideAnEntryLeavesTwoPiecesThatShareItsNode) {
  Write(100, 200, old_, node_);
  ForgetSteps();
  Write(130, 160, new_, other_);
  EXPECT_EQ((Nodes{{130, node_}, {160, other_}, {200, node_}}), NodesByKey());
  EXPECT_EQ((Shares{{node_, {130, 200}}}), SharedNodes());
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(PendingKeys(), ElementsAre(200, 130, 160));
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(130, 160, 0, other_), RemapLine(200, 130)));
}

TEST_F(ExtentCacheNodesTest, AnotherCutOfATailGrowsTheShare) {
  Write(100, 200, old_, node_);
  Write(130, 160, new_);
  ForgetSteps();
  Write(170, 180, new_);
  EXPECT_EQ((Nodes{{130, node_}, {170, node_}, {200, node_}}), NodesByKey());
  EXPECT_EQ((Shares{{node_, {130, 170, 200}}}), SharedNodes());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(170, 180, 0, nullptr), AddSharedLine(node_, 200),
                                   RemapLine(200, 170)));
}

TEST_F(ExtentCacheNodesTest, AnotherCutOfAHeadGrowsTheShare) {
  Write(100, 200, old_, node_);
  Write(130, 160, new_);
  ForgetSteps();
  Write(110, 120, new_);
  EXPECT_EQ((Nodes{{110, node_}, {130, node_}, {200, node_}}), NodesByKey());
  EXPECT_EQ((Shares{{node_, {110, 130, 200}}}), SharedNodes());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(110, 120, 0, nullptr), AddSharedLine(node_, 130),
                                   RemapLine(130, 110), NoOverlapLine(130, 160, 110, 120)));
}

TEST_F(ExtentCacheNodesTest, TheNodeOfACoveredTailMovesToTheHeadWithoutAShare) {
  Write(100, 200, old_, node_);
  ForgetSteps();
  Write(130, 250, new_, other_);
  EXPECT_EQ((Nodes{{130, node_}, {250, other_}}), NodesByKey());
  EXPECT_THAT(SharedNodes(), IsEmpty());
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(130, 250, 0, other_), RemapLine(200, 130)));
}

TEST_F(ExtentCacheNodesTest, TheKeyOfACoveredTailMovesInsideTheShare) {
  Write(100, 200, old_, node_);
  Write(130, 160, new_);
  ForgetSteps();
  Write(180, 200, new_, other_);
  EXPECT_EQ((Nodes{{130, node_}, {180, node_}, {200, other_}}), NodesByKey());
  EXPECT_EQ((Shares{{node_, {130, 180}}}), SharedNodes());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(180, 200, 0, other_), RemapLine(200, 180)));
}

TEST_F(ExtentCacheNodesTest, ACoveredHeadLeavesTheNodeUnderTheKeyOfTheTail) {
  Write(100, 200, old_, node_);
  ForgetSteps();
  Write(100, 160, new_, other_);
  EXPECT_EQ((Nodes{{160, other_}, {200, node_}}), NodesByKey());
  EXPECT_THAT(SharedNodes(), IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(100, 160, 0, other_)));
}

TEST_F(ExtentCacheNodesTest, ACoveredHeadOfASharingPieceLeavesTheShareAsItWas) {
  Write(100, 200, old_, node_);
  Write(130, 160, new_);
  ForgetSteps();
  Write(160, 170, new_);
  EXPECT_EQ((Shares{{node_, {130, 200}}}), SharedNodes());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(160, 170, 0, nullptr), AddSharedLine(node_, 200)));
}

TEST_F(ExtentCacheNodesTest, EntriesWithoutANodeAreCutWithoutAWord) {
  Write(100, 200, old_);
  ForgetSteps();
  Write(130, 160, new_);
  Write(100, 300, new_);
  EXPECT_THAT(NodesByKey(), IsEmpty());
  EXPECT_THAT(SharedNodes(), IsEmpty());
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(Lines(),
              ElementsAre(WriteLine(130, 160, 0, nullptr), WriteLine(100, 300, 0, nullptr)));
}

// --- nodes that go back
// ---------------------------------------------------------------------------

TEST_F(ExtentCacheNodesTest, TheNodeOfAnEntryThatIsGoneIsToBeReleased) {
  for (const auto& [sOff, eOff] : {std::pair(100L, 200L), std::pair(50L, 250L)}) {
    Write(100, 200, old_, node_);
    ForgetSteps();
    Write(sOff, eOff, new_, other_);
    EXPECT_EQ((Nodes{{eOff, other_}}), NodesByKey());
    EXPECT_THAT(Released(), ElementsAre(node_));
    EXPECT_THAT(Lines(), ElementsAre(WriteLine(sOff, eOff, 0, other_), ReleaseLine(200, node_),
                                     RemoveLine(200)));
    peer().ResetCache();
  }
}

TEST_F(ExtentCacheNodesTest, AWriteWithoutANodeReleasesTheOldOneAndLeavesNoneBehind) {
  Write(100, 200, old_, node_);
  Write(100, 200, new_);
  EXPECT_THAT(NodesByKey(), IsEmpty());
  EXPECT_THAT(Released(), ElementsAre(node_));
}

TEST_F(ExtentCacheNodesTest, ANodeThatIsWrittenAgainIsNotToBeReleased) {
  Write(100, 200, old_, node_);
  ForgetSteps();
  Write(100, 200, new_, node_);
  EXPECT_EQ((Nodes{{200, node_}}), NodesByKey());
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(100, 200, 0, node_), RemoveLine(200)));
  Write(50, 250, new_, node_);
  EXPECT_EQ((Nodes{{250, node_}}), NodesByKey());
  EXPECT_THAT(Released(), IsEmpty());
}

TEST_F(ExtentCacheNodesTest, OneWriteOverSeveralEntriesReleasesAllNodesButItsOwn) {
  Write(0, 10, old_, node_);
  Write(10, 20, old_, other_);
  DataCacheNode* const third = cache_.NewNode();
  Write(20, 30, old_, third);
  Write(30, 40, old_);
  ForgetSteps();
  Write(0, 40, new_, other_);
  EXPECT_THAT(Released(), UnorderedElementsAre(node_, third));
  EXPECT_THAT(Lines(),
              ElementsAre(WriteLine(0, 40, 0, other_), ReleaseLine(10, node_), RemoveLine(10),
                          RemoveLine(20), ReleaseLine(30, third), RemoveLine(30)));
}

TEST_F(ExtentCacheNodesTest, ASharedNodeIsReleasedWithItsLastPieceOnly) {
  Write(100, 200, old_, node_);
  Write(130, 160, new_);
  ForgetSteps();
  Write(160, 200, new_);
  EXPECT_EQ((Nodes{{130, node_}}), NodesByKey());
  EXPECT_EQ((Shares{{node_, {130}}}), SharedNodes()) << "a share of one key stays";
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(160, 200, 0, nullptr), RemoveLine(200)));

  Write(100, 130, new_);
  EXPECT_THAT(NodesByKey(), IsEmpty());
  EXPECT_THAT(SharedNodes(), IsEmpty());
  EXPECT_THAT(Released(), ElementsAre(node_));
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(100, 130, 0, nullptr), RemoveSharedLine(node_, 130),
                                   ReleaseLine(130, node_), RemoveLine(130),
                                   NoOverlapLine(130, 160, 100, 130)));
}

TEST_F(ExtentCacheNodesTest, OneWriteOverAllPiecesReleasesTheSharedNodeOnce) {
  Write(100, 200, old_, node_);
  Write(130, 160, new_);
  ForgetSteps();
  Write(100, 200, new_);
  EXPECT_THAT(NodesByKey(), IsEmpty());
  EXPECT_THAT(SharedNodes(), IsEmpty());
  EXPECT_THAT(Released(), ElementsAre(node_));
  EXPECT_THAT(Lines(),
              ElementsAre(WriteLine(100, 200, 0, nullptr), RemoveLine(130),
                          RemoveSharedLine(node_, 200), ReleaseLine(200, node_), RemoveLine(200)));
}

TEST_F(ExtentCacheNodesTest, TheLastPieceOfANodeThatIsWrittenAgainEndsTheShareAndReleasesNothing) {
  Write(100, 200, old_, node_);
  Write(130, 160, new_);
  ForgetSteps();
  Write(100, 200, new_, node_);
  EXPECT_EQ((Nodes{{200, node_}}), NodesByKey());
  EXPECT_THAT(SharedNodes(), IsEmpty());
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(100, 200, 0, node_), RemoveLine(130),
                                   RemoveSharedLine(node_, 200), RemoveLine(200)));
}

// --- one node in several writes, which a host should not do
// ------------------------------------------

TEST_F(ExtentCacheNodesTest, AWriteWithASharedNodeJoinsAShareOfSeveralKeysOnly) {
  Write(100, 200, old_, node_);
  Write(130, 160, new_);
  Write(300, 400, new_, node_);
  EXPECT_EQ((Shares{{node_, {130, 200, 400}}}), SharedNodes());
  EXPECT_EQ((Nodes{{130, node_}, {200, node_}, {400, node_}}), NodesByKey());

  Write(160, 200, new_);
  Write(300, 400, new_);
  ASSERT_EQ((Shares{{node_, {130}}}), SharedNodes());
  Write(500, 600, new_, node_);
  EXPECT_EQ((Shares{{node_, {130}}}), SharedNodes()) << "a share of one key takes nobody in";
  EXPECT_EQ((Nodes{{130, node_}, {600, node_}}), NodesByKey());
}

TEST_F(ExtentCacheNodesTest, AKeyOutsideTheShareOfItsNodeJoinsWhenItsHeadIsCovered) {
  Write(100, 200, old_, node_);
  Write(130, 160, new_);
  Write(160, 200, new_);
  Write(500, 600, new_, node_);
  ASSERT_EQ((Shares{{node_, {130}}}), SharedNodes());
  ForgetSteps();
  Write(500, 550, new_);
  EXPECT_EQ((Shares{{node_, {130, 600}}}), SharedNodes());
  EXPECT_EQ((Nodes{{130, node_}, {600, node_}}), NodesByKey());
  EXPECT_THAT(Lines(), ElementsAre(WriteLine(500, 550, 0, nullptr), AddSharedLine(node_, 600)));
  Write(100, 130, new_);
  EXPECT_EQ((Shares{{node_, {600}}}), SharedNodes());
  EXPECT_THAT(Released(), IsEmpty()) << "the node is in use there";
}

TEST_F(ExtentCacheNodesTest, ANodeOutsideItsShareIsReleasedWhileItIsStillInUse) {
  Write(100, 200, old_, node_);
  Write(130, 200, new_);  // no share: the node moved
  Write(110, 120, new_);  // a share of 110 and 130
  Write(120, 130, new_);  // of 110 alone
  ASSERT_EQ((Shares{{node_, {110}}}), SharedNodes());
  Write(500, 600, new_, node_);
  Write(100, 110, new_);
  EXPECT_THAT(Released(), ElementsAre(node_));
  EXPECT_EQ((Nodes{{600, node_}}), NodesByKey());
}

TEST_F(ExtentCacheNodesTest, ANodeOfTwoWritesWithoutAShareIsReleasedWithEach) {
  Write(100, 200, old_, node_);
  Write(300, 400, old_, node_);
  EXPECT_THAT(SharedNodes(), IsEmpty());
  std::set<void*> released;
  Write(100, 200, new_);
  peer().RecycleDanglingPointer(&released);
  EXPECT_THAT(released, ElementsAre(node_));
  EXPECT_EQ((Nodes{{400, node_}}), NodesByKey()) << "and is still in use";
  released.clear();
  Write(300, 400, new_);
  peer().RecycleDanglingPointer(&released);
  EXPECT_THAT(released, ElementsAre(node_));
}

TEST_F(ExtentCacheNodesTest, ANullNodeIsMovedAndForgottenButNeverAsked) {
  Write(100, 200, old_);
  peer().extDataPointers()[200] = nullptr;
  ForgetSteps();
  Write(150, 200, new_);
  EXPECT_EQ((Nodes{{150, nullptr}}), NodesByKey());
  Write(100, 150, new_);
  EXPECT_THAT(NodesByKey(), IsEmpty());
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(cache_.asked_, IsEmpty());
}

// --- what the host takes
// --------------------------------------------------------------------------

TEST_F(ExtentCacheNodesTest, RecyclingAddsToWhatTheCallerHasAndForgets) {
  Write(0, 10, old_, node_);
  Write(0, 10, new_, other_);
  ForgetSteps();
  int mine = 0;
  std::set<void*> released{&mine};
  peer().RecycleDanglingPointer(&released);
  EXPECT_THAT(released, UnorderedElementsAre(&mine, node_));
  EXPECT_THAT(Released(), IsEmpty());
  peer().RecycleDanglingPointer(&released);
  EXPECT_THAT(released, UnorderedElementsAre(&mine, node_));
  EXPECT_EQ((Nodes{{10, other_}}), NodesByKey());
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ExtentCacheNodesTest, GetExtentDataHandsOutAllNodesAndLeavesTheExtents) {
  DataCacheNode* const gone = cache_.NewNode();
  Write(0, 10, old_, gone);
  Write(0, 10, old_, other_);
  Write(100, 200, old_, node_);
  Write(130, 160, new_);
  Write(300, 400, new_);
  peer().extDataPointers()[400] = nullptr;
  const auto extents = Extents();
  const auto pending = PendingKeys();
  const auto shares = SharedNodes();
  log_.Take();
  peer().dataChanged() = false;

  int stale = 0;
  std::set<void*> released{&stale};
  table().GetExtentData(&released);
  EXPECT_THAT(released, UnorderedElementsAre(node_, other_))
      << "what was there and null are dropped, a shared node comes once";
  EXPECT_THAT(NodesByKey(), IsEmpty());
  EXPECT_THAT(Released(), ElementsAre(gone)) << "that one waits for the next flush";
  EXPECT_EQ(extents, Extents());
  EXPECT_EQ(pending, PendingKeys());
  EXPECT_EQ(shares, SharedNodes());
  EXPECT_EQ((Shares{{node_, {130, 200}}}), SharedNodes());
  EXPECT_FALSE(peer().dataChanged());
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::GetExtentData()"));
}

TEST_F(ExtentCacheNodesTest, GetExtentDataOfAnEmptyCacheGivesNothing) {
  std::set<void*> released{node_};
  table().GetExtentData(&released);
  EXPECT_THAT(released, IsEmpty());
}

TEST_F(ExtentCacheNodesTest, AfterGetExtentDataCutsAskNobodyAndReleaseNothing) {
  Write(0, 100, old_, ReadyNode(fresh_, 77));
  std::set<void*> released;
  table().GetExtentData(&released);
  ForgetSteps();
  Write(20, 40, new_, other_);
  Write(40, 100, new_);
  EXPECT_THAT(Extents(),
              ElementsAre(Piece(0, 20, old_), Written(20, 40, new_), Written(40, 100, new_)));
  EXPECT_THAT(PendingKeys(), ElementsAre(100, 20, 40, 100));
  EXPECT_EQ((Nodes{{40, other_}}), NodesByKey());
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(cache_.asked_, IsEmpty());
}

TEST_F(ExtentCacheNodesTest, ANodeThatIsWrittenAgainAfterGetExtentDataMeetsItsOldShare) {
  Write(100, 200, old_, node_);
  Write(130, 160, new_);
  std::set<void*> released;
  table().GetExtentData(&released);
  Write(300, 400, new_, node_);
  ASSERT_EQ((Shares{{node_, {130, 200, 400}}}), SharedNodes());
  Write(300, 400, new_);
  EXPECT_THAT(NodesByKey(), IsEmpty());
  EXPECT_EQ((Shares{{node_, {130, 200}}}), SharedNodes());
  EXPECT_THAT(Released(), IsEmpty()) << "the share never empties: the node never comes back";
}

}  // namespace
