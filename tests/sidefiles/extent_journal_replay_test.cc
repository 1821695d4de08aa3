// Journals that a former life left: handing the records back.

#include <cerrno>

#include "sidefiles/extent_journal.h"
#include "tests/sidefiles/extent_journal_fixture.h"

namespace {

namespace fs = boost::filesystem;
using namespace zefs::test;

using Peer = ExtentJournalTestPeer;

class ExtentJournalReplayTest : public ExtentJournalFixture {};

TEST_F(ExtentJournalReplayTest, GetWithoutAFileIsAnEmptyListEvenIfNeverStarted) {
  ExtentJournal journal(Path(), false);
  std::vector<Extent> out(3);
  EXPECT_EQ(0, journal.Get(&out));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ((Log{{1, "Get"}}), TakeLog());
}

TEST_F(ExtentJournalReplayTest, GetOfNoListIsRefused) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  TakeLog();
  EXPECT_EQ(-1, journal.Get(nullptr));
  EXPECT_EQ((Log{{1, "Get"}}), TakeLog());
}

TEST_F(ExtentJournalReplayTest, GetWithAFileNeedsAStartedJournal) {
  fs::create_directory(Directory());
  WriteBytes(Path(), EncodedMany(1));
  ExtentJournal journal(Path(), false);
  std::vector<Extent> out(3);
  EXPECT_EQ(-1, journal.Get(&out));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ((Log{{1, "Get"},
                 {1, "Flush, path_=" + Path()},
                 {8, "failed to flush journal file: " + Path() + ", ret=-1"}}),
            TakeLog());
  EXPECT_EQ(EncodedMany(1), BytesOf(Path()));
}

TEST_F(ExtentJournalReplayTest, GetFlushesHandsAllBackAndStartsAnEmptyJournal) {
  fs::create_directory(Directory());
  WriteBytes(Path(), EncodedMany(2));
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  const std::string fd = std::to_string(Peer::Descriptor(journal));
  AddMany(journal, 1, 2);
  TakeLog();
  std::vector<Extent> out(7);
  EXPECT_EQ(0, journal.Get(&out));
  EXPECT_EQ(EncodedMany(3), Encoded(out));
  EXPECT_EQ((Log{{1, "Get"},
                 {1, "Flush, path_=" + Path()},
                 {1, "Write, path_=" + Path() + ", ext=1"},
                 {1, "fd_=" + fd + ", path_=" + Path() + ", write=80, size=1, ret=80"},
                 {1, "extent journal stop, path=" + Path()},
                 {1, "Total extent in journal:32768"},
                 {2, "replay extent count:3, path_=" + Path()},
                 {1, "extent journal start, path=" + Path()}}),
            TakeLog());
  EXPECT_EQ(State::kRunning, StateOf(journal, HasFile()));
  EXPECT_EQ("", BytesOf(Path()));
  EXPECT_FALSE(HasReplayFile());
  EXPECT_EQ(0, journal.Get(&out));
  EXPECT_TRUE(out.empty()) << "they are handed back once";
  EXPECT_EQ(0, AddMany(journal, 1, 9));
  EXPECT_EQ(0, journal.Flush(true));
  EXPECT_EQ(EncodedMany(1, 9), BytesOf(Path()));
}

TEST_F(ExtentJournalReplayTest, ReplayKeepsTheOrderAndTheOps) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  EXPECT_EQ(0, journal.Add(NthExtent(5), DEL, 0));
  EXPECT_EQ(0, journal.Add(NthExtent(5), ADD, 0));
  EXPECT_EQ(0, journal.Add(NthExtent(1), ADD, 0));
  ASSERT_EQ(0, journal.Flush(false));
  std::vector<Extent> out;
  ASSERT_EQ(0, journal.Replay(&out));
  ASSERT_EQ(3U, out.size());
  EXPECT_EQ(DEL, out[0].op);
  EXPECT_EQ(ADD, out[1].op);
  EXPECT_EQ(NthExtent(5).end, out[1].end);
  EXPECT_EQ(NthExtent(1).end, out[2].end);
}

TEST_F(ExtentJournalReplayTest, ReplayAloneLeavesBufferedRecordsInTheBuffer) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  AddMany(journal, 2);
  std::vector<Extent> out;
  EXPECT_EQ(0, journal.Replay(&out));
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(2U, Buffered(journal));
}

TEST_F(ExtentJournalReplayTest, ReplayWithoutAFileFailsAtTheRename) {
  ExtentJournal journal(Path(), false);
  std::vector<Extent> out;
  EXPECT_EQ(-1, journal.Replay(&out));
  EXPECT_EQ(
      (Log{{8, "failed to rename file, from=" + Path() + ", to=" + ReplayPath() + ", ret=-1"}}),
      TakeLog());
}

TEST_F(ExtentJournalReplayTest, ReplayTakesAStaleReplayFileAway) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  WriteBytes(ReplayPath(), EncodedMany(5, 100));
  AddMany(journal, 1);
  std::vector<Extent> out;
  EXPECT_EQ(0, journal.Get(&out));
  EXPECT_EQ(EncodedMany(1), Encoded(out));
  EXPECT_FALSE(HasReplayFile());
}

TEST_F(ExtentJournalReplayTest, AReplayFileThatSeemsGoneIsNotRemovedAndNoFailure) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  AddMany(journal, 1);
  ASSERT_EQ(0, journal.Flush(false));
  WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kStat, 1, ENOENT);
  std::vector<Extent> out;
  EXPECT_EQ(0, journal.Replay(&out));
  EXPECT_EQ(EncodedMany(1), Encoded(out));
  EXPECT_EQ(0, Faults::Count(Call::kUnlink));
  EXPECT_TRUE(HasReplayFile());
  EXPECT_EQ(State::kRunning, StateOf(journal, HasFile()));
}

TEST_F(ExtentJournalReplayTest, AStaleReplayFileAloneIsNoJournalAndStaysUntilDestroy) {
  fs::create_directory(Directory());
  WriteBytes(ReplayPath(), EncodedMany(5));
  ExtentJournal journal(Path(), false);
  EXPECT_FALSE(journal.HasJournal());
  std::vector<Extent> out;
  EXPECT_EQ(0, journal.Get(&out));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(HasReplayFile());
  EXPECT_EQ(0, journal.Destroy());
  EXPECT_FALSE(HasReplayFile());
}

TEST_F(ExtentJournalReplayTest, HasJournalFollowsLinksAndTakesWhateverIsThere) {
  fs::create_directory(Directory());
  ExtentJournal journal(Path(), false);
  EXPECT_FALSE(journal.HasJournal());
  fs::create_symlink("target", Path());
  EXPECT_FALSE(journal.HasJournal()) << "a link to nowhere";
  WriteBytes(Directory() / "target", "");
  EXPECT_TRUE(journal.HasJournal());
  fs::remove(Path());
  fs::create_directory(Path());
  EXPECT_TRUE(journal.HasJournal());
  EXPECT_EQ(Log{}, TakeLog());
}

TEST_F(ExtentJournalReplayTest, HasJournalThrowsWhereThePathCannotBeLookedAt) {
  fs::create_symlink("loop", dir_ / "loop");
  ExtentJournal journal((dir_ / "loop" / "journal").string(), false);
  EXPECT_THROW(journal.HasJournal(), fs::filesystem_error);
  std::vector<Extent> out;
  EXPECT_THROW(journal.Get(&out), fs::filesystem_error);
}

}  // namespace
