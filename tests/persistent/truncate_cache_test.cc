// What a truncate does to the cache: which extents go, which one is cut, and what becomes of their
// nodes and keys.

#include <climits>

#include <gmock/gmock.h>

#include "tests/persistent/extent_cache_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;
using zefs::DataCacheNode;
using zefs::test::Oid;
using zefs::test::Piece;
using zefs::test::Text;
using zefs::test::Written;

class TruncateCacheTest : public zefs::test::ExtentCacheTest {
 protected:
  /// Three extents with a node each: [0, 100), [100, 200) and, behind a hole, [300, 400).
  void WriteThree() {
    Write(0, 100, a_, nodeA_, 1, 11);
    Write(100, 200, b_, nodeB_, 2, 12);
    Write(300, 400, c_, nodeC_, 3, 13);
    ForgetSteps();
  }

  void Truncate(long size) {
    EXPECT_EQ(0, peer().truncateCache(size));
    EXPECT_EQ(size, peer().fileSize());
    EXPECT_EQ(-1, peer().committedFileSize()) << "of the databases";
  }

  static std::string ReleasedLine(const void* node, long key) {
    return Text("0 Point Op: add to be released point %p for offset %ld", node, key);
  }
  static std::string ErasedLine(long key, long start) {
    return Text("0 erase cache extent endOff=%ld, startOff=%ld", key, start);
  }
  static std::string CutLine(long key, long size) {
    return Text("0 modify cache extent endOff=%ld to new endOff=%ld", key, size);
  }
  static constexpr const char* kFirstLine = "0 CMappingLMDB::truncateCache()";

  const ObjectID a_ = Oid(70, 1);
  const ObjectID b_ = Oid(71, 2);
  const ObjectID c_ = Oid(72, 3);
  DataCacheNode* const nodeA_ = cache_.NewNode();
  DataCacheNode* const nodeB_ = cache_.NewNode();
  DataCacheNode* const nodeC_ = cache_.NewNode();
};

TEST_F(TruncateCacheTest, ASizeInsideAnExtentMovesItsEndAlone) {
  WriteThree();
  Truncate(150);
  EXPECT_THAT(Extents(), ElementsAre(Written(0, 100, a_, 1, 11), Piece(100, 150, b_, 2, 12)));
  EXPECT_THAT(NodesByKey(), ElementsAre(Pair(100, nodeA_), Pair(150, nodeB_)));
  EXPECT_THAT(Released(), ElementsAre(nodeC_));
  EXPECT_THAT(PendingKeys(), ElementsAre(150)) << "so that a flush finds it under its new key";
  EXPECT_THAT(Lines(), ElementsAre(kFirstLine, ReleasedLine(nodeC_, 400), ErasedLine(400, 300),
                                   CutLine(200, 150)));
  EXPECT_THAT(cache_.asked_, IsEmpty()) << "nobody is asked for an object id";
}

TEST_F(TruncateCacheTest, ASizeAtTheEndOfAnExtentLeavesItWhole) {
  WriteThree();
  Truncate(200);
  EXPECT_THAT(Extents(), ElementsAre(Written(0, 100, a_, 1, 11), Written(100, 200, b_, 2, 12)));
  EXPECT_THAT(NodesByKey(), ElementsAre(Pair(100, nodeA_), Pair(200, nodeB_)));
  EXPECT_THAT(Released(), ElementsAre(nodeC_));
  EXPECT_THAT(PendingKeys(), IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(kFirstLine, ReleasedLine(nodeC_, 400), ErasedLine(400, 300)));
}

TEST_F(TruncateCacheTest, ASizeWhereOneExtentEndsAndTheNextBeginsCutsNeither) {
  WriteThree();
  Truncate(100);
  EXPECT_THAT(Extents(), ElementsAre(Written(0, 100, a_, 1, 11)));
  EXPECT_THAT(Released(), UnorderedElementsAre(nodeB_, nodeC_));
  EXPECT_THAT(PendingKeys(), IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(kFirstLine, ReleasedLine(nodeB_, 200), ReleasedLine(nodeC_, 400),
                                   ErasedLine(200, 100), ErasedLine(400, 300)))
      << "all nodes, then all extents";
}

TEST_F(TruncateCacheTest, ASizeInAHoleCutsNothing) {
  WriteThree();
  Truncate(250);
  EXPECT_THAT(Extents(), ElementsAre(Written(0, 100, a_, 1, 11), Written(100, 200, b_, 2, 12)));
  EXPECT_THAT(Released(), ElementsAre(nodeC_));
  EXPECT_THAT(PendingKeys(), IsEmpty());
}

