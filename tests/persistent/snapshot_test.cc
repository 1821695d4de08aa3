// Copies of a table.

#include <cerrno>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "host/auto_log_cpu.h"
#include "support/cpu_counters.h"
#include "tests/persistent/relocation_fixture.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned int kOwnerOnly = 0700;

class SnapshotTest : public RelocationTest {
 protected:
  int Snapshot() { return table().Snapshot(Directory().string(), Target().string()); }

  std::string TraceLine() const {
    return "0 CMappingLMDB::snapshot(), from=" + Directory().string() + ", to=" + Target().string();
  }
  std::string SuccessLine() const {
    return "2 Success to copy mdb, path=" + Target().string() + '.';
  }
};

TEST_F(SnapshotTest, IsATableOfItsOwn) {
  LoadTable();
  WriteKnown(500, 510, Oid(90));  // in the cache only: not part of it
  log_.Take();
  EXPECT_EQ(0, Snapshot());
  EXPECT_THAT(Lines(), ElementsAre(TraceLine(), SuccessLine()));
  EXPECT_EQ(BytesOf(File("data.mdb")), BytesOf(TargetFile("data.mdb")));
  EXPECT_EQ(BytesOf(File("lsml0.mdb")), BytesOf(TargetFile("lsml0.mdb")));
  EXPECT_EQ(kOwnerOnly, ModeOf(Target()));
  EXPECT_EQ(0600U, ModeOf(TargetFile("data.mdb"))) << "as the source";
  Destroy();
  ExpectToLoad(Target());
  ExpectToLoad(Directory());
}

TEST_F(SnapshotTest, TheTableGoesOnAndTheCopyStays) {
  LoadTable();
  EXPECT_EQ(0, Snapshot());
  const std::string copy = BytesOf(TargetFile("lsml0.mdb"));
  WriteKnown(500, 510, Oid(90));
  Flush();
  peer().StartMergeThread();
  peer().WaitingForMerge();
  EXPECT_EQ(6U, Walk(table()).size());
  EXPECT_EQ(copy, BytesOf(TargetFile("lsml0.mdb")));
  Destroy();
  ExpectToLoad(Target());
}

TEST_F(SnapshotTest, OnlyTheTwoDatabasesAreCopied) {
  Write("tmp.mdb", {Stored(900, 910, 99)});
  for (const char* name : {"journal", "journal.rep", "dcoffset", "bloom", "mergedb"}) {
    WriteBytes(File(name), "bytes");
  }
  LoadTable();
  EXPECT_EQ(0, Snapshot());
  EXPECT_EQ((std::set<std::string>{"data.mdb", "lsml0.mdb"}), NamesIn(Target()));
}

TEST_F(SnapshotTest, TakesTheFilesOfThePrefix) {
  Write("data.mdb", {Stored(0, 5, 99)});
  LoadTable("PROVISION", "p.");
  EXPECT_EQ(0, Snapshot());
  EXPECT_EQ((std::set<std::string>{"p.data.mdb", "p.lsml0.mdb"}), NamesIn(Target()));
  Destroy();
  ExpectToLoad(Target(), "p.");
}

TEST_F(SnapshotTest, TheSourceIsTheDirectoryThatIsNamed) {
  // After a move the databases lie elsewhere than the table was loaded from.
  LoadTable();
  fs::create_directory(dir_ / "moved");
  fs::rename(File("data.mdb"), dir_ / "moved" / "data.mdb");
  fs::rename(File("lsml0.mdb"), dir_ / "moved" / "lsml0.mdb");
  EXPECT_EQ(0, table().Snapshot((dir_ / "moved").string(), Target().string()));
  Destroy();
  ExpectToLoad(Target());
}

// --- the directory -------------------------------------------------------------------------------

TEST_F(SnapshotTest, MakesTheDirectoryAndItsParentsForTheOwnerAlone) {
  LoadTable();
  const fs::path target = Target() / "a" / "b";
  EXPECT_EQ(0, table().Snapshot(Directory().string(), target.string()));
  EXPECT_EQ(kOwnerOnly, ModeOf(Target()));
  EXPECT_EQ(kOwnerOnly, ModeOf(Target() / "a"));
  EXPECT_EQ(kOwnerOnly, ModeOf(target));
  EXPECT_EQ((std::set<std::string>{"data.mdb", "lsml0.mdb"}), NamesIn(target));
}

TEST_F(SnapshotTest, ADirectoryThatIsThereIsUsedAndClosedToOthers) {
  LoadTable();
  fs::create_directories(Target());
  fs::permissions(Target(), fs::owner_all | fs::group_all | fs::others_read);
  WriteBytes(Target() / "other", "of somebody else");
  EXPECT_EQ(0, Snapshot());
  EXPECT_EQ(kOwnerOnly, ModeOf(Target()));
  EXPECT_EQ("of somebody else", BytesOf(Target() / "other"));
}

TEST_F(SnapshotTest, ALinkToADirectoryIsFollowed) {
  LoadTable();
  fs::create_directories(dir_ / "real");
  fs::create_symlink(dir_ / "real", Target());
  EXPECT_EQ(0, Snapshot());
  EXPECT_EQ((std::set<std::string>{"data.mdb", "lsml0.mdb"}), NamesIn(dir_ / "real"));
}

TEST_F(SnapshotTest, APathWithASlashAtItsEndIsMadeTooAndSoIsARelativeOne) {
  LoadTable();
  EXPECT_EQ(0, table().Snapshot(Directory().string(), Target().string() + "/"));
  EXPECT_EQ(kOwnerOnly, ModeOf(Target()));
  const fs::path before = fs::current_path();
  fs::current_path(dir_.path());
  EXPECT_EQ(0, table().Snapshot("table", "relative"));
  fs::current_path(before);
  EXPECT_EQ((std::set<std::string>{"data.mdb", "lsml0.mdb"}), NamesIn(dir_ / "relative"));
}

