// Which locks a write and GetExtentData take, in which order and for how long.

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/extent_cache_fixture.h"
#include "tests/support/held_lock.h"
#include "tests/support/pace.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using zefs::test::AwaitWriterAt;
using zefs::test::Held;
using zefs::test::HowIsHeld;
using zefs::test::Oid;
using zefs::test::Pace;

using SharedLock = CMappingTable::SharedLock;
using UniqueLock = CMappingTable::UniqueLock;

/// A cache that runs the test's code in the middle of a write: when it is asked for an object id.
class AskedCache final : public zefs::DataCacheManagementInterface {
 public:
  int GetNodeObjectID(void* /*node*/, zefs::DataCacheNode::ObjectID* /*out*/,
                      bool /*flag*/) override {
    ++asked_;
    whenAsked_();
    return -1;
  }
  int ProtectShare(zefs::DataTransferManagement* /*transfer*/, const std::string& /*shareScope*/,
                   const std::string& /*share*/) override {
    return 0;
  }
  std::function<void()> whenAsked_ = [] {};
  int asked_ = 0;
};

class ExtentCacheThreadsTest : public zefs::test::ExtentCacheTest {
 protected:
  ExtentCacheThreadsTest() {
    ExtLMDB ext;
    ext.setSOff(0);
    ext.setEOff(100);
    peer().prefetchExts().push_back(ext);
  }

  void Insert(long sOff, long eOff) { Write(sOff, eOff, oid_); }

  /// Waits until this line is in the log; the lines before it are gone then.
  void AwaitLine(const std::string& line) {
    for (;;) {
      for (const auto& record : log_.Take()) {
        if (record.text == line) {
          return;
        }
      }
      std::this_thread::yield();
    }
  }

  const ObjectID oid_ = Oid(70);
};

// --- rwLock_
// ---------------------------------------------------------------------------------------

TEST_F(ExtentCacheThreadsTest, AWriterWaitsForAReaderAndChangesNothingMeanwhile) {
  for (const auto& write : std::vector<std::function<void()>>{
           [&] { table().insert(0, 10, &oid_, 0, 0, nullptr, -1, nullptr); },
           [&] { table().append(0, 10, &oid_, 0, 0, nullptr, nullptr); }}) {
    Make();
    Set(&FileSystemDaemonConfig::prefetchEnabled, 1);
    peer().prefetchExts().emplace_back();
    peer().dataChanged() = false;
    log_.Take();
    SharedLock reader(peer().rwLock());
    std::atomic<bool> written{false};
    std::thread writer([&] {
      write();
      written = true;
    });
    AwaitWriterAt(peer().rwLock());
    EXPECT_FALSE(written.load());
    EXPECT_THAT(Extents(), IsEmpty());
    EXPECT_THAT(PendingKeys(), IsEmpty());
    EXPECT_FALSE(peer().dataChanged());
    EXPECT_EQ(1U, peer().prefetchExts().size()) << "the run is looked at under the lock only";
    EXPECT_THAT(Lines(), IsEmpty());
    reader.unlock();
    writer.join();
    EXPECT_THAT(PendingKeys(), ElementsAre(10));
    EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
  }
}

TEST_F(ExtentCacheThreadsTest, InsideTheCacheUpdateOnlyTheCacheLockIsHeld) {
  AskedCache asked;
  CMappingLMDB table(&asked, ZEFS_PROVISION_STR);
  Peer peer(table);
  auto& config = FileSystemDaemonConfig::GetInstance();
  Set(&FileSystemDaemonConfig::prefetchEnabled, 1);
  peer.prefetchExts().emplace_back();
  asked.whenAsked_ = [&] {
    EXPECT_EQ(Held::kExclusively, HowIsHeld(peer.rwLock()));
    EXPECT_EQ(Held::kNot, HowIsHeld(peer.prefetchLock()));
    EXPECT_EQ(Held::kNot, HowIsHeld(peer.tableLock()));
    EXPECT_EQ(Held::kNot, HowIsHeld(config.mutex));
  };
  zefs::DataCacheNode node;
  table.insert(0, 100, &oid_, 0, 0, &node, -1, nullptr);
  table.insert(20, 80, &oid_, 0, 0, nullptr, -1, nullptr);
  table.append(0, 100, &oid_, 0, 0, nullptr, nullptr);
  EXPECT_EQ(3, asked.asked_) << "the whole, the head, the tail";
  EXPECT_EQ(Held::kNot, HowIsHeld(peer.rwLock()));
}

