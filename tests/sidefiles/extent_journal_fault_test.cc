// Failing system calls, one after the other, and a process that dies at any of them.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <functional>

#include <gmock/gmock.h>

#include "sidefiles/extent_journal.h"
#include "tests/sidefiles/extent_journal_fixture.h"
#include "tests/support/child_process.h"

namespace {

namespace fs = boost::filesystem;
using namespace zefs::test;

constexpr Call kAllCalls[] = {Call::kOpen,   Call::kRead,  Call::kWrite,
                              Call::kFsync,  Call::kClose, Call::kRename,
                              Call::kUnlink, Call::kMkdir, Call::kStat};

int OpenDescriptors() {
  return static_cast<int>(
      std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

class ExtentJournalFaultTest : public ExtentJournalFixture {
 protected:
  /// A running journal with `count` buffered records; the log is empty.
  void StartWith(ExtentJournal& journal, int count) {
    ASSERT_EQ(0, journal.Start());
    AddMany(journal, count);
    TakeLog();
  }

  LogRecord WriteFailure(const std::string& asked, const std::string& done) const {
    return {8, "failed to write extent journal with path_=" + Path() + ", write=" + asked +
                   ", return=" + done};
  }
  bool ToldThatNamesAreNotSynced() {
    const Log log = TakeLog(8);
    const LogRecord line{8, "failed to sync the directory of extent journal " + Path() +
                                ", errno: " + std::to_string(EIO)};
    return std::count(log.begin(), log.end(), line) > 0;
  }

  LogRecord FlushFailure() const {
    return {8, "failed to write extent journal path_=" + Path() + ", return=-1"};
  }

  WatchCalls watch_{dir_.path().string()};
};

TEST_F(ExtentJournalFaultTest, AFailedWriteKeepsTheBufferAndTheNextFlushWritesIt) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, 3);
  Faults::FailNth(Call::kWrite, 1, ENOSPC);
  EXPECT_EQ(-1, journal.Flush(true));
  EXPECT_EQ((Log{WriteFailure("240", "-1"), FlushFailure()}), TakeLog(8));
  EXPECT_EQ(0, Faults::Count(Call::kFsync));
  EXPECT_EQ(3U, Buffered(journal));
  EXPECT_EQ(0, journal.Flush(true));
  EXPECT_EQ(EncodedMany(3), BytesOf(Path()));
}

TEST_F(ExtentJournalFaultTest, AShortWriteStaysInTheFileAndIsAFailure) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, 3);
  Faults::ShortWriteNth(1, 100);
  Faults::FailNth(Call::kWrite, 2, ENOSPC);
  EXPECT_EQ(-1, journal.Flush(false));
  EXPECT_EQ((Log{WriteFailure("240", "100"), FlushFailure()}), TakeLog(8));
  EXPECT_EQ(EncodedMany(3).substr(0, 100), BytesOf(Path()));
  EXPECT_EQ(3U, Buffered(journal));
}

TEST_F(ExtentJournalFaultTest, AShortWriteThatGoesOnIsNoFailure) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, 3);
  Faults::ShortWriteNth(1, 100);
  EXPECT_EQ(0, journal.Flush(false));
  EXPECT_EQ(EncodedMany(3), BytesOf(Path()));
}

TEST_F(ExtentJournalFaultTest, TheFlushOfAFullBufferFailsTheAddThatFilledIt) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, kLimit - 1);
  Faults::FailNth(Call::kWrite, 1, EIO);
  EXPECT_EQ(-1, journal.Add(NthExtent(kLimit - 1), ADD, 0));
  EXPECT_EQ((Log{WriteFailure("1310720", "-1"),
                 FlushFailure(),
                 {8, "failed to flush journal file: " + Path() + ", ret=-1"}}),
            TakeLog(8));
  EXPECT_EQ(std::size_t{kLimit}, Buffered(journal)) << "the record is kept";
  EXPECT_EQ(0, journal.Add(NthExtent(kLimit), ADD, 0)) << "16385 records at once";
  EXPECT_EQ((std::vector<std::size_t>{1310720, 1310720, 80}), Faults::WriteSizes());
  EXPECT_EQ(0U, Buffered(journal));
  EXPECT_TRUE(EncodedMany(kLimit + 1) == BytesOf(Path()));
}

