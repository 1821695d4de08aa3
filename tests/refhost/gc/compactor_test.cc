#include "refhost/gc/compactor.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
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
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class CompactorTest : public GcTest {
 protected:
  /// Four files, a segment of each after the other, of which one stays: every container is in use
  /// for a quarter.
  void PutSparse() {
    PutInterleaved({{"a", Segments(1, 32)},
                    {"b", Segments(2, 32)},
                    {"c", Segments(3, 32)},
                    {"stays", Segments(4, 32)}});
    Reopen();
    for (const char* const name : {"a", "b", "c"}) {
      Remove(name);
    }
  }

  std::string Marker() const { return Path() + "/compacting"; }
};

TEST_F(CompactorTest, SparseContainersAreEmptiedForTheNextCollection) {
  PutSparse();
  Collect();
  const std::uint64_t before = ContainerBytes();
  EXPECT_EQ(8 * 8192U, before);
  const Compacted compacted = Compact();
  EXPECT_EQ(8U, compacted.sparseContainers);
  EXPECT_EQ(before, compacted.sparseBytes);
  EXPECT_EQ(32U, compacted.objectsMoved);
  EXPECT_EQ(32 * kSegment, compacted.bytesMoved);
  EXPECT_EQ(1U, compacted.tablesRewritten);
  EXPECT_EQ(32U, compacted.extentsRewritten);
  EXPECT_FALSE(fs::exists(Marker()));
  EXPECT_FALSE(store().objects().byFingerprint());
  ExpectSoundNow("after the compaction");
  const Collected collected = Collect();
  EXPECT_EQ(8U, collected.containersRemoved);
  EXPECT_EQ(32 * kSegment, ContainerBytes());
  ExpectSoundNow("after the collection");
  Reopen();
  ExpectSoundNow("in the next life");
}

/// Readers in small steps have the file fetched ahead; a moved object must not be shown from where
/// it was, and nothing is fetched while extents do not tell where objects are.
TEST_F(CompactorTest, WhatWasFetchedAheadBeforeIsNotShownInPlaceOfWhatWasMoved) {
  const LogRecorder quiet;
  const auto readInSteps = [&](const char* when) {
    const std::uint64_t hits = store().readAheadFigures().hits;
    std::string bytes(files_["stays"].size(), '?');
    for (std::size_t at = 0; at < bytes.size(); at += kSegment) {
      store().Read("stays", static_cast<std::int64_t>(at), bytes.data() + at, kSegment);
    }
    EXPECT_TRUE(files_["stays"] == bytes) << when;
    return store().readAheadFigures().hits - hits;
  };
  PutSparse();
  store().Sync();
  EXPECT_LT(0U, readInSteps("before"));
  {
    const test::WatchCalls watch(Path());
    Faults::OnlyDatabase("data.mdb");
    Faults::FailNth(Call::kMdbPut, 5, ENOSPC);
    EXPECT_THAT(ThrownText<StoreError>([&] { Compact(); }), HasSubstr("(ENOSPC)"));
  }
  ASSERT_TRUE(store().objects().byFingerprint());
  EXPECT_EQ(0U, readInSteps("while it is unfinished"));
  Compact();
  Collect();
  EXPECT_LT(0U, readInSteps("afterwards"));
  ExpectSoundNow("afterwards");
}

TEST_F(CompactorTest, CollectionBeforeItIsNotNeeded) {
  PutSparse();
  EXPECT_EQ(8U, Compact().sparseContainers);
  Collect();
  EXPECT_EQ(32 * kSegment, ContainerBytes());
  ExpectSoundNow("after both");
}

TEST_F(CompactorTest, SecondCompactionFindsNothingToDo) {
  PutSparse();
  Compact();
  Collect();
  const Compacted again = Compact(100);
  EXPECT_EQ(0U, again.sparseContainers);
  EXPECT_EQ(0U, again.objectsMoved);
}

TEST_F(CompactorTest, ThresholdDecides) {
  PutInterleaved({{"a", Segments(1, 32)}, {"b", Segments(2, 32)}, {"c", Segments(3, 32)}});
  Reopen();
  Remove("a");
  EXPECT_EQ(0U, Compact(50).sparseContainers) << "two thirds are live";
  EXPECT_EQ(6U, Compact(80).sparseContainers);
  Collect();
  EXPECT_EQ(64 * kSegment, ContainerBytes());
  ExpectSoundNow("after the collection");
}

