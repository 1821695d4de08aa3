// What holds when memory runs out where nothing may be thrown, or where half of a thing would be
// worse than nothing.

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>

#include "sidefiles/extent_journal.h"
#include "tests/system/faults/fault_fixture.h"
#include "tests/system/faults/memory_faults.h"
#include "tests/system/faults/operations.h"

namespace zefs::test {
namespace {

using Aldenta::Qnd::Morene::Zefs::ExtentJournal;
using Aldenta::Qnd::Morene::Zefs::SysException;

class OutOfMemoryTest : public FaultTest {
 protected:
  static constexpr int kTooMany = 10000;

  /// How `run` ends with one allocation failing.
  static std::string EndWithout(Allocator allocator, int nth, bool forGood,
                                const std::function<int()>& run) {
    MemoryFaults::Start();
    MemoryFaults::FailNth(allocator, nth, forGood);
    std::string end = EndOf(run, 0);
    MemoryFaults::Stop();
    return end;
  }
};

TEST_F(OutOfMemoryTest, ATableIsDestroyedWithoutAnyMemory) {
  for (const Start start : {Start::kMerged, Start::kFailedMerge}) {
    SmallTable table(templates_, start);
    table.Load();
    table.WriteCache();
    EXPECT_EQ(0, table.table().AppendToRefreshDcOffsetList(0, 70, DigestOf(70)));
    const auto destroy = [&] {
      table.Destroy();
      return 0;
    };
    EXPECT_EQ("0", EndWithout(Allocator::kNew, 1, true, destroy));
    EXPECT_TRUE(MemoryFaults::Fired()) << "records were to be written, and lock files removed";
  }
}

TEST_F(OutOfMemoryTest, AJournalThatCannotWriteItsLastRecordsSaysSoAndIsDestroyed) {
  for (const bool forGood : {false, true}) {
    const TempDir directory;
    const std::string path = (directory.path() / "journal").string();
    refhost::LogRecorder log(forGood ? kLogFailure + 1 : kLogFailure);  // a line takes memory
    std::optional<ExtentJournal> journal(std::in_place, path, false);
    ASSERT_EQ(0, journal->Start());
    ASSERT_EQ(0, journal->Add(0, 4096, 0, 70, DigestOf(70), 1));
    const auto destroy = [&] {
      journal.reset();
      return 0;
    };
    EXPECT_EQ("0", EndWithout(Allocator::kNew, 1, forGood, destroy));
    EXPECT_TRUE(MemoryFaults::Fired()) << "the record was to be written";
    EXPECT_EQ(0U, boost::filesystem::file_size(path));
    std::vector<refhost::LogRecord> lines;
    if (!forGood) {
      lines = {{kLogFailure, "failed to write extent journal path_=" + path + ", return=12"}};
    }
    EXPECT_EQ(lines, log.Take());
  }
}

TEST_F(OutOfMemoryTest, AnExceptionGoesOutWithoutItsStackTrace) {
  int nth = 0;
  do {
    EXPECT_EQ("throws 7",
              EndWithout(Allocator::kMalloc, ++nth, true, []() -> int { throw SysException(7); }));
  } while (MemoryFaults::Fired() && nth < kTooMany);
}

TEST_F(OutOfMemoryTest, AMergeThatCouldNotBeginIsNotTakenForOneThatRuns) {
  int nth = 0;
  do {
    SCOPED_TRACE(nth);
    SmallTable table(templates_, Start::kMerged);
    table.Load();
    EndWithout(Allocator::kNew, ++nth, false, [&] { return table.peer().MergeAndSwitch(); });
    EXPECT_FALSE(table.peer().merging());
    const auto& chain = table.peer().dbChain();
    EXPECT_EQ(table.peer().tmpDb().opened, chain.size() == 3) << "what takes the flushes is read";
    if (table.peer().smallDb().opened && table.peer().fullDb().opened) {
      EXPECT_EQ(0, table.peer().MergeAndSwitch());
      EXPECT_FALSE(table.peer().tmpDb().opened);
      EXPECT_EQ(ExpectedStored(Start::kMerged), table.LookAtBytes());
    }
  } while (MemoryFaults::Fired() && nth < kTooMany);
  EXPECT_GT(nth, 10);
}

TEST_F(OutOfMemoryTest, ADatabaseIsOpenOrHasNoEnvironment) {
  int nth = 0;
  do {
    SCOPED_TRACE(nth);
    SmallTable table(templates_, Start::kMerged);
    table.Load();
    auto& small = table.peer().smallDb();
    const std::string path = small.path;
    EXPECT_EQ(0, table.peer().ClearDBEnv(&small));
    const std::string end = EndWithout(Allocator::kNew, ++nth, false, [&] {
      return table.peer().SetupDBEnv(path, &small, 1UL << 30);
    });
    EXPECT_EQ(end == "0", small.opened) << end;
    EXPECT_EQ(small.opened, small.env != nullptr) << end;
  } while (MemoryFaults::Fired() && nth < kTooMany);
  EXPECT_GT(nth, 1);
}

TEST_F(OutOfMemoryTest, ReferencesAreCountedOnceWhenTheBloomFileFindsNoMemory) {
  using Dcids = std::vector<std::pair<unsigned long, unsigned long>>;
  const auto sorted = [](const Dcids& dcids) {
    return std::map<unsigned long, unsigned long>(dcids.begin(), dcids.end());
  };
  SmallTable table(templates_, Start::kMerged);
  table.Load();
  Dcids wanted;
  std::unique_ptr<BloomFilter> filter;
  table.table().GetDCIDAndBloomFilter(&wanted, &filter);
  table.Destroy();
  int nth = 0;
  int counted = 0;
  do {
    SmallTable fresh(templates_, Start::kMerged);  // the file may be gone after a failure
    fresh.Load();
    Dcids dcids;
    const std::string end = EndWithout(Allocator::kNew, ++nth, false, [&] {
      fresh.table().GetDCIDAndBloomFilter(&dcids, &filter);
      return 0;
    });
    if (end == "0") {
      ++counted;
      EXPECT_EQ(sorted(wanted), sorted(dcids)) << nth;
    }
  } while (MemoryFaults::Fired() && nth < kTooMany);
  EXPECT_GT(counted, 1) << "also from what is stored, instead of the file";
}

}  // namespace
}  // namespace zefs::test
