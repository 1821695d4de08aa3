// The two entry points of a flush: in which order they do what, and what they leave.

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "host/auto_log_cpu.h"
#include "support/cpu_counters.h"
#include "tests/persistent/flush_fixture.h"
#include "tests/support/held_lock.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

using FlushEntryTest = FlushTest;

TEST_F(FlushEntryTest, BelowTheBatchThresholdItOnlyClearsTheSet) {
  LoadOver({}, "GENERIC");
  Set(&Config::batchUpdateThreshold, 3U);
  WriteNode(0, 10, Ready(Oid(70)));
  WriteNode(0, 10, Ready(Oid(71)));
  log_.Take();
  std::set<void*> released = {nodes_[1]};
  UniqueLock lock;
  table().checkAndBackfillObjectID(&released, false, "scope", "share", nullptr, &lock);
  EXPECT_THAT(released, IsEmpty());
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::checkAndBackfillObjectID()"));
  EXPECT_THAT(peer().toBeReleased(), UnorderedElementsAre(nodes_[0])) << "not even these come";
  EXPECT_THAT(Pending(), ElementsAre(10, 10));
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
  EXPECT_FALSE(fs::exists(File("journal")));
  EXPECT_EQ(0, peer().commitCounter());
}

TEST_F(FlushEntryTest, ExactlyTheBatchThresholdIsEnough) {
  LoadOver();
  Set(&Config::batchUpdateThreshold, 2U);
  WriteNode(0, 10, Ready(Oid(70)));
  WriteNode(10, 20, Ready(Oid(71)));
  EXPECT_THAT(Flush(false), UnorderedElementsAre(nodes_[0]));
  EXPECT_EQ(1U, Small().size());
}

TEST_F(FlushEntryTest, ForceOverridesTheBatchThresholdEvenWithNothingPending) {
  LoadOver();
  Set(&Config::batchUpdateThreshold, kNever);
  EXPECT_THAT(Flush(), IsEmpty());
  EXPECT_THAT(Lines(),
              ElementsAre("0 CMappingLMDB::checkAndBackfillObjectID()", "0 objlist number 0",
                          "0 after processed objlist number 0 and objmap size is 0",
                          "0 DcOffsetStore::Flush, file: " + Path("dcoffset")));
}

TEST_F(FlushEntryTest, WithTooFewReadyNodesDisplacedNodesComeAndNothingIsWritten) {
  LoadOver();
  Set(&Config::objIdReadyThreshold, 3U);
  WriteNode(0, 10, Ready(Oid(70)));
  WriteNode(0, 10, Ready(Oid(71)));
  WriteNode(10, 20, NotReady());
  log_.Take();
  UniqueLock lock;
  std::set<void*> released;
  table().checkAndBackfillObjectID(&released, false, "scope", "share", nullptr, &lock);
  EXPECT_THAT(released, UnorderedElementsAre(nodes_[0]));
  EXPECT_THAT(peer().toBeReleased(), IsEmpty());
  EXPECT_TRUE(lock.owns_lock()) << "there is something to let go of";
  EXPECT_THAT(Named(), ElementsAre("0 CMappingLMDB::checkAndBackfillObjectID()",
                                   "0 objlist number 3", "0 host: object id of node 2",
                                   "0 host: object id of node 2", "0 host: object id of node 3",
                                   "0 after processed objlist number 3 and objmap size is 0"));
  EXPECT_THAT(cache_.protected_, IsEmpty());
  EXPECT_EQ(0, peer().commitCounter());
  EXPECT_THAT(Small(), IsEmpty());
}

