// Which operations on special items keep the databases from being switched under them.

#include <atomic>
#include <cerrno>
#include <fstream>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "tests/persistent/abort_trace.h"
#include "tests/persistent/open_databases_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::AbortTrace;
using zefs::test::Call;
using zefs::test::CodeOf;
using zefs::test::Faults;
using zefs::test::Held;
using zefs::test::Oid;
using zefs::test::WatchCalls;

class SpecialItemsLocksTest : public zefs::test::OpenDatabasesTest {
 protected:
  /// Lets the commit in `call` fail, and looks at the table's lock while that is under way.
  void ExpectSharedLockUntilTheCommit(const std::function<void()>& call) {
    const WatchCalls watch(dir_.path().string());
    AbortTrace aborts;
    int looks = 0;
    aborts.AtNext([&] {
      ++looks;
      EXPECT_EQ(Held::kShared, TableLock());
    });
    Faults::FailNth(Call::kMdbTxnCommit, 1, ENOSPC);
    CodeOf(call);
    EXPECT_TRUE(Faults::Fired());
    EXPECT_EQ(1, looks);
    EXPECT_EQ(Held::kNot, TableLock());
    Faults::Disarm();
  }

  /// Runs `call` on another thread, which has to wait while this one holds the table's lock.
  /// `change`, which `call` has to see, comes before the lock is let go.
  void ExpectKeptOut(const std::function<void()>& call, const std::function<void()>& change) {
    std::atomic<long> id{0};
    std::atomic<bool> done{false};
    peer().tableLock().lock();
    std::thread other([&] {
      id = ::syscall(SYS_gettid);
      call();
      done = true;
    });
    while (!done && (id == 0 || !Sleeps(id))) {
      std::this_thread::yield();
    }
    EXPECT_FALSE(done);
    change();
    peer().tableLock().unlock();
    other.join();
  }

 private:
  /// Whether the system says that the thread waits for something. Behind its name, in parentheses,
  /// stands its state.
  static bool Sleeps(long id) {
    std::ifstream in("/proc/self/task/" + std::to_string(id) + "/stat");
    std::string line;
    std::getline(in, line);
    const std::size_t at = line.rfind(") ");
    return at != std::string::npos && line[at + 2] == 'S';
  }
};

TEST_F(SpecialItemsLocksTest, WhatStoresHoldsTheTableLockShared) {
  Open();
  ExpectSharedLockUntilTheCommit([this] { table().setFileSize(10); });
  ExpectSharedLockUntilTheCommit([this] { table().setExtMapVersion({2, 1}); });
  ExpectSharedLockUntilTheCommit([this] {
    ObjectID oid = Oid(70);
    table().SetDOID(&oid);
  });
  peer().dataChanged() = false;
  ExpectSharedLockUntilTheCommit([this] { peer().ResetDOID(true); });
  peer().dataChanged() = false;
  ExpectSharedLockUntilTheCommit([this] { table().setFileSize(10); });
}

TEST_F(SpecialItemsLocksTest, TheyRunBesideAnotherHolderOfTheSharedLock) {
  Open();
  const CMappingTable::SharedLock reader(peer().tableLock());
  ObjectID oid = Oid(70);
  EXPECT_EQ(0, table().SetDOID(&oid));
  EXPECT_EQ(0, table().GetDOID(&oid));
  EXPECT_EQ(0, table().setFileSize(10));
  EXPECT_EQ(0, table().setExtMapVersion({2, 1}));
  peer().dataChanged() = false;
  EXPECT_EQ(0, peer().ResetDOID(true));
}

TEST_F(SpecialItemsLocksTest, WhatStoresNothingLeavesTheLockAlone) {
  Open();
  peer().dataChanged() = false;
  const CMappingTable::UniqueLock writer(peer().tableLock());
  EXPECT_EQ(0, peer().ResetDOID(false));
  EXPECT_EQ(0, peer().ResetDOID(true)) << "changed by now";
  EXPECT_EQ(-1, table().getFileSize());
  EXPECT_EQ(2, table().getExtMapVersion().major);
}

TEST_F(SpecialItemsLocksTest, AnIdIsReadUnderTheTableLock) {
  Open();
  ObjectID oid;
  int result = -1;
  ExpectKeptOut([&] { result = table().GetDOID(&oid); }, [&] { peer().doid() = Oid(70, 5); });
  EXPECT_EQ(0, result);
  EXPECT_EQ(70U, oid.dcid);
}

TEST_F(SpecialItemsLocksTest, AFileSizeIsComparedUnderTheTableLock) {
  Open();
  ExpectKeptOut([&] { EXPECT_EQ(0, table().setFileSize(10)); },
                [&] { peer().committedFileSize() = 20; });
  EXPECT_EQ(-1, peer().fileSize()) << "nothing was to be stored";
}

TEST_F(SpecialItemsLocksTest, SizeIsCountedUnderTheSharedTableLock) {
  Open();
  AbortTrace aborts;
  int looks = 0;
  aborts.AtNext([&] {
    ++looks;
    EXPECT_EQ(Held::kShared, TableLock());
  });
  EXPECT_EQ(0, table().size());
  EXPECT_EQ(1, looks);
  const CMappingTable::SharedLock reader(peer().tableLock());
  EXPECT_EQ(0, table().size());
}

}  // namespace
