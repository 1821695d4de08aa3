// The end of a table, and what else belongs to its life.

#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "host/zefs_log.h"
#include "tests/persistent/lifecycle_fixture.h"

namespace zefs::test {
namespace {

using Aldenta::Qnd::Morene::Zefs::LMDBContext;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

class LifeTest : public LifecycleTest {};

// --- the destructor ------------------------------------------------------------------------------

TEST_F(LifeTest, ATableThatWasNeverLoadedGoesWithoutTouchingTheDisk) {
  Make("GENERIC");
  Destroy();
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::~CMappingLMDB()",
                                   "0 CMappingLMDB::ClearDBEnv()", "0 CMappingLMDB::ClearDBEnv()"));
  EXPECT_FALSE(boost::filesystem::exists(Directory()));
}

TEST_F(LifeTest, DatabasesAreClosedFirstThenTheJournalThenTheOffsetStore) {
  Load("GENERIC");
  EXPECT_EQ(0, peer().journal()->Start());
  EXPECT_EQ(0, peer().journal()->Del(0, 10, 1, 70, DigestOf(7), 0));
  EXPECT_EQ(0, peer().dcOffsetStore()->CheckAndStore(5, 70, DigestOf(1), -1));
  log_.Take();
  Destroy();
  EXPECT_THAT(
      Lines(),
      ElementsAre("0 CMappingLMDB::~CMappingLMDB()", "0 CMappingLMDB::ClearDBEnv()",
                  "0 CMappingLMDB::ClearDBEnv()", "1 Flush, path_=" + Path("journal"),
                  "1 Write, path_=" + Path("journal") + ", ext=1",
                  testing::AllOf(StartsWith("1 fd_="), HasSubstr(Path("journal"))),
                  "1 extent journal stop, path=" + Path("journal"),
                  "0 DcOffsetStore::Flush, file: " + Path("dcoffset"),
                  "0 DcOffsetStore store dc offset with path_=" + Path("dcoffset") + ", return=1",
                  "1 DcOffsetStore::Open, file: " + Path("dcoffset"),
                  testing::AllOf(StartsWith("0 fd_="), HasSubstr(Path("dcoffset")))));
  EXPECT_THAT(Files(), UnorderedElementsAre("lsml0.mdb", "data.mdb", "journal", "dcoffset"));
  EXPECT_EQ(JournalBytes({{kOpDel, 0, 10, 70, 1, DigestOf(7)}}), BytesOf(File("journal")));
  EXPECT_EQ(56U, BytesOf(File("dcoffset")).size());
}

TEST_F(LifeTest, AnOpenJournalWithoutRecordsIsSyncedAndItsFileStays) {
  Load("GENERIC");
  EXPECT_EQ(0, peer().journal()->Start());
  Destroy();
  EXPECT_EQ("", BytesOf(File("journal")));
  EXPECT_TRUE(boost::filesystem::exists(File("journal")));
}

TEST_F(LifeTest, WhatTheCacheHoldsIsDropped) {
  CMappingLMDB& table = Load();
  const ObjectID oid = Oid(70);
  EXPECT_EQ(0, table.insert(0, 10, &oid, 0, 0, cache_.NewNode(), -1, nullptr));
  EXPECT_THAT(Walk(table), ElementsAre("[0, 10) 70 0 -1"));
  Destroy();
  EXPECT_THAT(Walk(Load()), IsEmpty());
}

/// A stand-in for the thread of a merge: ends only when the destructor holds the mutex under which
/// it joins, and says what it finds then.
struct StandIn {
  boost::mutex& mutex;
  LMDBContext& small;
  LMDBContext& full;

  static void* Run(void* argument) {
    const auto& self = *static_cast<const StandIn*>(argument);
    while (self.mutex.try_lock()) {
      self.mutex.unlock();
      std::this_thread::yield();
    }
    ZEFS_LOG(kLogTrace, "merge ends, small %d, full %d", static_cast<int>(self.small.opened),
             static_cast<int>(self.full.opened));
    return std::malloc(16);
  }
};

TEST_F(LifeTest, AMergeIsAwaitedBeforeAnythingIsClosed) {
  Load();
  log_.Take();
  StandIn standIn{peer().mergeMutex(), peer().smallDb(), peer().fullDb()};
  pthread_t thread{};
  ASSERT_EQ(0, ::pthread_create(&thread, nullptr, &StandIn::Run, &standIn));
  peer().mergeThreads().push_back(thread);
  Destroy();
  EXPECT_THAT(Lines(),
              ElementsAre("0 CMappingLMDB::~CMappingLMDB()", "0 merge ends, small 1, full 1",
                          "0 CMappingLMDB::ClearDBEnv()", "0 CMappingLMDB::ClearDBEnv()",
                          StartsWith("0 DcOffsetStore::Flush")));
}

