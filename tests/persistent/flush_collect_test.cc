// Which extents a flush takes off the list, and what it takes along.

#include <climits>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/flush_fixture.h"

namespace zefs::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class FlushCollectTest : public FlushTest {
 protected:
  /// One pass over the list. Forgets the log lines so far.
  void Collect(bool force) {
    log_.Take();
    ids_.clear();
    released_.clear();
    peer().GetObjectIDMap(&ids_, &released_, force);
  }

  /// What was collected, as "key dcid dcOffset".
  std::vector<std::string> Collected() const {
    std::vector<std::string> shown;
    for (const auto& [key, value] : ids_) {
      shown.push_back(std::to_string(key) + ' ' + std::to_string(value.objectID.dcid) + ' ' +
                      std::to_string(value.dcOffset));
    }
    return shown;
  }

  /// Extents [0, 10), [10, 20) and so on, one for each node.
  void WriteRow(const std::vector<DataCacheNode*>& nodes) {
    long start = 0;
    for (DataCacheNode* node : nodes) {
      WriteNode(start, start + 10, node);
      start += 10;
    }
  }

  void ExpectNoScan() {
    EXPECT_EQ(-1, CursorIndex());
    EXPECT_EQ(0, peer().objListScanned());
  }

  ReadyExtents ids_;
  std::set<void*> released_;
};

// --- scan --------------------------------------------------------------------------------------

TEST_F(FlushCollectTest, AScanStopsAtTheFirstNodeThatIsNotReadyAndResumesBehindItsCursor) {
  LoadOver();
  Set(&Config::objIdReadyThreshold, 3U);
  WriteRow({Ready(Oid(70)), Ready(Oid(71)), NotReady(), Ready(Oid(73))});

  Collect(false);
  EXPECT_THAT(Named(), ElementsAre("0 host: object id of node 1", "0 host: object id of node 2",
                                   "0 host: object id of node 3"));
  EXPECT_EQ(1, CursorIndex());
  EXPECT_EQ(2, peer().objListScanned());
  EXPECT_THAT(Collected(), IsEmpty());
  EXPECT_THAT(Pending(), ElementsAre(10, 20, 30, 40));

  Collect(false);
  EXPECT_THAT(Named(), ElementsAre("0 host: object id of node 3")) << "only what is new";
  EXPECT_EQ(1, CursorIndex());
  EXPECT_EQ(2, peer().objListScanned());

  cache_.MakeReady(nodes_[2], Oid(72), 5);
  Collect(false);
  EXPECT_THAT(Named(), ElementsAre("0 host: object id of node 3", "0 host: object id of node 4",
                                   "0 host: object id of node 1", "0 host: object id of node 2",
                                   "0 host: object id of node 3"))
      << "a scan, then the collection";
  EXPECT_THAT(Collected(), ElementsAre("10 70 -3", "20 71 -3", "30 72 5"));
  EXPECT_THAT(Pending(), ElementsAre(40)) << "the element under the cursor stays";
  EXPECT_THAT(released_, UnorderedElementsAre(nodes_[0], nodes_[1], nodes_[2]));
  EXPECT_EQ((std::set<long>{40}), KeysWithNode());
  EXPECT_TRUE(cache_.allFlagged_);
  ExpectNoScan();
}

TEST_F(FlushCollectTest, ExactlyTheThresholdIsEnoughAndOneLessIsNot) {
  LoadOver();
  WriteRow({Ready(Oid(70)), Ready(Oid(71))});
  Set(&Config::objIdReadyThreshold, 3U);
  Collect(false);
  EXPECT_EQ(1, CursorIndex()) << "kept for the next call";
  EXPECT_EQ(2, peer().objListScanned());
  EXPECT_THAT(Collected(), IsEmpty());
  Set(&Config::objIdReadyThreshold, 2U);
  Collect(false);
  EXPECT_THAT(Collected(), ElementsAre("10 70 -3"));
  ExpectNoScan();
}

TEST_F(FlushCollectTest, AKeyWithoutANodeIsPassedOverUncounted) {
  LoadOver();
  WriteKnown(0, 10, Oid(80));
  WriteNode(10, 20, Ready(Oid(70)));
  WriteKnown(20, 30, Oid(81));
  Set(&Config::objIdReadyThreshold, 2U);
  Collect(false);
  EXPECT_EQ(2, CursorIndex());
  EXPECT_EQ(1, peer().objListScanned());
  EXPECT_THAT(Collected(), IsEmpty());
}

