#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "sidefiles/dc_offset_store.h"
#include "tests/sidefiles/call_trace.h"
#include "tests/sidefiles/dc_offset_store_fixture.h"
#include "tests/support/fault_injection.h"

// Which calls a store makes under its lock, and that the log may change errno.

namespace zefs::test {
namespace {

using Calls = std::vector<std::string>;

class DcOffsetStoreLocksTest : public DcOffsetStoreFixture {
 protected:
  /// The calls since the last time, with P for the path and F for the descriptor.
  Calls Take() {
    Calls calls = trace_.Take();
    for (std::string& call : calls) {
      for (std::size_t at = call.find(path_); at != std::string::npos; at = call.find(path_)) {
        call.replace(at, path_.size(), "P");
      }
      const std::size_t fd = call.find("fd_=");
      if (fd != std::string::npos) {
        call.replace(fd + 4, call.find(',', fd) - fd - 4, "F");
      }
    }
    return calls;
  }

  /// Write with one record; `opens` if the file is not open yet.
  static Calls WriteCalls(bool opens) {
    Calls calls{"log DcOffsetStore store dc offset with path_=P, return=1"};
    if (opens) {
      calls.emplace_back("open");
    }
    for (const char* const call : {"log DcOffsetStore::Open, file: P", "write",
                                   "log fd_=F, path_=P, write=56, size=1, ret=56", "fsync"}) {
      calls.emplace_back(call);
    }
    return calls;
  }

  static Calls Locked(const Calls& first, const Calls& then, const Calls& last) {
    Calls all{"lock"};
    for (const Calls* const part : {&first, &then, &last}) {
      all.insert(all.end(), part->begin(), part->end());
    }
    all.emplace_back("unlock");
    return all;
  }

  static Calls After(const std::string& line, const Calls& then) {
    Calls all{line};
    all.insert(all.end(), then.begin(), then.end());
    return all;
  }

