#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/pace.h"
#include "tests/table/table_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::Oid;

/// Blocks of the file; each write covers whole blocks and says in the object offset which they are.
constexpr long kBlock = 16;
constexpr long kBlocks = 512;

class ThreadsTest : public testing::Test {
 protected:
  ThreadsTest() {
    for (long block = 0; block < kBlocks; ++block) {
      WriteBlocks(block, 1, 64);
    }
  }

  /// An object mapped at its own offset: whatever pieces are cut, sOff and objOff stay equal.
  void WriteBlocks(long block, long count, std::uint64_t dcid) {
    const ObjectID oid = Oid(dcid, static_cast<unsigned int>(dcid));
    table_.insert(block * kBlock, (block + count) * kBlock, &oid, block * kBlock, 0, nullptr, -1,
                  nullptr);
  }

  void Write(int steps, unsigned int seed) {
    std::mt19937 random(seed);
    for (int i = 0; i < steps; ++i) {
      const long block = static_cast<long>(random() % kBlocks);
      const long count = 1 + static_cast<long>(random() % 8);
      WriteBlocks(block, std::min(count, kBlocks - block), 64 + random() % 16);
      pace_.Changed();
    }
    pace_.End();
  }

  zefs::test::Pace pace_;  ///< of Write

  CMappingTable table_{nullptr};
  MappingTableTestPeer peer_{table_};
};

TEST_F(ThreadsTest, ReadersUnderTheSharedLockSeeWholeChangesBesideAWriter) {
  const auto read = [&](unsigned int seed) {
    std::mt19937 random(seed);
    long seen = 0;
    do {
      const CMappingTable::SharedLock lock(peer_.lock());
      long at = 0;
      const auto end = table_.end();
      for (auto it = table_.begin(); it != end; ++it) {
        ASSERT_EQ(at, it->sOff) << "no hole and no overlap";
        ASSERT_EQ(it->sOff, it->objOff);
        at = it->eOff;
      }
      ASSERT_EQ(kBlocks * kBlock, at);
      const long offset = static_cast<long>(random() % (kBlocks * kBlock));
      const auto found = table_.lower_bound(offset, nullptr);
      ASSERT_LE(found->sOff, offset);
      ASSERT_GT(found->eOff, offset);
    } while (pace_.AwaitChange(&seen));
  };
  std::thread first(read, 1);
  std::thread second(read, 2);
  Write(1500, 3);
  first.join();
  second.join();
  EXPECT_TRUE(peer_.rroot()->checkNode(true));
}

TEST_F(ThreadsTest, OperationsThatLockForThemselvesRunBesideAWriter) {
  std::thread reader([&] {
    long seen = 0;
    do {
      table_.find(kBlock * kBlocks / 2, nullptr);
      std::vector<std::pair<unsigned long, unsigned long>> dcids;
      std::vector<FingerprintText> fps;
      table_.GetDCIDAndFP(&dcids, &fps);
      unsigned long bytes = 0;
      for (const auto& [dcid, counted] : dcids) {
        bytes += counted;
      }
      ASSERT_EQ(static_cast<unsigned long>(kBlocks * kBlock), bytes) << "counts are whole";
      table_.GetNewReferencedDCID(&dcids);
      table_.GetReferencedFP(&fps);
    } while (pace_.AwaitChange(&seen));
  });
  Write(1500, 4);
  reader.join();
  EXPECT_TRUE(peer_.rroot()->checkNode(true));
}

/// Runs `operation` in another thread, which has to wait for `lock`: it has not come back while the
/// lock is held, however long that is, and does so once the lock is free.
template <typename Lock>
void ExpectToWaitFor(Lock& lock, const std::function<void()>& operation) {
  std::atomic<bool> called{false};
  std::atomic<bool> back{false};
  std::thread other([&] {
    called = true;
    operation();
    back = true;
  });
  while (!called.load()) {
    std::this_thread::yield();
  }
  for (int i = 0; i < 200; ++i) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(back.load());
  lock.unlock();
  other.join();
  EXPECT_TRUE(back.load());
}

