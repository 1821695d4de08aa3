// A merge from its start to the switch of the files: which databases are open, which files are
// there, what the log says, and what becomes of the thread.

#include <cerrno>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/persistent/close_trace.h"
#include "tests/persistent/merge_fixture.h"
#include "tests/persistent/thread_switch.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const Records kFull = {Stored(0, 100, 70)};
const Records kSmall = {Stored(40, 60, 80)};
const Records kMerged = {CutOf(0, 0, 40, 70), Stored(40, 60, 80), CutOf(0, 60, 100, 70)};

class MergeSwitchTest : public MergeTest {
 protected:
  void WithBloom() { Set(&Config::persistBloom, std::uint8_t{1}); }
  /// The message that ends a merge which has begun, and failed without a code of its own.
  static constexpr const char* kFailed =
      "8 Failed to merge db, the performance is potentially impacted, return value is 0";
};

// --- one merge ---------------------------------------------------------------------------------

TEST_F(MergeSwitchTest, TheUnionReplacesTheFullDatabaseAndTheTmpDatabaseTheSmallOne) {
  LoadBoth(kFull, kSmall);
  const std::set<std::string> before = Files();
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_THAT(
      Lines(),
      ElementsAre("0 CMappingLMDB::SetupDBEnv, dbPath=" + Path("tmp.mdb"),
                  "0 CMappingLMDB::CheckAndCreateDir()", "0 Removed file " + Path("mergedb"),
                  "0 CMappingLMDB::SetupDBEnv, dbPath=" + Path("mergedb"),
                  "0 CMappingLMDB::mergeDBs()", "0 Modify EndOff 100 to 40",
                  "0 merge is done, begin to switch db", "0 CMappingLMDB::ClearDBEnv()",
                  "0 CMappingLMDB::ClearDBEnv()", "0 CMappingLMDB::ClearDBEnv()",
                  "0 rename merged db " + Path("mergedb") + " to fulldb " + Path("data.mdb"),
                  "0 CMappingLMDB::ClearDBEnv()",
                  "0 CMappingLMDB::SetupDBEnv, dbPath=" + Path("lsml0.mdb"),
                  "0 CMappingLMDB::SetupDBEnv, dbPath=" + Path("data.mdb")));
  ExpectNoMerge();
  EXPECT_EQ(before, Files());
  EXPECT_EQ(kMerged, Full());
  EXPECT_THAT(All(peer().smallDb()), IsEmpty()) << "not even special items";
  EXPECT_THAT(peer().mergeThreads(), IsEmpty());
  EXPECT_FALSE(peer().mergeSwitched());
  EXPECT_EQ(0, MapsOf("mergedb"));
  EXPECT_EQ(0, MapsOf("tmp.mdb"));
  EXPECT_THAT(Walk(table()), ElementsAre("[0, 40) 70 70000 700", "[40, 60) 80 80000 800",
                                         "[60, 100) 70 70060 700"));
}

TEST_F(MergeSwitchTest, TheFilesThatItReplacesAreFreedWhenNobodyWaitsForItAnyMore) {
  LoadBoth(kFull, kSmall);
  const auto inodeOf = [this](const std::string& name) {
    struct stat status {};
    EXPECT_EQ(0, ::stat(Path(name).c_str(), &status));
    return status.st_ino;
  };
  const std::set<ino_t> replaced = {inodeOf("data.mdb"), inodeOf("lsml0.mdb")};
  std::multiset<ino_t> freed;
  AtCloseOfReplaced([&](ino_t inode) {
    freed.insert(inode);
    EXPECT_EQ(Held::kNot, TableLock());
    EXPECT_FALSE(peer().merging()) << "a flush may find that the next one is due";
    EXPECT_EQ(kMerged, Full());
  });
  EXPECT_EQ(0, peer().MergeAndSwitch());
  AtCloseOfReplaced({});
  EXPECT_EQ(std::multiset<ino_t>(replaced.begin(), replaced.end()), freed);
}

TEST_F(MergeSwitchTest, NoHostIsAsked) {
  LoadBoth(kFull, kSmall);
  WriteNode(0, 10, Ready(Oid(90)));
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_THAT(cache_.asked_, IsEmpty());
  EXPECT_THAT(cache_.protected_, IsEmpty());
  EXPECT_THAT(Cached(), ElementsAre(10)) << "the cache is none of its business";
}