TEST_F(FlushEntryTest, EachStepOfAForcedFlushOfAGenericTableInItsOrder) {
  LoadOver({}, "GENERIC");
  Set(&Config::dcOffsetTrackingEnabled, true);
  Set(&Config::dcOffsetStoreThreshold, 100U);
  WriteNode(0, 10, Ready(Oid(70, 1), -1));
  WriteNode(10, 20, Ready(Oid(71, 2), 5));
  log_.Take();
  EXPECT_THAT(Flush(), UnorderedElementsAre(nodes_[0], nodes_[1]));
  const std::string journal = "path_=" + Path("journal");
  const std::string offsets = Path("dcoffset");
  const std::vector<std::string> expected = {
      "0 CMappingLMDB::checkAndBackfillObjectID()",
      "0 objlist number 2",
      "0 host: object id of node 1",
      "0 host: object id of node 2",
      "0 after processed objlist number 0 and objmap size is 2",
      "0 host: protect share of scope",
      "1 extent journal start, path=" + Path("journal"),
      "0 Committed size is: 2",
      "0 Add, " + journal,
      "0 CheckAndStore store dc offset with path_=" + offsets + ", dcoff=-1",
      "0 Add, " + journal,
      "0 CheckAndStore store dc offset with path_=" + offsets + ", dcoff=5",
      "0 update file size 20, ret:0",
      "0 update table commit counter 1, ret:0",
      "0 remove key from in memory cache key 10",
      "0 remove key from in memory cache key 20",
      "1 Flush, " + journal,
      "1 Write, " + journal + ", ext=2",
      "1 fd_=#, " + journal + ", write=160, size=2, ret=160",
      "1 extent journal stop, path=" + Path("journal"),
      "1 Destroy extent journal with " + journal,
      "0 DcOffsetStore::Flush, file: " + offsets,
      "0 DcOffsetStore store dc offset with path_=" + offsets + ", return=1",
      "1 DcOffsetStore::Open, file: " + offsets,
      "0 fd_=#, path_=" + offsets + ", write=56, size=1, ret=56",
  };
  std::vector<std::string> lines = Named();
  for (std::string& line : lines) {
    if (line.compare(0, 6, "0 fd_=") == 0 || line.compare(0, 6, "1 fd_=") == 0) {
      line.replace(6, line.find(',') - 6, "#");
    }
  }
  EXPECT_EQ(expected, lines);
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 10, Oid(70, 1), 0, -1),
                                   WholeRecord(10, 20, Oid(71, 2), 0, 5)));
  EXPECT_FALSE(fs::exists(File("journal"))) << "a forced flush ends its life";
  EXPECT_EQ(OffsetBytes(0, Oid(70, 1), -1), BytesOf(File("dcoffset")));
}

TEST_F(FlushEntryTest, AFlushThatIsNotForcedLeavesTheJournalAndTheOffsetStoreAsTheyAre) {
  LoadOver({}, "GENERIC");
  Set(&Config::dcOffsetTrackingEnabled, true);
  Set(&Config::dcOffsetStoreThreshold, 100U);
  WriteNode(0, 10, Ready(Oid(70, 1), -1), 7);
  WriteNode(10, 20, Ready(Oid(71)));
  Flush(false);
  EXPECT_EQ(JournalBytes({JournalOf(kOpAdd, 0, 10, Oid(70, 1), 7)}), BytesOf(File("journal")));
  EXPECT_FALSE(fs::exists(File("dcoffset"))) << "still in memory";
  WriteNode(30, 40, NotReady());
  Flush(true);
  EXPECT_FALSE(fs::exists(File("journal")));
  EXPECT_EQ(OffsetBytes(0, Oid(70, 1), -1), BytesOf(File("dcoffset")));
}

TEST_F(FlushEntryTest, TheJournalFileIsMadeEvenWhenThereIsNothingToWrite) {
  LoadOver({}, "GENERIC");
  WriteNode(0, 10, NotReady());
  Flush(false);
  EXPECT_TRUE(fs::exists(File("journal")));
  EXPECT_EQ("", BytesOf(File("journal")));
}

TEST_F(FlushEntryTest, TablesOfOtherTypesHaveNoJournal) {
  for (const char* type : {"PROVISION", "INGEST", "something else"}) {
    LoadOver({}, type);
    WriteKnown(0, 10, Oid(70));
    Flush(true);
    EXPECT_EQ(nullptr, peer().journal());
    EXPECT_FALSE(fs::exists(File("journal"))) << type;
    Destroy();
  }
}

TEST_F(FlushEntryTest, TheArgumentsReachTheHostUnchangedAndOnce) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  char anything = 0;
  auto* const transfer = reinterpret_cast<DataTransferManagement*>(&anything);
  std::set<void*> released;
  table().checkAndBackfillObjectID(&released, true, "", "a %s b", transfer, nullptr);
  EXPECT_EQ(transfer, host_.transfer_);
  EXPECT_THAT(cache_.protected_, ElementsAre("/a %s b"));
}

