// Whom a truncate waits for.

#include <atomic>
#include <list>
#include <thread>

#include <gmock/gmock.h>

#include "tests/persistent/merge_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

class TruncateThreadsTest : public MergeTest {};

TEST_F(TruncateThreadsTest, WaitsForAMergeAndThenCutsWhatThatHasWritten) {
  LoadBoth({Stored(0, 100, 70)}, {Stored(40, 60, 80), Stored(200, 300, 81)});
  WriteKnown(220, 230, Oid(90));
  WriteBytes(File("bloom"), "anything");
  CMappingLMDB::SharedLock reader(peer().tableLock());
  peer().StartMergeThread();
  AwaitWriterAt(peer().tableLock());  // the merge is under way, and cannot open its databases
  log_.Take();
  int result = -1;
  std::atomic<bool> back{false};
  std::thread truncating([&] {
    result = table().truncate(50, nullptr);
    back = true;
  });
  while (!back && peer().mergeMutex().try_lock()) {  // held while a thread is joined
    peer().mergeMutex().unlock();
    std::this_thread::yield();
  }
  EXPECT_FALSE(back.load());
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::truncate() to 50"));
  EXPECT_TRUE(fs::exists(File("bloom")));
  EXPECT_THAT(Cached(), ElementsAre(230));
  EXPECT_EQ(2U, Small().size());
  reader.unlock();
  truncating.join();
  EXPECT_EQ(0, result);
  ExpectNoMerge();
  EXPECT_FALSE(fs::exists(File("bloom")));
  EXPECT_THAT(Cached(), IsEmpty());
  EXPECT_THAT(Small(), IsEmpty());
  EXPECT_THAT(Full(), ElementsAre(CutOf(0, 0, 40, 70), CutOf(40, 40, 50, 80)));
}

TEST_F(TruncateThreadsTest, WaitsForWhoeverReadsThePrefetchedExtents) {
  LoadBoth({Stored(0, 100, 70)}, {});
  Set(&Config::prefetchEnabled, 1);
  std::list<CMappingLMDB::DCInfo> plan;
  table().GetDCInfoList({0, 100, 0}, &plan);
  WriteBytes(File("bloom"), "anything");
  log_.Take();
  CMappingLMDB::SharedLock reader(peer().prefetchLock());
  int result = -1;
  std::thread truncating([&] { result = table().truncate(50, nullptr); });
  AwaitWriterAt(peer().prefetchLock());
  EXPECT_EQ(1U, peer().prefetchExts().size());
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::truncate() to 50"));
  EXPECT_TRUE(fs::exists(File("bloom")));
  reader.unlock();
  truncating.join();
  EXPECT_EQ(0, result);
  EXPECT_THAT(peer().prefetchExts(), IsEmpty());
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().prefetchLock())) << "released again";
}

}  // namespace
}  // namespace zefs::test