TEST_F(MergeSwitchTest, ATmpDatabaseThatIsOpenAlreadyStaysAndBecomesTheSmallOne) {
  LoadBoth(kFull, kSmall, Records{Stored(50, 55, 90)});
  EXPECT_EQ("tmp small full ", Chain());
  EXPECT_EQ(0, peer().MergeAndSwitch());
  const auto lines = Lines();
  EXPECT_EQ("0 CMappingLMDB::CheckAndCreateDir()", lines.front()) << "nothing is set up for it";
  ExpectNoMerge();
  EXPECT_EQ(kMerged, Full());
  EXPECT_EQ(Records({Stored(50, 55, 90)}), Small());
}

TEST_F(MergeSwitchTest, TheCounterThatFlushesWroteIntoTheTmpDatabaseComesAlong) {
  LoadBoth({}, {}, Records{{kPlainCommitCounterKey, SpecialBytes(std::int64_t{3})}});
  peer().commitCounter() = 5;
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_EQ(SpecialBytes(std::int64_t{3}), Special(peer().smallDb()).at(kPlainCommitCounterKey));
  EXPECT_EQ(5, peer().commitCounter());
}

TEST_F(MergeSwitchTest, WhatAnEarlierMergeLeftIsRemovedFirst) {
  LoadBoth(kFull, kSmall);
  WriteBytes(File("mergedb"), "rubbish");
  WriteBytes(File("mergedb-lock"), "rubbish");
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_THAT(Lines(kLogStep), IsEmpty());
  ExpectNoMerge();
  EXPECT_EQ(kMerged, Full());
}

TEST_F(MergeSwitchTest, AMergeThatFindsAnotherUnderWayTouchesNothing) {
  LoadBoth(kFull, kSmall);
  const std::set<std::string> before = Files();
  peer().merging() = true;
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_THAT(Lines(), ElementsAre("2 already merging, just exist"));
  EXPECT_TRUE(peer().merging());
  EXPECT_EQ(before, Files());
  EXPECT_EQ("small full ", Chain());
  EXPECT_EQ(Held::kNot, TableLock());
  peer().merging() = false;
}

TEST_F(MergeSwitchTest, AnyNumberOfMergesMayFollowEachOther) {
  LoadBoth(kFull, kSmall);
  for (long i = 0; i < 5; ++i) {
    WriteKnown(i * 10, i * 10 + 5, Oid(100 + static_cast<std::uint64_t>(i)));
    Flush();
    EXPECT_EQ(0, peer().MergeAndSwitch());
    ExpectNoMerge();
  }
  EXPECT_THAT(Walk(table()), SizeIs(11));
  EXPECT_THAT(Lines(kLogRecoverable), IsEmpty());
}

TEST_F(MergeSwitchTest, ATableWithAPrefixMergesItsOwnFiles) {
  WithBloom();
  Write("p.data.mdb", kFull);
  Write("p.lsml0.mdb", kSmall);
  Load("PROVISION", "p.");
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_EQ(kMerged, Full());
  for (const std::string& name : Files()) {
    EXPECT_EQ(0U, name.find("p.")) << name;
  }
  EXPECT_TRUE(fs::exists(File("p.bloom")));
}

// --- the bloom file ----------------------------------------------------------------------------

TEST_F(MergeSwitchTest, TheBloomFileOfTheMergeReplacesTheOldOneAtTheEnd) {
  WithBloom();
  LoadBoth(kFull, kSmall);
  WriteBytes(File("bloom"), "old");
  WriteBytes(File("bloom.merge"), "left by an earlier merge");
  EXPECT_EQ(0, peer().MergeAndSwitch());
  ExpectNoMerge();
  EXPECT_THAT(ReadBloomFile(File("bloom")).refs, SizeIs(2));
  EXPECT_FALSE(peer().mergeSwitched());
  const auto steps = Lines(kLogStep);
  ASSERT_THAT(steps, SizeIs(1));
  EXPECT_EQ(0U, steps[0].find("1 remove file " + Path("bloom.merge") + ", return is 0; errno is "));
}

