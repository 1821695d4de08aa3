// Files and directories of a table are their owner's alone, from their first moment on, whatever
// the umask.

#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/support/figures.h"
#include "tests/support/ordinary_user.h"
#include "tests/system/files/creations.h"
#include "tests/system/files/file_life_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::IsSupersetOf;

constexpr mode_t kFileMode = 0600;
constexpr mode_t kDirectoryMode = 0700;

class FileModesTest : public FileLifeTest {
 protected:
  std::string Below(const std::string& name) const { return (dir_ / name).string(); }

  /// Nothing has had more rights than it should for a moment, nor fewer than the umask leaves it.
  /// Returns the names.
  static std::set<std::string> ExpectMadeWith(const std::vector<Creation>& made, mode_t umask) {
    std::set<std::string> names;
    for (const Creation& creation : made) {
      SCOPED_TRACE(creation.path);
      switch (creation.kind) {
        case Creation::kFile:
          EXPECT_EQ(kFileMode & ~umask, creation.mode);
          break;
        case Creation::kDirectory:
          EXPECT_EQ(kDirectoryMode & ~umask, creation.mode);
          break;
        case Creation::kChange:
          EXPECT_EQ(kDirectoryMode, creation.mode);
          continue;
      }
      names.insert(fs::path(creation.path).filename().string());
    }
    return names;
  }

  /// Nor has it in the end, and the umask takes nothing from a directory. Returns how many there
  /// are.
  static int ExpectEndsWith(const fs::path& directory, mode_t umask) {
    int count = 1;
    EXPECT_EQ(kDirectoryMode, ModeOf(directory)) << directory;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
      EXPECT_EQ(kFileMode & ~umask, ModeOf(entry.path())) << entry.path();
      ++count;
    }
    return count;
  }
  static mode_t ModeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(0, ::lstat(path.c_str(), &status));
    return status.st_mode & 07777;
  }

  /// The life of a table, its snapshot, a move, and a load that replays the journal.
  void LiveUnder(mode_t umask) {
    InChild([&] {
      ::umask(umask);
      const Creations creations(dir_.path().string());
      LiveIn(Below("table"), Below("snapshot"));
      MoveAndLeave(Below("table"), Below("moved"));
      const std::vector<Creation> made = Creations::Take();
      EXPECT_THAT(ExpectMadeWith(made, umask),
                  IsSupersetOf({"table", "lsml0.mdb", "lsml0.mdb-lock", "data.mdb", "data.mdb-lock",
                                "tmp.mdb", "tmp.mdb-lock", "mergedb", "mergedb-lock", "journal",
                                "dcoffset", "bloom.merge", "snapshot"}));
      TellFigure("files and directories whose rights were watched from the first moment on",
                 static_cast<long>(made.size()));
      EXPECT_LT(5, ExpectEndsWith(Below("moved"), umask));
      EXPECT_EQ(3, ExpectEndsWith(Below("snapshot"), umask));
    });
    InChild([&] {
      ::umask(umask);
      const Creations creations(dir_.path().string());
      LoadFrom(Below("moved"));
      ExpectContent();
      Close();
      ExpectMadeWith(Creations::Take(), umask);
      ExpectEndsWith(Below("moved"), umask);
    });
    fs::remove_all(Below("moved"));
    fs::remove_all(Below("snapshot"));
  }
};

TEST_F(FileModesTest, FilesAndDirectoriesAreTheirOwnersFromTheFirstMomentOn) {
  std::vector<mode_t> masks = {0, 022, 077};
  if (::geteuid() == 0) {
    masks.push_back(0777);  // nobody else could open again what he has made
  }
  for (const mode_t mask : masks) {
    SCOPED_TRACE(mask);
    LiveUnder(mask);
  }
}

TEST_F(FileModesTest, AUmaskThatLeavesTheOwnerNothingIsToldByTheFirstDatabase) {
  InChild([&] {
    const AsOrdinaryUser user;
    ::umask(0777);
    const Creations creations(dir_.path().string());
    Make("GENERIC");
    log_.Take();
    EXPECT_EQ("13", Thrown([&] { table().load(Below("table"), false, ""); }));
    EXPECT_THAT(Lines(kLogFailure),
                testing::ElementsAre("8 Failed to open env for db " + Below("table/lsml0.mdb") +
                                         ", return value is 13",
                                     "8 Failed to setup env, return value is 13"));
    ExpectMadeWith(Creations::Take(), 0777);
    EXPECT_EQ(kDirectoryMode, ModeOf(Below("table")));
  });
}

TEST_F(FileModesTest, ATableThatHasMovedToNowhereYetMakesItsDirectoryWithTheJournal) {
  InChild([&] {
    ::umask(0);
    const Creations creations(dir_.path().string());
    LoadFrom(Below("table"));
    table().UpdateExtPath(Below("later"));
    Store(0, false);
    EXPECT_EQ(kDirectoryMode, ModeOf(Below("later")));
    EXPECT_EQ(kFileMode, ModeOf(Below("later/journal")));
    ExpectMadeWith(Creations::Take(), 0);
    Close();
  });
}

TEST_F(FileModesTest, ParentsOfASnapshotAreTheirOwnersToo) {
  InChild([&] {
    ::umask(0);
    const Creations creations(dir_.path().string());
    LoadFrom(Below("table"));
    EXPECT_EQ(0, table().Snapshot(Below("table"), Below("a/b/snapshot")));
    EXPECT_THAT(ExpectMadeWith(Creations::Take(), 0), IsSupersetOf({"a", "b", "snapshot"}));
    EXPECT_EQ(kDirectoryMode, ModeOf(Below("a")));
    EXPECT_EQ(kDirectoryMode, ModeOf(Below("a/b")));
    EXPECT_EQ(3, ExpectEndsWith(Below("a/b/snapshot"), 0));
    Close();
  });
}

// What is there keeps the rights that it has: the table makes nothing wider, and nothing narrower.
TEST_F(FileModesTest, FilesThatAreThereKeepTheirRights) {
  InChild([&] {
    LoadFrom(Below("table"));
    Store(0, false);
    Close();
  });
  for (const char* const name : {"journal", "dcoffset", "data.mdb"}) {
    ASSERT_EQ(0, ::chmod(Below("table/" + std::string(name)).c_str(), 0640));
  }
  InChild([&] {
    LoadFrom(Below("table"));
    Store(1000, false);
    EXPECT_EQ(0640U, ModeOf(Below("table/dcoffset")));
    EXPECT_EQ(0640U, ModeOf(Below("table/data.mdb")));
    EXPECT_EQ(kFileMode, ModeOf(Below("table/journal"))) << "made anew by the replay";
    EXPECT_EQ(0, peer().MergeAndSwitch());
    EXPECT_EQ(kFileMode, ModeOf(Below("table/data.mdb"))) << "made anew by the merge";
    Close();
  });
}

}  // namespace
}  // namespace zefs::test