TEST_F(FlushEntryTest, PrefetchedExtentsAreDroppedWholeBeforeTheHostIsAsked) {
  LoadOver();
  Set(&Config::prefetchEnabled, 1);
  WriteNode(0, 10, NotReady());
  peer().prefetchExts().resize(2);
  Flush();
  EXPECT_EQ(2U, peer().prefetchExts().size()) << "nothing is to be stored";
  cache_.MakeReady(nodes_[0], Oid(70), -3);
  std::size_t atProtect = 9;
  host_.atProtect_ = [&] { atProtect = peer().prefetchExts().size(); };
  Flush();
  EXPECT_EQ(0U, atProtect);
  EXPECT_THAT(peer().prefetchExts(), IsEmpty());
}

TEST_F(FlushEntryTest, PrefetchedExtentsAreLeftAloneWherePrefetchingIsOff) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  peer().prefetchExts().resize(2);
  Flush();
  EXPECT_EQ(2U, peer().prefetchExts().size());
}

TEST_F(FlushEntryTest, WhatGetsPastTheThresholdIsMeasured) {
  using Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu;
  LoadOver();
  Set(&Config::batchUpdateThreshold, 2U);
  WriteKnown(0, 10, Oid(70));
  AutoLogCpu::initialized_ = true;
  AutoLogCpu::enabled_ = true;
  Flush(false);
  EXPECT_EQ(0U, mapping_lmdb_cpu_counters.count("checkAndBackfillObjectID"));
  Flush(true);
  AutoLogCpu::enabled_ = false;
  AutoLogCpu::initialized_ = false;
  EXPECT_EQ(1U, mapping_lmdb_cpu_counters.count("checkAndBackfillObjectID"));
  EXPECT_EQ(1U, mapping_lmdb_cpu_counters.count("insert2DB"));
}

// --- the lock ----------------------------------------------------------------------------------

TEST_F(FlushEntryTest, TheLockIsHandedOverWithTheNodesAndWhatItHeldBeforeIsReleased) {
  LoadOver();
  WriteNode(0, 10, Ready(Oid(70)));
  boost::shared_mutex other;
  UniqueLock lock(other);
  std::set<void*> released;
  table().checkAndBackfillObjectID(&released, true, "", "", nullptr, &lock);
  EXPECT_THAT(released, UnorderedElementsAre(nodes_[0]));
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_EQ(&peer().rwLock(), lock.mutex());
  EXPECT_EQ(Held::kNot, HowIsHeld(other));
  EXPECT_EQ(Held::kExclusively, HowIsHeld(peer().rwLock()));
  lock.unlock();
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
}

TEST_F(FlushEntryTest, WithoutNodesOrWithoutALockToFillItIsReleased) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  boost::shared_mutex other;
  UniqueLock lock(other);
  std::set<void*> released;
  table().checkAndBackfillObjectID(&released, true, "", "", nullptr, &lock);
  EXPECT_THAT(Cached(), IsEmpty());
  EXPECT_EQ(&other, lock.mutex());
  EXPECT_TRUE(lock.owns_lock()) << "as it was";
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
  WriteNode(10, 20, Ready(Oid(71)));
  EXPECT_EQ(1U, Flush().size());
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
}

TEST_F(FlushEntryTest, AnExceptionReleasesTheLockAndHandsNothingOver) {
  LoadOver();
  WriteNode(0, 10, Ready(Oid(70)));
  cache_.protectResult_ = 13;
  UniqueLock lock;
  std::set<void*> released;
  EXPECT_EQ(13, CodeOf([&] {
              table().checkAndBackfillObjectID(&released, true, "", "", nullptr, &lock);
            }));
  EXPECT_THAT(released, UnorderedElementsAre(nodes_[0])) << "the nodes are told all the same";
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
}

// --- a refused share ---------------------------------------------------------------------------

