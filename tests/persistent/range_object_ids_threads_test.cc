// Listings and updates beside a merge, a writer, and other holders of the locks.

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/range_object_ids_fixture.h"
#include "tests/persistent/thread_switch.h"

namespace zefs::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RangeObjectIdsThreadsTest : public RangeObjectIdsTest {
 protected:
  using SharedLock = CMappingLMDB::SharedLock;

  const Records full_ = {Attributed(0, 10, 70, 5)};

  /// Waits until this line has been logged.
  void AwaitLine(const std::string& line) {
    for (;;) {
      const auto lines = Lines();
      if (std::find(lines.begin(), lines.end(), line) != lines.end()) {
        return;
      }
      std::this_thread::yield();
    }
  }

  /// Waits until a thread is about to join the merge.
  void AwaitWaiterForTheMerge() {
    while (peer().mergeMutex().try_lock()) {
      peer().mergeMutex().unlock();
      std::this_thread::yield();
    }
  }
};

TEST_F(RangeObjectIdsThreadsTest, AListingFromTheBeginningWaitsForItsMerge) {
  LoadBoth(full_, {Attributed(10, 20, 71, 6)});
  std::vector<std::string> listed;
  std::atomic<bool> done{false};
  SharedLock reader(peer().tableLock());  // the merge cannot begin
  std::thread lister([&] {
    listed = Listed(0, 99);
    done = true;
  });
  AwaitWriterAt(peer().tableLock());
  EXPECT_FALSE(done);
  reader.unlock();
  lister.join();
  EXPECT_THAT(listed, ElementsAre("[0, 10) 70 5", "[10, 20) 71 6"));
  ExpectNoMerge();
}

TEST_F(RangeObjectIdsThreadsTest, AMergeThatRunsAlreadyIsOnlyAwaited) {
  LoadBoth(full_, {Attributed(10, 20, 71, 6)});
  std::vector<std::string> listed;
  TakeThreadCount();
  // A merge that writes a filter counts the records first, and has to wait for other writers then.
  Set(&Config::persistBloom, std::uint8_t{1});
  MDB_txn* writer = nullptr;
  ASSERT_EQ(0, ::mdb_txn_begin(peer().smallDb().env, nullptr, 0, &writer));
  peer().StartMergeThread();
  AwaitLine("0 CMappingLMDB::mergeDBs()");
  std::thread lister([&] { listed = Listed(0, 99); });
  AwaitWaiterForTheMerge();
  ::mdb_txn_abort(writer);
  lister.join();
  EXPECT_EQ(1, TakeThreadCount()) << "of the merge";
  EXPECT_THAT(listed, ElementsAre("[0, 10) 70 5", "[10, 20) 71 6"));
}

TEST_F(RangeObjectIdsThreadsTest, AListingRunsBesideAnotherHolderOfTheSharedLockOnly) {
  LoadBoth(full_, {});
  {
    const SharedLock reader(peer().tableLock());
    EXPECT_THAT(Listed(1, 99), ElementsAre("[0, 10) 70 5"));
    EXPECT_EQ(0, table().UpdateObjectIdsByRange(1, 99, {Element(99, 80, 5)}));
  }
  std::atomic<int> done{0};
  UniqueLock writer(peer().tableLock());
  std::thread lister([&] {
    EXPECT_THAT(Listed(1, 99), ElementsAre("[0, 10) 90 5"));
    ++done;
  });
  EXPECT_EQ(0, done);
  // What it must not see: a database that is being changed under the exclusive lock.
  MDB_txn* txn = nullptr;
  const LMDBContext& db = peer().fullDb();
  ASSERT_EQ(0, ::mdb_txn_begin(db.env, nullptr, 0, &txn));
  PlainRecord record = Moved(full_[0], 90);
  MDB_val key{sizeof(record.key), &record.key};
  MDB_val value{record.value.size(), record.value.data()};
  EXPECT_EQ(0, ::mdb_put(txn, db.dbi, &key, &value, 0));
  EXPECT_EQ(0, ::mdb_txn_commit(txn));
  EXPECT_EQ(0, done);
  writer.unlock();
  lister.join();
}

TEST_F(RangeObjectIdsThreadsTest, AnUpdateTakesThePrefetchLockAloneAndFirst) {
  LoadBoth(full_, {});
  Set(&Config::prefetchEnabled, 1);
  peer().prefetchExts().resize(2);
  ReplaceLmdb();
  SharedLock reader(peer().prefetchLock());
  Held atBegin = Held::kNot;
  Held prefetchAtBegin = Held::kShared;
  script_.ahead = [&](const std::string& call) {
    if (call == "put") {
      atBegin = TableLock();
      prefetchAtBegin = HowIsHeld(peer().prefetchLock());
    }
  };
  std::thread updater(
      [&] { EXPECT_EQ(0, table().UpdateObjectIdsByRange(1, 99, {Element(99, 90, 5)})); });
  AwaitWriterAt(peer().prefetchLock());
  EXPECT_EQ(Held::kNot, TableLock()) << "not yet";
  EXPECT_EQ(2U, peer().prefetchExts().size());
  EXPECT_THAT(script_.calls, IsEmpty());
  reader.unlock();
  updater.join();
  EXPECT_EQ(Held::kShared, atBegin) << "the switch of a merge stays out";
  EXPECT_EQ(Held::kNot, prefetchAtBegin) << "released by then";
  EXPECT_THAT(peer().prefetchExts(), IsEmpty());
  EXPECT_EQ(Held::kNot, TableLock());
}

TEST_F(RangeObjectIdsThreadsTest, WherePrefetchingIsOffItsLockIsLeftAlone) {
  LoadBoth(full_, {});
  const UniqueLock writer(peer().prefetchLock());
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(1, 99, {Element(99, 90, 5)}));
  EXPECT_THAT(Listed(1, 99), ElementsAre("[0, 10) 90 5"));
}

TEST_F(RangeObjectIdsThreadsTest, UpdatesAndListingsBesideMergesSeeWholeStates) {
  constexpr int kRounds = 40;
  Records full;
  for (int i = 0; i < 50; ++i) {
    full.push_back(Attributed(10L * i, 10L * i + 10, 100, 5));
  }
  LoadBoth(full, {});
  std::atomic<bool> done{false};
  std::thread lister([&] {
    while (!done) {
      const ObjectIDs ids = table().GetObjectIdsAndOffsets(1, 500);
      ASSERT_EQ(50U, ids.size());
      for (const auto& id : ids) {
        EXPECT_EQ(ids.front().objectID.dcid, id.objectID.dcid) << "an update is seen whole";
      }
    }
  });
  std::thread merger([&] {
    while (!done) {
      peer().StartMergeThread();
      peer().WaitingForMerge();
    }
  });
  for (int round = 1; round <= kRounds; ++round) {
    EXPECT_EQ(0, table().UpdateObjectIdsByRange(
                     0, 500, {Element(500, 100 + static_cast<std::uint64_t>(round), 5)}));
  }
  done = true;
  lister.join();
  merger.join();
  peer().WaitingForMerge();
  EXPECT_EQ(50U, Listed(0, 500).size());
}

}  // namespace
}  // namespace zefs::test
