#include "refhost/durable/durable_store.h"

#include <limits>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "refhost/store/store_error.h"
#include "tests/refhost/durable/durable_fixture.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::DurableStoreTest;
using test::kSegment;
using test::Pattern;
using test::ProblemsOf;
using test::ReadAll;
using test::ThrownText;
using ::testing::StartsWith;

std::size_t TablesIn(const std::string& store) {
  return static_cast<std::size_t>(
      std::distance(fs::directory_iterator(store + "/tables"), fs::directory_iterator()));
}

TEST_F(DurableStoreTest, WhatWasWrittenIsReadFromNodesAndFromContainers) {
  const std::string bytes = Pattern(1, 5000);
  store().Create("a");
  store().Write("a", 0, bytes);
  EXPECT_EQ(bytes, ReadAll(store(), "a"));
  EXPECT_GT(store().nodes().made, store().nodes().released) << "some of it is in memory";
  store().Sync();
  EXPECT_EQ(bytes, ReadAll(store(), "a"));
  EXPECT_EQ(store().nodes().made, store().nodes().released);
  EXPECT_EQ(store().nodes().made, store().nodes().freed);
}

TEST_F(DurableStoreTest, FilesAreThereInTheNextLife) {
  const std::string bytes = Pattern(1, 5000);
  store().Create("a");
  store().Write("a", 0, bytes);
  store().Create("empty");
  SyncAndReopen();
  EXPECT_EQ(bytes, ReadAll(store(), "a"));
  EXPECT_EQ("", ReadAll(store(), "empty"));
  EXPECT_EQ(2U, store().Catalogued().size());
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreTest, FileThatWasNeverSyncedIsGone) {
  store().Create("a");
  store().Write("a", 0, "x");
  Close();
  EXPECT_EQ("no file 'a' in the store " + Path(),
            ThrownText<std::out_of_range>([&] { store().SizeOf("a"); }));
  EXPECT_EQ(0U, TablesIn(Path())) << "nor is its table";
}

TEST_F(DurableStoreTest, NewVersionReplacesTheOldOneWithTheSync) {
  store().Create("a");
  store().Write("a", 0, "old and long");
  SyncAndReopen();
  store().Create("a");
  store().Write("a", 0, "new");
  EXPECT_EQ("new", ReadAll(store(), "a"));
  Close();
  EXPECT_EQ("old and long", ReadAll(store(), "a")) << "the new version was not synced";
  store().Create("a");
  store().Write("a", 0, "new");
  SyncAndReopen();
  EXPECT_EQ("new", ReadAll(store(), "a"));
  EXPECT_EQ(1U, TablesIn(Path()));
}

TEST_F(DurableStoreTest, OverwritesHolesAndGrowthReadAsAModelOfThem) {
  std::string model = Pattern(1, 3000);
  store().Create("a");
  store().Write("a", 0, model);
  const auto write = [&](std::size_t offset, const std::string& bytes) {
    model.resize(std::max(model.size(), offset + bytes.size()), '\0');
    model.replace(offset, bytes.size(), bytes);
    store().Write("a", static_cast<std::int64_t>(offset), bytes);
  };
  write(500, Pattern(2, 100));
  SyncAndReopen();
  write(550, Pattern(3, 2000));
  write(9000, Pattern(4, 700));
  EXPECT_EQ(model, ReadAll(store(), "a"));
  store().Truncate("a", 20000);
  model.resize(20000, '\0');
  SyncAndReopen();
  EXPECT_EQ(model, ReadAll(store(), "a"));
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreTest, CutIsFinalWhetherWhatIsCutWasSyncedOrNot) {
  for (const bool synced : {false, true}) {
    const std::string name = synced ? "synced" : "fresh";
    store().Create(name);
    store().Write(name, 0, Pattern(1, 3000));
    store().Write(name, 1000, Pattern(2, 300));
    if (synced) {
      SyncAndReopen();
    }
    const std::string before = ReadAll(store(), name);
    store().Truncate(name, 1100);
    EXPECT_EQ(before.substr(0, 1100), ReadAll(store(), name));
    store().Truncate(name, 2000);
    const std::string after = before.substr(0, 1100) + std::string(900, '\0');
    EXPECT_EQ(after, ReadAll(store(), name));
    SyncAndReopen();
    EXPECT_EQ(after, ReadAll(store(), name));
    EXPECT_EQ("", ProblemsOf(store()));
  }
  EXPECT_EQ(2U, TablesIn(Path())) << "they have the tables that they had";
}