  CallTrace trace_{peer_.mutex()};
  const WatchCalls watch_{dir_.path().string()};
};

TEST_F(DcOffsetStoreLocksTest, WhatIsNotStoredTakesNoLock) {
  const std::string line = "log CheckAndStore store dc offset with path_=P, dcoff=";
  for (const int known : {5, 0, -3}) {
    EXPECT_EQ(0, Store(Wanted(1, known)));
    EXPECT_EQ((Calls{line + std::to_string(known)}), Take());
  }
  Track(false);
  EXPECT_EQ(0, Store(Wanted(1)));
  EXPECT_EQ((Calls{line + "-1"}), Take());
}

TEST_F(DcOffsetStoreLocksTest, StoringHoldsTheLockFromTheInsertToTheSync) {
  const std::string line = "log CheckAndStore store dc offset with path_=P, dcoff=-1";
  EXPECT_EQ(0, Store(Wanted(1)));
  EXPECT_EQ(After(line, Locked({}, {}, {})), Take());
  Threshold(1);
  EXPECT_EQ(0, Store(Wanted(1)));
  EXPECT_EQ(After(line, Locked({}, WriteCalls(true), {})), Take());
  Faults::FailNth(Call::kFsync, 1, EIO);
  EXPECT_EQ(-1, Store(Wanted(1)));
  EXPECT_EQ(
      After(line, Locked({}, WriteCalls(false),
                         {"log CheckAndStore, failed to store dcoffset with path_=P, return=-1"})),
      Take());
}

TEST_F(DcOffsetStoreLocksTest, FlushHoldsTheLockFromBehindTheFirstLineToTheClose) {
  const std::string line = "log DcOffsetStore::Flush, file: P";
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ(After(line, Locked({}, {}, {})), Take());
  Store(Wanted(1));
  Take();
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ(After(line, Locked({}, WriteCalls(true), {"fsync", "close"})), Take());
}

TEST_F(DcOffsetStoreLocksTest, ReadHoldsTheLockFromTheFirstLineToTheLast) {
  std::vector<DCOffset> out;
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(Locked({"log DcOffsetStore::Read, file: P"}, {}, {}), Take());
  ASSERT_EQ(0, store_.MergeDcOffset({Wanted(1)}));
  Take();
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(Locked({"log DcOffsetStore::Read, file: P"}, {"open", "read", "read", "close"},
                   {"close", "log DcOffsetStore::Destory, file: P", "rename",
                    "log Total offset in rec:32768, dcoffset:1"}),
            Take());
  ASSERT_EQ(0, store_.Open());
  Take();
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(Locked({"log DcOffsetStore::Read, file: P"}, {"open", "read", "close"},
                   {"close", "log DcOffsetStore::Destory, file: P",
                    "log no valid data in dc offset file P, remove it."}),
            Take());
}

TEST_F(DcOffsetStoreLocksTest, MergeHoldsTheLockWhileItWrites) {
  const std::string line = "log DcOffsetStore::MergeDcOffset, file: P";
  EXPECT_EQ(0, store_.MergeDcOffset({Wanted(1)}));
  Calls calls = After(line, Locked({}, WriteCalls(true), {}));
  calls.push_back(line + " , done!");
  EXPECT_EQ(calls, Take());
  EXPECT_EQ(0, store_.MergeDcOffset({Wanted(1, 5)}));
  EXPECT_EQ((Calls{line, line + " , done!"}), Take()) << "nothing is left to be written";
  Faults::FailNth(Call::kFsync, 1, EIO);
  EXPECT_EQ(-1, store_.MergeDcOffset({Wanted(1)}));
  calls = After(line, Locked({}, WriteCalls(false), {}));
  calls.emplace_back("log Failed to store dcoffset, ret=-1");
  EXPECT_EQ(calls, Take());
}

TEST_F(DcOffsetStoreLocksTest, UpdatePathHoldsTheLockFromTheFlushToTheClose) {
  ASSERT_EQ(0, store_.Open());
  Take();
  store_.UpdatePath((dir_ / "moved").string());
  EXPECT_EQ(After("log DcOffsetStore::Flush, file: P",
                  Locked({}, {"close"},
                         {"log DcOffsetStore::Destory, file: " + (dir_ / "moved").string()})),
            Take());
}

TEST_F(DcOffsetStoreLocksTest, AThrowFreesTheLock) {
  Faults::FailNth(Call::kStat, 1, EACCES);
  std::vector<DCOffset> out;
  EXPECT_THROW(store_.Read(&out), boost::filesystem::filesystem_error);
  EXPECT_EQ(Locked({"log DcOffsetStore::Read, file: P"}, {}, {}), Take());
  Faults::FailNth(Call::kStat, 1, EACCES);
  EXPECT_THROW(store_.MergeDcOffset({}), boost::filesystem::filesystem_error);
  EXPECT_EQ((Calls{"log DcOffsetStore::MergeDcOffset, file: P"}), Take());
  Faults::FailNth(Call::kOpen, 1, EACCES);
  EXPECT_EQ(EACCES, store_.MergeDcOffset({Wanted(1)}));
  EXPECT_EQ("unlock", Take().rbegin()[1]) << "ahead of its own line";
}

TEST_F(DcOffsetStoreLocksTest, OpenWriteAndDestoryLeaveTheLockToTheirCaller) {
  EXPECT_EQ(0, store_.Open());
  EXPECT_EQ((Calls{"open", "log DcOffsetStore::Open, file: P"}), Take());
  EXPECT_EQ(0, store_.Write({Wanted(1)}));
  EXPECT_EQ(WriteCalls(false), Take());
  store_.Destory();
  EXPECT_EQ((Calls{"close", "log DcOffsetStore::Destory, file: P"}), Take());
}

TEST_F(DcOffsetStoreLocksTest, ALogThatChangesErrnoDoesNotChangeWhatIsToldOrReturned) {
  trace_.SetErrnoAfterLogs(EDOM);
  errno = 0;
  ZEFS_LOG(kLogFailure, "any line");
  ASSERT_EQ(EDOM, errno);
  Take();

  Faults::FailNth(Call::kOpen, 1, EACCES);
  EXPECT_EQ(EACCES, store_.Open());
  const std::string code = std::to_string(EACCES);
  EXPECT_EQ((Calls{"open", "log failed to open dc offset file: P, errno:" + code}), Take());
  Threshold(1);
  Faults::FailNth(Call::kOpen, 1, EACCES);
  EXPECT_EQ(EACCES, Store(Wanted(1)));
  EXPECT_EQ(
      After("log CheckAndStore store dc offset with path_=P, dcoff=-1",
            Locked({"log DcOffsetStore store dc offset with path_=P, return=1", "open"},
                   {"log failed to open dc offset file: P, errno:" + code,
                    "log failed to open dcoffset with path_=P, ret=" + code},
                   {"log CheckAndStore, failed to store dcoffset with path_=P, return=" + code})),
      Take());
  Faults::FailNth(Call::kOpen, 1, EMFILE);
  EXPECT_EQ(EMFILE, store_.MergeDcOffset({Wanted(2)}));
}

}  // namespace
}  // namespace zefs::test