TEST_F(MergeSwitchTest, ABloomFileThatCannotBeRemovedIsEmptiedLestItIsTakenForTheNewOne) {
  WithBloom();
  LoadBoth(kFull, kSmall);
  WriteBytes(File("bloom.merge"), std::string(1000, 'x'));
  Lines();
  const WatchCalls watch(Directory().string());
  Faults::FailNth(Call::kUnlink, 1, EACCES);
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_TRUE(Faults::Fired());
  EXPECT_THAT(ReadBloomFile(File("bloom")).refs, SizeIs(2));
  EXPECT_THAT(Lines(kLogStep),
              ElementsAre("1 remove file " + Path("bloom.merge") + ", return is -1; errno is 13"));
}

TEST_F(MergeSwitchTest, WhereTheRenameOfTheBloomFileFailsTheMergeStandsAndTheOldFileGoes) {
  WithBloom();
  LoadBoth(kFull, kSmall);
  WriteBytes(File("bloom"), "old");
  fs::create_directories(File("bloom.merge"));  // neither removed, nor opened, nor put over a file
  EXPECT_EQ(-1, peer().MergeAndSwitch());
  const auto lines = Lines(kLogStep);
  ASSERT_THAT(lines, SizeIs(4));
  EXPECT_EQ(0U, lines[0].find("1 remove file " + Path("bloom.merge") + ", return is -1; errno is"));
  EXPECT_EQ("8 failed to open file " + Path("bloom.merge") + ", errno is 21", lines[1]);
  EXPECT_EQ("8 Failed to store the bloom in file " + Path("bloom.merge"), lines[2]);
  EXPECT_EQ("8 Failed to rename dcid/fp list file, ret=-1", lines[3]);
  EXPECT_TRUE(peer().mergeSwitched());
  EXPECT_FALSE(fs::exists(File("bloom"))) << "it would deny what the merge brought in";
  fs::remove(File("bloom.merge"));
  ExpectNoMerge();
  EXPECT_EQ(kMerged, Full());
}

TEST_F(MergeSwitchTest, WithoutBloomFilesAnOldOneIsLeftAlone) {
  LoadBoth(kFull, kSmall);
  WriteBytes(File("bloom"), "old");
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_EQ("old", BytesOf(File("bloom")));
  EXPECT_THAT(Lines(kLogStep), IsEmpty());
}

TEST_F(MergeSwitchTest, WithoutBloomFilesOneThatAMergeLeftIsTakenOverAllTheSame) {
  LoadBoth(kFull, kSmall);
  WriteBytes(File("bloom.merge"), "left");
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_EQ("left", BytesOf(File("bloom")));
  ExpectNoFile({"bloom.merge"});
}

// --- files that are in the way -----------------------------------------------------------------

TEST_F(MergeSwitchTest, WhatCannotBeRemovedEndsTheMergeBeforeItIsWritten) {
  LoadBoth(kFull, kSmall);
  fs::create_directories(File("mergedb") / "something");
  EXPECT_EQ(5, CodeOf([this] { peer().MergeAndSwitch(); }));
  EXPECT_THAT(Lines(kLogStep),
              ElementsAre("2 Failed to remove old merge db for " + Path("mergedb")));
  ExpectFailedMerge();
  EXPECT_EQ(nullptr, Peer::MergeThreadMain(&table()));
  EXPECT_THAT(Lines(kLogStep), ElementsAre("2 Failed to remove old merge db for " + Path("mergedb"),
                                           "8 Failed to launch merge thread"));
  fs::remove_all(File("mergedb"));
  Flush();
  peer().WaitingForMerge();
  EXPECT_THAT(Lines(kLogStep), ElementsAre("2 start merging, small table entires is 0 "
                                           "tableCommitCounter 0, commit time 0, tmpdb 1"));
  ExpectNoMerge();
  EXPECT_EQ(kMerged, Full());
}