TEST_F(SnapshotTest, AFileInThePlaceOfTheDirectoryIsLeftAlone) {
  LoadTable();
  WriteBytes(Target(), "a file");
  EXPECT_EQ(EEXIST, CodeOf([this] { Snapshot(); }));
  EXPECT_THAT(Lines(), ElementsAre(TraceLine(), "8 The snapshot path is already exists, path=" +
                                                    Target().string() + '.'));
  EXPECT_EQ("a file", BytesOf(Target()));
}

TEST_F(SnapshotTest, BelowAFileNoDirectoryCanBeMade) {
  LoadTable();
  WriteBytes(Target(), "a file");
  const std::string below = TargetFile("below");
  EXPECT_EQ(EIO, CodeOf([&] { table().Snapshot(Directory().string(), below); }));
  EXPECT_THAT(Lines(kLogFailure),
              ElementsAre("8 Failed to create snapshot folder, path=" + below + '.'));
  EXPECT_EQ("a file", BytesOf(Target()));
}

TEST_F(SnapshotTest, ALinkToNowhereIsNoDirectory) {
  LoadTable();
  fs::create_symlink(dir_ / "nowhere", Target());
  EXPECT_EQ(EIO, CodeOf([this] { Snapshot(); }));
  EXPECT_THAT(Lines(kLogFailure),
              ElementsAre("8 Failed to create snapshot folder, path=" + Target().string() + '.'));
  EXPECT_FALSE(fs::exists(dir_ / "nowhere"));
}

// --- copies that fail ----------------------------------------------------------------------------

TEST_F(SnapshotTest, OverwritesNothing) {
  LoadTable();
  fs::create_directories(Target());
  for (const char* name : {"data.mdb", "lsml0.mdb"}) {
    WriteBytes(TargetFile(name), "older");
    EXPECT_EQ(EEXIST, CodeOf([this] { Snapshot(); }));
    const auto lines = Lines(kLogRecoverable);
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(0U, lines[0].find(
                      "8 Failed to take snapshot for mdb, path=" + TargetFile("data.mdb") + ", " +
                      TargetFile("lsml0.mdb") + ". ret=17, errstr=boost::filesystem::copy"))
        << lines[0];
    EXPECT_NE(std::string::npos, lines[0].find("File exists")) << lines[0];
    EXPECT_EQ("older", BytesOf(TargetFile(name)));
    EXPECT_EQ((std::set<std::string>{"data.mdb", "lsml0.mdb"}).count(name),
              NamesIn(Target()).count(name));
    fs::remove(TargetFile(name));
  }
  EXPECT_EQ((std::set<std::string>{"data.mdb"}), NamesIn(Target()))
      << "the full database had been copied ahead of the small one, and stays";
}

TEST_F(SnapshotTest, ASecondOneIntoTheSameDirectoryFailsAndLeavesTheFirst) {
  LoadTable();
  EXPECT_EQ(0, Snapshot());
  EXPECT_EQ(EEXIST, CodeOf([this] { Snapshot(); }));
  Destroy();
  ExpectToLoad(Target());
}

TEST_F(SnapshotTest, ADatabaseThatIsNotThereIsAFailedCopy) {
  LoadTable();
  const auto expectFailed = [this](const std::string& from) {
    EXPECT_EQ(ENOENT, CodeOf([&] { table().Snapshot(from, Target().string()); }));
    const auto lines = Lines(kLogRecoverable);
    ASSERT_EQ(1U, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find(". ret=2, errstr=")) << lines[0];
  };
  expectFailed((dir_ / "missing").string());
  EXPECT_THAT(NamesIn(Target()), IsEmpty()) << "the directory was made by then";
  fs::rename(File("lsml0.mdb"), dir_ / "aside");
  expectFailed(Directory().string());
  EXPECT_THAT(NamesIn(Target()), ElementsAre("data.mdb"));
}

TEST_F(SnapshotTest, OntoItselfFails) {
  LoadTable();
  EXPECT_EQ(EEXIST,
            CodeOf([this] { table().Snapshot(Directory().string(), Directory().string()); }));
  EXPECT_EQ(Content(), Walk(table()));
  Destroy();
  ExpectToLoad(Directory());
}

// --- around it -----------------------------------------------------------------------------------

TEST_F(SnapshotTest, TakesNoLockOfTheTable) {
  LoadTable();
  const CMappingLMDB::UniqueLock cache(peer().rwLock());
  const CMappingLMDB::UniqueLock databases(peer().tableLock());
  EXPECT_EQ(0, Snapshot());
}

TEST_F(SnapshotTest, IsMeasured) {
  using Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu;
  LoadTable();
  AutoLogCpu::initialized_ = true;
  AutoLogCpu::enabled_ = true;
  Snapshot();
  AutoLogCpu::enabled_ = false;
  AutoLogCpu::initialized_ = false;
  EXPECT_EQ(1U, mapping_lmdb_cpu_counters.count("Snapshot"));
}

TEST_F(SnapshotTest, BringsWhatAFailedMergeHasLeftNotAlong) {
  Write("tmp.mdb", {Stored(900, 910, 99)});
  LoadTable();
  EXPECT_EQ(6U, Walk(table()).size());
  EXPECT_EQ(0, Snapshot());
  Close();
  ExpectToLoad(Target());
}

}  // namespace
}  // namespace zefs::test