TEST_F(FlushCollectTest, TheOnlyReadyElementIsTheCursorsOwnAndTheNextScanStartsAnew) {
  LoadOver();
  WriteRow({Ready(Oid(70)), NotReady()});
  for (int i = 0; i < 2; ++i) {
    Collect(false);
    EXPECT_THAT(Named(), ElementsAre("0 host: object id of node 1", "0 host: object id of node 2"));
    EXPECT_THAT(Collected(), IsEmpty());
    EXPECT_THAT(Pending(), ElementsAre(10, 20));
    ExpectNoScan();
  }
}

TEST_F(FlushCollectTest, WithAThresholdOfZeroAFirstNodeThatIsNotReadyKeepsTheWholeList) {
  LoadOver();
  Set(&Config::objIdReadyThreshold, 0U);
  WriteRow({NotReady(), Ready(Oid(71))});
  WriteKnown(20, 30, Oid(80));
  Collect(false);
  EXPECT_THAT(Named(), ElementsAre("0 host: object id of node 1"));
  EXPECT_THAT(Collected(), IsEmpty());
  EXPECT_THAT(Pending(), ElementsAre(10, 20, 30)) << "no key is dropped";
  EXPECT_EQ((std::set<long>{10, 20}), KeysWithNode());
  ExpectNoScan();
}

TEST_F(FlushCollectTest, WithAThresholdOfZeroAnEmptyListIsNothingToCollect) {
  LoadOver();
  Set(&Config::objIdReadyThreshold, 0U);
  Collect(false);
  EXPECT_THAT(Lines(), IsEmpty());
  ExpectNoScan();
}

TEST_F(FlushCollectTest, WithAThresholdOfZeroWhatWasScannedIsCollected) {
  LoadOver();
  Set(&Config::objIdReadyThreshold, 0U);
  WriteRow({Ready(Oid(70)), Ready(Oid(71)), NotReady()});
  Collect(false);
  EXPECT_THAT(Collected(), ElementsAre("10 70 -3"));
  EXPECT_THAT(Pending(), ElementsAre(20, 30));
}

TEST_F(FlushCollectTest, AForcedPassEndsAScanThatIsUnderWay) {
  LoadOver();
  Set(&Config::objIdReadyThreshold, 9U);
  WriteRow({Ready(Oid(70)), Ready(Oid(71)), NotReady()});
  Collect(false);
  EXPECT_EQ(1, CursorIndex());
  Collect(true);
  EXPECT_THAT(Collected(), ElementsAre("10 70 -3", "20 71 -3"));
  EXPECT_THAT(Pending(), ElementsAre(30)) << "it ends at the first that is not ready";
  ExpectNoScan();
}

// --- collect -----------------------------------------------------------------------------------

TEST_F(FlushCollectTest, AForcedPassStopsAtANodeThatIsNotReadyEvenWithReadyOnesBehind) {
  LoadOver();
  WriteRow({Ready(Oid(70)), NotReady(), Ready(Oid(72))});
  Collect(true);
  EXPECT_THAT(Named(), ElementsAre("0 host: object id of node 1", "0 host: object id of node 2"));
  EXPECT_THAT(Collected(), ElementsAre("10 70 -3"));
  EXPECT_THAT(Pending(), ElementsAre(20, 30));
  EXPECT_EQ((std::set<long>{20, 30}), KeysWithNode());
  EXPECT_THAT(released_, UnorderedElementsAre(nodes_[0]));
}

TEST_F(FlushCollectTest, ANodeThatStoppedBeingReadyLosesItsKeyFromTheListAndKeepsItsEntry) {
  LoadOver();
  WriteRow({Ready(Oid(70)), Ready(Oid(71)), Ready(Oid(72)), Ready(Oid(73))});
  WriteNode(40, 50, NotReady());
  host_.RefuseFrom(7);  // five of the scan, the first of the collection, and then the second
  Collect(false);
  EXPECT_THAT(Collected(), ElementsAre("10 70 -3"));
  EXPECT_THAT(Pending(), ElementsAre(40, 50)) << "20 and 30 can only come back by a new write";
  EXPECT_EQ((std::set<long>{20, 30, 40, 50}), KeysWithNode());
  EXPECT_THAT(Cached(), ElementsAre(10, 20, 30, 40, 50));
  EXPECT_THAT(released_, UnorderedElementsAre(nodes_[0]));
  ExpectNoScan();
}

