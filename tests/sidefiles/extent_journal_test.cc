// What each operation returns, logs and leaves behind.

#include "sidefiles/extent_journal.h"

#include <cerrno>
#include <sstream>
#include <unistd.h>

#include <sys/stat.h>

#include "refhost/host/cpu_accounting.h"
#include "support/cpu_counters.h"
#include "tests/sidefiles/extent_journal_fixture.h"
#include "tests/sidefiles/nommap_recorder.h"

namespace {

namespace fs = boost::filesystem;
using namespace zefs::test;

using Peer = ExtentJournalTestPeer;

class ExtentJournalTest : public ExtentJournalFixture {};

// --- construction and states -----------------------------------------------------------------

TEST_F(ExtentJournalTest, ConstructionTouchesNoFileAndIsIdle) {
  const ExtentJournal journal(Path(), false);
  EXPECT_EQ(State::kIdle, StateOf(journal, HasFile()));
  EXPECT_FALSE(fs::exists(Directory()));
  EXPECT_EQ(Path() + ".rep", Peer::ReplayPath(journal));
  EXPECT_EQ(0U, Buffered(journal));
  EXPECT_EQ(Log{}, TakeLog());
}

TEST_F(ExtentJournalTest, NamesAreThoseOfTheTableDirectory) {
  EXPECT_STREQ("journal", ExtentJournal::JOURNAL_FILENAME);
  EXPECT_STREQ(".rep", ExtentJournal::REPLAY_EXTENTION);
}

TEST_F(ExtentJournalTest, AStoppedJournalGoesOnWhereItWas) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  AddMany(journal, 2);
  EXPECT_EQ(0, journal.Flush(true));
  EXPECT_EQ(0, journal.Add(NthExtent(2), ADD, 0));
  EXPECT_EQ(0, journal.Close());
  EXPECT_EQ(1U, Buffered(journal)) << "stopping drops no record";
  ASSERT_EQ(0, journal.Start());
  EXPECT_EQ(0, journal.Add(NthExtent(3), ADD, 0));
  EXPECT_EQ(0, journal.Flush(false));
  EXPECT_EQ(EncodedMany(4), BytesOf(Path()));
}

// --- Open and Start --------------------------------------------------------------------------

TEST_F(ExtentJournalTest, StartMakesTheDirectoriesAndAnEmptyFileForItsOwner) {
  const mode_t before = ::umask(0);
  const std::string path = (dir_ / "a" / "b" / "journal").string();
  ExtentJournal journal(path, false);
  EXPECT_EQ(0, journal.Start());
  ::umask(before);
  struct stat status {};
  ASSERT_EQ(0, ::stat(path.c_str(), &status));
  EXPECT_EQ(0600U, status.st_mode & 07777U);
  EXPECT_EQ(0, status.st_size);
  EXPECT_EQ((Log{{1, "extent journal start, path=" + path}}), TakeLog());
  EXPECT_EQ(0, journal.Start()) << "a second start finds it open";
  EXPECT_EQ((Log{{1, "extent journal start, path=" + path}}), TakeLog());
}

TEST_F(ExtentJournalTest, APathWithoutADirectoryMakesNone) {
  const fs::path before = fs::current_path();
  fs::current_path(dir_.path());
  {
    ExtentJournal journal("journal", false);
    EXPECT_EQ(0, journal.Start());
    EXPECT_TRUE(journal.HasJournal());
    EXPECT_EQ((Log{{1, "extent journal start, path=journal"}}), TakeLog());
  }
  fs::current_path(before);
  EXPECT_TRUE(fs::exists(dir_ / "journal"));
}

TEST_F(ExtentJournalTest, AFileInPlaceOfTheDirectoryFailsAtTheOpen) {
  WriteBytes(Directory(), "x");
  ExtentJournal journal(Path(), false);
  EXPECT_EQ(-1, journal.Start());
  EXPECT_EQ((Log{{8, "failed to open journal file: " + Path() + ", errno: " +
                         std::to_string(ENOTDIR) + ", err: " + std::strerror(ENOTDIR)}}),
            TakeLog());
  EXPECT_EQ(-1, Peer::Descriptor(journal));
  EXPECT_FALSE(Peer::Opened(journal) || Peer::Started(journal));
  fs::remove(Directory());
  EXPECT_EQ(0, journal.Start()) << "the lock is free, the next start works";
}

