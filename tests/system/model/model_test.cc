#include "tests/system/model/model.h"

#include <gmock/gmock.h>

#include "tests/support/oid.h"

// Where the two tables differ: each difference by itself.

namespace zefs::test {
namespace {

using testing::ElementsAre;

class ModelTest : public testing::Test {
 protected:
  ModelTest() : model_(Settings{}) { model_.Load(); }

  static WriteOf Known(long start, long end, std::uint64_t dcid = 70) {
    WriteOf write;
    write.start = start;
    write.end = end;
    write.piece.id = Oid(dcid, 3);
    return write;
  }
  int InsertNode(long start, long end) {
    WriteOf write = Known(start, end);
    write.isKnown = false;
    write.piece.node = model_.NewNode(Oid(71, 4), 5);
    model_.Insert(write);
    return write.piece.node;
  }
  void Flush() { model_.Flush(true, false, MergeFault::kNone); }

  Model model_;
};

TEST_F(ModelTest, OnlyTheStoredTableKeepsAContainerOffsetAndOnlyMemoryAChecksumAndWideOffsets) {
  WriteOf write = Known(0, 10);
  write.piece.dcOffset = 9;
  write.piece.checksum = 8;
  write.piece.objOff = 1L << 32;
  model_.Insert(write);
  const auto found = model_.Find(0);
  EXPECT_EQ(-1, found.memory->piece.dcOffset);
  EXPECT_EQ(8, found.memory->piece.checksum);
  EXPECT_EQ(1L << 32, found.memory->piece.objOff);
  EXPECT_EQ(9, found.stored->piece.dcOffset);
  EXPECT_EQ(0, found.stored->piece.checksum);
  EXPECT_EQ(0, found.stored->piece.objOff);
  EXPECT_EQ("", model_.Agree());
}

TEST_F(ModelTest, AnAppendHasNoContainerOffsetInEither) {
  WriteOf write = Known(0, 10);
  write.piece.dcOffset = 9;
  model_.Append(write);
  EXPECT_EQ(-1, model_.Find(0).stored->piece.dcOffset);
}

TEST_F(ModelTest, OnlyTheStoredTableHasAFileSize) {
  model_.SetFileSize(50);
  EXPECT_EQ(0, model_.FileSize().memory);
  EXPECT_EQ(50, model_.FileSize().stored);
  model_.SetFileSize(20);
  EXPECT_EQ(50, model_.FileSize().stored);
}

TEST_F(ModelTest, MemoryCountsExtentsAndTheStoredTableRecords) {
  model_.Insert(Known(0, 10));
  model_.Insert(Known(20, 30));
  EXPECT_EQ(2, model_.Size().memory);
  EXPECT_EQ(0, model_.Size().stored);  // nothing but three special items is stored
  Flush();
  EXPECT_EQ(2 + 4 - 4, model_.Size().stored);  // now with a file size
  model_.Merge(MergeFault::kNone);
  EXPECT_EQ(2, model_.Size().stored);
}

TEST_F(ModelTest, MemoryIsToldOfAnObjectAndTheStoredTableAsksWhenItFlushes) {
  const int node = InsertNode(0, 10);
  EXPECT_THAT(model_.MakeReady(node), ElementsAre(0));
  EXPECT_EQ(71U, model_.Find(0).memory->piece.id.dcid);
  EXPECT_EQ(0U, model_.Find(0).stored->piece.id.dcid);
  EXPECT_EQ("", model_.Agree());
  EXPECT_THAT(model_.Flush(true, false, MergeFault::kNone).released, ElementsAre(node));
  EXPECT_EQ(71U, model_.Find(0).stored->piece.id.dcid);
  EXPECT_EQ(5, model_.Find(0).stored->piece.dcOffset);
}

TEST_F(ModelTest, APieceThatIsCutLosesTwoAttributesInTheStoredTableOnly) {
  model_.Insert(Known(0, 10));
  model_.Insert(Known(4, 6));
  EXPECT_TRUE(SameId(Oid(70, 3), model_.Find(0).memory->piece.id));
  EXPECT_TRUE(
      SameId(WithoutAttributes(model_.Find(0).memory->piece).id, model_.Find(0).stored->piece.id));
}

TEST_F(ModelTest, WhatWasNotFlushedIsGoneAfterALoadAndMemoryIsMadeAnew) {
  model_.Insert(Known(0, 10));
  Flush();
  model_.Insert(Known(5, 20));
  model_.Unload();
  model_.Load();
  EXPECT_TRUE(model_.TakeRebuilt());
  EXPECT_EQ(10, model_.Find(5).stored->end);
  EXPECT_EQ(10, model_.Find(5).memory->end);
}

TEST_F(ModelTest, ATmpDatabaseKeepsWhatLiesBehindATruncate) {
  model_.Merge(MergeFault::kSize);
  model_.Insert(Known(0, 10));
  model_.Flush(true, false, MergeFault::kSize);
  ASSERT_TRUE(model_.TmpIsOpen());
  model_.Truncate(4);
  EXPECT_EQ(10, model_.Find(0).stored->end);
  EXPECT_EQ(10, model_.Find(0).memory->end);  // taken over from there
  EXPECT_TRUE(model_.TakeRebuilt());
  EXPECT_EQ(4, model_.FileSize().stored);
}

TEST_F(ModelTest, AFilterThatACrashHasLeftBesideNewerDatabasesMayDenyUntilTheNextMerge) {
  Disk left;
  left.bloom.emplace();
  left.full.extents[10] = Piece{};
  model_.Adopt(left);
  EXPECT_TRUE(model_.FilterMayDeny());
  model_.Load();
  model_.Adopt(model_.disk());  // killed once more
  EXPECT_TRUE(model_.FilterMayDeny());
  model_.Load();
  model_.Merge(MergeFault::kNone);
  EXPECT_FALSE(model_.FilterMayDeny());
}

TEST_F(ModelTest, PrefetchedExtentsGoOnShowingWhatAWriteInsideThemHasReplaced) {
  Settings settings;
  settings.prefetch = true;
  model_ = Model(settings);
  model_.Load();
  model_.Insert(Known(0, 100, 70));
  EXPECT_EQ(1U, model_.MakePlan(0, 100).containers.size());
  model_.Insert(Known(40, 60, 71));
  EXPECT_EQ(70U, model_.Find(50).stored->piece.id.dcid);
  EXPECT_EQ(71U, model_.Find(50).memory->piece.id.dcid);
  model_.Insert(Known(0, 10, 72));  // covers their start: they are dropped
  EXPECT_EQ(71U, model_.Find(50).stored->piece.id.dcid);
}

TEST_F(ModelTest, AJournalTakesBackWhatReplacedNothingAndLeavesTheRest) {
  Settings settings;
  settings.type = "GENERIC";
  settings.readyThreshold = 0;
  model_ = Model(settings);
  model_.Load();
  model_.Insert(Known(0, 10));
  Flush();
  model_.Insert(Known(20, 30, 71));
  model_.Insert(Known(0, 10, 72));
  model_.Insert(Known(50, 60, 73));  // the last of the list stays for a later flush
  model_.Flush(false, false, MergeFault::kNone);
  model_.Unload();
  model_.Load();
  EXPECT_EQ(72U, model_.Find(0).stored->piece.id.dcid);
  EXPECT_FALSE(model_.Find(10).stored.has_value());
}

TEST_F(ModelTest, ARefusedFlushLeavesItsExtentsInTheCacheForGood) {
  model_.Insert(Known(0, 10));
  EXPECT_TRUE(model_.Flush(true, true, MergeFault::kNone).refused);
  Flush();
  EXPECT_EQ(10, model_.FindCached(0).stored->end);
  EXPECT_TRUE(model_.disk().small.extents.empty());
}

}  // namespace
}  // namespace zefs::test
