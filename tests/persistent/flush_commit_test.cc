// The transaction of a flush, and what follows for the merge.

#include <ctime>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/abort_trace.h"
#include "tests/persistent/clock_steps.h"
#include "tests/persistent/flush_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/support/held_lock.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

class FlushCommitTest : public FlushTest {
 protected:
  using FlushTest::LoadOver;

  /// A table with a tmp database as well.
  void LoadWithTmp() {
    Write("tmp.mdb", {});
    LoadOver();
    ASSERT_TRUE(peer().tmpDb().opened);
  }

  std::string Counter(const LMDBContext& db) { return Special(db)[kPlainCommitCounterKey]; }
};

TEST_F(FlushCommitTest, ObjectIdsComeFromTheFlushAndRangesAndObjectOffsetsFromTheCache) {
  LoadOver();
  WriteKnown(5, 10, Oid(70), 0x1'8000'0007, 1);
  EXPECT_EQ(0, peer().UpdateObjectID(ReadyExtents{{10, {Oid(75, 9), 33}}}, false));
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(5, 10, Oid(75, 9),
                                               static_cast<std::int32_t>(0x80000007U), 33)));
}

TEST_F(FlushCommitTest, AKeyThatIsNotCachedIsSkippedAndToldAndTheOthersAreStored) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  log_.Take();
  EXPECT_EQ(0,
            peer().UpdateObjectID(ReadyExtents{{10, {Oid(70), -3}}, {99, {Oid(71), -3}}}, false));
  EXPECT_THAT(Lines(4), ElementsAre("4 fail to get in memory cache extent key 99"));
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 10, Oid(70), 0, -3)));
  EXPECT_EQ(10, peer().committedFileSize()) << "the skipped one does not count";
}

TEST_F(FlushCommitTest, AKeyThatIsNotCachedDoesNotStandForTheNextOneThatIs) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  WriteKnown(90, 100, Oid(71));
  log_.Take();
  EXPECT_EQ(0,
            peer().UpdateObjectID(ReadyExtents{{10, {Oid(70), -3}}, {99, {Oid(72), -3}}}, false));
  EXPECT_THAT(Lines(4), ElementsAre("4 fail to get in memory cache extent key 99"));
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 10, Oid(70), 0, -3)));
  EXPECT_THAT(Cached(), ElementsAre(100));
}

TEST_F(FlushCommitTest, WithoutAnIdNoTransactionIsBegun) {
  LoadOver();
  peer().smallDb().opened = false;  // would be found closed
  MDB_env* const env = peer().smallDb().env;
  peer().smallDb().env = nullptr;
  EXPECT_EQ(0, peer().UpdateObjectID(ReadyExtents{}, false));
  peer().smallDb().env = env;
  peer().smallDb().opened = true;
  EXPECT_EQ(0, peer().commitCounter());
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(FlushCommitTest, TheFileSizeOnlyRises) {
  LoadOver({{kPlainFileSizeKey, SpecialBytes(std::int64_t{50})}});
  EXPECT_EQ(50, peer().committedFileSize());
  WriteKnown(0, 40, Oid(70));
  Flush();
  WriteKnown(40, 50, Oid(70));
  Flush();
  EXPECT_THAT(Lines(), Not(Contains(StartsWith("0 update file size"))));
  EXPECT_EQ(50, peer().committedFileSize());
  WriteKnown(50, 51, Oid(71));
  WriteKnown(10, 20, Oid(72));
  log_.Take();
  Flush();
  EXPECT_THAT(Lines(), Contains("0 update file size 51, ret:0"));
  EXPECT_EQ(51, peer().committedFileSize());
  EXPECT_EQ(51, peer().fileSize());
  EXPECT_EQ(SpecialBytes(std::int64_t{51}), Special(peer().smallDb())[kPlainFileSizeKey]);
}

TEST_F(FlushCommitTest, TheFileSizeOfTheCacheIsNotLowered) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  WriteNode(10, 90, NotReady());
  Flush();
  EXPECT_EQ(10, peer().committedFileSize());
  EXPECT_EQ(90, peer().fileSize());
  EXPECT_EQ(90, table().getFileSize());
}

TEST_F(FlushCommitTest, AFileSizeSetBelowTheCachesEndRisesWithWhatIsStored) {
  LoadOver();
  WriteKnown(0, 90, Oid(70));
  EXPECT_EQ(0, table().setFileSize(40));
  EXPECT_EQ(40, peer().fileSize());
  Flush();
  EXPECT_EQ(90, peer().committedFileSize());
  EXPECT_EQ(90, peer().fileSize());
}

