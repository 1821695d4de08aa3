#include <string>
#include <unordered_map>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/durable/store_figures.h"
#include "refhost/host/log_recorder.h"
#include "refhost/store/recount.h"
#include "refhost/store/store_error.h"
#include "tests/refhost/durable/whole_files_fixture.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::kSegment;
using test::Pattern;
using test::ProblemsOf;
using test::ReadAll;
using test::TablesOf;
using test::ThrownText;
using TableMove = DurableStore::TableMove;

class DurableStoreNames : public test::DurableStoreTest {
 protected:
  void Put(const std::string& name, std::uint64_t seed, std::size_t size = 5000) {
    store().Create(name);
    store().Write(name, 0, Pattern(seed, size));
  }
};

TEST_F(DurableStoreNames, RemovedTableIsDeletedByTheSyncAndNotBefore) {
  Put("a", 1);
  store().Sync();
  const std::string table = store().directory().table(store().Catalogued().at("a").table);
  store().Remove("a");
  EXPECT_TRUE(fs::exists(table)) << "the catalogue still has it";
  EXPECT_THROW(store().Remove("a"), std::out_of_range);
  store().Sync();
  EXPECT_FALSE(fs::exists(table));
  EXPECT_EQ(0U, TablesOf(store().directory()));
  EXPECT_EQ("", store().nodes().Problem());
}

TEST_F(DurableStoreNames, RemovalOfAnUnsyncedFileDeletesItsTableAtOnce) {
  Put("a", 1);
  const std::size_t before = TablesOf(store().directory());
  store().Remove("a");
  EXPECT_EQ(before - 1, TablesOf(store().directory()));
  EXPECT_GT(store().nodes().dropped, 0U) << "nodes that were not flushed";
  store().Sync();
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreNames, RemovalThatIsTakenBackLeavesTheFileAsItIs) {
  Put("a", 1);
  store().Sync();
  store().Write("a", 100, "later");
  std::string expected = Pattern(1, 5000);
  expected.replace(100, 5, "later");
  store().Remove("a");
  store().Discard("a");
  EXPECT_EQ(expected, ReadAll(store(), "a"));
  SyncAndReopen();
  EXPECT_EQ(expected, ReadAll(store(), "a"));
}

TEST_F(DurableStoreNames, MoreRemovedFilesThanMayBeOpenLeaveNothing) {
  options_.mostOpen = 4;
  for (int i = 0; i < 12; ++i) {
    Put(std::to_string(i), 1);
  }
  store().Sync();
  std::vector<std::string> tables;
  for (const auto& [name, entry] : store().Catalogued()) {
    tables.push_back(store().directory().table(entry.table));
  }
  for (int i = 0; i < 12; ++i) {
    ReadAll(store(), std::to_string(i));
    store().Remove(std::to_string(i));
  }
  store().Sync();
  for (const std::string& table : tables) {
    EXPECT_FALSE(fs::exists(table)) << table;
  }
}

TEST_F(DurableStoreNames, CutOfASyncedFileTakesPlaceInItsTable) {
  Put("a", 1);
  store().Sync();
  const std::uint64_t table = store().Catalogued().at("a").table;
  store().Truncate("a", 1000);
  EXPECT_EQ(table, store().Catalogued().at("a").table);
  EXPECT_TRUE(store().Catalogued().at("a").cut);
  EXPECT_EQ(1000, store().Catalogued().at("a").size);
  store().Sync();
  EXPECT_FALSE(store().Catalogued().at("a").cut);
  EXPECT_FALSE(store().Catalogued().at("a").changing);
  EXPECT_EQ(table, store().Catalogued().at("a").table);
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreNames, WhatIsFlushedBehindACutThatNoSyncSawStays) {
  Put("a", 1);
  SyncAndReopen();
  store().Truncate("a", 1000);
  store().Write("a", 3000, Pattern(2, 20 * kSegment));
  const std::string expected = ReadAll(store(), "a");
  store().WithTable("a", [](MappingTable&) {});  // which flushes
  Close();
  EXPECT_EQ(expected, ReadAll(store(), "a"));
  EXPECT_TRUE(store().Catalogued().at("a").changing);
}