TEST_F(ExtentCacheThreadsTest, AReaderSeesWholeWritesOnly) {
  constexpr long kSize = 256;
  Insert(0, kSize);
  std::vector<zefs::DataCacheNode*> nodes(900);
  std::generate(nodes.begin(), nodes.end(), [this] { return cache_.NewNode(); });
  Pace pace;
  const auto read = [&] {
    long seen = 0;
    do {
      const SharedLock lock(peer().rwLock());
      long at = 0;
      for (const auto& [key, entry] : peer().extCache()) {
        ASSERT_EQ(at, entry.startOffset) << "no hole and no overlap";
        ASSERT_EQ(entry.startOffset, entry.objectOffset);
        at = key;
      }
      ASSERT_EQ(kSize, at);
      ASSERT_EQ(kSize, peer().fileSize());
      ASSERT_EQ(peer().objList().size(), peer().objListCount());
      for (const auto& [key, node] : peer().extDataPointers()) {
        ASSERT_EQ(1U, peer().extCache().count(key));
      }
      ASSERT_TRUE(peer().dataChanged());
    } while (pace.AwaitChange(&seen));
  };
  std::thread first(read);
  std::thread second(read);
  std::vector<std::thread> writers;
  for (long seed = 1; seed <= 2; ++seed) {
    writers.emplace_back([&, seed] {
      for (long i = 0; i < 300; ++i) {
        const long sOff = (i * 37 * seed) % (kSize - 1);
        const long eOff = std::min(kSize, sOff + 1 + (i * 13) % 40);
        void* const node = i % 3 == 0 ? nullptr : nodes[static_cast<std::size_t>(300 * seed + i)];
        table().insert(sOff, eOff, &oid_, sOff, 0, node, -1, nullptr);
        pace.Changed();
      }
    });
  }
  for (std::thread& writer : writers) {
    writer.join();
  }
  pace.End();
  first.join();
  second.join();
  EXPECT_GT(peer().objListCount(), 600U);
}

// --- prefetchLock_
// ---------------------------------------------------------------------------------

TEST_F(ExtentCacheThreadsTest, AWriterWaitsForAReaderOfThePrefetchedRunInsideTheCacheLock) {
  Set(&FileSystemDaemonConfig::prefetchEnabled, 1);
  log_.Take();
  SharedLock reader(peer().prefetchLock());
  std::thread writer([this] { Insert(0, 10); });
  AwaitWriterAt(peer().prefetchLock());
  EXPECT_EQ(Held::kExclusively, HowIsHeld(peer().rwLock()));
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().tableLock()));
  EXPECT_EQ(Held::kNot, HowIsHeld(FileSystemDaemonConfig::GetInstance().mutex))
      << "the setting has been read";
  EXPECT_EQ(1U, peer().prefetchExts().size());
  EXPECT_THAT(Lines(), IsEmpty()) << "the cache is updated afterwards";
  reader.unlock();
  writer.join();
  EXPECT_THAT(peer().prefetchExts(), IsEmpty());
  EXPECT_EQ(1U, Extents().size());
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().prefetchLock()));
}

TEST_F(ExtentCacheThreadsTest, WithoutPrefetchingAWriterNeedsNoPrefetchLock) {
  Set(&FileSystemDaemonConfig::prefetchEnabled, 0);
  const UniqueLock other(peer().prefetchLock());
  std::thread([this] { Insert(0, 10); }).join();
  EXPECT_EQ(1U, Extents().size());
  EXPECT_EQ(1U, peer().prefetchExts().size());
}

TEST_F(ExtentCacheThreadsTest, AWriterNeedsNoTableLock) {
  Set(&FileSystemDaemonConfig::prefetchEnabled, 1);
  const UniqueLock other(peer().tableLock());
  std::thread([this] { Insert(0, 10); }).join();
  EXPECT_EQ(1U, Extents().size());
}

// --- GetExtentData
// ---------------------------------------------------------------------------------

TEST_F(ExtentCacheThreadsTest, GetExtentDataRunsBesideAHolderOfTheCacheLockAndReadersOfTheTable) {
  int node = 0;
  Write(0, 10, oid_, &node);
  const UniqueLock cache(peer().rwLock());
  const UniqueLock prefetched(peer().prefetchLock());
  const SharedLock reader(peer().tableLock());
  std::set<void*> released;
  std::thread([&] { table().GetExtentData(&released); }).join();
  EXPECT_THAT(released, ElementsAre(&node));
  EXPECT_EQ(Held::kShared, HowIsHeld(peer().tableLock()));
}

TEST_F(ExtentCacheThreadsTest, GetExtentDataWaitsForAChangeOfTheDatabases) {
  int node = 0;
  Write(0, 10, oid_, &node);
  log_.Take();
  int stale = 0;
  std::set<void*> released{&stale};
  UniqueLock change(peer().tableLock());
  std::atomic<bool> back{false};
  std::thread host([&] {
    table().GetExtentData(&released);
    back = true;
  });
  AwaitLine("CMappingLMDB::GetExtentData()");
  for (int i = 0; i < 200; ++i) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(back.load());
  EXPECT_EQ((Nodes{{10, &node}}), NodesByKey());
  change.unlock();
  host.join();
  EXPECT_THAT(released, ElementsAre(&node));
  EXPECT_THAT(NodesByKey(), IsEmpty());
}

}  // namespace