TEST_F(FlushCollectTest, AKeyThatIsTwiceOnTheListIsCollectedOnceAndLeavesItWhole) {
  LoadOver();
  WriteRow({Ready(Oid(70)), Ready(Oid(71))});
  peer().objList().push_back(10);
  ++peer().objListCount();
  Collect(true);
  EXPECT_THAT(Named(), ElementsAre("0 host: object id of node 1", "0 host: object id of node 2"));
  EXPECT_THAT(Collected(), ElementsAre("10 70 -3", "20 71 -3"));
  EXPECT_THAT(Pending(), IsEmpty());
}

TEST_F(FlushCollectTest, AKnownExtentIsTakenWithItsWholeIdFromContainer63On) {
  LoadOver();
  WriteKnown(0, 10, Oid(62, 1), 0, 1);
  WriteKnown(10, 20, Oid(63, 2), 0, 2);
  WriteKnown(20, 30, Oid(64, 3), 0, 4);
  Collect(true);
  EXPECT_THAT(Lines(), ElementsAre("0 this key has already a valid oid, key 20, dcid is 63",
                                   "0 this key has already a valid oid, key 30, dcid is 64"));
  EXPECT_THAT(Collected(), ElementsAre("20 63 2", "30 64 4"));
  const ObjectID& id = ids_.at(20).objectID;
  EXPECT_EQ(Oid(63, 2).fp, id.fp);
  EXPECT_EQ(3, id.attrByte);
  EXPECT_EQ(4U, id.attrWord);
  EXPECT_EQ(5, id.attrFlag);
  EXPECT_THAT(Pending(), IsEmpty()) << "the one without a container leaves the list too";
  EXPECT_THAT(Cached(), ElementsAre(10, 20, 30)) << "and stays in the cache";
  EXPECT_THAT(released_, IsEmpty());
}

TEST_F(FlushCollectTest, AKeyThatIsCachedNoLongerLeavesTheList) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  WriteKnown(0, 20, Oid(71));
  EXPECT_THAT(Pending(), ElementsAre(10, 20));
  Collect(true);
  EXPECT_THAT(Collected(), ElementsAre("20 71 -3"));
  EXPECT_THAT(Pending(), IsEmpty());
}

TEST_F(FlushCollectTest, ANullNodeIsForgottenAndItsExtentStays) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  peer().extDataPointers()[10] = nullptr;
  Collect(true);
  EXPECT_THAT(Lines(), ElementsAre("0 find a null point for key 10, ignore it"));
  EXPECT_THAT(Collected(), IsEmpty());
  EXPECT_THAT(Pending(), IsEmpty());
  EXPECT_THAT(KeysWithNode(), IsEmpty());
  EXPECT_THAT(Cached(), ElementsAre(10));
}

TEST_F(FlushCollectTest, AScanAsksAboutANullNodeAsAboutAnyOther) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  peer().extDataPointers()[10] = nullptr;
  Collect(false);
  EXPECT_THAT(Lines(), ElementsAre("0 host: object id of (nil)"));
  EXPECT_THAT(Pending(), ElementsAre(10));
  ExpectNoScan();
}

TEST_F(FlushCollectTest, TheContainerOffsetIsReadFromTheNode) {
  LoadOver();
  WriteRow({Ready(Oid(70), INT_MAX), Ready(Oid(71), INT_MIN)});
  Collect(true);
  EXPECT_THAT(Collected(), ElementsAre("10 70 2147483647", "20 71 -2147483648"));
}

TEST_F(FlushCollectTest, AfterAllNodesWereTakenOnlyWhatHasAnIdInTheCacheIsCollected) {
  LoadOver();
  const ObjectID known = Oid(80);
  table().insert(0, 10, &known, 0, 0, Ready(Oid(70)), 6, nullptr);
  WriteNode(10, 20, Ready(Oid(71)));
  std::set<void*> taken;
  table().GetExtentData(&taken);
  EXPECT_THAT(taken, UnorderedElementsAre(nodes_[0], nodes_[1]));
  Collect(true);
  EXPECT_THAT(Collected(), ElementsAre("10 80 6"));
  EXPECT_THAT(released_, IsEmpty());
  EXPECT_THAT(Pending(), IsEmpty());
  EXPECT_THAT(Cached(), ElementsAre(10, 20)) << "the second for good";
}

// --- shared nodes ------------------------------------------------------------------------------

class FlushSharedNodeTest : public FlushCollectTest {
 protected:
  /// [0, 100) of node 1, which is not ready, split by a write of node 2 in its middle.
  void Split() {
    LoadOver();
    WriteNode(0, 100, NotReady());
    WriteNode(40, 60, Ready(Oid(72), 2));
    EXPECT_THAT(Pending(), ElementsAre(100, 100, 40, 60));
  }
};