TEST_F(DurableStoreTest, CutIsThereWithoutASync) {
  store().Create("a");
  store().Write("a", 0, Pattern(1, 3000));
  SyncAndReopen();
  store().Truncate("a", 10);
  Close();
  EXPECT_EQ(Pattern(1, 10), ReadAll(store(), "a"));
  EXPECT_TRUE(store().Catalogued().at("a").changing);
}

TEST_F(DurableStoreTest, EqualDataIsStoredOnceAcrossLives) {
  store().Create("a");
  store().Write("a", 0, Pattern(1, 4 * kSegment));
  SyncAndReopen();
  store().Create("b");
  store().Write("b", 0, Pattern(1, 4 * kSegment));
  store().Sync();
  EXPECT_EQ(4 * kSegment, store().objects().putBytes());
  EXPECT_EQ(0U, store().objects().storedBytes());
  EXPECT_EQ(ReadAll(store(), "a"), ReadAll(store(), "b"));
}

TEST_F(DurableStoreTest, RemovedFileIsGoneWithTheSync) {
  store().Create("a");
  store().Write("a", 0, "x");
  SyncAndReopen();
  store().Remove("a");
  EXPECT_THROW(store().SizeOf("a"), std::out_of_range);
  Close();
  EXPECT_EQ("x", ReadAll(store(), "a")) << "the removal was not synced";
  store().Remove("a");
  SyncAndReopen();
  EXPECT_THROW(store().SizeOf("a"), std::out_of_range);
  EXPECT_EQ(0U, TablesIn(Path()));
}

TEST_F(DurableStoreTest, DiscardedVersionLeavesTheOldOne) {
  store().Create("a");
  store().Write("a", 0, "old");
  store().Sync();
  store().Create("a");
  store().Write("a", 0, "new");
  store().Discard("a");
  EXPECT_EQ("old", ReadAll(store(), "a"));
  store().Create("b");
  store().Discard("b");
  EXPECT_THROW(store().SizeOf("b"), std::out_of_range);
}