TEST_F(ExtentJournalFaultTest, ChunksBeforeAFailedOneStayInTheFileAndAreWrittenAgain) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, kLimit - 1);
  Faults::FailNth(Call::kWrite, 1, EIO);
  EXPECT_EQ(-1, journal.Add(NthExtent(kLimit - 1), ADD, 0));
  Faults::FailNth(Call::kWrite, 2, EIO);
  EXPECT_EQ(-1, journal.Add(NthExtent(kLimit), ADD, 0));
  EXPECT_TRUE(EncodedMany(kLimit) == BytesOf(Path()));
  EXPECT_EQ(std::size_t{kLimit + 1}, Buffered(journal));
  EXPECT_EQ(0, journal.Flush(true));
  EXPECT_TRUE(EncodedMany(kLimit) + EncodedMany(kLimit + 1) == BytesOf(Path()));
}

TEST_F(ExtentJournalFaultTest, AFailedSyncKeepsTheBufferSoThatTheRecordsAreAppendedAgain) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, 2);
  Faults::FailNth(Call::kFsync, 1, EIO);
  EXPECT_EQ(-1, journal.Flush(true));
  EXPECT_EQ((Log{{8, "failed to sync extent journal with path_=" + Path() + ", return=-1"},
                 {8, "failed to sync extent journal path_=" + Path() + ", return=-1"}}),
            TakeLog(8));
  EXPECT_EQ(2U, Buffered(journal));
  EXPECT_EQ(EncodedMany(2), BytesOf(Path()));
  EXPECT_EQ(0, journal.Flush(true));
  EXPECT_EQ(0U, Buffered(journal));
  EXPECT_EQ(EncodedMany(2) + EncodedMany(2), BytesOf(Path()));
}

TEST_F(ExtentJournalFaultTest, AFailedReadEndsTheFileQuietly) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, 2);
  Faults::FailNth(Call::kRead, 1, EIO);
  std::vector<Extent> out;
  EXPECT_EQ(0, journal.Get(&out));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ((Log{{2, "replay extent count:0, path_=" + Path()}}), TakeLog(2));
}

TEST_F(ExtentJournalFaultTest, AFailedReadOfALaterChunkKeepsTheEarlierOnes) {
  fs::create_directory(Directory());
  WriteBytes(ReplayPath(), EncodedMany(32769));
  ExtentJournal journal(Path(), false);
  Faults::FailNth(Call::kRead, 2, EIO);
  std::vector<Extent> out;
  EXPECT_EQ(0, journal.Read(&out));
  EXPECT_EQ(32768U, out.size());
}

TEST_F(ExtentJournalFaultTest, EachStepOfAReplayThatFailsIsToldAndLeavesTheJournalStopped) {
  const std::string flush = "failed to replay extent journal with path_=" + Path() + ", return=-1";
  struct Row {
    const char* name;
    Call call;
    int nth;
    Log log;
    bool journalStays, replayStays;
  };
  const std::vector<Row> rows = {
      {"rename",
       Call::kRename,
       1,
       {{8, "failed to rename file, from=" + Path() + ", to=" + ReplayPath() + ", ret=-1"},
        {8, flush}},
       true,
       false},
      {"open of the replay file",
       Call::kOpen,
       1,
       {{8,
         "failed to open extent journal, path=" + ReplayPath() + ", ret=" + std::to_string(EMFILE)},
        {8, "failed to Replay extent journal, path=" + Path() + ", ret=-1"},
        {8, flush}},
       false,
       true},
      {"open of the new journal",
       Call::kOpen,
       2,
       {{2, "replay extent count:2, path_=" + Path()},
        {8, "failed to open journal file: " + Path() + ", errno: " + std::to_string(EMFILE) +
                ", err: " + std::strerror(EMFILE)},
        {8, "failed to open file with path_=" + Path() + ", return=-1"},
        {8, flush}},
       false,
       false}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    fs::remove_all(Directory());
    ExtentJournal journal(Path(), false);
    StartWith(journal, 2);
    Faults::FailNth(row.call, row.nth, EMFILE);
    std::vector<Extent> out;
    EXPECT_EQ(-1, journal.Get(&out));
    EXPECT_EQ(row.log, TakeLog(2));
    EXPECT_FALSE(ExtentJournalTestPeer::Started(journal));
    EXPECT_FALSE(ExtentJournalTestPeer::Opened(journal));
    EXPECT_EQ(row.journalStays, HasFile());
    EXPECT_EQ(row.replayStays, HasReplayFile());
    EXPECT_EQ(-1, journal.Add(NthExtent(0), ADD, 0));
    EXPECT_EQ(0, journal.Start());
  }
}

