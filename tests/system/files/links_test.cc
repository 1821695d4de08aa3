// Symbolic links that somebody has put into a table directory in place of its files, to have the
// process write over a file of its own elsewhere.

#include <cerrno>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/support/figures.h"
#include "tests/system/files/file_life_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::ElementsAre;

/// What a link leads to.
enum class Victim { kNothing, kEmptyFile, kFile };
constexpr Victim kVictims[] = {Victim::kNothing, Victim::kEmptyFile, Victim::kFile};

class FileLinksTest : public FileLifeTest {
 protected:
  static constexpr char kBytes[] = "bytes of somebody else's file, which stay as they are";

  /// Runs `life` once for each kind of victim of a link at `name`, in a directory that everybody
  /// may write to, and in a process of its own. `life` puts the link when it likes.
  void ForEachVictim(const std::string& name, const std::function<void()>& life) {
    for (const Victim victim : kVictims) {
      SCOPED_TRACE(name + ", victim " + std::to_string(static_cast<int>(victim)));
      fs::remove_all(Directory());
      fs::remove_all(VictimPath());
      MakeDirectory();
      ASSERT_EQ(0, ::chmod(Directory().c_str(), 01777));
      if (victim != Victim::kNothing) {
        WriteBytes(VictimPath(), victim == Victim::kFile ? kBytes : "");
      }
      victim_ = victim;
      InChild(life);
      ++lives_;
    }
  }

  fs::path VictimPath() const { return dir_ / "victim"; }
  void PutLink(const std::string& name) const {
    fs::remove(File(name));
    fs::create_symlink(VictimPath(), File(name));
  }

  /// The victim is as it was.
  void ExpectUntouched() const {
    EXPECT_EQ(victim_ != Victim::kNothing, fs::exists(VictimPath()));
    EXPECT_EQ(victim_ == Victim::kFile ? kBytes : "", BytesOf(VictimPath()));
  }
  bool IsLink(const std::string& name) const {
    return fs::is_symlink(fs::symlink_status(File(name)));
  }

  std::vector<std::string> RefusalOf(const std::string& database) const {
    const std::string code = std::to_string(ELOOP);
    return {"8 Failed to open env for db " + LifecycleTest::Path(database) + ", return value is " +
                code,
            "8 Failed to setup env, return value is " + code};
  }

  Victim victim_ = Victim::kNothing;
  int lives_ = 0;
};

// --- databases and their lock files: refused -----------------------------------------------------

TEST_F(FileLinksTest, LinkInPlaceOfADatabaseIsRefusedByLoad) {
  for (const std::string name : {"lsml0.mdb", "data.mdb"}) {
    for (const std::string lock : {"", "-lock"}) {
      ForEachVictim(name + lock, [&] {
        PutLink(name + lock);
        Make();
        log_.Take();
        EXPECT_EQ(std::to_string(ELOOP),
                  Thrown([&] { table().load(Directory().string(), false, ""); }));
        EXPECT_EQ(RefusalOf(name), Lines(kLogFailure));
        Close();
        ExpectUntouched();
      });
    }
  }
  TellFigure("links in place of files", lives_);
}

TEST_F(FileLinksTest, LinkInPlaceOfATmpDatabaseIsRefusedByLoad) {
  ForEachVictim("tmp.mdb", [&] {
    PutLink("tmp.mdb");
    Make();
    log_.Take();
    const std::string thrown = Thrown([&] { table().load(Directory().string(), false, ""); });
    if (victim_ == Victim::kNothing) {
      EXPECT_EQ("-", thrown) << "for load there is no tmp database";
    } else {
      EXPECT_EQ(std::to_string(ELOOP), thrown);
      EXPECT_EQ(RefusalOf("tmp.mdb"), Lines(kLogFailure));
    }
    Close();
    ExpectUntouched();
  });
  ForEachVictim("tmp.mdb-lock", [&] {
    WritePlainDatabase(File("tmp.mdb"), {Stored(0, 10, 70)});
    PutLink("tmp.mdb-lock");
    Make();
    EXPECT_EQ(std::to_string(ELOOP),
              Thrown([&] { table().load(Directory().string(), false, ""); }));
    Close();
    ExpectUntouched();
  });
  TellFigure("links in place of files", lives_);
}

TEST_F(FileLinksTest, LinkThatAFinishedMergeHasLeftIsRefusedByLoad) {
  ForEachVictim("mergedb", [&] {
    PutLink("mergedb");
    Make();
    const std::string thrown = Thrown([&] { table().load(Directory().string(), false, ""); });
    EXPECT_EQ(victim_ == Victim::kNothing ? "-" : std::to_string(ELOOP), thrown);
    Close();
    ExpectUntouched();
  });
  TellFigure("links in place of files", lives_);
}

TEST_F(FileLinksTest, LinkInPlaceOfTheTmpDatabaseOfAMergeFailsTheMergeAlone) {
  for (const std::string name : {"tmp.mdb", "tmp.mdb-lock"}) {
    ForEachVictim(name, [&] {
      LoadFrom(Directory().string());
      Store(0, false);
      PutLink(name);
      log_.Take();
      EXPECT_EQ(std::to_string(EIO), Thrown([&] { peer().MergeAndSwitch(); }));
      EXPECT_THAT(Lines(2), ElementsAre(RefusalOf("tmp.mdb").front(),
                                        "2 Failed to setup tmpdb env for tempdb " +
                                            LifecycleTest::Path("tmp.mdb")));
      fs::remove(File(name));
      EXPECT_EQ(0, peer().MergeAndSwitch());
      ExpectContent();
      Close();
      ExpectUntouched();
    });
  }
  TellFigure("links in place of files", lives_);
}