TEST_F(ExtentJournalTest, ADirectoryBelowAFileGivesTheErrorNumberOfItsCreation) {
  WriteBytes(Directory(), "x");
  const fs::path parent = Directory() / "below";
  ExtentJournal journal((parent / "journal").string(), false);
  EXPECT_EQ(ENOTDIR, journal.Start());
  EXPECT_EQ((Log{{8, "failed to create path: " + parent.string() +
                         ", errno: " + std::to_string(ENOTDIR)}}),
            TakeLog());
}

TEST_F(ExtentJournalTest, ADirectoryThatCannotBeMadeGivesItsErrorNumber) {
  WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kMkdir, 1, ENOSPC);
  ExtentJournal journal(Path(), false);
  EXPECT_EQ(ENOSPC, journal.Start());
  EXPECT_EQ((Log{{8, "failed to create path: " + Directory().string() +
                         ", errno: " + std::to_string(ENOSPC)}}),
            TakeLog());
  EXPECT_EQ(State::kIdle, StateOf(journal, HasFile()));
}

TEST_F(ExtentJournalTest, ADirectoryThatCannotBeLookedAtGivesMinusTwo) {
  fs::create_symlink("loop", dir_ / "loop");
  const fs::path parent = dir_ / "loop" / "x";
  std::string what;
  try {
    fs::status(parent);
  } catch (const fs::filesystem_error& e) {
    what = e.what();
  }
  ASSERT_NE("", what);
  ExtentJournal journal((parent / "journal").string(), false);
  EXPECT_EQ(-2, journal.Start());
  EXPECT_EQ((Log{{8, "failed to create path: " + parent.string() + ", err: " + what}}), TakeLog());
}

TEST_F(ExtentJournalTest, ADirectoryThatSomebodyElseMakesFirstIsFine) {
  fs::create_directory(Directory());
  WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kStat, 1, ENOENT);
  ExtentJournal journal(Path(), false);
  EXPECT_EQ(0, journal.Start());
  EXPECT_TRUE(Faults::Fired());
  EXPECT_EQ((Log{{1, "extent journal start, path=" + Path()}}), TakeLog());
}

TEST_F(ExtentJournalTest, NoMmapIsAskedForEachFile) {
  TakeNommapCalls();
  ExtentJournal journal(Path(), true);
  ASSERT_EQ(0, journal.Start());
  const int fd = Peer::Descriptor(journal);
  EXPECT_EQ((std::vector<std::pair<std::string, int>>{{Path(), fd}}), TakeNommapCalls());
  std::vector<Extent> out;
  ASSERT_EQ(0, journal.Replay(&out));
  EXPECT_EQ((std::vector<std::pair<std::string, int>>{{ReplayPath(), -1},
                                                      {Path(), Peer::Descriptor(journal)}}),
            TakeNommapCalls());
  ExtentJournal without((dir_ / "other" / "journal").string(), false);
  ASSERT_EQ(0, without.Start());
  ASSERT_EQ(0, without.Replay(&out));
  EXPECT_TRUE(TakeNommapCalls().empty());
}

// --- Add and Del -----------------------------------------------------------------------------

TEST_F(ExtentJournalTest, AddOnAJournalThatDoesNotRunIsSilentAndKeepsNothing) {
  ExtentJournal journal(Path(), false);
  EXPECT_EQ(-1, journal.Add(NthExtent(0), ADD, 0));
  ASSERT_EQ(0, journal.Open());
  EXPECT_EQ(-1, journal.Add(NthExtent(0), ADD, 0)) << "open, but not started";
  EXPECT_EQ(Log{}, TakeLog());
  EXPECT_EQ(0U, Buffered(journal));
}

