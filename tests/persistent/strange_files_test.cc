// Things that are no files in the place of side files: nothing waits for them.

#include <set>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/persistent/lifecycle_fixture.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class StrangeFilesTest : public LifecycleTest {
 protected:
  StrangeFilesTest() {
    Set(&FileSystemDaemonConfig::dcOffsetTrackingEnabled, true);
    Set(&FileSystemDaemonConfig::persistBloom, std::uint8_t{1});
  }
  void MakeFifo(const std::string& name) {
    MakeDirectory();
    ASSERT_EQ(0, ::mkfifo(File(name).c_str(), 0600));
  }
  /// Writes an extent whose container offset is wanted, and flushes it. The code of the failure.
  int Flush() {
    const ObjectID oid = Oid(80);
    table().insert(0, 10, &oid, 0, 0, nullptr, -1, nullptr);
    std::set<void*> released;
    return CodeOf(
        [&] { table().checkAndBackfillObjectID(&released, true, "", "", nullptr, nullptr); });
  }
};

// Whoever opens a FIFO waits for its other end.
TEST_F(StrangeFilesTest, AFifoForAJournalFailsTheLoad) {
  MakeFifo("journal");
  CMappingLMDB& table = Make("GENERIC");
  EXPECT_EQ(-1, CodeOf([&] { table.load(Directory().string(), false, ""); }));
  EXPECT_THAT(Lines(8), Contains("8 Failed to start extent journal, return value is -1"));
}

TEST_F(StrangeFilesTest, AFifoForAnOffsetStoreIsNotWaitedForByAList) {
  MakeFifo("dcoffset");
  Load();
  std::vector<zefs::DCOffset> wanted;
  EXPECT_EQ(-1, table().GetEmptyDcOffsetList(&wanted));
  EXPECT_THAT(Lines(8), Contains(StartsWith("8 failed to open dcoffset, path=")));
  EXPECT_THAT(wanted, IsEmpty());
}

TEST_F(StrangeFilesTest, AFifoForAnOffsetStoreIsNotWaitedForByAFlush) {
  MakeFifo("dcoffset");
  Load();
  EXPECT_EQ(0, Flush());
  EXPECT_THAT(Lines(8), Contains(StartsWith("8 failed to open dc offset file")));
  EXPECT_EQ(10, table().lower_bound(0, nullptr)->eOff);
  Destroy();
}

TEST_F(StrangeFilesTest, AFifoForABloomFileIsPassedOver) {
  MakeFifo("bloom");
  Load();
  std::vector<std::pair<unsigned long, unsigned long>> dcids;
  std::unique_ptr<BloomFilter> filter;
  table().GetDCIDAndBloomFilter(&dcids, &filter);
  EXPECT_NE(nullptr, filter);
  EXPECT_THAT(Lines(8), ElementsAre("8 failed to open file " + (Directory() / "bloom").string() +
                                    ", errno is 6"));
}

TEST_F(StrangeFilesTest, AFifoForADatabaseIsRefused) {
  MakeFifo("data.mdb");
  CMappingLMDB& table = Make();
  EXPECT_EQ(ESPIPE, CodeOf([&] { table.load(Directory().string(), false, ""); }));
}

}  // namespace
}  // namespace zefs::test
