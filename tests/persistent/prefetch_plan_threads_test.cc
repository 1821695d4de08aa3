// Plans beside each other and beside whatever else changes the table.

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

#include <gmock/gmock.h>

#include "tests/persistent/flush_fixture.h"
#include "tests/sidefiles/dc_offset_store_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/support/held_lock.h"

namespace zefs::test {
namespace {

using Aldenta::Qnd::Morene::Zefs::CMappingTable;
using testing::ElementsAre;

class PrefetchThreadsTest : public FlushTest {
 protected:
  using Plan = std::list<CMappingTable::DCInfo>;
  using SharedLock = CMappingTable::SharedLock;

  PrefetchThreadsTest() { Set(&Config::prefetchEnabled, 1); }
  ~PrefetchThreadsTest() override { Faults::Reset(); }

  static void Begin(const LMDBContext& db, MDB_txn** txn) {
    ASSERT_EQ(0, ::mdb_txn_begin(db.env, nullptr, 0, txn));
  }
  static void AwaitCount(Call call, int count) {
    while (Faults::Count(call) < count) {
      std::this_thread::yield();
    }
  }
};

// --- what a plan waits for, and what waits for it
// --------------------------------------------------

TEST_F(PrefetchThreadsTest, TheKeptRunIsExchangedUnderTheOtherLocksWithAllTransactionsEnded) {
  LoadOver({WholeRecord(0, 100, Oid(70), 0, -3)});
  SharedLock reading(peer().prefetchLock());
  std::thread planner([&] {
    Plan plan;
    table().GetDCInfoList({0, 100, 0}, &plan);
    EXPECT_EQ(1U, plan.size());
  });
  AwaitWriterAt(peer().prefetchLock());
  EXPECT_EQ(Held::kShared, HowIsHeld(peer().rwLock()));
  EXPECT_EQ(Held::kShared, HowIsHeld(peer().tableLock()));
  for (const LMDBContext* db : peer().dbChain()) {  // waits for ever if the plan still writes
    MDB_txn* txn = nullptr;
    Begin(*db, &txn);
    ::mdb_txn_abort(txn);
  }
  EXPECT_TRUE(peer().prefetchExts().empty());
  reading.unlock();
  planner.join();
  EXPECT_EQ(1U, peer().prefetchExts().size());
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().tableLock()));
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().prefetchLock()));
}

TEST_F(PrefetchThreadsTest, APlanWaitsForAWriterOfADatabaseAndSeesWhatItWrote) {
  LoadOver({WholeRecord(0, 100, Oid(70), 0, -3)});
  Faults::OnlyBelow(Directory().string());
  MDB_txn* writer = nullptr;
  Begin(peer().fullDb(), &writer);
  Plan plan;
  std::thread planner([&] { table().GetDCInfoList({0, 1000, 0}, &plan); });
  AwaitCount(Call::kMdbTxnBegin, 3);  // that of the writer, and two of the plan
  const PlainRecord record = WholeRecord(200, 300, Oid(71), 0, -3);
  std::int64_t number = record.key;
  std::string bytes = record.value;
  MDB_val key{sizeof(number), &number};
  MDB_val value{bytes.size(), bytes.data()};
  EXPECT_EQ(0, ::mdb_put(writer, peer().fullDb().dbi, &key, &value, 0));
  EXPECT_EQ(0, ::mdb_txn_commit(writer));
  planner.join();
  ASSERT_EQ(2U, plan.size());
  EXPECT_EQ(71U, plan.back().dcid);
}

TEST_F(PrefetchThreadsTest, APlanWaitsForAWriterOfTheCacheAndForASwitchOfTheDatabases) {
  LoadOver({WholeRecord(0, 100, Oid(70), 0, -3)});
  for (boost::shared_mutex* const lock : {&peer().rwLock(), &peer().tableLock()}) {
    UniqueLock held(*lock);
    std::atomic<bool> begun{false};
    std::atomic<bool> back{false};
    Plan plan;
    std::thread planner([&] {
      begun = true;
      table().GetDCInfoList({0, 100, 0}, &plan);
      back = true;
    });
    while (!begun.load()) {
      std::this_thread::yield();
    }
    if (lock == &peer().tableLock()) {
      while (HowIsHeld(peer().rwLock()) != Held::kShared) {  // taken first
        std::this_thread::yield();
      }
    }
    EXPECT_FALSE(back.load());
    EXPECT_TRUE(plan.empty());
    held.unlock();
    planner.join();
    EXPECT_EQ(1U, plan.size());
  }
}