TEST_F(TruncateCacheTest, ASizeAtTheStartOfAnExtentBehindAHoleErasesIt) {
  WriteThree();
  Truncate(300);
  EXPECT_THAT(Extents(), ElementsAre(Written(0, 100, a_, 1, 11), Written(100, 200, b_, 2, 12)));
  EXPECT_THAT(Released(), ElementsAre(nodeC_));
}

TEST_F(TruncateCacheTest, AByteMoreOrLessThanABoundIsACut) {
  for (const auto& [size, expected] :
       {std::pair{199L, Piece(100, 199, b_, 2, 12)}, std::pair{101L, Piece(100, 101, b_, 2, 12)}}) {
    Make();
    WriteThree();
    Truncate(size);
    EXPECT_THAT(Extents(), ElementsAre(Written(0, 100, a_, 1, 11), expected));
    EXPECT_THAT(PendingKeys(), ElementsAre(size));
  }
}

TEST_F(TruncateCacheTest, ASizeOfZeroErasesTheExtentAtZeroLikeAllOthers) {
  WriteThree();
  Truncate(0);
  EXPECT_THAT(Extents(), IsEmpty());
  EXPECT_THAT(NodesByKey(), IsEmpty());
  EXPECT_THAT(Released(), UnorderedElementsAre(nodeA_, nodeB_, nodeC_));
  EXPECT_THAT(PendingKeys(), IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(kFirstLine, ReleasedLine(nodeA_, 100), ReleasedLine(nodeB_, 200),
                                   ReleasedLine(nodeC_, 400), ErasedLine(100, 0),
                                   ErasedLine(200, 100), ErasedLine(400, 300)));
}

TEST_F(TruncateCacheTest, ASizeBehindAllExtentsRaisesTheSizeAndChangesNone) {
  for (const long size : {400L, 401L, LONG_MAX}) {
    Make();
    WriteThree();
    Truncate(size);
    EXPECT_THAT(Extents(), ElementsAre(Written(0, 100, a_, 1, 11), Written(100, 200, b_, 2, 12),
                                       Written(300, 400, c_, 3, 13)));
    EXPECT_THAT(NodesByKey(), ElementsAre(Pair(100, nodeA_), Pair(200, nodeB_), Pair(400, nodeC_)));
    EXPECT_THAT(Released(), IsEmpty());
    EXPECT_THAT(PendingKeys(), IsEmpty());
    EXPECT_THAT(Lines(), ElementsAre(kFirstLine));
  }
}

TEST_F(TruncateCacheTest, AnExtentThatEndsAtTheLargestOffsetIsErasedOrCut) {
  Write(0, LONG_MAX, a_, nodeA_);
  ForgetSteps();
  Truncate(LONG_MAX - 1);
  EXPECT_THAT(Extents(), ElementsAre(Piece(0, LONG_MAX - 1, a_)));
  Truncate(0);
  EXPECT_THAT(Extents(), IsEmpty());
}

TEST_F(TruncateCacheTest, AnEmptyCacheTakesTheSizeAndForgetsTheSummariesOnly) {
  peer().truncatePending() = true;
  peer().newDcidRefs()[70] = 5;
  table().InnerAddReference(70, FingerprintText{"70"}, 10);
  log_.Take();
  Truncate(77);
  EXPECT_THAT(Lines(), ElementsAre(kFirstLine));
  EXPECT_FALSE(peer().truncatePending());
  EXPECT_THAT(peer().newDcidRefs(), IsEmpty());
  std::vector<std::pair<unsigned long, unsigned long>> byDcid;
  std::vector<FingerprintText> fps;
  table().CMappingTable::GetNewReferencedDCID(&byDcid);
  table().CMappingTable::GetReferencedFP(&fps);
  EXPECT_THAT(byDcid, IsEmpty());
  EXPECT_THAT(fps, IsEmpty());
  EXPECT_THAT(PendingKeys(), IsEmpty());
}

TEST_F(TruncateCacheTest, TheSummariesAreForgottenAlsoWhereExtentsStay) {
  WriteThree();
  peer().truncatePending() = true;
  peer().newDcidRefs()[70] = 5;
  Truncate(1000);
  EXPECT_FALSE(peer().truncatePending());
  EXPECT_THAT(peer().newDcidRefs(), IsEmpty());
}

// --- nodes
// ---------------------------------------------------------------------------------------

