// Which locks a look-up takes, in which order and for how long, and what it hands to its caller.

#include <atomic>
#include <functional>
#include <thread>

#include <gmock/gmock.h>

#include "tests/persistent/read_path_fixture.h"
#include "tests/support/held_lock.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::Optional;
using zefs::test::AwaitWriterAt;
using zefs::test::Held;
using zefs::test::HowIsHeld;
using zefs::test::Part;
using zefs::test::PartOf;

using SharedLock = CMappingTable::SharedLock;
using UniqueLock = CMappingTable::UniqueLock;

const Part kCached{100, 200, 70};
const Part kWithNode{300, 400, 71};
const Part kStored{500, 600, 72};

class ReadPathThreadsTest : public zefs::test::ReadPathTest {
 protected:
  void SetUp() override {
    LoadOver({kStored});
    Cache(kCached);
    Cache(kWithNode, &node_);
  }

  Held CacheLock() { return HowIsHeld(peer().rwLock()); }
  Held TableLock() { return HowIsHeld(peer().tableLock()); }
  Held PrefetchLock() { return HowIsHeld(peer().prefetchLock()); }

  /// Both look-ups that hand their lock on.
  std::vector<std::function<CMappingTable::iterator(long, SharedLock*)>> LookUps() {
    return {[this](long offset, SharedLock* lock) { return table().lower_bound(offset, lock); },
            [this](long offset, SharedLock* lock) { return table().find(offset, lock); },
            [this](long offset, SharedLock* lock) {
              return table().lower_bound_in_cache(offset, lock);
            }};
  }

  int node_ = 0;
};

// --- the lock of the caller
// --------------------------------------------------------------------------

TEST_F(ReadPathThreadsTest, AReaderOfANodeKeepsAWriterOutUntilItReleasesTheLock) {
  for (const auto& lookUp : LookUps()) {
    SharedLock lock;
    EXPECT_EQ(&node_, lookUp(300, &lock)->data);
    ASSERT_TRUE(lock.owns_lock());
    EXPECT_EQ(&peer().rwLock(), lock.mutex());

    std::atomic<bool> written{false};
    std::thread writer([&] {
      table().insert(0, 10, nullptr, 0, 0, nullptr, -1, nullptr);
      written = true;
    });
    AwaitWriterAt(peer().rwLock());
    EXPECT_FALSE(written.load());
    lock.unlock();
    writer.join();
    EXPECT_TRUE(written.load());
    EXPECT_EQ(Held::kNot, CacheLock());
  }
}

TEST_F(ReadPathThreadsTest, AReaderWithoutANodeOrWithoutALockKeepsNothing) {
  for (const auto& lookUp : LookUps()) {
    SharedLock lock;
    EXPECT_EQ(kCached, PartOf(*lookUp(100, &lock)));
    EXPECT_FALSE(lock.owns_lock()) << "the extent has no node";
    EXPECT_EQ(Held::kNot, CacheLock());
    EXPECT_EQ(kWithNode, PartOf(*lookUp(300, nullptr)));
    EXPECT_EQ(Held::kNot, CacheLock()) << "nobody asked for the lock";
    EXPECT_EQ(table().end(), lookUp(600, &lock));
    EXPECT_FALSE(lock.owns_lock()) << "nothing found";
    EXPECT_EQ(Held::kNot, CacheLock());
  }
  SharedLock lock;
  EXPECT_EQ(kStored, PartOf(*table().lower_bound(500, &lock)));
  EXPECT_FALSE(lock.owns_lock()) << "an extent of a database has no node";
  EXPECT_EQ(Held::kNot, CacheLock());
  table().begin();
  EXPECT_EQ(Held::kNot, CacheLock());
}

TEST_F(ReadPathThreadsTest, WhatTheCallersLockHeldBeforeIsReleasedWhenItGetsTheOther) {
  for (const auto& lookUp : LookUps()) {
    boost::shared_mutex other;
    SharedLock lock(other);
    lookUp(100, &lock);
    EXPECT_EQ(&other, lock.mutex()) << "no node: the lock is left alone";
    EXPECT_EQ(Held::kShared, HowIsHeld(other));
    lookUp(300, &lock);
    EXPECT_EQ(&peer().rwLock(), lock.mutex());
    EXPECT_EQ(Held::kNot, HowIsHeld(other));
    EXPECT_EQ(Held::kShared, CacheLock());
  }
  EXPECT_EQ(Held::kNot, CacheLock());
}

