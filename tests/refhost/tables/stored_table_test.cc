#include "refhost/tables/stored_table.h"

#include <atomic>
#include <cerrno>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/bloom_filter.h"
#include "refhost/cache/data_cache.h"
#include "refhost/cache/node_ledger.h"
#include "refhost/host/log_recorder.h"
#include "refhost/store/store_error.h"
#include "tests/refhost/store/store_fixture.h"
#include "tests/refhost/table_settings.h"
#include "tests/refhost/tables/late_threads.h"
#include "tests/support/child_process.h"

namespace zefs::refhost {
namespace {

using test::ThrownText;
using ::testing::HasSubstr;

class StoredTableTest : public ::testing::Test {
 protected:
  StoredTableTest()
      : cache([this](const std::string&) { return protectResult; }), ledger(&cache.counts()) {}

  std::string Directory() const { return (dir / "table").string(); }

  /// Writes [start, end) with a node that is ready.
  void Write(StoredTable& table, long start, long end) {
    StoredTable::ObjectID id;
    id.dcid = 64;
    id.fp.fill(static_cast<unsigned char>(++objects));
    CacheNode* const node = ledger.Make(nullptr);
    node->SetStored(id, 0);
    table.Insert(start, end, nullptr, 0, node->ForTable(), -1);
  }

  void Flush(StoredTable& table, bool force) {
    table.Flush(force, "share",
                [this](const std::set<void*>& released) { ledger.Release(released); });
  }

  static int ExtentsOf(MappingTable& table) {
    int count = 0;
    for (auto it = table.begin(); it != table.end(); ++it) {
      ++count;
    }
    return count;
  }

