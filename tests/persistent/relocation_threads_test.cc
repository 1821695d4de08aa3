// Copies, removals and moves beside a merge.

#include <atomic>
#include <functional>
#include <thread>

#include <gmock/gmock.h>

#include "tests/persistent/relocation_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::IsEmpty;

class RelocationThreadsTest : public RelocationTest {
 protected:
  using SharedLock = CMappingLMDB::SharedLock;

  /// Runs `act` on another thread while a merge is kept from its start, and lets the merge go on
  /// when that thread waits for it. `check` looks at what the thread has done by then.
  void DuringMerge(const std::function<void()>& act, const std::function<void()>& check) {
    SharedLock reader(peer().tableLock());
    peer().StartMergeThread();
    AwaitWriterAt(peer().tableLock());
    std::atomic<bool> done{false};
    std::thread actor([&] {
      act();
      done = true;
    });
    while (!done && peer().mergeMutex().try_lock()) {
      peer().mergeMutex().unlock();
      std::this_thread::yield();
    }
    EXPECT_FALSE(done) << "it waits for the merge";
    check();
    reader.unlock();
    actor.join();
  }
};

TEST_F(RelocationThreadsTest, ASnapshotWaitsForTheMergeAndTakesItsResult) {
  LoadTable();
  DuringMerge([this] { EXPECT_EQ(0, table().Snapshot(Directory().string(), Target().string())); },
              [this] { EXPECT_FALSE(fs::exists(Target())); });
  EXPECT_THAT(Small(), IsEmpty());
  EXPECT_EQ(BytesOf(File("data.mdb")), BytesOf(TargetFile("data.mdb")));
  EXPECT_EQ(BytesOf(File("lsml0.mdb")), BytesOf(TargetFile("lsml0.mdb")));
}

TEST_F(RelocationThreadsTest, ARemovalWaitsForTheMerge) {
  LoadTable();
  DuringMerge([this] { EXPECT_EQ(0, table().remove(Directory().string())); },
              [this] { EXPECT_TRUE(fs::exists(File("data.mdb"))); });
  EXPECT_FALSE(fs::exists(Directory()));
}

TEST_F(RelocationThreadsTest, AMoveWaitsForTheMerge) {
  LoadTable();
  DuringMerge([this] { table().UpdateExtPath(Target().string()); },
              [this] { EXPECT_EQ(Directory().string(), peer().path()); });
  EXPECT_EQ(Target().string(), peer().path());
  EXPECT_THAT(Small(), IsEmpty()) << "the merge has switched under the old path";
  EXPECT_EQ(Path("data.mdb"), peer().fullDb().path);
}

TEST_F(RelocationThreadsTest, AMoveKeepsReadersOut) {
  LoadTable();
  std::atomic<bool> done{false};
  SharedLock reader(peer().tableLock());
  std::thread mover([&] {
    table().UpdateExtPath(Target().string());
    done = true;
  });
  while (!done && HowIsHeld(peer().tableLock()) != Held::kExclusively) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(done);
  EXPECT_EQ(Directory().string(), peer().path()) << "not while a reader is there";
  reader.unlock();
  mover.join();
  EXPECT_EQ(Target().string(), peer().path());
  EXPECT_EQ(Held::kNot, TableLock());
}

}  // namespace
}  // namespace zefs::test