TEST_F(ReadPathThreadsTest, APrefetchedExtentWithANodeHandsTheLockOnToo) {
  Set(&FileSystemDaemonConfig::prefetchEnabled, 1);
  Prefetch({700, 800, 73}, &node_);
  SharedLock lock;
  EXPECT_EQ(&node_, table().lower_bound(700, &lock)->data);
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_EQ(Held::kShared, CacheLock());
  EXPECT_EQ(Held::kNot, PrefetchLock());
}

TEST_F(ReadPathThreadsTest, UnderTheLockTheCallerStepsOnAndTheUnlockedLookUpWorks) {
  SharedLock lock;
  auto it = table().lower_bound(300, &lock);
  ASSERT_TRUE(lock.owns_lock());
  std::thread writer([&] { table().insert(0, 10, nullptr, 0, 0, nullptr, -1, nullptr); });
  AwaitWriterAt(peer().rwLock());  // a look-up that took the lock would wait behind it
  ++it;
  EXPECT_EQ(kStored, PartOf(*it));
  EXPECT_EQ(kCached, PartOf(*peer().lower_bound_unlocked(0)));
  lock.unlock();
  writer.join();
}

// --- order and reach of the locks
// --------------------------------------------------------------------

/// Looks at the table's locks when a look-up writes to it.
struct ProbingExt : ExtLMDB {
  explicit ProbingExt(MappingLMDBTestPeer& p) : peer(p) {}
  void setData(void* pointer) override {
    seen = {HowIsHeld(peer.tableLock()), HowIsHeld(peer.prefetchLock())};
    ExtLMDB::setData(pointer);
  }
  MappingLMDBTestPeer& peer;
  std::vector<Held> seen;  // of the table lock and of the prefetch lock
};

TEST_F(ReadPathThreadsTest, TheTableLockIsSharedForTheWalkOfTheDatabasesAndNoLonger) {
  Peer here = peer();
  ProbingExt inWalk(here);
  Clear(peer().smallDb());
  EXPECT_EQ(0, here.lowerBoundDB(500, &inWalk));
  EXPECT_THAT(inWalk.seen, ElementsAre(Held::kShared, Held::kNot));
  EXPECT_EQ(Held::kNot, TableLock());

  ProbingExt behind(here);
  long nextEnd = 0;
  EXPECT_EQ(0, here.GetNextExtent(500, &nextEnd, &behind));
  EXPECT_EQ(kStored, PartOf(behind));
  EXPECT_THAT(behind.seen, ElementsAre(Held::kNot, Held::kNot)) << "the answer is ready by then";
}

TEST_F(ReadPathThreadsTest, AHitInMemoryTakesNoTableLock) {
  Set(&FileSystemDaemonConfig::prefetchEnabled, 1);
  Prefetch({700, 800, 73});
  Peer here = peer();
  long nextEnd = 0;
  ProbingExt cached(here);
  EXPECT_EQ(0, here.GetNextExtent(100, &nextEnd, &cached));
  EXPECT_THAT(cached.seen, ElementsAre(Held::kNot, Held::kNot));
  ProbingExt prefetched(here);
  EXPECT_EQ(0, here.GetNextExtent(700, &nextEnd, &prefetched));
  EXPECT_THAT(prefetched.seen, ElementsAre(Held::kNot, Held::kShared));
  EXPECT_EQ(Held::kNot, PrefetchLock());

  const UniqueLock switching(peer().tableLock());  // whoever took it would wait for ever
  EXPECT_EQ(kCached, PartOf(*table().lower_bound(100, nullptr)));
  EXPECT_EQ((Part{700, 800, 73}), PartOf(*table().lower_bound(700, nullptr)));
  EXPECT_EQ(kCached, PartOf(*table().lower_bound_in_cache(0, nullptr)));
}

