// Which calls a journal makes under its lock and which without it, and in which order; and that the
// log may change errno.

#include <cerrno>
#include <initializer_list>
#include <memory>
#include <thread>

#include "sidefiles/extent_journal.h"
#include "tests/sidefiles/call_trace.h"
#include "tests/sidefiles/extent_journal_fixture.h"

namespace {

namespace fs = boost::filesystem;
using namespace zefs::test;
using Calls = std::vector<std::string>;

class ExtentJournalLocksTest : public ExtentJournalFixture {
 protected:
  ExtentJournalLocksTest() { fs::create_directory(Directory()); }

  /// A running journal with `count` buffered records.
  void StartWith(int count) {
    ASSERT_EQ(0, journal_.Start());
    AddMany(journal_, count);
    trace_.Take();
  }

  /// The calls since the last time, with P for the path, R for that of the replay file, and F for
  /// the descriptor.
  Calls Take() { return Shortened(trace_.Take()); }

  Calls Shortened(Calls calls) const {
    for (std::string& call : calls) {
      Replace(&call, ReplayPath(), "R");
      Replace(&call, Path(), "P");
      const std::size_t fd = call.find("fd_=");
      if (fd != std::string::npos) {
        call.replace(fd + 4, call.find(',', fd) - fd - 4, "F");
      }
    }
    return calls;
  }

  static void Replace(std::string* text, const std::string& from, const std::string& to) {
    for (std::size_t at = text->find(from); at != std::string::npos; at = text->find(from)) {
      text->replace(at, from.size(), to);
    }
  }

  /// Flush with `count` records in the buffer, as it is when nothing fails.
  static Calls FlushCalls(int count, bool sync) {
    const std::string records = std::to_string(count);
    Calls calls{"log Flush, path_=P", "lock", "log Write, path_=P, ext=" + records};
    if (count != 0) {
      const std::string bytes = std::to_string(count * 80);
      calls.push_back("write");
      calls.push_back("log fd_=F, path_=P, write=" + bytes + ", size=" + records +
                      ", ret=" + bytes);
    }
    if (sync) {
      calls.push_back("fsync");
    }
    calls.push_back("unlock");
    return calls;
  }

  static Calls Joined(std::initializer_list<Calls> parts) {
    Calls all;
    for (const Calls& part : parts) {
      all.insert(all.end(), part.begin(), part.end());
    }
    return all;
  }