TEST_F(FlushSharedNodeTest, BothPiecesGetTheIdOfANodeThatBecameReadyAfterTheSplit) {
  Split();
  cache_.MakeReady(nodes_[0], Oid(71), 1);
  Collect(true);
  EXPECT_THAT(Named(), ElementsAre("0 host: object id of node 1",
                                   "0 find key 40 sharing data point node 1, process it",
                                   "0 host: object id of node 2"));
  EXPECT_THAT(Collected(), ElementsAre("40 71 1", "60 72 2", "100 71 1"));
  EXPECT_THAT(released_, UnorderedElementsAre(nodes_[0], nodes_[1]));
  EXPECT_THAT(peer().sharedDataPointers(), IsEmpty());
  EXPECT_THAT(KeysWithNode(), IsEmpty());
  EXPECT_THAT(Pending(), IsEmpty());
}

TEST_F(FlushSharedNodeTest, SharersAreProcessedInAscendingOrder) {
  Split();
  WriteNode(10, 20, Ready(Oid(73), 3));
  cache_.MakeReady(nodes_[0], Oid(71), 1);
  Collect(true);
  EXPECT_THAT(Named(), ElementsAre("0 host: object id of node 1",
                                   "0 find key 10 sharing data point node 1, process it",
                                   "0 find key 40 sharing data point node 1, process it",
                                   "0 host: object id of node 2", "0 host: object id of node 3"));
  EXPECT_THAT(Collected(), ElementsAre("10 71 1", "20 73 3", "40 71 1", "60 72 2", "100 71 1"));
}

TEST_F(FlushSharedNodeTest, ASiblingThatHoldsAnIdOfItsOwnByThenIsCollectedWithThat) {
  LoadOver();
  const ObjectID stale = Oid(90);
  DataCacheNode* const node = Ready(Oid(71), 1);
  table().insert(0, 100, &stale, 0, 0, node, 9, nullptr);
  WriteNode(40, 60, Ready(Oid(72), 2));  // the pieces take the node's id of now
  cache_.MakeReady(node, Oid(75), 5);    // which changes
  Collect(true);
  EXPECT_THAT(Named(), ElementsAre("0 host: object id of node 1",
                                   "0 find key 40 sharing data point node 1, process it",
                                   "0 this key has already a valid oid, key 40, dcid is 71",
                                   "0 host: object id of node 2"));
  EXPECT_THAT(Collected(), ElementsAre("40 71 1", "60 72 2", "100 75 5"));
}

TEST_F(FlushSharedNodeTest, AKeyThatMovedToAnotherNodeIsNoSharerAnyMore) {
  Split();
  WriteNode(20, 40, Ready(Oid(73), 3));  // the head is [0, 20) now, and 40 is of node 3
  peer().sharedDataPointers()[nodes_[0]].insert(40);
  cache_.MakeReady(nodes_[0], Oid(71), 1);
  Collect(true);
  EXPECT_THAT(Collected(), ElementsAre("20 71 1", "40 73 3", "60 72 2", "100 71 1"));
  EXPECT_THAT(peer().sharedDataPointers(), IsEmpty());
}

TEST_F(FlushSharedNodeTest, TheSharersOfAPassThatIsNotForcedAreTakenFromBehindTheCursorToo) {
  Split();
  cache_.MakeReady(nodes_[0], Oid(71), 1);
  cache_.MakeNotReady(nodes_[1]);
  Collect(false);
  EXPECT_THAT(Collected(), ElementsAre("40 71 1", "100 71 1"));
  EXPECT_THAT(Pending(), ElementsAre(40, 60));
  Collect(true);
  EXPECT_THAT(Collected(), IsEmpty()) << "40 was not stored, and has no id in the cache";
  EXPECT_THAT(Pending(), ElementsAre(60));
}

TEST_F(FlushSharedNodeTest, ANodeOfTwoWritesIsReleasedWhileTheOtherStillNeedsIt) {
  LoadOver();
  DataCacheNode* const node = Ready(Oid(70));
  WriteNode(0, 10, node);
  WriteNode(10, 20, NotReady());
  WriteNode(20, 30, node);
  Collect(true);
  EXPECT_THAT(released_, UnorderedElementsAre(node));
  EXPECT_EQ(node, peer().extDataPointers().at(30)) << "in use as well as released";
  cache_.MakeReady(nodes_[1], Oid(71), -3);
  Collect(true);
  EXPECT_THAT(released_, UnorderedElementsAre(node, nodes_[1])) << "and comes back once more";
}

}  // namespace
}  // namespace zefs::test