TEST_F(LifeTest, ALockFileThatCannotGoIsToldAndNoMore) {
  Load();
  boost::filesystem::remove(File("lsml0.mdb-lock"));
  boost::filesystem::create_directories(File("lsml0.mdb-lock") / "full");
  log_.Take();
  Destroy();
  EXPECT_THAT(Lines(1), ElementsAre("8 Failed to remove lock " + Path("lsml0.mdb-lock")));
  EXPECT_FALSE(boost::filesystem::exists(File("data.mdb-lock"))) << "the full one went on";
}

// --- ResetCache ----------------------------------------------------------------------------------

TEST_F(LifeTest, ResetCacheEmptiesTheMemoryStateButForSharesAndSizes) {
  CMappingLMDB& table = Load();
  const ObjectID oid = Oid(70);
  EXPECT_EQ(0, table.insert(0, 100, &oid, 0, 0, cache_.NewNode(), -1, nullptr));
  EXPECT_EQ(0, table.insert(40, 50, &oid, 0, 0, cache_.NewNode(), -1, nullptr));
  EXPECT_EQ(0, table.insert(200, 300, &oid, 0, 0, cache_.NewNode(), -1, nullptr));
  Peer p = peer();
  int node = 0;
  p.toBeReleased().insert(&node);
  p.prefetchExts().emplace_back();
  p.objListCursor() = p.objList().begin();
  p.objListScanned() = 5;
  p.newDcidRefs()[70] = 1;
  p.dataChanged() = false;
  p.committedFileSize() = 7;
  p.commitCounter() = 3;
  p.doid() = Oid(99);
  const auto shares = p.sharedDataPointers();
  ASSERT_FALSE(shares.empty());
  ASSERT_FALSE(p.extDataPointers().empty());
  ASSERT_EQ(300, p.fileSize());
  log_.Take();

  p.ResetCache();
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_TRUE(p.extCache().empty());
  EXPECT_TRUE(p.extDataPointers().empty());
  EXPECT_TRUE(p.toBeReleased().empty());
  EXPECT_TRUE(p.objList().empty());
  EXPECT_EQ(0U, p.objListCount());
  EXPECT_TRUE(p.dataChanged());
  EXPECT_TRUE(p.prefetchExts().empty());
  EXPECT_EQ(p.objList().end(), p.objListCursor()) << "its element is gone";
  // What stays:
  EXPECT_EQ(shares, p.sharedDataPointers());
  EXPECT_EQ(5, p.objListScanned());
  EXPECT_EQ(1U, p.newDcidRefs().count(70));
  EXPECT_EQ(300, p.fileSize());
  EXPECT_EQ(7, p.committedFileSize());
  EXPECT_EQ(3, p.commitCounter());
  EXPECT_EQ(99U, p.doid().dcid);
  EXPECT_THAT(Walk(table), IsEmpty());
}

TEST_F(LifeTest, LoadForgetsWhatWasWrittenBeforeIt) {
  CMappingLMDB& table = Make();
  const ObjectID oid = Oid(70);
  EXPECT_EQ(0, table.insert(0, 100, &oid, 0, 0, nullptr, -1, nullptr));
  EXPECT_EQ(0, table.load(Directory().string(), false, ""));
  EXPECT_THAT(Walk(table), IsEmpty());
  EXPECT_EQ(0, table.getFileSize());
}

// --- save, size
// ------------------------------------------------------------------------------------

TEST_F(LifeTest, SaveHasNothingToDo) {
  CMappingLMDB& table = Make();
  EXPECT_EQ(0, table.save("/nowhere", 7));
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::save()"));
}

TEST_F(LifeTest, TheTableSizeIsItsNumberOfRecordsAndBothOutputsAreZero) {
  Records records;
  for (std::int64_t i = 0; i < 10; ++i) {
    records.push_back(Stored(i * 10, i * 10 + 10, 70));
  }
  Write("data.mdb", records);
  Write("lsml0.mdb", {Stored(0, 10, 71), {kPlainFileSizeKey, SpecialBytes(std::int64_t{100})}});
  CMappingLMDB& table = Load();
  // 11 extents, and file size, counter, do id and version.
  EXPECT_EQ(11, table.size());
  long extents = 17;
  long keys = 19;
  EXPECT_EQ(11, table.getTableSize(&extents, &keys));
  EXPECT_EQ(0, extents);
  EXPECT_EQ(0, keys);
}

TEST_F(LifeTest, SizesAreTakenUnderASharedTableLock) {
  CMappingLMDB& table = Load();
  Peer p = peer();
  const boost::shared_lock<boost::shared_mutex> reader(p.tableLock());
  EXPECT_EQ(0, table.size()) << "two readers stand side by side";
  long ignored = 0;
  EXPECT_EQ(0, table.getTableSize(&ignored, &ignored));
}

}  // namespace
}  // namespace zefs::test
