// Readers, writers and flushers side by side.

#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/flush_fixture.h"
#include "tests/support/held_lock.h"

namespace zefs::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FlushThreadsTest : public FlushTest {
 protected:
  /// Waits for this line, and returns the lines from the last call up to it.
  std::vector<std::string> AwaitLine(const std::string& line) {
    std::vector<std::string> lines;
    for (;;) {
      for (std::string& more : Lines()) {
        lines.push_back(std::move(more));
      }
      if (std::find(lines.begin(), lines.end(), line) != lines.end()) {
        return lines;
      }
      std::this_thread::yield();
    }
  }
};

TEST_F(FlushThreadsTest, AReaderAndAWriterWaitForAFlush) {
  LoadOver();
  WriteNode(0, 10, Ready(Oid(70)));
  std::promise<void> inside;
  std::promise<void> goOn;
  host_.atProtect_ = [&] {
    inside.set_value();
    goOn.get_future().wait();
  };
  std::thread flusher([&] { Flush(); });
  inside.get_future().wait();
  EXPECT_EQ(Held::kExclusively, HowIsHeld(peer().rwLock()));

  log_.Take();
  std::atomic<bool> read{false};
  std::thread reader([&] {
    EXPECT_EQ(70U, table().lower_bound(0, nullptr)->getObjectID().dcid);
    read = true;
  });
  std::thread writer([&] { WriteKnown(20, 30, Oid(71)); });
  AwaitLine("0 CMappingLMDB::lower_bound(), vOffset=0");
  EXPECT_FALSE(read.load());
  EXPECT_THAT(Cached(), ElementsAre(10)) << "not the writer's";
  goOn.set_value();
  flusher.join();
  reader.join();
  writer.join();
  EXPECT_THAT(Cached(), ElementsAre(30));
  // Nothing of the other two stands between the lines of the flush.
  const auto lines = Lines();
  ASSERT_GE(lines.size(), 5U);
  EXPECT_EQ("0 remove key from in memory cache key 10", lines.at(4)) << lines.front();
}

TEST_F(FlushThreadsTest, TheLockHandedOverKeepsReadersAndWritersOutUntilItIsReleased) {
  LoadOver();
  WriteNode(0, 10, Ready(Oid(70)));
  UniqueLock lock;
  std::set<void*> released;
  table().checkAndBackfillObjectID(&released, true, "", "", nullptr, &lock);
  ASSERT_TRUE(lock.owns_lock());
  log_.Take();
  std::atomic<bool> read{false};
  std::atomic<bool> written{false};
  std::thread reader([&] {
    table().lower_bound(0, nullptr);
    read = true;
  });
  std::thread writer([&] {
    WriteKnown(20, 30, Oid(71));
    written = true;
  });
  AwaitLine("0 CMappingLMDB::lower_bound(), vOffset=0");
  EXPECT_EQ(Held::kExclusively, HowIsHeld(peer().rwLock()));
  EXPECT_FALSE(read.load());
  EXPECT_FALSE(written.load());
  EXPECT_THAT(Cached(), IsEmpty());
  lock.unlock();
  reader.join();
  writer.join();
  EXPECT_THAT(Cached(), ElementsAre(30));
}

TEST_F(FlushThreadsTest, InsideTheTransactionTheDatabasesAreReadableAndCannotBeSwitched) {
  LoadOver({WholeRecord(500, 600, Oid(75), 0, -3)});
  Set(&Config::dcOffsetTrackingEnabled, true);
  Set(&Config::dcOffsetStoreThreshold, 100U);
  WriteNode(0, 10, Ready(Oid(70), -1));
  // The flush stops at the setting that it reads inside its transaction.
  auto& settings = Config::GetInstance();
  std::promise<void> inside;
  std::promise<void> goOn;
  host_.atProtect_ = [&] {
    inside.set_value();
    goOn.get_future().wait();
  };
  log_.Take();
  std::thread flusher([&] { Flush(); });
  inside.get_future().wait();
  UniqueLock settingsHeld(settings.mutex);
  goOn.set_value();
  const std::string stops =
      "0 CheckAndStore store dc offset with path_=" + Path("dcoffset") + ", dcoff=-1";
  AwaitLine(stops);

  EXPECT_EQ(Held::kExclusively, HowIsHeld(peer().rwLock()));
  EXPECT_EQ(Held::kShared, HowIsHeld(peer().tableLock()));
  std::thread reader([&] {  // this thread holds the settings, and so must not take another lock
    Aldenta::Qnd::Morene::Zefs::ExtLMDB found;
    EXPECT_EQ(0, peer().lowerBoundDB(500, &found));
    EXPECT_EQ(75U, found.objectID.dcid);
    EXPECT_EQ(0, peer().lowerBoundDB(0, &found));
    EXPECT_EQ(500, found.sOff) << "nothing is visible before the commit";
  });
  reader.join();

  std::size_t atSwitch = 0;
  std::thread switcher([&] {
    const UniqueLock switching(peer().tableLock());
    atSwitch = Small().size();
  });
  AwaitWriterAt(peer().tableLock());
  settingsHeld.unlock();
  switcher.join();
  flusher.join();
  EXPECT_EQ(2U, atSwitch) << "after the commit";
}