TEST_F(TruncateCacheTest, ExtentsWithoutANodeGoWithoutAWordAboutNodes) {
  Write(0, 100, a_);
  Write(100, 200, b_);
  ForgetSteps();
  Truncate(50);
  EXPECT_THAT(Extents(), ElementsAre(Piece(0, 50, a_)));
  EXPECT_THAT(NodesByKey(), IsEmpty());
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre(kFirstLine, ErasedLine(200, 100), CutLine(100, 50)));
}

TEST_F(TruncateCacheTest, NodesThatWereToBeReleasedBeforeStaySo) {
  Write(0, 100, a_, nodeA_);
  Write(0, 100, b_, nodeB_);
  Write(200, 300, c_, nodeC_);
  Truncate(200);
  EXPECT_THAT(Released(), UnorderedElementsAre(nodeA_, nodeC_));
}

TEST_F(TruncateCacheTest, ANodeOfAPieceBehindTheSizeIsReleasedThoughAPieceBeforeItUsesIt) {
  Write(0, 100, a_, nodeA_);
  Write(40, 60, b_, nodeB_);  // [0, 40) and [60, 100) share
  ForgetSteps();
  const auto shares = SharedNodes();
  EXPECT_THAT(shares, ElementsAre(Pair(nodeA_, ElementsAre(40, 100))));
  Truncate(60);
  EXPECT_THAT(Extents(), ElementsAre(Piece(0, 40, a_), Written(40, 60, b_)));
  EXPECT_THAT(NodesByKey(), ElementsAre(Pair(40, nodeA_), Pair(60, nodeB_)));
  EXPECT_THAT(Released(), ElementsAre(nodeA_));
  EXPECT_EQ(shares, SharedNodes()) << "left as they are";
}

TEST_F(TruncateCacheTest, ACutThroughASharedNodeLeavesTheSharesUnderTheOldKey) {
  Write(0, 100, a_, nodeA_);
  Write(40, 60, b_, nodeB_);
  ForgetSteps();
  Truncate(80);
  EXPECT_THAT(Extents(), ElementsAre(Piece(0, 40, a_), Written(40, 60, b_), Piece(60, 80, a_, 60)));
  EXPECT_THAT(NodesByKey(), ElementsAre(Pair(40, nodeA_), Pair(60, nodeB_), Pair(80, nodeA_)));
  EXPECT_THAT(Released(), IsEmpty());
  EXPECT_THAT(SharedNodes(), ElementsAre(Pair(nodeA_, ElementsAre(40, 100))));
  EXPECT_THAT(PendingKeys(), ElementsAre(80));
}

TEST_F(TruncateCacheTest, OneNodeBehindTwoErasedPiecesIsReleasedOnceAndToldTwice) {
  Write(0, 100, a_, nodeA_);
  Write(40, 60, b_);
  ForgetSteps();
  Truncate(0);
  EXPECT_THAT(Released(), ElementsAre(nodeA_));
  EXPECT_THAT(Lines(), ElementsAre(kFirstLine, ReleasedLine(nodeA_, 40), ReleasedLine(nodeA_, 100),
                                   ErasedLine(40, 0), ErasedLine(60, 40), ErasedLine(100, 60)));
}

// --- the list of pending keys
// ---------------------------------------------------------------------

TEST_F(TruncateCacheTest, KeysOfWhatIsGoneStayOnTheListAndTheCursorWhereItWas) {
  Write(0, 100, a_, nodeA_);
  Write(100, 200, b_, nodeB_);
  Write(300, 400, c_, nodeC_);
  const auto second = std::next(peer().objList().begin());
  peer().objListCursor() = second;
  peer().objListScanned() = 2;
  Truncate(150);
  EXPECT_THAT(PendingKeys(), ElementsAre(100, 200, 400, 150));
  EXPECT_EQ(second, peer().objListCursor());
  EXPECT_EQ(2, peer().objListScanned());
}

TEST_F(TruncateCacheTest, ASecondTruncateGoesOnFromWhatTheFirstHasLeft) {
  WriteThree();
  Truncate(150);
  log_.Take();
  Truncate(120);
  EXPECT_THAT(Extents(), ElementsAre(Written(0, 100, a_, 1, 11), Piece(100, 120, b_, 2, 12)));
  EXPECT_THAT(NodesByKey(), ElementsAre(Pair(100, nodeA_), Pair(120, nodeB_)));
  EXPECT_THAT(PendingKeys(), ElementsAre(150, 120));
  EXPECT_THAT(Lines(), ElementsAre(kFirstLine, CutLine(150, 120)));
  Truncate(120);
  EXPECT_THAT(Lines(), ElementsAre(kFirstLine)) << "nothing is left to cut";
}

}  // namespace