  test::TempDir dir;
  int protectResult = 0;
  int objects = 0;
  std::atomic<std::uint64_t> merges{0};
  DataCache cache;
  NodeLedger ledger;
};

TEST_F(StoredTableTest, IsLoadedAgainWithWhatWasFlushed) {
  {
    StoredTable table(Directory(), "PROVISION", &cache, &merges);
    Write(table, 0, 10);
    Write(table, 20, 30);
    Flush(table, true);
    Write(table, 40, 50);
    table.RaiseFileSize(100);
    EXPECT_EQ(100, table.FileSize());
    table.RaiseFileSize(60);
    EXPECT_EQ(100, table.FileSize());
  }
  const StoredTable table(Directory(), "PROVISION", &cache, &merges);
  EXPECT_EQ(2, ExtentsOf(table.table())) << "what was not flushed is dropped";
  EXPECT_EQ(100, table.FileSize());
}

TEST_F(StoredTableTest, FlushHandsBackTheNodesThatItIsThroughWith) {
  StoredTable table(Directory(), "PROVISION", &cache, &merges);
  Write(table, 0, 10);
  Write(table, 0, 10);  // displaces the first
  Flush(table, false);
  EXPECT_EQ(0U, cache.counts().released) << "too little for a flush that is not forced";
  Flush(table, true);
  EXPECT_EQ(2U, cache.counts().released);
  ledger.Settle();
  EXPECT_EQ("", cache.counts().Problem());
  EXPECT_EQ(1U, cache.flushes());
}

TEST_F(StoredTableTest, PlanListsWhatWasFlushedByContainer) {
  StoredTable table(Directory(), "PROVISION", &cache, &merges);
  Write(table, 0, 10);
  Write(table, 20, 30);
  Flush(table, true);
  Write(table, 40, 50);
  const auto plan = table.Plan(5, 100);
  ASSERT_EQ(1U, plan.size());
  EXPECT_EQ(64U, plan.front().dcid);
  ASSERT_EQ(2U, plan.front().extents.size()) << "what still has a node has no container";
  EXPECT_EQ(0, plan.front().extents[0].sOff);
  EXPECT_EQ(20, plan.front().extents[1].sOff);
  EXPECT_TRUE(table.Plan(50, 50).empty());
}

TEST_F(StoredTableTest, WriteInsideWhatWasPlannedIsFound) {
  auto& config = FileSystemDaemonConfig::GetInstance();
  const std::int32_t before = config.Get(&FileSystemDaemonConfig::prefetchEnabled);
  config.Set(&FileSystemDaemonConfig::prefetchEnabled, 1);
  StoredTable table(Directory(), "PROVISION", &cache, &merges);
  for (long at = 0; at < 50; at += 10) {
    Write(table, at, at + 10);
  }
  Flush(table, true);
  for (long at : {20, 22}) {
    table.Plan(0, 50);
    Write(table, at, at + 5);
    EXPECT_EQ(at, table.table().find(at, nullptr)->getSOff());
    EXPECT_NE(nullptr, table.table().find(at, nullptr)->getData());
  }
  Flush(table, true);
  config.Set(&FileSystemDaemonConfig::prefetchEnabled, before);
}

TEST_F(StoredTableTest, MergesAreCountedAndFinished) {
  const test::SmallThresholds thresholds(1, 4);
  StoredTable table(Directory(), "PROVISION", &cache, &merges);
  for (long at = 0; at < 300; at += 10) {
    Write(table, at, at + 10);
    Flush(table, true);
  }
  EXPECT_TRUE(table.FinishMerges());
  EXPECT_GE(merges, 1U);
  EXPECT_EQ(30, ExtentsOf(table.table()));
}

TEST_F(StoredTableTest, MergeThatHasJustBeenStartedIsFinished) {
  const test::SmallThresholds thresholds(1, 4);
  const test::LateThreads late;
  StoredTable table(Directory(), "PROVISION", &cache, &merges);
  for (long at = 0; at < 60; at += 10) {
    Write(table, at, at + 10);
  }
  Flush(table, true);  // starts a merge, which has made no file yet
  EXPECT_FALSE(boost::filesystem::exists(Directory() + "/tmp.mdb"));
  EXPECT_TRUE(table.FinishMerges());
  EXPECT_EQ(1U, merges);
  EXPECT_EQ(6, ExtentsOf(table.table()));
}

TEST_F(StoredTableTest, FailureOfTheDataCacheIsAnErrorThatNamesTheTable) {
  const LogRecorder quiet;
  StoredTable table(Directory(), "PROVISION", &cache, &merges);
  Write(table, 0, 10);
  protectResult = ENOSPC;
  EXPECT_EQ("cannot flush the table in " + Directory() + ": No space left on device (ENOSPC)",
            ThrownText<StoreError>([&] { Flush(table, true); }));
}

TEST_F(StoredTableTest, TableThatCannotBeLoadedIsAnErrorThatNamesIt) {
  const LogRecorder quiet;
  test::WriteFile(dir / "file", "x");
  const std::string below = (dir / "file/table").string();
  EXPECT_THAT(ThrownText<StoreError>([&] { StoredTable(below, "PROVISION", &cache, &merges); }),
              HasSubstr("cannot load the table in " + below + ": "));
  boost::filesystem::create_directory(Directory());
  test::WriteFile(Directory() + "/lsml0.mdb", std::string(9000, 'x'));
  EXPECT_EQ(
      "cannot load the table in " + Directory() + ": MDB_INVALID: File is not an LMDB file",
      ThrownText<StoreError>([&] { StoredTable(Directory(), "PROVISION", &cache, &merges); }));
}

/// In a process of its own, in which the database stays open.
TEST_F(StoredTableTest, DirectoryWithAnUnfinishedMergeIsNotLoadedTwice) {
  EXPECT_TRUE(test::EndedWell(test::RunInChild([this] {
    { const StoredTable table(Directory(), "PROVISION", &cache, &merges); }
    test::WriteFile(Directory() + "/tmp.mdb", "");
    { const StoredTable table(Directory(), "PROVISION", &cache, &merges); }
    EXPECT_EQ(
        "cannot load the table in " + Directory() +
            " again: a merge is unfinished there, which the next process takes up",
        ThrownText<StoreError>([&] { StoredTable(Directory(), "PROVISION", &cache, &merges); }));
  })));
  StoredTable table(Directory(), "PROVISION", &cache, &merges);
  EXPECT_TRUE(table.FinishMerges());
}

TEST_F(StoredTableTest, CutEndsItsExtentsAndItsSize) {
  {
    StoredTable table(Directory(), "PROVISION", &cache, &merges);
    Write(table, 0, 10);
    Write(table, 20, 30);
    Write(table, 40, 50);
    Flush(table, true);
    table.Truncate(25);
    EXPECT_EQ(25, table.FileSize());
    table.Truncate(25);
  }
  const StoredTable table(Directory(), "PROVISION", &cache, &merges);
  EXPECT_EQ(2, ExtentsOf(table.table()));
  EXPECT_EQ(25, table.FileSize());
}

TEST_F(StoredTableTest, SnapshotLoadsAndIsATableOfItsOwn) {
  const std::string target = (dir / "copy").string();
  StoredTable table(Directory(), "PROVISION", &cache, &merges);
  Write(table, 0, 10);
  Flush(table, true);
  table.RaiseFileSize(100);
  const LogRecorder quiet;
  table.Snapshot(target);
  Write(table, 10, 20);
  Flush(table, true);
  const StoredTable copy(target, "PROVISION", &cache, &merges);
  EXPECT_EQ(1, ExtentsOf(copy.table()));
  EXPECT_EQ(100, copy.FileSize());
  EXPECT_EQ("cannot copy the table in " + Directory() + ": File exists (EEXIST)",
            ThrownText<StoreError>([&] { table.Snapshot(target); }));
  EXPECT_EQ(2, ExtentsOf(table.table()));
}

TEST_F(StoredTableTest, FollowsItsDirectory) {
  const std::string target = (dir / "moved").string();
  {
    StoredTable table(Directory(), "GENERIC", &cache, &merges);
    Write(table, 0, 10);
    Flush(table, true);
    boost::filesystem::rename(Directory(), target);
    table.Follow(target);
    EXPECT_EQ(target, table.directory());
    Write(table, 10, 20);
    Flush(table, true);
  }
  EXPECT_FALSE(boost::filesystem::exists(Directory()));
  const StoredTable table(target, "GENERIC", &cache, &merges);
  EXPECT_EQ(2, ExtentsOf(table.table()));
}

TEST_F(StoredTableTest, RemovedDirectoryIsGoneAndCanBeMadeAnew) {
  {
    StoredTable table(Directory(), "PROVISION", &cache, &merges);
    Write(table, 0, 10);
    Flush(table, true);
    table.Remove();
    EXPECT_FALSE(boost::filesystem::exists(Directory()));
  }
  EXPECT_FALSE(boost::filesystem::exists(Directory())) << "nor has its end made it again";
  const StoredTable table(Directory(), "PROVISION", &cache, &merges);
  EXPECT_EQ(0, ExtentsOf(table.table()));
}

TEST_F(StoredTableTest, UnfinishedMergeCanBeFinished) {
  { const StoredTable table(Directory(), "PROVISION", &cache, &merges); }
  test::WriteFile(Directory() + "/tmp.mdb", "");
  {
    StoredTable table(Directory(), "PROVISION", &cache, &merges);
    EXPECT_TRUE(table.FinishMerges());
    EXPECT_EQ(1U, merges);
  }
  const StoredTable table(Directory(), "PROVISION", &cache, &merges);
  EXPECT_EQ(0, ExtentsOf(table.table()));
}

TEST_F(StoredTableTest, FilterThatACrashLeftOfTheMergeBeforeIsNotAsked) {
  {
    StoredTable table(Directory(), "PROVISION", &cache, &merges);
    Write(table, 0, 100);
    Flush(table, true);
    table.table().GetObjectIdsAndOffsets(0, 1000);  // merges
    ASSERT_TRUE(table.FinishMerges());
    boost::filesystem::copy_file(Directory() + "/bloom", dir / "older");
    Write(table, 100, 200);
    Flush(table, true);
    table.table().GetObjectIdsAndOffsets(0, 1000);
    ASSERT_TRUE(table.FinishMerges());
  }
  // As a process leaves them that dies after the databases were switched and before the filters.
  boost::filesystem::rename(Directory() + "/bloom", Directory() + "/bloom.merge");
  boost::filesystem::rename(dir / "older", Directory() + "/bloom");
  const StoredTable table(Directory(), "PROVISION", &cache, &merges);
  std::vector<std::pair<unsigned long, unsigned long>> dcids;
  std::unique_ptr<BloomFilter> filter;
  table.table().GetDCIDAndBloomFilter(&dcids, &filter);
  for (unsigned char object = 1; object <= 2; ++object) {
    crfp_digest_t fp{};
    fp.fill(object);
    EXPECT_TRUE(filter->Contains(fp)) << static_cast<int>(object);
  }
  EXPECT_FALSE(boost::filesystem::exists(Directory() + "/bloom.merge"));
}

TEST_F(StoredTableTest, DatabaseThatACrashLeftHalfMadeIsMadeAnew) {
  {
    StoredTable table(Directory(), "PROVISION", &cache, &merges);
    Write(table, 0, 100);
    Flush(table, true);
  }
  constexpr std::size_t kOneOfTwoPages = 4096;
  std::ifstream whole(Directory() + "/data.mdb", std::ios::binary);
  std::string begin(kOneOfTwoPages, '\0');
  whole.read(begin.data(), static_cast<std::streamsize>(begin.size()));
  test::WriteFile(Directory() + "/tmp.mdb", begin);
  const StoredTable table(Directory(), "PROVISION", &cache, &merges);
  EXPECT_EQ(1, ExtentsOf(table.table()));
  EXPECT_FALSE(boost::filesystem::exists(Directory() + "/tmp.mdb"));
}

}  // namespace
}  // namespace zefs::refhost