TEST_F(FlushEntryTest, ARefusedShareLeavesTheExtentsReadableAndOutOfEveryLaterFlush) {
  LoadOver({}, "GENERIC");
  const ObjectID known = Oid(80);
  table().insert(0, 10, &known, 3, 0, Ready(Oid(70), 4), 7, nullptr);
  WriteKnown(10, 20, Oid(71));
  log_.Take();
  cache_.protectResult_ = -5;
  EXPECT_EQ(-5, CodeOf([&] { Flush(); }));
  EXPECT_THAT(Lines(8), ElementsAre("8 fail to protect share share, ret -5"));
  EXPECT_THAT(Small(), IsEmpty());
  EXPECT_EQ(0, peer().commitCounter());
  EXPECT_FALSE(fs::exists(File("journal"))) << "not even started";
  EXPECT_THAT(Pending(), IsEmpty());
  EXPECT_THAT(KeysWithNode(), IsEmpty());
  EXPECT_THAT(Cached(), ElementsAre(10, 20));
  EXPECT_THAT(Walk(table()), ElementsAre("[0, 10) 80 3 7", "[10, 20) 71 0 -3"))
      << "with the ids of the cache";

  cache_.protectResult_ = 0;
  EXPECT_THAT(Flush(), IsEmpty());
  EXPECT_THAT(Cached(), ElementsAre(10, 20)) << "no way back";
  EXPECT_THAT(Small(), IsEmpty());
  WriteKnown(10, 20, Oid(72));
  Flush();
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(10, 20, Oid(72), 0, -3))) << "but for a new write";
}

// --- without locks -----------------------------------------------------------------------------

TEST_F(FlushEntryTest, TheUnlockedFlushForcesAndNeitherAsksTheHostNorTouchesSideFiles) {
  LoadOver({}, "GENERIC");
  Set(&Config::batchUpdateThreshold, kNever);
  Set(&Config::objIdReadyThreshold, kNever);
  Set(&Config::dcOffsetTrackingEnabled, true);
  Set(&Config::dcOffsetStoreThreshold, 100U);
  WriteNode(0, 10, Ready(Oid(70, 1), -1));
  WriteNode(0, 10, Ready(Oid(71, 2), -1));
  peer().prefetchExts().resize(1);
  log_.Take();
  {
    const UniqueLock caller(peer().rwLock());
    table().checkAndBackfillObjectIDUnlock(false);
  }
  EXPECT_THAT(cache_.protected_, IsEmpty());
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 10, Oid(71, 2), 0, -1)));
  EXPECT_THAT(peer().toBeReleased(), IsEmpty()) << "taken, and given to nobody";
  EXPECT_THAT(KeysWithNode(), IsEmpty());
  EXPECT_THAT(Pending(), IsEmpty());
  EXPECT_EQ(JournalBytes({JournalOf(kOpAdd, 0, 10, Oid(71, 2), 0)}), BytesOf(File("journal")))
      << "it lives on";
  EXPECT_FALSE(fs::exists(File("dcoffset")));
  EXPECT_EQ(1U, peer().prefetchExts().size());
  EXPECT_THAT(
      Named(),
      ElementsAre("0 host: object id of node 2", "0 Committed size is: 1",
                  "1 extent journal start, path=" + Path("journal"),
                  "0 Add, path_=" + Path("journal"),
                  "0 CheckAndStore store dc offset with path_=" + Path("dcoffset") + ", dcoff=-1",
                  "0 update file size 10, ret:0", "0 update table commit counter 1, ret:0",
                  "0 remove key from in memory cache key 10", "1 Flush, path_=" + Path("journal"),
                  "1 Write, path_=" + Path("journal") + ", ext=1", testing::_));
}

TEST_F(FlushEntryTest, TheUnlockedFlushTellsAndThrowsItsFailure) {
  LoadOver();
  WriteKnown(0, 10, Oid(70));
  MDB_env* const env = peer().smallDb().env;
  peer().smallDb().env = nullptr;
  log_.Take();
  EXPECT_THROW(table().checkAndBackfillObjectIDUnlock(false),
               Aldenta::Qnd::Morene::Zefs::SysException);
  peer().smallDb().env = env;
  EXPECT_THAT(Lines(8), ElementsAre("8 Failed to open transaction for db " + Directory().string() +
                                    ", return value is 0"));
  EXPECT_THAT(Cached(), ElementsAre(10));
}

TEST_F(FlushEntryTest, ATableInMemoryHasNothingToFlush) {
  Aldenta::Qnd::Morene::Zefs::CMappingTable inMemory(&host_);
  int anything = 0;
  std::set<void*> released = {&anything};
  UniqueLock lock;
  inMemory.checkAndBackfillObjectID(&released, true, "scope", "share", nullptr, &lock);
  inMemory.checkAndBackfillObjectIDUnlock(true);
  EXPECT_EQ(1U, released.size());
  EXPECT_FALSE(lock.owns_lock());
}

}  // namespace
}  // namespace zefs::test
