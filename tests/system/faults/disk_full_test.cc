// A table whose maps or whose disk are full.

#include <cerrno>
#include <functional>
#include <lmdb.h>
#include <set>
#include <string>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>

#include "tests/support/figures.h"
#include "tests/support/oid.h"
#include "tests/system/faults/fault_fixture.h"
#include "tests/system/faults/file_faults.h"
#include "tests/system/faults/operations.h"
#include "tests/system/faults/small_map.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::AnyOf;
using CMappingLMDB = SmallTable::CMappingLMDB;

constexpr std::size_t kFullMapSize = std::size_t{1} << 30;  // as set by bigTableMapSizeGiB
constexpr std::size_t kPage = 4096;

class MapFullTest : public FaultTest {
 protected:
  static constexpr long kLength = 10;

  MapFullTest() { Set(&Config::dcOffsetTrackingEnabled, false); }

  static std::uint64_t ContainerOf(long number) {
    return 1000 + static_cast<std::uint64_t>(number);
  }

  /// Writes `count` extents from number `first` on, each of a container of its own.
  static void Write(SmallTable* table, long first, long count) {
    for (long number = first; number < first + count; ++number) {
      const auto oid = Oid(ContainerOf(number));
      EXPECT_EQ(0, table->table().insert(number * kLength, (number + 1) * kLength, &oid, 0, 0,
                                         nullptr, -3, nullptr));
    }
  }

  static std::string Flush(SmallTable* table) {
    return EndOf(
        [&] {
          std::set<void*> released;
          table->table().checkAndBackfillObjectID(&released, true, "", "", nullptr, nullptr);
          return 0;
        },
        MDB_MAP_FULL);
  }

  /// Extents that are visible as they were written, of those with a number below `end`.
  static long Visible(SmallTable* table, long end) {
    long visible = 0;
    for (long number = 0; number < end; ++number) {
      const auto at = table->table().lower_bound(number * kLength, nullptr);
      visible += at != table->table().end() && at->sOff == number * kLength &&
                         at->eOff == at->sOff + kLength && at->objectID.dcid == ContainerOf(number)
                     ? 1
                     : 0;
    }
    return visible;
  }
};

TEST_F(MapFullTest, AFlushIsRefusedAndAMergeMakesRoom) {
  long refused = 0;
  long lost = 0;
  for (long batch = 1; batch <= 12; ++batch) {
    SCOPED_TRACE(batch);
    SmallTable table(templates_, Start::kNothing);
    const SmallMap small(CMappingLMDB::kSmallMapSize,
                         (12 + static_cast<std::size_t>(batch)) * kPage);
    table.Load();
    long written = 0;
    std::string end = "0";
    while (end == "0") {
      Write(&table, written, batch);
      written += batch;
      end = Flush(&table);
      ASSERT_LT(written, 10000) << "the map is small";
    }
    ASSERT_THAT(end, AnyOf("throws -1", "throws code"));
    // A put that is refused leaves all in the cache; a commit loses what was flushed with it.
    const bool isLost = end == "throws code";
    EXPECT_EQ(isLost ? written - batch : written, Visible(&table, written));
    (isLost ? lost : refused) += 1;
    auto oid = Oid(70);
    EXPECT_THAT(EndOf([&] { return table.table().SetDOID(&oid); }, MDB_MAP_FULL),
                AnyOf("0", "throws code"));
    EXPECT_EQ(0, table.table().setFileSize(1 << 20)) << "that is for the full database";
    // The host takes it for a failed write, and writes once more when there is room.
    EXPECT_EQ(0, table.peer().MergeAndSwitch());
    Write(&table, written - batch, batch);
    EXPECT_EQ("0", Flush(&table));
    EXPECT_EQ(written, Visible(&table, written));
    EXPECT_TRUE(table.peer().extCache().empty());
  }
  EXPECT_GT(refused, 0);
  TellFigure("flushes into a full map", refused + lost);
}

