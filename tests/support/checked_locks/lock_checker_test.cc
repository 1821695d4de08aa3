// The checker of locks finds what is wrong, and nothing in what is right.

#include "tests/support/checked_locks/lock_checker.h"

#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

#include <boost/thread/lock_types.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <gmock/gmock.h>

#include "tests/persistent/persistent_fixture.h"
#include "tests/support/checked_locks/checked_calls.h"

namespace zefs::test::locks {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using Exclusive = boost::unique_lock<boost::shared_mutex>;
using Shared = boost::shared_lock<boost::shared_mutex>;

class LockCheckerTest : public PersistentTableTest {
 protected:
  std::vector<std::string> Found() const {
    std::vector<std::string> found;
    for (std::size_t i = 0; i < findings_.count(); ++i) {
      found.emplace_back(findings_.text(i));
    }
    return found;
  }

  template <typename Do>
  static void InAThread(Do action) {
    std::thread(action).join();
  }

  const Findings findings_;
};

struct First {
  boost::shared_mutex lock;
};
struct Second {
  boost::shared_mutex lock;
};
struct Third {
  boost::shared_mutex lock;
};

TEST_F(LockCheckerTest, LocksOfATableInTheirOrderAreRight) {
  Load();
  {
    const Shared cache(peer().rwLock());
    const Shared table(peer().tableLock());
    const Exclusive prefetched(peer().prefetchLock());
    EXPECT_EQ(0,
              FileSystemDaemonConfig::GetInstance().Get(&FileSystemDaemonConfig::prefetchEnabled));
  }
  EXPECT_THAT(Found(), IsEmpty());
}

TEST_F(LockCheckerTest, AnInversionOfTheOrderIsFoundThoughNobodyWaits) {
  Make();
  const Shared table(peer().tableLock());
  const Shared cache(peer().rwLock());
  EXPECT_THAT(Found(), ElementsAre("order: rwLock_ is taken while tableLock_ is held"));
}

TEST_F(LockCheckerTest, LocksOfTwoTablesAreNotHeldTogether) {
  CMappingLMDB other(&cache_, "PROVISION");
  Make();
  const Shared first(peer().rwLock());
  const Shared second(Peer(other).rwLock());
  EXPECT_THAT(Found(), ElementsAre("order: rwLock_ is taken while rwLock_ is held"));
}

TEST_F(LockCheckerTest, ACircleOfLocksWithoutARankIsFound) {
  First first;
  Second second;
  Third third;
  InAThread([&] {
    const Shared a(first.lock);
    const Exclusive b(second.lock);
  });
  InAThread([&] {
    const Exclusive b(second.lock);
    const Exclusive c(third.lock);
  });
  EXPECT_THAT(Found(), IsEmpty());
  First another;  // it is the same member
  InAThread([&] {
    const Exclusive c(third.lock);
    const Exclusive a(another.lock);
  });
  ASSERT_THAT(Found(), ElementsAre(StartsWith("circle: lock of ")));
}

TEST_F(LockCheckerTest, ALockThatIsTakenTwiceIsFoundAlsoIfItIsShared) {
  Make();
  const Shared once(peer().rwLock());
  const Shared again(peer().rwLock());
  EXPECT_THAT(Found(), ElementsAre("again: rwLock_ is taken shared by the thread that holds it"));
}

TEST_F(LockCheckerTest, AnUnlockByAThreadThatDoesNotHoldTheLockIsFound) {
  First first;
  first.lock.lock_shared();
  InAThread([&] { HasUnlocked(&first.lock, first.lock.kind(), How::kShared); });
  EXPECT_THAT(Found(), ElementsAre(StartsWith("unlock: of ")));
  HasUnlocked(&first.lock, first.lock.kind(), How::kExclusively);
  EXPECT_EQ(2U, Found().size()) << "it is held shared";
  first.lock.unlock_shared();
  EXPECT_EQ(2U, Found().size());
}

TEST_F(LockCheckerTest, AThreadThatEndsWithALockIsFound) {
  First first;
  InAThread([&] { HasLocked(&first.lock, first.lock.kind(), How::kShared); });
  EXPECT_THAT(Found(), ElementsAre(StartsWith("end: of a thread that holds ")));
}

TEST_F(LockCheckerTest, ALockThatEndsWhileItIsHeldIsFound) {
  int lock = 0;
  First first;
  HasLocked(&lock, first.lock.kind(), How::kShared);
  Gone(&lock, first.lock.kind());
  EXPECT_THAT(Found(), ElementsAre(StartsWith("end: of ")));
  HasUnlocked(&lock, first.lock.kind(), How::kShared);
}

TEST_F(LockCheckerTest, ALockThatWasTriedForIsHeldButWasNotWaitedFor) {
  Make();
  const Shared table(peer().tableLock());
  ASSERT_TRUE(peer().rwLock().try_lock());
  EXPECT_THAT(Found(), IsEmpty());
  InAThread([&] { EXPECT_FALSE(peer().rwLock().try_lock_shared()); });
  peer().rwLock().unlock();
  EXPECT_THAT(Found(), IsEmpty());
}

TEST_F(LockCheckerTest, ALockThatIsHandedOnIsStillHeld) {
  Make();
  Exclusive handed;
  {
    Exclusive held(peer().rwLock());
    handed = std::move(held);
  }
  const Shared again(peer().tableLock());
  EXPECT_THAT(Found(), IsEmpty());
}

TEST_F(LockCheckerTest, WritersOfADatabaseAreALock) {
  Load();
  MDB_txn* txn = nullptr;
  ASSERT_EQ(0, zefs_checked_txn_begin(peer().fullDb().env, nullptr, 0, &txn));
  MDB_txn* older = nullptr;
  ASSERT_EQ(0, zefs_checked_txn_begin(peer().smallDb().env, nullptr, 0, &older));
  EXPECT_THAT(Found(), ElementsAre("order: writers of the small database is taken while writers of "
                                   "the full database is held"));
  zefs_checked_txn_abort(older);
  MDB_txn* reader = nullptr;
  ASSERT_EQ(0, zefs_checked_txn_begin(peer().smallDb().env, nullptr, MDB_RDONLY, &reader));
  zefs_checked_txn_abort(reader);
  EXPECT_EQ(1U, Found().size()) << "readers are none";
  ASSERT_EQ(0, zefs_checked_txn_commit(txn));
  EXPECT_EQ(0, table().setFileSize(10)) << "what the library begins and ends is told";
  EXPECT_EQ(1U, Found().size());
}

/// A thread as the library starts them.
struct StartedThread {
  template <typename Do>
  explicit StartedThread(Do* action) {
    EXPECT_EQ(0, ::pthread_create(&handle, nullptr, &Run<Do>, action));
  }
  template <typename Do>
  static void* Run(void* action) {
    (*static_cast<Do*>(action))();
    return nullptr;
  }
  pthread_t handle{};
};

TEST_F(LockCheckerTest, WhoeverJoinsAThreadTakesWhatTheThreadTakes) {
  Make();
  auto takeTable = [&] { const Exclusive table(peer().tableLock()); };
  {
    const StartedThread thread(&takeTable);
    const Shared cache(peer().rwLock());
    EXPECT_EQ(0, zefs_checked_join(thread.handle, nullptr));
  }
  EXPECT_THAT(Found(), IsEmpty());
  CMappingLMDB other(&cache_, "PROVISION");
  const StartedThread thread(&takeTable);
  const Shared table(Peer(other).tableLock());
  EXPECT_EQ(0, zefs_checked_join(thread.handle, nullptr));
  EXPECT_THAT(Found(), ElementsAre("order: tableLock_ is taken while tableLock_ is held"));
}

TEST_F(LockCheckerTest, AMergeIsWaitedForInTheOrder) {
  Set(&FileSystemDaemonConfig::persistBloom, std::uint8_t{1});
  Load();
  const Exclusive cache(peer().rwLock());
  peer().StartMergeThread();
  peer().WaitingForMerge();
  EXPECT_THAT(Found(), IsEmpty());
  EXPECT_NE(-1, KindNamed("writers of the merge database"));
}

TEST_F(LockCheckerTest, PlainMutexesAreKnownByTheClassThatLocksThem) {
  Load("GENERIC");
  EXPECT_EQ(0, table().AppendToRefreshDcOffsetList(1, 64, {}));
  std::set<void*> released;
  table().checkAndBackfillObjectID(&released, true, "", "", nullptr, nullptr);
  EXPECT_NE(-1, KindNamed("mutex_ of DcOffsetStore"));
  EXPECT_NE(-1, KindNamed("lock of an object"));
  EXPECT_NE(-1, KindNamed("mutex_ of ExtentJournal"));
  EXPECT_NE(-1, KindNamed("mergeMutex_"));
  EXPECT_THAT(Found(), IsEmpty());
}

TEST(LockCheckerDeathTest, AFindingEndsTheProcessThatWantsItAndTellsWhoHoldsWhat) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  First first;
  EXPECT_DEATH(
      {
        EndAtFindings();
        const Shared once(first.lock);
        const Shared again(first.lock);
      },
      "lock checker: again: lock of .*\n.*holds lock of ");
}

}  // namespace
}  // namespace zefs::test::locks