TEST_F(FlushCommitTest, TheFirstFlushAfterTheReferencesWereTakenClearsTheTablesOwnId) {
  LoadOver();
  ObjectID doid = Oid(99, 4);
  table().SetDOID(&doid);
  WriteKnown(0, 10, Oid(70));
  Flush();
  EXPECT_EQ(99U, peer().doid().dcid) << "changed already";
  WriteKnown(10, 20, Oid(71));
  peer().dataChanged() = false;
  log_.Take();
  Flush();
  EXPECT_TRUE(peer().dataChanged());
  EXPECT_EQ(0U, peer().doid().dcid);
  EXPECT_EQ(PlainDigest{}, peer().doid().fp);
  EXPECT_EQ(SpecialBytes(std::uint64_t{0}, PlainDigest{}),
            Special(peer().smallDb())[kPlainDoidKey]);
  const std::vector<std::string> lines = Lines();
  const std::vector<std::string> specials = {
      "0 update file size 20, ret:0",
      "0 update do id fp " + std::string(64, '0') + ", dcid 0, ret:0",
      "0 update table commit counter 2, ret:0",
      "0 remove key from in memory cache key 20",
  };
  EXPECT_EQ(specials, std::vector<std::string>(lines.end() - 5, lines.end() - 1));
}

TEST_F(FlushCommitTest, TheCounterCountsCommitsAndGoesIntoTheDatabaseThatIsWritten) {
  LoadOver({{kPlainCommitCounterKey, SpecialBytes(std::int64_t{7})}});
  WriteKnown(0, 10, Oid(70));
  Flush();
  EXPECT_EQ(8, peer().commitCounter());
  EXPECT_EQ(SpecialBytes(std::int64_t{8}), Counter(peer().smallDb()));
  Flush();
  EXPECT_EQ(8, peer().commitCounter()) << "nothing was committed";
}

TEST_F(FlushCommitTest, WhatIsWrittenIsDurableWithTheCommitAndNotBefore) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  EXPECT_THAT(Small(), IsEmpty());
  EXPECT_EQ(0U, Special(peer().smallDb()).count(kPlainFileSizeKey));
  Flush();
  unsigned int flags = MDB_NOSYNC;
  ASSERT_EQ(0, ::mdb_env_get_flags(peer().smallDb().env, &flags));
  EXPECT_EQ(0U, flags & (MDB_NOSYNC | MDB_NOMETASYNC | MDB_MAPASYNC | MDB_WRITEMAP));
  Destroy();
  EXPECT_EQ((Records{{kPlainFileSizeKey, SpecialBytes(std::int64_t{10})},
                     {kPlainCommitCounterKey, SpecialBytes(std::int64_t{1})},
                     {kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})},
                     WholeRecord(0, 10, Oid(70), 0, -3)}),
            ReadPlainDatabase(File("lsml0.mdb")));
}

// --- merge -------------------------------------------------------------------------------------

TEST_F(FlushCommitTest, AnOpenTmpDatabaseTakesTheFlushAndStartsAMerge) {
  LoadWithTmp();
  peer().merging() = true;  // one is running already
  WriteKnown(0, 10, Oid(70));
  Flush();
  EXPECT_THAT(Extents(peer().tmpDb()), ElementsAre(WholeRecord(0, 10, Oid(70), 0, -3)));
  EXPECT_EQ(SpecialBytes(std::int64_t{1}), Counter(peer().tmpDb()));
  EXPECT_EQ(SpecialBytes(std::int64_t{10}), Special(peer().tmpDb())[kPlainFileSizeKey]);
  EXPECT_THAT(Small(), IsEmpty());
  EXPECT_EQ(1, peer().commitCounter());
  EXPECT_THAT(peer().mergeThreads(), IsEmpty());
  peer().merging() = false;
  log_.Take();
  Flush();  // with nothing to write
  EXPECT_THAT(Lines(2), ElementsAre(MatchesRegex(
                            "2 start merging, small table entires is 0 tableCommitCounter 1, "
                            "commit time [0-9]+, tmpdb 1")));
  EXPECT_EQ(0, peer().commitCounter());
  peer().WaitingForMerge();
  EXPECT_FALSE(peer().tmpDb().opened) << "merged";
}

TEST_F(FlushCommitTest, EveryFlushWithAnOpenTmpDatabaseStartsAMergeUntilOneSucceeds) {
  LoadWithTmp();
  // The merge database cannot be opened: a directory with a file in it stands in its place.
  fs::create_directories(File("mergedb") / "in the way");
  for (int i = 0; i < 2; ++i) {
    WriteKnown(i * 10, i * 10 + 10, Oid(70));
    log_.Take();
    Flush();
    peer().WaitingForMerge();
    EXPECT_THAT(Lines(2), ElementsAre(StartsWith("2 start merging, small table entires is "),
                                      StartsWith("2 Failed to remove old merge db"),
                                      "8 Failed to launch merge thread"));
    EXPECT_TRUE(peer().tmpDb().opened);
  }
  EXPECT_THAT(Walk(table()), ElementsAre("[0, 10) 70 0 -3", "[10, 20) 70 0 -3"));
}