TEST_F(ThreadsTest, EachOperationThatChangesWaitsForAReader) {
  std::vector<DataCacheNodePointerWithStatus> writing;
  Ext* const first = table_.begin().operator->();
  const std::vector<std::function<void()>> writers{
      [&] { table_.insert(0, 1, nullptr, 0, 0, nullptr, -1, nullptr); },
      [&] { table_.append(1 << 20, 1 << 21, nullptr, 0, 0, nullptr, nullptr); },
      [&] { table_.SetObjectID(first, Oid(64)); },
      [&] {
        table_.UpdateObjectIdsByRange(0, 0, {{Oid(64), 0, 0}});
      },
      [&] { table_.GetWritingNodes(&writing, false); },
      [&] { table_.truncate(0, nullptr); },
  };
  // SetObjectID comes before whatever frees the extent that it is given.
  for (const std::size_t i : {2UL, 0UL, 1UL, 3UL, 4UL, 5UL}) {
    CMappingTable::SharedLock reader(peer_.lock());
    ExpectToWaitFor(reader, writers[i]);
  }
  EXPECT_EQ(0, table_.size());
}

TEST_F(ThreadsTest, EachOperationThatReadsUnderTheLockWaitsForAWriter) {
  std::vector<std::pair<unsigned long, unsigned long>> dcids;
  std::vector<FingerprintText> fps;
  long nodes = 0;
  long slots = 0;
  const std::vector<std::function<void()>> readers{
      [&] { table_.find(0, nullptr); },
      [&] { table_.GetNewReferencedDCID(&dcids); },
      [&] { table_.GetReferencedFP(&fps); },
      [&] { table_.GetDCIDAndFP(&dcids, &fps); },
      [&] { table_.getTableSize(&nodes, &slots); },
  };
  for (const auto& read : readers) {
    CMappingTable::UniqueLock writer(peer_.lock());
    ExpectToWaitFor(writer, read);
  }
}

/// A stream whose writer finds out whether the table lock is held while it is written to.
struct LockProbe {
  static ssize_t Write(void* cookie, const char* /*text*/, std::size_t size) {
    auto* probe = static_cast<LockProbe*>(cookie);
    std::thread([probe] {  // another thread: a thread must not try a lock that it holds
      const bool shared = probe->lock.try_lock_shared();
      if (shared) {
        probe->lock.unlock_shared();
      }
      probe->heldExclusively = !shared;
    })
        .join();
    ++probe->writes;
    return static_cast<ssize_t>(size);
  }
  boost::shared_mutex& lock;
  bool heldExclusively = false;
  int writes = 0;
};

TEST_F(ThreadsTest, TraceLinesAreWrittenUnderTheExclusiveLock) {
  LockProbe probe{peer_.lock()};
  FILE* const trace = fopencookie(&probe, "w", {nullptr, LockProbe::Write, nullptr, nullptr});
  std::setvbuf(trace, nullptr, _IONBF, 0);
  table_.insert(8, 9, nullptr, 0, 0, nullptr, -1, trace);
  EXPECT_TRUE(probe.heldExclusively);
  probe.heldExclusively = false;
  table_.append(1 << 20, 1 << 21, nullptr, 0, 0, nullptr, trace);
  EXPECT_TRUE(probe.heldExclusively);
  probe.heldExclusively = false;
  table_.truncate(4, trace);
  EXPECT_TRUE(probe.heldExclusively);
  EXPECT_GE(probe.writes, 4);
  std::fclose(trace);
}

TEST_F(ThreadsTest, SeveralWritersLeaveOneSoundTable) {
  std::vector<std::thread> writers;
  for (unsigned int i = 0; i < 3; ++i) {
    writers.emplace_back([this, i] { Write(800, 10 + i); });
  }
  for (std::thread& writer : writers) {
    writer.join();
  }
  EXPECT_TRUE(peer_.rroot()->checkNode(true));
  unsigned long bytes = 0;
  for (const auto& [dcid, counted] : peer_.dcids()) {
    bytes += counted;
  }
  EXPECT_EQ(static_cast<unsigned long>(kBlocks * kBlock), bytes);
}

TEST_F(ThreadsTest, TablesInSeveralThreadsShareNothingButTheNodeCounter) {
  std::vector<std::thread> threads;
  for (unsigned int i = 0; i < 3; ++i) {
    threads.emplace_back([i] {
      CMappingTable table(nullptr);
      std::mt19937 random(i);
      for (int n = 0; n < 500; ++n) {
        const long at = static_cast<long>(random() % 4000);
        table.insert(at, at + 1 + static_cast<long>(random() % 40), nullptr, 0, 0, nullptr, -1,
                     nullptr);
      }
      EXPECT_TRUE(MappingTableTestPeer(table).rroot()->checkNode(true));
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