TEST_F(CompactorTest, SharedObjectsMoveOnce) {
  const std::string shared = Segments(7, 32);
  PutInterleaved(
      {{"a", Segments(1, 32)}, {"b", Segments(2, 32)}, {"c", Segments(3, 32)}, {"one", shared}});
  store().Sync();
  Put("other", shared + shared);
  Reopen();
  for (const char* const name : {"a", "b", "c"}) {
    Remove(name);
  }
  const Compacted compacted = Compact();
  EXPECT_EQ(8U, compacted.sparseContainers) << "though three extents refer to each object";
  EXPECT_EQ(32U, compacted.objectsMoved);
  EXPECT_EQ(2U, compacted.tablesRewritten);
  EXPECT_EQ(96U, compacted.extentsRewritten);
  Collect();
  EXPECT_EQ(32 * kSegment, ContainerBytes());
  ExpectSoundNow("after the collection");
}

TEST_F(CompactorTest, PiecesOfObjectsKeepTheirPlaceInThem) {
  PutSparse();
  std::string& bytes = files_["stays"];
  for (std::size_t at = 100; at + 50 < bytes.size(); at += 1000) {
    store().Write("stays", static_cast<std::int64_t>(at), "over");
    bytes.replace(at, 4, "over");
  }
  EXPECT_GT(Compact(60).objectsMoved, 0U);
  ExpectSoundNow("after the compaction");
  Collect();
  Reopen();
  ExpectSoundNow("in the next life");
}

TEST_F(CompactorTest, WhatIsOnlyInNodesIsSyncedFirst) {
  PutSparse();
  Put("fresh", Segments(9, 3));
  store().Write("stays", 0, Segments(10, 2));
  files_["stays"].replace(0, 2 * kSegment, Segments(10, 2));
  EXPECT_GT(Compact().objectsMoved, 0U);
  ExpectSoundNow("after the compaction");
  EXPECT_EQ(store().nodes().made, store().nodes().released);
}

TEST_F(CompactorTest, TheContainerThatIsWrittenMayBeSparse) {
  PutInterleaved({{"a", Segments(1, 4)}, {"b", Segments(2, 4)}, {"c", Segments(3, 4)}});
  store().Sync();
  Remove("a");
  Remove("b");
  EXPECT_EQ(1U, Compact().sparseContainers);
  EXPECT_EQ(1U, Collect().containersRemoved);
  EXPECT_EQ(4 * kSegment, ContainerBytes());
  ExpectSoundNow("after the collection");
}

TEST_F(CompactorTest, FilesAreNotChangedAndCanBeWrittenAfterwards) {
  PutSparse();
  store().Sync();
  const Catalogue::Entries before = store().Catalogued();
  Compact();
  const CatalogueEntry now = store().Catalogued().at("stays");
  EXPECT_FALSE(now.changing);
  EXPECT_EQ(before.at("stays").table, now.table);
  EXPECT_EQ(before.at("stays").digest, now.digest);
  store().Write("stays", 5 * kSegment, Segments(11, 4));
  files_["stays"].replace(5 * kSegment, 4 * kSegment, Segments(11, 4));
  store().Truncate("stays", 20 * kSegment + 7);
  files_["stays"].resize(20 * kSegment + 7);
  store().Sync();
  ExpectSoundNow("after a write and a cut");
  Collect();
  ExpectSoundNow("after the collection");
}

TEST_F(CompactorTest, AnswersOfRewrittenTablesAreNotKept) {
  PutSparse();
  Collect();
  Compact();
  const Collected collected = Collect();
  EXPECT_EQ(1U, collected.tablesAsked) << "the old answer has the old containers";
  ExpectSoundNow("after the collection");
}

TEST_F(CompactorTest, WhatNewerRecordsHideHoldsNoContainer) {
  PutSparse();
  store().WithTable("stays", [](MappingTable& table) {
    table.GetObjectIdsAndOffsets(0, LONG_MAX);  // merges, so that what follows hides it
  });
  store().Write("stays", 0, Segments(12, 32));
  files_["stays"] = Segments(12, 32);
  EXPECT_EQ(0U, Collect().containersRemoved) << "the table counts what is hidden";
  const Compacted compacted = Compact();
  EXPECT_EQ(8U, compacted.sparseContainers);
  EXPECT_EQ(0U, compacted.objectsMoved);
  EXPECT_EQ(8U, Collect().containersRemoved) << "the answer from before is not kept";
  ExpectSoundNow("after the collection");
}