TEST_F(MapFullTest, ATruncateGoesThroughOrCanBeRepeated) {
  constexpr long kCutAt = kLength + 5;
  SmallTable table(templates_, Start::kNothing);
  const SmallMap small(CMappingLMDB::kSmallMapSize, 16 * kPage);
  table.Load();
  long written = 0;
  do {
    Write(&table, written++, 1);
  } while (Flush(&table) == "0");
  EXPECT_THAT(EndOf([&] { return table.table().truncate(kCutAt, nullptr); }, MDB_MAP_FULL),
              AnyOf("0", "code", "-1"));
  EXPECT_EQ(1, Visible(&table, 1));
  EXPECT_EQ(0, table.peer().MergeAndSwitch());
  EXPECT_EQ(0, table.table().truncate(kCutAt, nullptr));
  EXPECT_EQ(1, Visible(&table, written));
}

TEST_F(MapFullTest, AMergeFailsAndTheNextOneSucceedsWithRoom) {
  constexpr long kMany = 400;
  SmallTable table(templates_, Start::kNothing);
  table.Load();
  Write(&table, 0, kMany);
  ASSERT_EQ("0", Flush(&table));
  {
    const SmallMap full(kFullMapSize, 6 * kPage);
    table.peer().StartMergeThread();
    table.peer().WaitingForMerge();
    EXPECT_TRUE(table.peer().tmpDb().opened) << "the merge has failed";
    EXPECT_FALSE(table.peer().merging());
    EXPECT_EQ(kMany, Visible(&table, kMany));
    Write(&table, kMany, 1);
    EXPECT_EQ("0", Flush(&table)) << "into the tmp database";
    table.peer().WaitingForMerge();
    EXPECT_EQ(kMany + 1, Visible(&table, kMany + 1));
  }
  EXPECT_EQ(0, table.peer().MergeAndSwitch());
  EXPECT_FALSE(table.peer().tmpDb().opened);
  EXPECT_EQ(kMany + 1, Visible(&table, kMany + 1));
}

// --- a disk that fills up ------------------------------------------------------------------------

class DiskFullTest : public FaultTest {
 protected:
  /// Runs with only half of the `nth` write of LMDB getting there.
  static std::string WithHalfAWrite(int nth, const std::function<int()>& run) {
    FileFaults::Start();
    FileFaults::FailNth(FileCall::kShortPwrite, nth, 0, false);
    std::string end = EndOf(run, ENOSPC);
    FileFaults::Stop();
    EXPECT_TRUE(FileFaults::Fired());
    return end;
  }
};

TEST_F(DiskFullTest, ADatabaseThatCouldNotBeMadeIsNotLeftHalfMade) {
  for (const int nth : {1, 2}) {
    SmallTable table(templates_, Start::kNothing);
    table.Make();
    EXPECT_EQ("throws code", WithHalfAWrite(nth, [&] {
                return table.table().load(table.directory(), false, "");
              }));
    const std::string made = table.directory() + (nth == 1 ? "/lsml0.mdb" : "/data.mdb");
    EXPECT_FALSE(fs::exists(made)) << "no load could open it";
    EXPECT_FALSE(fs::exists(made + "-lock"));
    table.Destroy();
    table.Load();
  }
}

TEST_F(DiskFullTest, AMergeThatCouldNotBeginLeavesNoHalfTmpDatabase) {
  SmallTable table(templates_, Start::kMerged);
  table.Load();
  EXPECT_EQ("throws 5", WithHalfAWrite(1, [&] { return table.peer().MergeAndSwitch(); }));
  EXPECT_FALSE(fs::exists(table.directory() + "/tmp.mdb")) << "no load could open it";
  EXPECT_FALSE(fs::exists(table.directory() + "/tmp.mdb-lock"));
  EXPECT_EQ(0, table.peer().MergeAndSwitch());
  EXPECT_EQ(ExpectedStored(Start::kMerged), table.LookAtBytes());
}

TEST_F(DiskFullTest, ADatabaseThatWasThereBeforeStaysWhenItCannotBeOpened) {
  SmallTable table(templates_, Start::kMerged);
  table.Make();
  FileFaults::Start();
  FileFaults::FailNth(FileCall::kMmap, 1, ENOMEM, true);
  EXPECT_EQ("throws code",
            EndOf([&] { return table.table().load(table.directory(), false, ""); }, ENOMEM));
  FileFaults::Stop();
  table.Destroy();
  table.Load();
  EXPECT_EQ(ExpectedStored(Start::kMerged), table.LookAtBytes());
}

}  // namespace
}  // namespace zefs::test