TEST_F(FlushCommitTest, RecordsAboveTheThresholdStartAMergeSpecialItemsIncluded) {
  LoadOver();
  Set(&Config::mergeEntriesThreshold, 4U);
  WriteKnown(0, 10, Oid(70));
  Flush();  // with three special items
  EXPECT_THAT(peer().mergeThreads(), IsEmpty());
  EXPECT_EQ(1, peer().commitCounter());
  WriteKnown(10, 20, Oid(71));
  log_.Take();
  Flush();
  EXPECT_EQ(1U, peer().mergeThreads().size());
  peer().WaitingForMerge();
  EXPECT_THAT(Lines(2), ElementsAre(MatchesRegex(
                            "2 start merging, small table entires is 5 tableCommitCounter 2, "
                            "commit time [0-9]+, tmpdb 0")));
  EXPECT_EQ(0, peer().commitCounter());
  EXPECT_THAT(Extents(peer().fullDb()), testing::SizeIs(2));
  EXPECT_THAT(Small(), IsEmpty());
}

TEST_F(FlushCommitTest, CommitsAboveTheThresholdStartAMergeAndTheResetIsStoredByTheNextCommit) {
  LoadOver();
  Set(&Config::mergeCommitCountThreshold, 1U);
  fs::create_directories(File("mergedb") / "in the way");  // so that both databases can be seen
  WriteKnown(0, 10, Oid(70));
  Flush();
  EXPECT_THAT(peer().mergeThreads(), IsEmpty());
  WriteKnown(10, 20, Oid(71));
  Flush();
  peer().WaitingForMerge();
  EXPECT_EQ(0, peer().commitCounter());
  EXPECT_EQ(SpecialBytes(std::int64_t{2}), Counter(peer().smallDb())) << "not the reset";
  WriteKnown(20, 30, Oid(72));
  Flush();
  peer().WaitingForMerge();
  EXPECT_EQ(SpecialBytes(std::int64_t{1}), Counter(peer().tmpDb()));
}

TEST_F(FlushCommitTest, AnUnlockedFlushThatIsAskedToWaitComesBackAfterTheMerge) {
  LoadOver();
  Set(&Config::mergeCommitCountThreshold, 0U);
  WriteKnown(0, 10, Oid(70));
  table().checkAndBackfillObjectIDUnlock(true);
  EXPECT_THAT(peer().mergeThreads(), IsEmpty()) << "joined";
  EXPECT_THAT(Extents(peer().fullDb()), testing::SizeIs(1));
  table().checkAndBackfillObjectIDUnlock(true);  // with nothing to wait for
}

TEST_F(FlushCommitTest, AFlushWaitsWhenTheTmpDatabaseHasOutgrownItsLimit) {
  LoadWithTmp();
  Set(&Config::mergeWaitEntriesThreshold, 2U);
  WriteKnown(0, 10, Oid(70));  // three records
  Flush();
  EXPECT_THAT(peer().mergeThreads(), IsEmpty()) << "joined";
  EXPECT_FALSE(peer().tmpDb().opened);
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 10, Oid(70), 0, -3))) << "what was tmp";
}

TEST_F(FlushCommitTest, AMergeThatRunsIsNotStartedASecondTime) {
  LoadOver();
  Set(&Config::mergeCommitCountThreshold, 0U);
  peer().merging() = true;
  WriteKnown(0, 10, Oid(70));
  Flush();
  EXPECT_THAT(peer().mergeThreads(), IsEmpty());
  EXPECT_EQ(1, peer().commitCounter()) << "and nothing is reset";
  EXPECT_THAT(Lines(2), IsEmpty());
}

TEST_F(FlushCommitTest, TheTableLockIsHeldSharedAroundTheTransactionAndTheCount) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  AbortTrace aborts;
  std::vector<Held> locks;
  const auto look = [&] { locks.push_back(HowIsHeld(peer().tableLock())); };
  host_.atProtect_ = look;
  aborts.AtNext(look);  // the count ends so
  Flush();
  WriteKnown(0, 10, Oid(70));
  aborts.AtNext(look);  // and so does a transaction that fails
  {
    const WatchCalls watch(dir_.path().string());
    Faults::FailNth(Call::kMdbCursorPut, 1, MDB_MAP_FULL);
    EXPECT_EQ(-1, CodeOf([&] { Flush(); }));
  }
  EXPECT_THAT(locks, ElementsAre(Held::kNot, Held::kShared, Held::kNot, Held::kShared));
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().tableLock()));
}

TEST_F(FlushCommitTest, AFlushThatTookTooLongStartsAMerge) {
  LoadOver();
  Set(&Config::mergeCommitTimeThreshold, 5U);
  WriteKnown(0, 10, Oid(70));
  SetClockStep(5);
  Flush();
  EXPECT_THAT(Lines(2), IsEmpty());
  WriteKnown(0, 10, Oid(71));
  SetClockStep(6);
  Flush();
  SetClockStep(0);
  peer().WaitingForMerge();
  EXPECT_THAT(Lines(2),
              ElementsAre("2 start merging, small table entires is 4 tableCommitCounter 2, "
                          "commit time 6, tmpdb 0"));
}

}  // namespace
}  // namespace zefs::test