TEST_F(DurableStoreTest, ManyMoreFilesThanMayBeOpen) {
  options_.mostOpen = 4;
  for (int i = 0; i < 30; ++i) {
    store().Create(std::to_string(i));
    store().Write(std::to_string(i), 0, Pattern(static_cast<std::uint64_t>(i), 1500));
  }
  for (int i = 0; i < 30; i += 3) {
    store().Write(std::to_string(i), 700, "over");
  }
  SyncAndReopen();
  for (int i = 0; i < 30; ++i) {
    std::string expected = Pattern(static_cast<std::uint64_t>(i), 1500);
    if (i % 3 == 0) {
      expected.replace(700, 4, "over");
    }
    EXPECT_EQ(expected, ReadAll(store(), std::to_string(i))) << i;
  }
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreTest, FlushesAndMergesOnTheWayLoseNothing) {
  const test::SmallThresholds many(4, 16);
  std::string model = Pattern(0, 200 * kSegment);
  store().Create("a");
  store().Write("a", 0, model);
  for (std::uint64_t round = 1; round < 12; ++round) {
    for (std::size_t at = round * 37; at + 900 < model.size(); at += 9000) {
      const std::string bytes = Pattern(round, 900);
      model.replace(at, bytes.size(), bytes);
      store().Write("a", static_cast<std::int64_t>(at), bytes);
    }
    store().Sync();
    ASSERT_EQ(model, ReadAll(store(), "a")) << round;
  }
  store().CloseFiles();
  EXPECT_GE(store().merges(), 3U);
  EXPECT_GT(store().flushes(), 12U);
  Close();
  EXPECT_EQ(model, ReadAll(store(), "a"));
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreTest, TableOfTypeGenericLastsToo) {
  options_.format.tableType = "GENERIC";
  store().Create("a");
  store().Write("a", 0, Pattern(1, 100 * kSegment));
  SyncAndReopen();
  store().Write("a", 700, Pattern(2, 90 * kSegment));
  const std::string expected = ReadAll(store(), "a");
  Close();  // which flushes: the journal would take the earlier flushes back
  EXPECT_EQ(expected, ReadAll(store(), "a"));
  EXPECT_TRUE(store().Catalogued().at("a").changing);
  store().Write("a", 0, "x");
  SyncAndReopen();
  EXPECT_EQ("x" + expected.substr(1), ReadAll(store(), "a"));
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreTest, OneProcessAtATime) {
  store();
  EXPECT_EQ("the store " + Path() + " is in use by another process",
            ThrownText<StoreError>([&] { DurableStore(Path(), options_); }));
}

TEST_F(DurableStoreTest, RangesAndNamesThatThereAreNotAreRefused) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  store().Create("a");
  char byte = '?';
  EXPECT_THROW(store().Write("a", -1, "x"), std::invalid_argument);
  EXPECT_THROW(store().Write("a", kMax, "x"), std::invalid_argument);
  EXPECT_THROW(store().Truncate("a", -1), std::invalid_argument);
  EXPECT_THROW(store().Read("a", -1, &byte, 1), std::invalid_argument);
  EXPECT_THROW(store().Create(""), std::invalid_argument);
  EXPECT_THROW(store().Write("b", 0, "x"), std::out_of_range);
  EXPECT_THROW(store().Remove("b"), std::out_of_range);
  EXPECT_EQ(0U, store().Read("a", 5, &byte, 1));
}

TEST_F(DurableStoreTest, LongestNameAndOddBytesAreNames) {
  const std::string name = "/" + std::string(4000, 'n') + "\n\xff";
  store().Create(name);
  store().Write(name, 0, "x");
  SyncAndReopen();
  EXPECT_EQ("x", ReadAll(store(), name));
}

TEST_F(DurableStoreTest, WorkerThatCannotStoreFailsTheNextChangeAndTheSync) {
  options_.containerBytes = 512;
  const std::string bytes = Pattern(1, 4 * kSegment);
  store().Create("a");
  test::WriteFile(Path() + "/containers/65", "in the way");
  store().Write("a", 0, bytes);
  const std::string reason = "cannot create " + Path() + "/containers/65: File exists (EEXIST)";
  EXPECT_EQ(reason, ThrownText<StoreError>([&] { store().Sync(); }));
  EXPECT_EQ(reason, ThrownText<StoreError>([&] { store().Write("a", 0, "x"); }));
  EXPECT_EQ(bytes, ReadAll(store(), "a")) << "from its nodes";
  Close();
  EXPECT_THROW(store().SizeOf("a"), std::out_of_range);
}

TEST_F(DurableStoreTest, CutContainerIsDamageThatNamesTheExtent) {
  options_.workers = 1;  // segments lie in the container in their order
  store().Create("a");
  store().Write("a", 0, Pattern(1, 1000));
  SyncAndReopen();
  fs::resize_file(Path() + "/containers/64", 600);
  EXPECT_THAT(ThrownText<DamageError>([&] { ReadAll(store(), "a"); }),
              StartsWith("extent [512, 1000): container "));
}

}  // namespace
}  // namespace zefs::refhost