TEST_F(ExtentJournalFaultTest, AReplayHandsOnTheErrorNumberOfTheNewOpen) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, 1);
  ASSERT_EQ(0, journal.Flush(false));
  // First the replay file is looked at, then the directory, which seems to be gone.
  Faults::FailNth(Call::kStat, 2, ENOENT, true);
  Faults::FailNth(Call::kMkdir, 1, ENOSPC);
  std::vector<Extent> out;
  TakeLog();
  EXPECT_EQ(ENOSPC, journal.Replay(&out));
  EXPECT_EQ(1U, out.size());
  EXPECT_EQ(
      (Log{{8, "failed to create path: " + Directory().string() +
                   ", errno: " + std::to_string(ENOSPC)},
           {8, "failed to open file with path_=" + Path() + ", return=" + std::to_string(ENOSPC)}}),
      TakeLog(8));
}

TEST_F(ExtentJournalFaultTest, AReplayFileThatCannotBeLookedAtThrows) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, 2);
  ASSERT_EQ(0, journal.Flush(true));
  std::vector<Extent> out;
  Faults::FailNth(Call::kStat, 1, EACCES);
  EXPECT_THROW(journal.Replay(&out), fs::filesystem_error);
  EXPECT_EQ(2U, out.size());
  EXPECT_TRUE(HasReplayFile());
  EXPECT_EQ(0, journal.Destroy());
}

TEST_F(ExtentJournalFaultTest, AReplayFileThatCannotBeRemovedThrows) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, 2);
  Faults::FailNth(Call::kUnlink, 1, EPERM);
  std::vector<Extent> out;
  EXPECT_THROW(journal.Get(&out), fs::filesystem_error);
  EXPECT_EQ(2U, out.size());
  EXPECT_TRUE(HasReplayFile());
  EXPECT_FALSE(HasFile());
  EXPECT_EQ(0, journal.Get(&out)) << "nothing reads it later";
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(0, journal.Destroy());
  EXPECT_FALSE(HasReplayFile());
}

TEST_F(ExtentJournalFaultTest, DestroyTellsWhichFileItCouldNotRemove) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, 2);
  WriteBytes(ReplayPath(), "x");
  Faults::FailNth(Call::kUnlink, 1, EPERM);
  EXPECT_EQ(-1, journal.Destroy());
  EXPECT_EQ((Log{{8, "failed to unlink extent journal with path_=" + Path() + ", return=-1"}}),
            TakeLog(8));
  EXPECT_TRUE(HasFile());
  EXPECT_TRUE(HasReplayFile());
  EXPECT_EQ(0U, Buffered(journal)) << "dropped before";
  Faults::FailNth(Call::kUnlink, 2, EPERM);
  EXPECT_EQ(-1, journal.Destroy());
  EXPECT_EQ((Log{{8, "failed to unlink replay file with path_=" + Path() + ", return=-1"}}),
            TakeLog());
  EXPECT_FALSE(HasFile());
  EXPECT_TRUE(HasReplayFile());
  EXPECT_EQ(0, journal.Destroy());
}