TEST_F(ReadPathThreadsTest, ALookUpThatWaitsForTheTableLockHasReleasedThePrefetchLock) {
  Set(&FileSystemDaemonConfig::prefetchEnabled, 1);
  Prefetch({700, 800, 73});
  UniqueLock switching(peer().tableLock());
  log_.Take();
  std::atomic<bool> back{false};
  std::optional<Part> found;
  std::thread reader([&] {
    found = At(500);
    back = true;
  });
  std::vector<std::string> lines;
  while (lines.empty() || lines.back() != "0 CMappingLMDB::lowerBoundDB(), off=500") {
    const auto more = Lines();
    lines.insert(lines.end(), more.begin(), more.end());
    std::this_thread::yield();
  }
  EXPECT_EQ(Held::kNot, PrefetchLock());
  EXPECT_EQ(Held::kShared, CacheLock()) << "the cache stands still until the answer is made";
  EXPECT_FALSE(back.load());
  switching.unlock();
  reader.join();
  EXPECT_THAT(found, Optional(kStored));
}

TEST_F(ReadPathThreadsTest, ALookUpWaitsForAWriterOfTheCache) {
  UniqueLock writing(peer().rwLock());
  std::atomic<int> back{0};
  std::vector<std::thread> readers;
  log_.Take();
  for (const auto& lookUp : LookUps()) {
    readers.emplace_back([&back, lookUp] {
      lookUp(100, nullptr);
      ++back;
    });
  }
  std::size_t lines = 0;
  while (lines < 4) {  // each says its name before it waits; find says two
    lines += Lines().size();
    std::this_thread::yield();
  }
  EXPECT_EQ(0, back.load());
  writing.unlock();
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(3, back.load());
}

// --- readers beside whatever changes the table
// ---------------------------------------------------------

/// A file of blocks without a hole: every extent maps its object at the object's own offset, in
/// whichever place it lies and however it is cut.
class ReadersTest : public zefs::test::ReadPathTest {
 protected:
  static constexpr long kBlock = 16;
  static constexpr long kBlocks = 32;
  static constexpr int kRounds = 100;

  void SetUp() override {
    std::vector<Part> blocks;
    for (long block = 0; block < kBlocks; ++block) {
      blocks.push_back({block * kBlock, (block + 1) * kBlock, 64, block * kBlock});
    }
    LoadOver(blocks, {blocks[3], blocks[9]}, {blocks[4], blocks[20]});
  }

  /// Looks at the whole file, over and over, until `done` and once at least.
  void Read(const std::atomic<bool>& done, bool keepLock) {
    do {
      long at = 0;
      while (at < kBlocks * kBlock) {
        SharedLock lock;
        auto it = table().lower_bound(at, &lock);
        if (it->data == nullptr && keepLock) {
          lock = SharedLock(peer().rwLock());
          it = peer().lower_bound_unlocked(at);
        }
        ASSERT_LE(it->sOff, at) << "no hole";
        ASSERT_GT(it->eOff, at);
        ASSERT_EQ(it->sOff, it->objOff) << "visible bytes keep their place";
        at = it->eOff;
        if (lock.owns_lock() && at < kBlocks * kBlock) {
          ++it;
          ASSERT_LE(it->sOff, at);
          at = it->eOff;
        }
      }
    } while (!done.load());
  }

  int node_ = 0;
  const zefs::refhost::LogRecorder quiet_{zefs::kLogFailure};
};

TEST_F(ReadersTest, SeeNoHoleBesideAWriterAndADatabaseThatComesAndGoes) {
  std::atomic<bool> done{false};
  std::thread first([&] { Read(done, false); });
  std::thread second([&] { Read(done, true); });
  std::thread writer([&] {
    for (long i = 0; i < 10L * kRounds; ++i) {
      const long sOff = (i * 7 % kBlocks) * kBlock + i % 5;
      const ObjectID oid = zefs::test::Oid(64 + static_cast<std::uint64_t>(i % 9));
      table().insert(sOff, std::min(sOff + 1 + i % 40, kBlocks * kBlock), &oid, sOff, 0,
                     i % 3 == 0 ? &node_ : nullptr, -1, nullptr);
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    const UniqueLock switching(peer().tableLock());
    auto& chain = peer().dbChain();
    if (peer().tmpDb().opened) {
      chain.pop_front();
      peer().ClearDBEnv(&peer().tmpDb());
    } else {
      ASSERT_EQ(0, peer().SetupDBEnv(File(CMappingLMDB::TMPDB).string(), &peer().tmpDb(),
                                     CMappingLMDB::kSmallMapSize));
      chain.push_front(&peer().tmpDb());
    }
  }
  writer.join();
  done = true;
  first.join();
  second.join();
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().tableLock()));
}

}  // namespace