TEST_F(ExtentJournalTest, AddAndDelOfFieldsLogFirst) {
  ExtentJournal journal(Path(), false);
  EXPECT_EQ(-1, journal.Add(0, 10, 0, 64, {}, 0));
  EXPECT_EQ(-1, journal.Del(0, 10, 0, 64, {}, 0));
  EXPECT_EQ((Log{{0, "Add, path_=" + Path()}, {0, "Del, path_=" + Path()}}), TakeLog());
  ASSERT_EQ(0, journal.Start());
  TakeLog();
  EXPECT_EQ(0, journal.Add(0, 10, 0, 64, {}, 0));
  EXPECT_EQ(0, journal.Del(0, 10, 0, 64, {}, 0));
  EXPECT_EQ((Log{{0, "Add, path_=" + Path()}, {0, "Del, path_=" + Path()}}), TakeLog());
  EXPECT_EQ(2U, Buffered(journal));
}

TEST_F(ExtentJournalTest, TagAndOpAreThoseOfTheArguments) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  Extent given = NthExtent(3);
  given.tag = 77;
  given.op = DEL;
  EXPECT_EQ(0, journal.Add(given, ADD, 5));
  EXPECT_EQ(0, journal.Del(given.start, given.end, given.offset, given.dcid, given.fp, 6));
  EXPECT_EQ(0, journal.Add(given.start, given.end, given.offset, given.dcid, given.fp, 7));
  EXPECT_EQ(0, journal.Add(given, op_t{9}, 8));
  ASSERT_EQ(0, journal.Flush(false));
  std::string expected;
  const std::pair<unsigned long, op_t> rows[] = {{5, ADD}, {6, DEL}, {7, ADD}, {8, op_t{9}}};
  for (const auto& [tag, op] : rows) {
    given.tag = tag;
    given.op = op;
    expected += Encoded(given);
  }
  EXPECT_EQ(expected, BytesOf(Path()));
}

TEST_F(ExtentJournalTest, TheRecordThatFillsTheBufferWritesAllWithoutASync) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  WatchCalls watch(dir_.path().string());
  EXPECT_EQ(0, AddMany(journal, kLimit - 1));
  EXPECT_EQ(0, Faults::Count(Call::kWrite));
  EXPECT_EQ(std::size_t{kLimit - 1}, Buffered(journal));
  TakeLog();
  EXPECT_EQ(0, journal.Add(NthExtent(kLimit - 1), ADD, 0));
  EXPECT_EQ((std::vector<std::size_t>{1310720}), Faults::WriteSizes());
  EXPECT_EQ(0, Faults::Count(Call::kFsync));
  EXPECT_EQ(0U, Buffered(journal));
  const std::string fd = std::to_string(Peer::Descriptor(journal));
  EXPECT_EQ(
      (Log{{1, "Flush, path_=" + Path()},
           {1, "Write, path_=" + Path() + ", ext=16384"},
           {1, "fd_=" + fd + ", path_=" + Path() + ", write=1310720, size=16384, ret=1310720"}}),
      TakeLog());
  EXPECT_EQ(EncodedMany(kLimit), BytesOf(Path()));
  EXPECT_EQ(0, journal.Add(NthExtent(0), ADD, 0));
  EXPECT_EQ(1U, Buffered(journal)) << "the next one waits again";
  EXPECT_EQ(1, Faults::Count(Call::kWrite));
}

TEST_F(ExtentJournalTest, EachFullBufferIsOneWriteAndTheRestWaitsForTheFlush) {
  const std::vector<std::pair<int, std::vector<std::size_t>>> rows = {
      {kLimit - 1, {1310640}},
      {kLimit, {1310720}},
      {kLimit + 1, {1310720, 80}},
      {2 * kLimit, {1310720, 1310720}},
      {2 * kLimit + 1, {1310720, 1310720, 80}}};
  for (const auto& [count, sizes] : rows) {
    SCOPED_TRACE(count);
    ExtentJournal journal(Path(), false);
    ASSERT_EQ(0, journal.Start());
    WatchCalls watch(dir_.path().string());
    EXPECT_EQ(0, AddMany(journal, count));
    EXPECT_EQ(static_cast<std::size_t>(count % kLimit), Buffered(journal));
    EXPECT_EQ(count / kLimit, Faults::Count(Call::kWrite));
    EXPECT_EQ(0, journal.Flush(true));
    EXPECT_EQ(sizes, Faults::WriteSizes());
    EXPECT_EQ(1, Faults::Count(Call::kFsync));
    EXPECT_TRUE(EncodedMany(count) == BytesOf(Path()));
    EXPECT_EQ(0, journal.Destroy());
  }
}