TEST_F(FlushThreadsTest, AFlushOfTheSmallDatabaseDoesNotWaitForAMergeThatHasOpenedTheTmpDatabase) {
  LoadOver();
  Set(&Config::mergeCommitCountThreshold, 0U);
  Set(&Config::mergeWaitEntriesThreshold, 0U);
  // The merge fails, so that the tmp database stays open: its own database cannot be made.
  boost::filesystem::create_directories(File("mergedb") / "in the way");
  WriteKnown(0, 10, Oid(70));
  boost::unique_lock<boost::mutex> mergeStops(peer().mergeMutex());
  log_.Take();
  std::thread flusher([&] { Flush(); });
  const auto isStarting = [&] {
    for (const std::string& line : Lines()) {
      if (line.compare(0, 15, "2 start merging") == 0) {
        return true;
      }
    }
    return false;
  };
  while (!isStarting()) {
    std::this_thread::yield();
  }
  {
    // What a merge does first.
    const UniqueLock switching(peer().tableLock());
    ASSERT_EQ(0, peer().SetupDBEnv(Path("tmp.mdb"), &peer().tmpDb(), 1UL << 20));
    peer().dbChain().push_front(&peer().tmpDb());
  }
  mergeStops.unlock();
  flusher.join();
  EXPECT_EQ(1U, peer().mergeThreads().size()) << "nobody has joined it";
  peer().WaitingForMerge();
  WriteKnown(10, 20, Oid(71));
  Flush();
  EXPECT_THAT(peer().mergeThreads(), IsEmpty()) << "what it wrote is the tmp database";
}

TEST_F(FlushThreadsTest, TwoFlushersAmongWritersAndReadersGiveEveryNodeBackOnce) {
  constexpr long kWriters = 2;
  constexpr long kExtents = 150;  // of each writer
  LoadOver();
  Set(&Config::objIdReadyThreshold, 0U);
  std::vector<DataCacheNode*> nodes;
  for (long i = 0; i < kWriters * kExtents; ++i) {
    nodes.push_back(Ready(Oid(static_cast<std::uint64_t>(100 + i))));
  }
  const auto oidOf = [](long number) { return Oid(static_cast<std::uint64_t>(100 + number)); };
  std::vector<std::atomic<long>> written(kWriters);
  std::atomic<long> writing{kWriters};
  std::mutex countsMutex;
  std::map<void*, int> counts;

  const auto write = [&](long writer) {
    for (long i = 0; i < kExtents; ++i) {
      const long number = writer * kExtents + i;
      const ObjectID oid = oidOf(number);
      table().insert(number * 10, number * 10 + 10, &oid, 0, 0,
                     nodes[static_cast<std::size_t>(number)], -3, nullptr);
      written[static_cast<std::size_t>(writer)] = i + 1;
    }
    --writing;
  };
  const auto flush = [&](bool force) {
    bool last = false;
    while (!last) {
      last = writing == 0;
      std::set<void*> released;
      UniqueLock lock;
      table().checkAndBackfillObjectID(&released, force || last, "", "", nullptr, &lock);
      const std::lock_guard<std::mutex> guard(countsMutex);
      for (void* node : released) {
        ++counts[node];
      }
    }
  };
  const auto read = [&](long writer) {
    for (long looked = 0; looked < kExtents;) {
      const long known = written[static_cast<std::size_t>(writer)];
      for (; looked < known; ++looked) {
        const long number = writer * kExtents + looked;
        const auto found = table().lower_bound(number * 10, nullptr);
        ASSERT_NE(table().end(), found);
        EXPECT_EQ(number * 10, found->getSOff());
        EXPECT_EQ(oidOf(number).dcid, found->getObjectID().dcid);
      }
      std::this_thread::yield();
    }
  };
  std::vector<std::thread> threads;
  for (long i = 0; i < kWriters; ++i) {
    threads.emplace_back(write, i);
    threads.emplace_back(read, i);
  }
  threads.emplace_back(flush, true);
  threads.emplace_back(flush, false);
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(nodes.size(), counts.size());
  for (const auto& [node, count] : counts) {
    EXPECT_EQ(1, count);
  }
  EXPECT_THAT(Cached(), IsEmpty());
  EXPECT_THAT(Pending(), IsEmpty());
  const Records stored = Small();
  ASSERT_EQ(nodes.size(), stored.size());
  for (long number = 0; number < kWriters * kExtents; ++number) {
    EXPECT_EQ(WholeRecord(number * 10, number * 10 + 10, oidOf(number), 0, -3),
              stored[static_cast<std::size_t>(number)]);
  }
}

}  // namespace
}  // namespace zefs::test