TEST_F(MergeSwitchTest, WhereTheFullDatabaseCannotBeReplacedTheTableHasLostItUntilItIsLoadedAgain) {
  LoadBoth(kFull, kSmall);
  fs::remove(File("data.mdb"));
  fs::create_directories(File("data.mdb"));
  EXPECT_EQ(0, peer().MergeAndSwitch()) << "the last code that was seen";
  EXPECT_THAT(Lines(kLogStep), ElementsAre(kFailed));
  EXPECT_FALSE(peer().merging());
  EXPECT_EQ(Held::kNot, TableLock());
  EXPECT_EQ("tmp small full ", Chain());
  EXPECT_FALSE(peer().smallDb().opened);
  EXPECT_FALSE(peer().fullDb().opened);
  EXPECT_THROW(table().lower_bound(0, nullptr), Aldenta::Qnd::Morene::Zefs::SysException);
  Close();
  fs::remove(File("data.mdb"));
  Load();
  EXPECT_EQ(Records({Stored(40, 60, 80)}), Small());
  EXPECT_EQ(kMerged, Full()) << "the finished merge is taken over";
}

// --- the thread --------------------------------------------------------------------------------

TEST_F(MergeSwitchTest, AThreadMergesAndStaysUntilSomebodyWaitsForIt) {
  LoadBoth(kFull, kSmall);
  TakeThreadCount();
  peer().StartMergeThread();
  EXPECT_THAT(peer().mergeThreads(), SizeIs(1));
  EXPECT_EQ(1, TakeThreadCount());
  peer().WaitingForMerge();
  EXPECT_THAT(peer().mergeThreads(), IsEmpty());
  ExpectNoMerge();
  EXPECT_EQ(kMerged, Full());
  Lines();
  peer().WaitingForMerge();
  EXPECT_THAT(Lines(), IsEmpty()) << "without a thread there is nothing to wait for";
}

TEST_F(MergeSwitchTest, TheDestructorWaitsForTheMerge) {
  LoadBoth(kFull, kSmall);
  peer().StartMergeThread();
  Destroy();
  EXPECT_EQ(Records(), ReadPlainDatabase(File("lsml0.mdb")));
  const Records full = ReadPlainDatabase(File("data.mdb"));
  EXPECT_EQ(kMerged, Records(full.begin() + 4, full.end()));
  ExpectNoFile({"tmp.mdb", "mergedb", "data.mdb-lock", "lsml0.mdb-lock"});
}

TEST_F(MergeSwitchTest, AThreadThatCannotBeCreatedIsNotWaitedFor) {
  LoadBoth(kFull, kSmall);
  FailNextThread(EAGAIN);
  EXPECT_EQ(EAGAIN, CodeOf([this] { peer().StartMergeThread(); }));
  EXPECT_THAT(Lines(), ElementsAre("8 Failed to create a thread for merge, return is 11"));
  EXPECT_THAT(peer().mergeThreads(), ElementsAre(pthread_t{}));
  EXPECT_FALSE(peer().merging());
  EXPECT_TRUE(peer().mergeMutex().try_lock());
  peer().mergeMutex().unlock();
  peer().WaitingForMerge();
  EXPECT_THAT(Lines(), ElementsAre("8 Failed to join a thread, return value 3"));
  EXPECT_THAT(peer().mergeThreads(), IsEmpty());
  ExpectNoMerge();
}

TEST_F(MergeSwitchTest, AFlushThatCannotStartAThreadThrowsAndTheNextStartsOne) {
  LoadBoth(kFull, kSmall);
  Set(&Config::mergeCommitCountThreshold, 0U);
  WriteKnown(10, 20, Oid(90));
  FailNextThread(EAGAIN);
  EXPECT_EQ(EAGAIN, CodeOf([this] { Flush(); }));
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
  EXPECT_EQ(1, peer().commitCounter()) << "no merge was started";
  EXPECT_THAT(Cached(), IsEmpty()) << "the commit stands";
  Lines();
  Flush();
  EXPECT_EQ(0, peer().commitCounter());
  peer().WaitingForMerge();
  EXPECT_EQ("8 Failed to join a thread, return value 3", Lines(kLogFailure).at(0));
  ExpectNoMerge();
  EXPECT_THAT(Full(), SizeIs(5));
}

TEST_F(MergeSwitchTest, TheThreadOfNoTableDoesNothing) {
  EXPECT_EQ(nullptr, Peer::MergeThreadMain(nullptr));
  EXPECT_THAT(Lines(), IsEmpty());
}

}  // namespace
}  // namespace zefs::test