// --- Flush, Write and Sync -------------------------------------------------------------------

TEST_F(ExtentJournalTest, FlushWritesAndSyncsOnlyWhenAsked) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  WatchCalls watch(dir_.path().string());
  AddMany(journal, 3);
  TakeLog();
  EXPECT_EQ(0, journal.Flush(false));
  EXPECT_EQ(0, Faults::Count(Call::kFsync));
  const std::string fd = std::to_string(Peer::Descriptor(journal));
  EXPECT_EQ((Log{{1, "Flush, path_=" + Path()},
                 {1, "Write, path_=" + Path() + ", ext=3"},
                 {1, "fd_=" + fd + ", path_=" + Path() + ", write=240, size=3, ret=240"}}),
            TakeLog());
  EXPECT_EQ(0, journal.Flush(true)) << "nothing to write, but a sync";
  EXPECT_EQ(1, Faults::Count(Call::kFsync));
  EXPECT_EQ(1, Faults::Count(Call::kWrite));
  EXPECT_EQ((Log{{1, "Flush, path_=" + Path()}, {1, "Write, path_=" + Path() + ", ext=0"}}),
            TakeLog());
}

TEST_F(ExtentJournalTest, FlushOfAJournalThatIsNotStartedOnlyLogs) {
  ExtentJournal journal(Path(), false);
  EXPECT_EQ(-1, journal.Flush(true));
  EXPECT_EQ((Log{{1, "Flush, path_=" + Path()}}), TakeLog());
}

TEST_F(ExtentJournalTest, WriteGoesInChunks) {
  const std::vector<std::pair<int, std::vector<std::size_t>>> rows = {
      {0, {}},
      {1, {80}},
      {kLimit - 1, {1310640}},
      {kLimit, {1310720}},
      {kLimit + 1, {1310720, 80}},
      {2 * kLimit, {1310720, 1310720}},
      {2 * kLimit + 1, {1310720, 1310720, 80}}};
  for (const auto& [count, sizes] : rows) {
    SCOPED_TRACE(count);
    ExtentJournal journal(Path(), false);
    ASSERT_EQ(0, journal.Start());
    std::vector<Extent> records;
    for (int i = 0; i < count; ++i) {
      records.push_back(NthExtent(i));
    }
    WatchCalls watch(dir_.path().string());
    TakeLog();
    EXPECT_EQ(0, journal.Write(records));
    EXPECT_EQ(sizes, Faults::WriteSizes());
    Log expected{{1, "Write, path_=" + Path() + ", ext=" + std::to_string(count)}};
    const std::string chunk =
        "fd_=" + std::to_string(Peer::Descriptor(journal)) + ", path_=" + Path() + ", write=";
    for (const std::size_t size : sizes) {
      std::ostringstream line;
      line << chunk << size << ", size=" << count << ", ret=" << size;
      expected.push_back({1, line.str()});
    }
    EXPECT_EQ(expected, TakeLog());
    EXPECT_EQ(EncodedMany(count), BytesOf(Path()));
    EXPECT_EQ(0, journal.Destroy());
  }
}

TEST_F(ExtentJournalTest, SyncOfAJournalThatIsNotOpenIsSilent) {
  ExtentJournal journal(Path(), false);
  EXPECT_EQ(-1, journal.Sync());
  EXPECT_EQ(Log{}, TakeLog());
}

// --- Close, Destroy and the end --------------------------------------------------------------

TEST_F(ExtentJournalTest, CloseStopsOnceAndAlwaysSucceeds) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  TakeLog();
  EXPECT_EQ(0, journal.Close());
  EXPECT_EQ((Log{{1, "extent journal stop, path=" + Path()}}), TakeLog());
  EXPECT_EQ(0, journal.Close());
  EXPECT_EQ(Log{}, TakeLog());
  ASSERT_EQ(0, journal.Open());
  EXPECT_EQ(0, journal.Close());
  EXPECT_EQ(Log{}, TakeLog()) << "it was not started";
}