TEST_F(PrefetchThreadsTest, AReaderOfTheCacheDoesNotWaitForAPlan) {
  LoadOver({WholeRecord(0, 100, Oid(70), 0, -3)});
  WriteKnown(200, 300, Oid(71));
  MDB_txn* writer = nullptr;
  Faults::OnlyBelow(Directory().string());
  Begin(peer().smallDb(), &writer);
  std::thread planner([&] {
    Plan plan;
    table().GetDCInfoList({0, 100, 0}, &plan);
  });
  AwaitCount(Call::kMdbTxnBegin, 2);  // the plan waits for the writer, with both locks
  EXPECT_EQ(71U, table().lower_bound(200, nullptr)->objectID.dcid);
  EXPECT_EQ(70U, table().lower_bound(0, nullptr)->objectID.dcid);
  ::mdb_txn_abort(writer);
  planner.join();
}

// --- backfill
// --------------------------------------------------------------------------------------

TEST_F(PrefetchThreadsTest, ABackfillDropsTheKeptRunUnderTheLockOfTheCache) {
  LoadOver({WholeRecord(0, 100, Oid(70), 0, -1)});
  peer().prefetchExts().resize(2);
  SharedLock reading(peer().prefetchLock());
  std::thread backfiller([&] {
    std::vector<DCOffset> offsets{{0, 70, Oid(70).fp, 4096}};
    EXPECT_EQ(0, table().BackfillDcOffset(offsets));
  });
  AwaitWriterAt(peer().prefetchLock());
  EXPECT_EQ(Held::kExclusively, HowIsHeld(peer().rwLock()));
  EXPECT_EQ(2U, peer().prefetchExts().size());
  EXPECT_THAT(Cached(), testing::IsEmpty());
  reading.unlock();
  backfiller.join();
  EXPECT_TRUE(peer().prefetchExts().empty());
  EXPECT_THAT(Cached(), ElementsAre(100));
}

TEST_F(PrefetchThreadsTest, ABackfillHasReleasedTheLockOfTheCacheWhenItWaitsForTheStore) {
  LoadOver();
  TrackOffsets();
  SharedLock reading(peer().prefetchLock());
  std::atomic<bool> back{false};
  std::thread backfiller([&] {
    DCOffset open;
    open.key = 0;
    open.dcid = 70;
    std::vector<DCOffset> list{open};
    EXPECT_EQ(0, table().BackfillDcOffset(list));
    back = true;
  });
  AwaitWriterAt(peer().prefetchLock());
  std::unique_lock<std::mutex> store(DcOffsetStoreTestPeer{*peer().dcOffsetStore()}.mutex());
  reading.unlock();
  while (HowIsHeld(peer().rwLock()) != Held::kNot) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(back.load());
  store.unlock();
  backfiller.join();
}

TEST_F(PrefetchThreadsTest, AListingWaitsForAWriterOfTheCacheAndNotForAReader) {
  LoadOver();
  std::vector<DCOffset> list;
  {
    const SharedLock reading(peer().rwLock());
    std::thread([&] { EXPECT_EQ(0, table().GetEmptyDcOffsetList(&list)); }).join();
    std::thread([&] { EXPECT_EQ(-1, table().GetEmptyDcOffsetList(nullptr)); }).join();
  }
  UniqueLock writing(peer().rwLock());
  std::atomic<bool> begun{false};
  std::atomic<bool> back{false};
  std::thread lister([&] {
    begun = true;
    EXPECT_EQ(0, table().GetEmptyDcOffsetList(&list));
    back = true;
  });
  while (!begun.load()) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(back.load());
  writing.unlock();
  lister.join();
}

// --- all at once
// -----------------------------------------------------------------------------------

/// A file of blocks without a hole: every extent maps its object at the object's own offset, in
/// whichever place it lies and however it is cut.
class PlansAtOnceTest : public PrefetchThreadsTest {
 protected:
  static constexpr long kBlock = 16;
  static constexpr long kBlocks = 32;
  static constexpr long kSize = kBlock * kBlocks;
  static constexpr int kRounds = 60;