TEST_F(DurableStoreNames, CutWorksOnTablesWithAJournal) {
  options_.format.tableType = "GENERIC";
  Put("a", 1, 40 * kSegment);
  SyncAndReopen();
  store().Write("a", 0, Pattern(2, 10 * kSegment));
  const std::string before = ReadAll(store(), "a");
  store().Truncate("a", 5 * kSegment + 7);
  Close();
  EXPECT_EQ(before.substr(0, 5 * kSegment + 7), ReadAll(store(), "a"));
}

/// After a cut two databases may have an extent under one key, of which the older shows its front:
/// the table counts the newer only.
TEST_F(DurableStoreNames, ReferencesOfACutTableAreComparedWhereNothingIsHidden) {
  const test::SmallThresholds merging(1024, 1);
  Put("a", 1, 4 * kSegment);
  store().Sync();
  store().CloseFiles();
  const test::SmallThresholds gathering(1024, 100000);
  store().Write("a", 2 * kSegment + 100, Pattern(2, 300));
  store().Truncate("a", 2 * kSegment + 300);
  store().WithTable("a", [](MappingTable& table) {
    std::unordered_map<unsigned long, unsigned long> bytes;
    std::vector<crfp_digest_t> fps;
    table.GetDCIDAndFPs(&bytes, &fps);
    EXPECT_EQ(4U, fps.size());
    ReferenceCounts counts;
    EXPECT_EQ("", StoredReferenceDifference(table, 2 * kSegment + 300, &counts));
    EXPECT_EQ(4U, counts.extents);
    EXPECT_EQ(2 * kSegment + 300, counts.bytesByDcid.at(64));
    EXPECT_EQ(2 * kSegment + 200, bytes.at(64)) << "100 bytes less than are shown";
  });
}

TEST_F(DurableStoreNames, RenamedFileIsThereUnderItsNewNameOnly) {
  Put("a", 1);
  EXPECT_EQ(TableMove::kStays, store().Rename("a", "b", false)) << "of a file never synced";
  EXPECT_THROW(store().SizeOf("a"), std::out_of_range);
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), "b"));
  Close();
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), "b")) << "without a further sync";
  EXPECT_EQ(1U, store().Catalogued().size());
  EXPECT_FALSE(store().Catalogued().at("b").changing);
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreNames, WritesAfterARenameBelongToTheNewName) {
  Put("a", 1);
  store().Sync();
  store().Rename("a", "b", false);
  Put("a", 2);
  store().Write("b", 0, Pattern(3, 20 * kSegment));
  store().WithTable("b", [](MappingTable&) {});  // which flushes, and marks what it changes
  EXPECT_TRUE(store().Catalogued().at("b").changing);
  SyncAndReopen();
  EXPECT_EQ(Pattern(2, 5000), ReadAll(store(), "a"));
  EXPECT_EQ(Pattern(3, 20 * kSegment), ReadAll(store(), "b"));
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreNames, NamesThatAreTakenOrMissingAreRefused) {
  Put("a", 1);
  Put("b", 2);
  const std::string taken = "there is a file 'b' in the store " + Path() + " already";
  EXPECT_EQ(taken, ThrownText<StoreError>([&] { store().Rename("a", "b", false); }));
  EXPECT_EQ(taken, ThrownText<StoreError>([&] { store().Snapshot("a", "b"); }));
  EXPECT_EQ("there is a file 'a' in the store " + Path() + " already",
            ThrownText<StoreError>([&] { store().Rename("a", "a", false); }));
  EXPECT_THROW(store().Rename("c", "d", true), std::out_of_range);
  EXPECT_THROW(store().Snapshot("c", "d"), std::out_of_range);
  EXPECT_THROW(store().Rename("a", "", true), std::invalid_argument);
  EXPECT_THROW(store().Snapshot("a", ""), std::invalid_argument);
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), "a"));
  EXPECT_EQ(Pattern(2, 5000), ReadAll(store(), "b"));
  EXPECT_EQ(TableMove::kStays, store().Rename("a", "a", true));
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), "a"));
}