TEST_F(ExtentJournalTest, DestroyDropsBufferedRecordsAndBothFiles) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  AddMany(journal, 2);
  WriteBytes(ReplayPath(), "x");
  TakeLog();
  EXPECT_EQ(0, journal.Destroy());
  EXPECT_EQ((Log{{1, "extent journal stop, path=" + Path()},
                 {1, "Destroy extent journal with path_=" + Path()}}),
            TakeLog());
  EXPECT_FALSE(HasFile());
  EXPECT_FALSE(HasReplayFile());
  EXPECT_EQ(0U, Buffered(journal));
  EXPECT_EQ(State::kIdle, StateOf(journal, HasFile()));
  EXPECT_EQ(0, journal.Destroy()) << "with neither file present";
  EXPECT_EQ((Log{{1, "Destroy extent journal with path_=" + Path()}}), TakeLog());
}

TEST_F(ExtentJournalTest, AfterDestroyNothingIsAddedUntilTheNextStart) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  AddMany(journal, 2);
  EXPECT_EQ(0, journal.Destroy());
  EXPECT_EQ(-1, journal.Add(NthExtent(2), ADD, 0));
  EXPECT_EQ(-1, journal.Del(0, 1, 0, 64, {}, 0));
  ASSERT_EQ(0, journal.Start());
  EXPECT_EQ(0, journal.Add(NthExtent(3), ADD, 0));
  EXPECT_EQ(0, journal.Flush(true));
  EXPECT_EQ(EncodedMany(1, 3), BytesOf(Path()));
}

TEST_F(ExtentJournalTest, TheEndWritesSyncsAndKeepsTheFile) {
  WatchCalls watch(dir_.path().string());
  {
    ExtentJournal journal(Path(), false);
    ASSERT_EQ(0, journal.Start());
    AddMany(journal, 2);
  }
  EXPECT_EQ(1, Faults::Count(Call::kFsync));
  EXPECT_EQ(1, Faults::Count(Call::kClose));
  EXPECT_EQ(EncodedMany(2), BytesOf(Path()));
}

TEST_F(ExtentJournalTest, TheEndOfAClosedJournalDoesNothing) {
  WatchCalls watch(dir_.path().string());
  {
    ExtentJournal journal(Path(), false);
    ASSERT_EQ(0, journal.Start());
    AddMany(journal, 2);
    EXPECT_EQ(0, journal.Close());
    TakeLog();
  }
  EXPECT_EQ(Log{}, TakeLog());
  EXPECT_EQ("", BytesOf(Path()));
  EXPECT_EQ(0, Faults::Count(Call::kFsync));
}

TEST_F(ExtentJournalTest, ResetEmptiesTheBufferAndTouchesNoFile) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  AddMany(journal, 2);
  ASSERT_EQ(0, journal.Flush(false));
  AddMany(journal, 2);
  TakeLog();
  journal.Reset();
  EXPECT_EQ(0U, Buffered(journal));
  EXPECT_EQ(State::kRunning, StateOf(journal, HasFile()));
  EXPECT_EQ(EncodedMany(2), BytesOf(Path()));
  EXPECT_EQ(Log{}, TakeLog());
}

TEST_F(ExtentJournalTest, ReadAndReplayAreAccountedUnderTheirNames) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  std::vector<Extent> out;
  ASSERT_EQ(0, journal.Replay(&out));
  EXPECT_TRUE(extent_journal_cpu_counters.empty()) << "accounting is off";
  zefs::refhost::EnableCpuAccounting(true);
  ASSERT_EQ(0, journal.Replay(&out));
  EXPECT_EQ(-1, journal.Read(&out));
  zefs::refhost::EnableCpuAccounting(false);
  ASSERT_EQ(2U, extent_journal_cpu_counters.size());
  EXPECT_EQ(2, zefs::refhost::SumCpuCounters(extent_journal_cpu_counters.at("Read")).calls);
  EXPECT_EQ(1, zefs::refhost::SumCpuCounters(extent_journal_cpu_counters.at("Replay")).calls);
}

}  // namespace