  std::unique_ptr<ExtentJournal> owner_ = std::make_unique<ExtentJournal>(Path(), false);
  ExtentJournal& journal_ = *owner_;
  CallTrace trace_{ExtentJournalTestPeer::Mutex(journal_)};
  WatchCalls watch_{dir_.path().string()};
};

// --- Add and Flush ---------------------------------------------------------------------------

TEST_F(ExtentJournalLocksTest, AddHoldsTheLockForTheRecordAlone) {
  StartWith(0);
  EXPECT_EQ(0, journal_.Add(NthExtent(0), ADD, 0));
  EXPECT_EQ((Calls{"lock", "unlock"}), Take());
  EXPECT_EQ(0, journal_.Add(0, 1, 0, 64, {}, 0));
  EXPECT_EQ((Calls{"log Add, path_=P", "lock", "unlock"}), Take());
  EXPECT_EQ(0, journal_.Del(0, 1, 0, 64, {}, 0));
  EXPECT_EQ((Calls{"log Del, path_=P", "lock", "unlock"}), Take());
}

TEST_F(ExtentJournalLocksTest, WhatIsRefusedIsRefusedWithoutTheLock) {
  EXPECT_EQ(-1, journal_.Add(NthExtent(0), ADD, 0));
  EXPECT_EQ(-1, journal_.Add(0, 1, 0, 64, {}, 0));
  EXPECT_EQ(-1, journal_.Del(0, 1, 0, 64, {}, 0));
  EXPECT_EQ(-1, journal_.Flush(true));
  EXPECT_EQ((Calls{"log Add, path_=P", "log Del, path_=P", "log Flush, path_=P"}), Take());
}

TEST_F(ExtentJournalLocksTest, TheAddThatFillsTheBufferLetsGoBeforeItFlushes) {
  StartWith(kLimit - 1);
  EXPECT_EQ(0, journal_.Add(NthExtent(0), ADD, 0));
  EXPECT_EQ(Joined({{"lock", "unlock"}, FlushCalls(kLimit, false)}), Take());
  AddMany(journal_, kLimit - 1);
  Take();
  Faults::FailNth(Call::kWrite, 1, EIO);
  EXPECT_EQ(-1, journal_.Add(NthExtent(0), ADD, 0));
  const Calls calls = Take();
  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ("unlock", calls[calls.size() - 2]) << "the failure is told without the lock";
  EXPECT_EQ("log failed to flush journal file: P, ret=-1", calls.back());
}

TEST_F(ExtentJournalLocksTest, ARecordThatAnotherThreadAddsBeforeTheFlushIsNotLost) {
  StartWith(kLimit - 1);
  // Between the two locks, when the buffer is full: the other thread finds it full, too.
  trace_.AtNext("log Flush", [&] {
    std::thread([&] { EXPECT_EQ(0, journal_.Add(NthExtent(kLimit), ADD, 0)); }).join();
  });
  EXPECT_EQ(0, journal_.Add(NthExtent(kLimit - 1), ADD, 0));
  EXPECT_EQ(Joined({{"lock", "unlock"}, FlushCalls(0, false)}), Take()) << "nothing is left to do";
  EXPECT_EQ((std::vector<std::size_t>{1310720, 80}), Faults::WriteSizes());
  EXPECT_EQ(0U, Buffered(journal_));
  EXPECT_TRUE(EncodedMany(kLimit + 1) == BytesOf(Path()));
}

TEST_F(ExtentJournalLocksTest, FlushHoldsTheLockAroundTheWriteAndTheSync) {
  StartWith(2);
  EXPECT_EQ(0, journal_.Flush(false));
  EXPECT_EQ(FlushCalls(2, false), Take());
  EXPECT_EQ(0, journal_.Flush(true));
  EXPECT_EQ(FlushCalls(0, true), Take());
  AddMany(journal_, 1);
  Take();
  EXPECT_EQ(0, journal_.Flush(true));
  EXPECT_EQ(FlushCalls(1, true), Take());
}

TEST_F(ExtentJournalLocksTest, AFailedFlushIsToldUnderTheLockWhichIsThenFree) {
  StartWith(1);
  Faults::FailNth(Call::kWrite, 1, EIO);
  EXPECT_EQ(-1, journal_.Flush(true));
  EXPECT_EQ((Calls{"log Flush, path_=P", "lock", "log Write, path_=P, ext=1", "write",
                   "log fd_=F, path_=P, write=80, size=1, ret=-1",
                   "log failed to write extent journal with path_=P, write=80, return=-1",
                   "log failed to write extent journal path_=P, return=-1", "unlock"}),
            Take());
  Faults::FailNth(Call::kFsync, 1, EIO);
  EXPECT_EQ(-1, journal_.Flush(true));
  EXPECT_EQ((Calls{"log Flush, path_=P", "lock", "log Write, path_=P, ext=1", "write",
                   "log fd_=F, path_=P, write=80, size=1, ret=80", "fsync",
                   "log failed to sync extent journal with path_=P, return=-1",
                   "log failed to sync extent journal path_=P, return=-1", "unlock"}),
            Take());
}

// --- Start, Replay and Destroy ---------------------------------------------------------------

TEST_F(ExtentJournalLocksTest, StartHoldsTheLockThroughout) {
  Faults::FailNth(Call::kOpen, 1, EMFILE);
  EXPECT_EQ(-1, journal_.Start());
  EXPECT_EQ((Calls{"lock", "open",
                   "log failed to open journal file: P, errno: " + std::to_string(EMFILE) +
                       ", err: " + std::strerror(EMFILE),
                   "unlock"}),
            Take());
  EXPECT_EQ(0, journal_.Start());
  EXPECT_EQ((Calls{"lock", "open", "log extent journal start, path=P", "unlock"}), Take());
  EXPECT_EQ(0, journal_.Start());
  EXPECT_EQ((Calls{"lock", "log extent journal start, path=P", "unlock"}), Take());
}

TEST_F(ExtentJournalLocksTest, ReplayTakesTheLockForTheNewStartOnly) {
  StartWith(1);
  std::vector<Extent> out;
  EXPECT_EQ(0, journal_.Get(&out));
  const Calls untilStart{
      "log extent journal stop, path=P",    "close", "rename", "open", "read", "read", "close",
      "log Total extent in journal:32768",  // each call up to here without the lock
      "log replay extent count:1, path_=P", "lock",  "open"};
  EXPECT_EQ(Joined({{"log Get"},
                    FlushCalls(1, true),
                    untilStart,
                    {"log extent journal start, path=P", "unlock"}}),
            Take());
}

TEST_F(ExtentJournalLocksTest, AReplayThatCannotStartAgainTellsSoWithoutTheLock) {
  StartWith(0);
  Faults::FailNth(Call::kOpen, 2, EMFILE);
  std::vector<Extent> out;
  EXPECT_EQ(-1, journal_.Replay(&out));
  const Calls calls = Take();
  ASSERT_GE(calls.size(), 5U);
  EXPECT_EQ((Calls{"lock", "open",
                   "log failed to open journal file: P, errno: " + std::to_string(EMFILE) +
                       ", err: " + std::strerror(EMFILE),
                   "unlock", "log failed to open file with path_=P, return=-1"}),
            Calls(calls.end() - 5, calls.end()));
}

TEST_F(ExtentJournalLocksTest, DestroyHoldsTheLockThroughout) {
  StartWith(1);
  WriteBytes(ReplayPath(), "x");
  EXPECT_EQ(0, journal_.Destroy());
  EXPECT_EQ((Calls{"lock", "log extent journal stop, path=P", "close", "unlink", "unlink", "open",
                   "close", "log Destroy extent journal with path_=P", "unlock"}),
            Take());
}

TEST_F(ExtentJournalLocksTest, DestroyTellsItsFailuresUnderTheLockWhichIsThenFree) {
  StartWith(1);
  WriteBytes(ReplayPath(), "x");
  Faults::FailNth(Call::kUnlink, 1, EPERM);
  EXPECT_EQ(-1, journal_.Destroy());
  EXPECT_EQ((Calls{"lock", "log extent journal stop, path=P", "close", "unlink",
                   "log failed to unlink extent journal with path_=P, return=-1", "unlock"}),
            Take());
  Faults::FailNth(Call::kUnlink, 2, EPERM);
  EXPECT_EQ(-1, journal_.Destroy());
  EXPECT_EQ((Calls{"lock", "unlink", "unlink",
                   "log failed to unlink replay file with path_=P, return=-1", "unlock"}),
            Take());
  Faults::FailNth(Call::kStat, 1, EACCES);
  EXPECT_THROW(journal_.Destroy(), fs::filesystem_error);
  EXPECT_EQ((Calls{"lock", "unlock"}), Take());
}

// --- without the lock ------------------------------------------------------------------------

TEST_F(ExtentJournalLocksTest, ReadSyncCloseWriteResetAndHasJournalTakeNoLock) {
  StartWith(1);
  EXPECT_TRUE(journal_.HasJournal());
  EXPECT_EQ(Calls{}, Take());
  EXPECT_EQ(0, journal_.Sync());
  EXPECT_EQ(Calls{"fsync"}, Take());
  EXPECT_EQ(0, journal_.Write({}));
  EXPECT_EQ(Calls{"log Write, path_=P, ext=0"}, Take());
  journal_.Reset();
  EXPECT_EQ(0U, Buffered(journal_));
  EXPECT_EQ(Calls{}, Take());
  WriteBytes(ReplayPath(), EncodedMany(1));
  std::vector<Extent> out;
  EXPECT_EQ(0, journal_.Read(&out));
  EXPECT_EQ((Calls{"open", "read", "read", "close", "log Total extent in journal:32768"}), Take());
  EXPECT_EQ(0, journal_.Close());
  EXPECT_EQ((Calls{"log extent journal stop, path=P", "close"}), Take());
}

// --- the end ---------------------------------------------------------------------------------

TEST_F(ExtentJournalLocksTest, TheEndOfARunningJournalFlushesSyncsAndCloses) {
  StartWith(2);
  owner_.reset();
  EXPECT_EQ(Joined({FlushCalls(2, true), {"log extent journal stop, path=P", "close"}}), Take());
  EXPECT_EQ(EncodedMany(2), BytesOf(Path()));
}

TEST_F(ExtentJournalLocksTest, TheEndOfAnOpenJournalThatWasNeverStartedOnlyCloses) {
  ASSERT_EQ(0, journal_.Open());
  Take();
  owner_.reset();
  EXPECT_EQ((Calls{"log Flush, path_=P", "close"}), Take());
  EXPECT_TRUE(HasFile());
  EXPECT_EQ("", BytesOf(Path()));
}

TEST_F(ExtentJournalLocksTest, TheEndOfAnIdleJournalDoesNothing) {
  owner_.reset();
  EXPECT_EQ(Calls{}, Take());
  EXPECT_FALSE(HasFile());
}

// --- errno -----------------------------------------------------------------------------------

TEST_F(ExtentJournalLocksTest, ALogThatChangesErrnoDoesNotChangeWhatIsTold) {
  trace_.SetErrnoAfterLogs(EDOM);
  errno = 0;
  ZEFS_LOG(zefs::kLogFailure, "any line");
  ASSERT_EQ(EDOM, errno);
  Take();

  Faults::FailNth(Call::kOpen, 1, EMFILE);
  EXPECT_EQ(-1, journal_.Start());
  EXPECT_EQ("log failed to open journal file: P, errno: " + std::to_string(EMFILE) +
                ", err: " + std::strerror(EMFILE),
            Take().at(2));
  std::vector<Extent> out;
  EXPECT_EQ(-1, journal_.Read(&out));
  EXPECT_EQ("log failed to open extent journal, path=R, ret=" + std::to_string(ENOENT),
            Take().back());
  ASSERT_EQ(0, journal_.Start());
  Faults::FailNth(Call::kOpen, 1, EACCES);
  EXPECT_EQ(-1, journal_.Replay(&out)) << "after the line about the stop";
  const Calls calls = Take();
  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ("log failed to open extent journal, path=R, ret=" + std::to_string(EACCES),
            calls[calls.size() - 2]);
  fs::remove_all(Directory());
  Faults::FailNth(Call::kMkdir, 1, ENOSPC);
  EXPECT_EQ(ENOSPC, journal_.Start());
}

}  // namespace