TEST_F(ExtentJournalFaultTest, DestroyThatCannotSyncTheDirectoryHasDestroyedTheJournal) {
  for (const Call call : {Call::kOpen, Call::kFsync}) {
    ExtentJournal journal(Path(), false);
    StartWith(journal, 3);
    Faults::FailNth(call, 1, EIO);
    EXPECT_EQ(0, journal.Destroy());
    EXPECT_TRUE(Faults::Fired());
    EXPECT_FALSE(HasFile());
    EXPECT_EQ((Log{{8, "failed to sync the directory of extent journal " + Path() + ", errno: 5"}}),
              TakeLog(8));
  }
}

TEST_F(ExtentJournalFaultTest, DestroySyncsTheDirectoryIfItHasRemovedAnyFile) {
  ExtentJournal journal(Path(), false);
  EXPECT_EQ(0, journal.Destroy());
  EXPECT_EQ(0, Faults::Count(Call::kFsync)) << "there was none";
  fs::create_directory(Directory());
  WriteBytes(ReplayPath(), "left by another process");
  EXPECT_EQ(0, journal.Destroy());
  EXPECT_EQ(1, Faults::Count(Call::kFsync));
  WriteBytes(Path(), "");
  EXPECT_EQ(0, journal.Destroy());
  EXPECT_EQ(2, Faults::Count(Call::kFsync));
}

TEST_F(ExtentJournalFaultTest, DestroyThatIsInterruptedSyncsTheDirectoryAgain) {
  ExtentJournal journal(Path(), false);
  StartWith(journal, 3);
  const int before = Faults::Count(Call::kFsync);
  Faults::FailNth(Call::kFsync, 1, EINTR);
  EXPECT_EQ(0, journal.Destroy());
  EXPECT_EQ(before + 2, Faults::Count(Call::kFsync));
  EXPECT_EQ(Log{}, TakeLog(8));
}

TEST_F(ExtentJournalFaultTest, DestroyThatThrowsFreesTheLock) {
  for (int nth = 1; nth <= 2; ++nth) {
    ExtentJournal journal(Path(), false);
    StartWith(journal, 1);
    Faults::FailNth(Call::kStat, nth, EACCES);
    EXPECT_THROW(journal.Destroy(), fs::filesystem_error);
    EXPECT_EQ(0, journal.Start());
    EXPECT_EQ(0, journal.Destroy());
  }
}

TEST_F(ExtentJournalFaultTest, TheEndIgnoresItsFailures) {
  for (const Call call : {Call::kWrite, Call::kFsync, Call::kClose}) {
    fs::remove_all(Directory());
    ExtentJournal journal(Path(), false);
    StartWith(journal, 1);
    Faults::FailNth(call, 1, EIO);
  }
  EXPECT_TRUE(Faults::Fired());
  EXPECT_TRUE(HasFile());
}

// --- every call ------------------------------------------------------------------------------

/// What came of a life of a journal.
struct Life {
  bool told = false;    ///< a result or an exception told of a failure
  bool synced = false;  ///< Flush(true) has succeeded
  std::vector<Extent> out;
};

/// Records 0 to 2 written and synced, handed back, record 3 written and synced, all destroyed.
/// `note` is told of what is done.
void Live(const std::string& path, Life* life, const std::function<void(const char*)>& note) {
  const auto check = [life](int ret) { life->told = life->told || ret != 0; };
  try {
    ExtentJournal journal(path, false);
    check(journal.Start());
    for (int i = 0; i < 3; ++i) {
      check(journal.Add(NthExtent(i), ADD, 0));
    }
    const int ret = journal.Flush(true);
    check(ret);
    if (ret == 0) {
      life->synced = true;
      note("synced");
    }
    const int got = journal.Get(&life->out);
    check(got);
    if (got != 0) {
      return;  // as a table does that cannot be loaded
    }
    note("handed back");
    check(journal.Add(NthExtent(3), ADD, 0));
    check(journal.Flush(true));
    check(journal.Destroy());
  } catch (const fs::filesystem_error&) {
    life->told = true;
  }
}

