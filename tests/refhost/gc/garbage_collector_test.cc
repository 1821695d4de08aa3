#include "refhost/gc/garbage_collector.h"

#include <cerrno>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "refhost/store/store_error.h"
#include "tests/refhost/gc/gc_fixture.h"
#include "tests/support/fault_injection.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::Call;
using test::Faults;
using test::GcTest;
using test::kSegment;
using test::Segments;
using test::ThrownText;
using ::testing::HasSubstr;

constexpr std::size_t kPerContainer = 8192 / kSegment;

TEST_F(GcTest, NothingGoesWhileAllIsUsed) {
  Put("a", Segments(1, 40));
  Put("b", Segments(2, 40));
  Reopen();
  const Collected collected = Collect();
  EXPECT_EQ(2U, collected.tablesAsked);
  EXPECT_EQ(0U, collected.entriesDropped);
  EXPECT_EQ(0U, collected.containersRemoved);
  EXPECT_EQ(5U, collected.containersKept);
  EXPECT_EQ(80 * kSegment, collected.bytesKept);
  ExpectSoundNow("after the collection");
}

TEST_F(GcTest, ContainersAndEntriesOfARemovedFileGo) {
  Put("a", Segments(1, 2 * kPerContainer));
  store().Sync();
  Put("b", Segments(2, 2 * kPerContainer));
  Reopen();
  Remove("a");
  const Collected collected = Collect();
  EXPECT_EQ(2 * kPerContainer, collected.entriesDropped);
  EXPECT_EQ(2U, collected.containersRemoved);
  EXPECT_EQ(2 * 8192U, collected.bytesReclaimed);
  EXPECT_EQ(2U, Containers());
  EXPECT_EQ(2 * kPerContainer, store().objects().objects());
  ExpectSoundNow("after the collection");
}

TEST_F(GcTest, EntriesGoOutOfAContainerThatStays) {
  PutInterleaved({{"a", Segments(1, 8)}, {"b", Segments(2, 8)}});
  Reopen();
  Remove("a");
  const Collected collected = Collect();
  EXPECT_EQ(0U, collected.containersRemoved);
  EXPECT_EQ(1U, collected.containersKept);
  EXPECT_GE(collected.entriesDropped, 6U) << "a filter is wrong for one in fifty";
  EXPECT_EQ(16 - collected.entriesDropped, store().objects().objects());
  ExpectSoundNow("after the collection");
}

TEST_F(GcTest, WhatAnotherFileSharesStays) {
  Put("a", Segments(1, 20));
  store().Sync();
  Put("b", Segments(1, 20));
  Reopen();
  Remove("a");
  EXPECT_EQ(0U, Collect().entriesDropped);
  ExpectSoundNow("after the collection");
}

TEST_F(GcTest, DroppedDataIsStoredAnewWhenItIsPutAgain) {
  Put("a", Segments(1, kPerContainer));
  Reopen();
  Remove("a");
  EXPECT_EQ(kPerContainer, Collect().entriesDropped);
  EXPECT_EQ(0U, Containers());
  Put("again", Segments(1, kPerContainer));
  store().Sync();
  EXPECT_EQ(kPerContainer * kSegment, store().objects().storedBytes());
  ExpectSoundNow("after the second put");
}

TEST_F(GcTest, WhatIsNotSyncedYetIsSyncedAndKept) {
  Put("a", Segments(1, 20));
  const Collected collected = Collect();
  EXPECT_EQ(1U, collected.tablesAsked);
  EXPECT_EQ(0U, collected.entriesDropped);
  EXPECT_EQ(1U, store().Catalogued().count("a"));
  Close();
  ExpectSoundNow("in the next life, without a further sync");
}

TEST_F(GcTest, TheContainerThatIsWrittenStays) {
  Put("a", Segments(1, kPerContainer + 2));
  store().Sync();
  Remove("a");
  Collected collected = Collect();
  EXPECT_EQ(kPerContainer + 2, collected.entriesDropped) << "that it is in the index does not";
  EXPECT_EQ(1U, collected.containersRemoved);
  EXPECT_EQ(1U, Containers());
  Put("b", Segments(2, 2));
  store().Sync();
  ExpectSoundNow("after a further put");
  Remove("b");
  Reopen();
  collected = Collect();
  EXPECT_EQ(1U, collected.containersRemoved) << "nobody writes it now";
  EXPECT_EQ(0U, Containers());
}

TEST_F(GcTest, OnlyTablesThatHaveChangedAreAskedAgain) {
  for (const char* const name : {"a", "b", "c"}) {
    Put(name, Segments(static_cast<unsigned char>(*name), 20));
  }
  Collected collected = Collect();
  EXPECT_EQ(3U, collected.tablesAsked);
  EXPECT_EQ(0U, collected.tablesSkipped);
  collected = Collect();
  EXPECT_EQ(0U, collected.tablesAsked);
  EXPECT_EQ(3U, collected.tablesSkipped);
  store().Write("b", 0, Segments(9, 20));
  files_["b"] = Segments(9, 20);
  collected = Collect();
  EXPECT_EQ(1U, collected.tablesAsked);
  EXPECT_EQ(2U, collected.tablesSkipped);
  EXPECT_GE(collected.containersRemoved + collected.entriesDropped, 1U)
      << "the fresh answer counts";
  ExpectSoundNow("after three collections");
  Reopen();
  EXPECT_EQ(3U, Collect().tablesAsked) << "answers are kept in memory only";
}