// --- what is removed or replaced before it is written --------------------------------------------

TEST_F(FileLinksTest, MergeRemovesLinksInPlaceOfWhatItMakes) {
  for (const std::string name : {"mergedb", "mergedb-lock", "bloom.merge", "bloom"}) {
    ForEachVictim(name, [&] {
      LoadFrom(Directory().string());
      Store(0, false);
      PutLink(name);
      EXPECT_EQ(0, peer().MergeAndSwitch());
      ExpectContent();
      EXPECT_FALSE(IsLink(name));
      EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(File("bloom"))));
      Close();
      ExpectUntouched();
    });
  }
  TellFigure("links in place of files", lives_);
}

TEST_F(FileLinksTest, LinkToADirectoryInPlaceOfTheMergeDatabaseIsRemovedAlone) {
  fs::create_directory(dir_ / "elsewhere");
  WriteBytes(dir_ / "elsewhere" / "file", kBytes);
  InChild([&] {
    LoadFrom(Directory().string());
    Store(0, false);
    fs::create_directory_symlink(dir_ / "elsewhere", File("mergedb"));
    EXPECT_EQ(0, peer().MergeAndSwitch());
    ExpectContent();
    Close();
  });
  EXPECT_EQ(kBytes, BytesOf(dir_ / "elsewhere" / "file"));
}

TEST_F(FileLinksTest, ReplayAndAListThatGoesOutReplaceLinks) {
  for (const std::string name : {"journal.rep", "dcoffset.tmp"}) {
    ForEachVictim(name, [&] {
      InChild([&] {
        LoadFrom(Directory().string());
        Store(0, false);
        Close();
      });
      PutLink(name);
      LoadFrom(Directory().string());
      std::vector<DCOffset> wanted;
      EXPECT_EQ(0, table().GetEmptyDcOffsetList(&wanted));
      EXPECT_FALSE(wanted.empty());
      EXPECT_FALSE(IsLink(name));
      Close();
      ExpectUntouched();
    });
  }
  TellFigure("links in place of files", lives_);
}

TEST_F(FileLinksTest, SnapshotWritesThroughNoLink) {
  fs::create_directory(dir_ / "snapshot");
  for (const std::string name : {"data.mdb", "lsml0.mdb"}) {
    ForEachVictim(name, [&] {
      const fs::path link = dir_ / "snapshot" / name;
      fs::remove_all(dir_ / "snapshot");
      fs::create_directory(dir_ / "snapshot");
      fs::create_symlink(VictimPath(), link);
      LoadFrom(Directory().string());
      EXPECT_EQ(std::to_string(EEXIST), Thrown([&] {
                  table().Snapshot(Directory().string(), (dir_ / "snapshot").string());
                }));
      Close();
      ExpectUntouched();
    });
  }
  TellFigure("links in place of files", lives_);
}

TEST_F(FileLinksTest, LinkToAFileInPlaceOfTheTableDirectoryGivesWayToADirectory) {
  ForEachVictim("table", [&] {
    fs::remove_all(Directory());
    fs::create_symlink(VictimPath(), Directory());
    LoadFrom(Directory().string());
    EXPECT_FALSE(fs::is_symlink(fs::symlink_status(Directory())));
    Close();
    ExpectUntouched();
  });
  TellFigure("links in place of files", lives_);
}

TEST_F(FileLinksTest, RemovalTakesLinksAndLeavesWhatTheyLeadTo) {
  ForEachVictim("stray", [&] {
    fs::create_directory(dir_ / "elsewhere");
    WriteBytes(dir_ / "elsewhere" / "file", kBytes);
    LoadFrom(Directory().string());
    PutLink("stray");
    fs::create_directory_symlink(dir_ / "elsewhere", File("away"));
    EXPECT_EQ(0, table().remove(Directory().string()));
    EXPECT_FALSE(fs::exists(Directory()));
    EXPECT_EQ(kBytes, BytesOf(dir_ / "elsewhere" / "file"));
    fs::remove_all(dir_ / "elsewhere");
    Close();
    ExpectUntouched();
  });
}

// --- what is followed ----------------------------------------------------------------------------

// The journal and the offset store may be kept elsewhere by a link, and so are opened through one:
// the rights of the directory are what keeps strangers' links out.
TEST_F(FileLinksTest, JournalAndOffsetStoreMayLieBehindALink) {
  for (const std::string name : {"journal", "dcoffset"}) {
    ForEachVictim(name, [&] {
      LoadFrom(Directory().string());
      PutLink(name);
      Store(0, false);
      Close();
      EXPECT_TRUE(IsLink(name));
      const std::string before = victim_ == Victim::kFile ? kBytes : "";
      const std::string bytes = BytesOf(VictimPath());
      EXPECT_EQ(before, bytes.substr(0, before.size())) << "appended to, and not cut";
      EXPECT_LT(before.size(), bytes.size());
    });
  }
}

// A hard link is the file itself: nothing tells it from the only one.
TEST_F(FileLinksTest, HardLinkToAnotherFileIsThatFile) {
  MakeDirectory();
  WriteBytes(VictimPath(), kBytes);
  InChild([&] {
    LoadFrom(Directory().string());
    fs::create_hard_link(VictimPath(), File("journal"));
    Store(0, false);
    Close();
    const std::string bytes = BytesOf(VictimPath());
    EXPECT_EQ(kBytes, bytes.substr(0, sizeof(kBytes) - 1));
    EXPECT_LT(sizeof(kBytes), bytes.size());
  });
}

}  // namespace
}  // namespace zefs::test