TEST_F(DurableStoreNames, ReplacedFileIsGoneWithItsTable) {
  Put("a", 1);
  Put("b", 2);
  store().Rename("a", "b", true);
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), "b"));
  EXPECT_EQ(1U, store().Catalogued().size());
  Close();
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), "b"));
  EXPECT_EQ(1U, TablesOf(store().directory()));
}

TEST_F(DurableStoreNames, SnapshotAndItsFileGoTheirOwnWays) {
  Put("a", 1, 60 * kSegment);
  const std::string before = ReadAll(store(), "a");
  store().Snapshot("a", "snap");
  EXPECT_EQ(before, ReadAll(store(), "snap"));
  store().Write("a", 100, Pattern(2, 3000));
  store().Truncate("a", 50 * kSegment);
  const std::string changed = ReadAll(store(), "a");
  EXPECT_EQ(before, ReadAll(store(), "snap"));
  store().Write("snap", 7 * kSegment, Pattern(3, 2000));
  std::string other = before;
  other.replace(7 * kSegment, 2000, Pattern(3, 2000));
  EXPECT_EQ(changed, ReadAll(store(), "a"));
  SyncAndReopen();
  EXPECT_EQ(changed, ReadAll(store(), "a"));
  EXPECT_EQ(other, ReadAll(store(), "snap"));
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreNames, SnapshotSharesAllDataAndNeedsNoSync) {
  Put("a", 1, 60 * kSegment);
  store().Sync();
  const std::uint64_t stored = store().objects().storedBytes();
  store().Snapshot("a", "snap");
  EXPECT_EQ(stored, store().objects().storedBytes());
  EXPECT_EQ(store().Catalogued().at("a").digest, store().Catalogued().at("snap").digest);
  Close();
  EXPECT_EQ(Pattern(1, 60 * kSegment), ReadAll(store(), "snap"));
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreNames, FileComesBackFromASnapshotOfASnapshot) {
  const test::SmallThresholds merging(4, 20);
  Put("a", 1, 60 * kSegment);
  store().Snapshot("a", "first");
  store().Write("a", 0, Pattern(2, 60 * kSegment));
  store().Snapshot("first", "second");
  store().Remove("first");
  store().Rename("second", "a", true);
  EXPECT_EQ(Pattern(1, 60 * kSegment), ReadAll(store(), "a"));
  SyncAndReopen();
  EXPECT_EQ(Pattern(1, 60 * kSegment), ReadAll(store(), "a"));
  EXPECT_EQ(1U, store().Catalogued().size());
  EXPECT_EQ(1U, TablesOf(store().directory()));
}

TEST_F(DurableStoreNames, SnapshotOfATableWithAJournalLoads) {
  options_.format.tableType = "GENERIC";
  Put("a", 1, 60 * kSegment);
  store().Snapshot("a", "snap");
  store().Write("a", 0, Pattern(2, 60 * kSegment));
  SyncAndReopen();
  EXPECT_EQ(Pattern(1, 60 * kSegment), ReadAll(store(), "snap"));
}

TEST_F(DurableStoreNames, SnapshotThatCannotBeMadeLeavesNothing) {
  Put("a", 1);
  store().Sync();
  const std::size_t before = TablesOf(store().directory());
  const std::uint64_t table = store().Catalogued().at("a").table;
  fs::remove(store().directory().table(table) + "/data.mdb");
  const LogRecorder quiet;
  EXPECT_THROW(store().Snapshot("a", "snap"), StoreError);
  EXPECT_EQ(before, TablesOf(store().directory()));
  EXPECT_THROW(store().SizeOf("snap"), std::out_of_range);
}

TEST_F(DurableStoreNames, TableThatIsGoneIsDamageAndNotAnEmptyFile) {
  Put("a", 1);
  store().Sync();
  const std::string table = store().directory().table(store().Catalogued().at("a").table);
  Close();
  fs::remove_all(table);
  EXPECT_EQ("the table of 'a', " + table + ", is gone",
            ThrownText<DamageError>([&] { store().SizeOf("a"); }));
  EXPECT_FALSE(fs::exists(table));
}

}  // namespace
}  // namespace zefs::refhost