  void SetUp() override {
    Records blocks;
    for (long block = 0; block < kBlocks; ++block) {
      blocks.push_back(WholeRecord(block * kBlock, (block + 1) * kBlock,
                                   Oid(64 + static_cast<std::uint64_t>(block % 7)),
                                   static_cast<std::int32_t>(block * kBlock), -1));
    }
    Write("data.mdb", blocks);
    LoadOver();
    ::mdb_env_set_flags(peer().smallDb().env, MDB_NOSYNC, 1);
  }

  /// Plans of any stretch: each byte of it once, at its own offset of the object.
  void PlanAll(long seed) {
    for (long i = 0; i < kRounds; ++i) {
      const long start = (seed * 31 + i * 7) % (kSize - 2);
      const long end = std::min(kSize, start + 2 + i * 13 % kSize);
      Plan plan;
      table().GetDCInfoList({start, end, 1}, &plan);
      std::vector<int> seen(static_cast<std::size_t>(kSize));
      for (const auto& info : plan) {
        std::uint32_t total = 0;
        for (const auto& extent : info.extents) {
          ASSERT_EQ(extent.sOff, static_cast<long>(extent.objOff));
          ASSERT_EQ(info.dcid, extent.objectID.dcid);
          for (long at = extent.sOff; at < extent.sOff + extent.length; ++at) {
            ++seen.at(static_cast<std::size_t>(at));
          }
          total += extent.length;
        }
        ASSERT_EQ(total, info.totalBytes);
      }
      for (long at = start; at < end - 1; ++at) {
        ASSERT_EQ(1, seen.at(static_cast<std::size_t>(at))) << at;
      }
    }
  }

  void ReadAll(const std::atomic<bool>& done) {
    do {
      for (long at = 0; at < kSize;) {
        SharedLock lock;
        const auto it = table().lower_bound(at, &lock);
        ASSERT_LE(it->sOff, at) << "no hole";
        ASSERT_GT(it->eOff, at);
        ASSERT_EQ(it->sOff, it->objOff);
        at = it->eOff;
      }
    } while (!done.load());
  }

  void InsertAll() {
    for (long i = 0; i < 10L * kRounds; ++i) {
      const long sOff = (i * 7 % kBlocks) * kBlock + i % 5;
      const ObjectID oid = Oid(64 + static_cast<std::uint64_t>(i % 9));
      table().insert(sOff, std::min(sOff + 1 + i % 40, kSize), &oid, sOff, 0, nullptr, -1, nullptr);
    }
  }

  const refhost::LogRecorder quiet_{kLogFailure};
};

TEST_F(PlansAtOnceTest, SeeEveryByteOnceBesideReadersAnInserterAFlusherAndBackfills) {
  Set(&Config::prefetchSpanBytes, static_cast<std::uint32_t>(kSize / 4));
  TrackOffsets();
  Set(&Config::dcOffsetStoreThreshold, 1000U);
  std::atomic<bool> done{false};
  std::thread reader([&] { ReadAll(done); });
  std::vector<std::thread> workers;
  for (long seed = 1; seed <= 3; ++seed) {
    workers.emplace_back([this, seed] { PlanAll(seed); });
  }
  workers.emplace_back([this] { InsertAll(); });
  workers.emplace_back([this] {
    for (int i = 0; i < kRounds; ++i) {
      Flush(i % 4 == 0);
    }
  });
  workers.emplace_back([this] {
    for (int i = 0; i < kRounds; ++i) {
      std::vector<DCOffset> list;
      EXPECT_EQ(0, table().GetEmptyDcOffsetList(&list));
      for (DCOffset& record : list) {
        record.dcOffset = i;
      }
      EXPECT_EQ(0, table().BackfillDcOffset(list));
    }
  });
  for (std::thread& worker : workers) {
    worker.join();
  }
  done = true;
  reader.join();
  for (boost::shared_mutex* const lock :
       {&peer().rwLock(), &peer().tableLock(), &peer().prefetchLock()}) {
    EXPECT_EQ(Held::kNot, HowIsHeld(*lock));
  }
  Flush();
  PlanAll(4);
}

}  // namespace
}  // namespace zefs::test