TEST_F(GcTest, ATableIsAskedAgainWhenSomebodyElseMayHaveAskedIt) {
  Put("a", Segments(1, 20));
  Put("b", Segments(2, 20));
  Collect();
  store().Write("a", 0, Segments(3, 20));
  files_["a"] = Segments(3, 20);
  store().WithTable("a", [](MappingTable& table) {
    std::vector<std::pair<unsigned long, unsigned long>> dcids;
    std::unique_ptr<BloomFilter> filter;
    table.GetDCIDAndBloomFilter(&dcids, &filter);
    EXPECT_FALSE(table.IsDataChanged()) << "the table does not tell any more";
  });
  const Collected collected = Collect();
  EXPECT_EQ(1U, collected.tablesAsked);
  EXPECT_EQ(1U, collected.tablesSkipped);
  ExpectSoundNow("after the collection");
}

TEST_F(GcTest, MoreFilesThanMayBeOpenAreAllAsked) {
  options_.mostOpen = 4;
  for (int i = 0; i < 12; ++i) {
    Put("file " + std::to_string(i), Segments(static_cast<std::uint64_t>(i), 5));
  }
  EXPECT_EQ(12U, Collect().tablesAsked);
  const Collected collected = Collect();
  EXPECT_EQ(12U, collected.tablesAsked + collected.tablesSkipped);
  EXPECT_GE(collected.tablesAsked, 8U) << "a closed table keeps no answer";
  ExpectSoundNow("after two collections");
}

TEST_F(GcTest, MergedTablesAnswerFromTheirFilters) {
  const test::SmallThresholds small(8, 24);
  Put("a", Segments(1, 100));
  Put("b", Segments(2, 100));
  Reopen();
  ASSERT_TRUE(fs::exists(store().directory().table(store().Catalogued().at("a").table) + "/bloom"));
  Remove("b");
  EXPECT_GT(Collect().containersRemoved, 0U);
  ExpectSoundNow("after the collection");
}

TEST_F(GcTest, WhatACrashLeftInNoIndexGoesToo) {
  Put("a", Segments(1, 4));
  Reopen();
  test::WriteFile(Path() + "/containers/99", "never indexed");
  test::WriteFile(Path() + "/containers/no number", "of somebody else");
  const Collected collected = Collect();
  EXPECT_EQ(1U, collected.containersRemoved);
  EXPECT_EQ(13U, collected.bytesReclaimed);
  EXPECT_FALSE(fs::exists(Path() + "/containers/99"));
  EXPECT_TRUE(fs::exists(Path() + "/containers/no number"));
  ExpectSoundNow("after the collection");
}

TEST_F(GcTest, ATableThatCannotBeReadEndsTheCollectionBeforeItRemovesAnything) {
  const LogRecorder quiet;
  Put("a", Segments(1, 20));
  Put("b", Segments(2, 20));
  Reopen();
  Remove("a");
  store().Sync();
  const std::size_t containers = Containers();
  const test::WatchCalls watch(Path());
  Faults::OnlyDatabase("lsml0.mdb");
  Faults::FailNth(Call::kMdbCursorGet, 1, EIO);
  EXPECT_THAT(ThrownText<StoreError>([&] { Collect(); }),
              HasSubstr("cannot look after the table in "));
  EXPECT_EQ(containers, Containers());
  EXPECT_EQ(40U, store().objects().objects());
}

TEST_F(GcTest, AContainerThatCannotBeRemovedGoesWithTheNextCollection) {
  Put("a", Segments(1, 2 * kPerContainer));
  Reopen();
  Remove("a");
  {
    const test::WatchCalls watch(Path() + "/containers");
    Faults::FailNth(Call::kUnlink, 2, EROFS);
    EXPECT_EQ("cannot remove " + Path() + "/containers/65: Read-only file system (EROFS)",
              ThrownText<StoreError>([&] { Collect(); }));
  }
  EXPECT_EQ(1U, Containers());
  EXPECT_EQ("", test::IndexProblemsOf(store()));
  EXPECT_EQ(1U, Collect().containersRemoved);
}

TEST_F(GcTest, AnInterruptComesThroughAndNothingIsRemoved) {
  Put("a", Segments(1, 20));
  Put("b", Segments(2, 20));
  Reopen();
  Remove("a");
  const StoreProgress interrupt = [](std::string_view, std::uint64_t, std::uint64_t) {
    throw std::runtime_error("interrupted");
  };
  EXPECT_EQ("interrupted",
            ThrownText<std::runtime_error>([&] { CollectGarbage(&store(), interrupt); }));
  EXPECT_EQ(40U, store().objects().objects());
  ExpectSoundNow("after the interrupt");
}

}  // namespace
}  // namespace zefs::refhost