TEST_F(CompactorTest, DamagedObjectStaysAndTheOthersMove) {
  PutSparse();
  store().Sync();
  Location where{};
  store().WithTable("stays", [&](MappingTable& table) {
    where = store().objects().Locate(table.begin()->getObjectID());
  });
  FileHandle::Open(Path() + "/containers/" + std::to_string(where.dcid), O_RDWR)
      .WriteAt(where.offset, "damage");
  const Compacted compacted = Compact();
  EXPECT_EQ(31U, compacted.objectsMoved);
  ASSERT_EQ(1U, compacted.damaged.size());
  EXPECT_THAT(compacted.damaged.front(), HasSubstr(" has the fingerprint "));
  EXPECT_EQ(7U, Collect().containersRemoved) << "the damaged one lies in the eighth";
  const std::string bytes = test::ReadAll(store(), "stays");
  EXPECT_EQ("damage" + files_["stays"].substr(6), bytes);
}

TEST_F(CompactorTest, AFailureLeavesAllReadableAndTheNextLifeFinishes) {
  const LogRecorder quiet;
  PutSparse();
  store().Sync();
  {
    const test::WatchCalls watch(Path());
    Faults::OnlyDatabase("data.mdb");
    Faults::FailNth(Call::kMdbPut, 5, ENOSPC);
    EXPECT_THAT(ThrownText<StoreError>([&] { Compact(); }), HasSubstr("(ENOSPC)"));
  }
  EXPECT_TRUE(fs::exists(Marker()));
  EXPECT_TRUE(store().objects().byFingerprint());
  ExpectSoundNow("after the failure");
  Put("more", Segments(20, 5));
  store().Sync();
  store().CloseFiles();
  Close();
  ExpectSoundNow("in the next life");
  EXPECT_FALSE(fs::exists(Marker()));
  EXPECT_FALSE(store().objects().byFingerprint());
  Compact();
  Collect();
  EXPECT_EQ(37 * kSegment, ContainerBytes());
  ExpectSoundNow("after compaction and collection");
}

TEST_F(CompactorTest, AfterAFailureTheNextCompactionOfTheSameLifeFinishes) {
  const LogRecorder quiet;
  PutSparse();
  const StoreProgress interrupt = [](std::string_view phase, std::uint64_t done, std::uint64_t) {
    if (phase == "move" && done > 10 * kSegment) {
      throw std::runtime_error("interrupted");
    }
  };
  EXPECT_EQ("interrupted", ThrownText<std::runtime_error>(
                               [&] { refhost::Compact(&store(), kUsualSparseBelow, interrupt); }));
  EXPECT_TRUE(fs::exists(Marker()));
  ExpectSoundNow("after the interrupt");
  Compact();
  EXPECT_FALSE(fs::exists(Marker()));
  Collect();
  EXPECT_EQ(32 * kSegment, ContainerBytes());
  ExpectSoundNow("after compaction and collection");
}

TEST_F(CompactorTest, AStoreWhoseCompactionCannotBeFinishedCanBeRead) {
  LogRecorder log;
  PutSparse();
  const StoreProgress interrupt = [](std::string_view phase, std::uint64_t done, std::uint64_t) {
    if (phase == "move" && done > 10 * kSegment) {
      throw std::runtime_error("interrupted");
    }
  };
  EXPECT_THROW(refhost::Compact(&store(), kUsualSparseBelow, interrupt), std::runtime_error);
  store().CloseFiles();
  Close();
  {
    const test::WatchCalls watch(Path());
    Faults::FailNth(Call::kUnlink, 1, EROFS, /*forGood=*/true);
    store();
  }
  EXPECT_THAT(
      log.Take(),
      Contains(AllOf(Field(&LogRecord::level, kLogFailure),
                     Field(&LogRecord::text, StartsWith("the unfinished compaction of the store " +
                                                        Path() + " cannot be finished: ")))));
  EXPECT_TRUE(store().objects().byFingerprint());
  ExpectSoundNow("by fingerprints");
  Reopen();
  EXPECT_FALSE(fs::exists(Marker()));
  ExpectSoundNow("in the next life");
}

TEST_F(CompactorTest, JournaledTablesAreBroughtUpToDateToo) {
  options_.format.tableType = "GENERIC";
  PutSparse();
  EXPECT_EQ(32U, Compact().extentsRewritten);
  Collect();
  ExpectSoundNow("after both");
  Reopen();
  ExpectSoundNow("in the next life");
}

}  // namespace
}  // namespace zefs::refhost