TEST_F(ExtentJournalFaultTest, EachCallThatFailsOnceOrForGoodIsToldAndLosesNothingSynced) {
  int runs = 0;
  for (const Call call : kAllCalls) {
    for (const bool forGood : {false, true}) {
      const int descriptors = OpenDescriptors();
      const int disturbed = Faults::UntilNoneFires([&](int nth) {
        SCOPED_TRACE("call kind " + std::to_string(static_cast<int>(call)) + ", number " +
                     std::to_string(nth) + (forGood ? ", for good" : ", once"));
        fs::remove_all(Directory());
        Faults::FailNth(call, nth, EIO, forGood);
        Life life;
        Live(Path(), &life, [](const char*) {});
        Faults::Disarm();
        // That a removal may not last yet is told by the log only.
        life.told = life.told || ToldThatNamesAreNotSynced();
        if (call == Call::kRead) {
          EXPECT_FALSE(life.told) << "a failed read ends the file";
        } else if (call == Call::kClose || call == Call::kStat) {
          EXPECT_TRUE(life.told || life.out.size() == 3) << "what is not told does no harm";
        } else {
          EXPECT_EQ(Faults::Fired(), life.told);
        }
        EXPECT_EQ(descriptors, OpenDescriptors());
        if (life.synced && call != Call::kRead && life.out.empty()) {
          const std::string left = HasFile() ? BytesOf(Path()) : BytesOf(ReplayPath());
          EXPECT_EQ(EncodedMany(3), left.substr(0, EncodedMany(3).size()));
        }
        Life again;
        fs::remove_all(Directory());
        Live(Path(), &again, [](const char*) {});
        EXPECT_FALSE(again.told);
        EXPECT_EQ(3U, again.out.size());
        EXPECT_FALSE(HasFile() || HasReplayFile());
      });
      EXPECT_GT(disturbed, 0) << "call kind " << static_cast<int>(call);
      runs += disturbed;
    }
  }
  RecordProperty("disturbed_runs", runs);
}

/// What may lie in the files of a life that ended at a `call`, given what it had noted.
std::vector<std::string> PossibleBytes(Call call, bool synced, bool handedBack,
                                       const std::string& three, const std::string& last) {
  if (handedBack) {
    return {"", last};
  }
  if (!synced) {
    return {"", three};
  }
  // Between the removal of the replay file and the end of Get only these two are called.
  return call == Call::kOpen || call == Call::kStat ? std::vector<std::string>{three, ""}
                                                    : std::vector<std::string>{three};
}

TEST_F(ExtentJournalFaultTest, AProcessThatDiesAtAnyCallLeavesFilesThatTheNextLifeTakes) {
  const TempDir notes;
  int deaths = 0;
  for (const Call call : kAllCalls) {
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE("call kind " + std::to_string(static_cast<int>(call)) + ", number " +
                   std::to_string(nth));
      fs::remove_all(Directory());
      fs::remove(notes / "synced");
      fs::remove(notes / "handed back");
      const int status = RunInChild([&] {
        Faults::KillNth(call, nth);
        Life life;
        Live(Path(), &life, [&](const char* note) { WriteBytes(notes / note, ""); });
      });
      if (EndedWell(status)) {
        break;
      }
      ASSERT_TRUE(DiedBy(status, SIGKILL));
      ++deaths;
      EXPECT_FALSE(HasFile() && HasReplayFile());
      const std::string inJournal = BytesOf(Path());
      EXPECT_THAT(
          PossibleBytes(call, fs::exists(notes / "synced"), fs::exists(notes / "handed back"),
                        EncodedMany(3), EncodedMany(1, 3)),
          testing::Contains(inJournal + BytesOf(ReplayPath())));
      ExtentJournal journal(Path(), false);
      std::vector<Extent> out;
      ASSERT_EQ(0, journal.Start());
      EXPECT_EQ(0, journal.Get(&out));
      EXPECT_EQ(inJournal, Encoded(out));
      EXPECT_EQ(0, journal.Destroy());
      EXPECT_FALSE(HasFile() || HasReplayFile());
    }
  }
  RecordProperty("deaths", deaths);
  EXPECT_GT(deaths, 15);
}

}  // namespace
