// Prefixes of file names and paths of table directories, whatever bytes they are made of.

#include <cerrno>
#include <climits>
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
using testing::IsSubsetOf;
using testing::IsSupersetOf;

class FileNamesTest : public FileLifeTest {
 protected:
  /// Everything below `directory`, by its path there, that is no directory.
  static std::set<std::string> FilesBelow(const fs::path& directory) {
    std::set<std::string> files;
    for (fs::recursive_directory_iterator at(directory), end; at != end; ++at) {
      if (!fs::is_directory(at->symlink_status())) {
        files.insert(at->path().string().substr(directory.string().size() + 1));
      }
    }
    return files;
  }
  static std::set<std::string> With(const std::string& begin, const std::set<std::string>& names) {
    std::set<std::string> all;
    for (const std::string& name : names) {
      all.insert(begin + name);
    }
    return all;
  }

  /// The life of a table in the directory that `path` names, which is `real`, and one more that
  /// finds all that the first has left. Its files lie below dir_ and begin with `begin`, and there
  /// are no others.
  void ExpectLives(const std::string& path, const fs::path& real, const std::string& prefix,
                   const std::string& begin) {
    InChild([&] {
      LiveShortlyIn(path, prefix);
      EXPECT_EQ(0, table().Snapshot(path, (dir_ / "snapshot").string()));
      Close();
    });
    const std::set<std::string> files = FilesBelow(dir_.path());
    EXPECT_THAT(files, IsSupersetOf(
                           With(begin, {"lsml0.mdb", "data.mdb", "journal", "dcoffset", "bloom"})));
    std::set<std::string> allowed =
        With(begin, {"lsml0.mdb", "data.mdb", "journal", "dcoffset", "bloom"});
    for (const std::string& name : files) {
      if (name.find("snapshot/") == 0) {
        allowed.insert(name);
      }
    }
    EXPECT_THAT(files, IsSubsetOf(allowed));
    InChild([&] {
      LoadFrom(path, prefix);
      ExpectContent();
      Close();
    });
    EXPECT_TRUE(fs::is_directory(real));
    ++lives_;
  }
  void ExpectLivesWithPrefix(const std::string& prefix) {
    SCOPED_TRACE("prefix '" + prefix + "'");
    fs::create_directory(dir_ / "snapshot");
    ExpectLives(Directory().string(), Directory(), prefix, "table/" + prefix);
    fs::remove_all(Directory());
    fs::remove_all(dir_ / "snapshot");
  }

  /// What a load with such a prefix throws, and its log from level 8 up.
  std::vector<std::string> RefusalOf(const std::string& path, const std::string& prefix,
                                     std::string* thrown) {
    Make("GENERIC");
    log_.Take();
    *thrown = Thrown([&] { table().load(path, false, prefix); });
    std::vector<std::string> lines = Lines(kLogFailure);
    Close();
    return lines;
  }
  void ExpectRefused(const std::string& prefix, int error) {
    SCOPED_TRACE("prefix of " + std::to_string(prefix.size()));
    const std::string code = std::to_string(error);
    std::string thrown;
    EXPECT_THAT(
        RefusalOf(Directory().string(), prefix, &thrown),
        ElementsAre("8 Failed to open env for db " + LifecycleTest::Path(prefix + "lsml0.mdb") +
                        ", return value is " + code,
                    "8 Failed to setup env, return value is " + code));
    EXPECT_EQ(code, thrown);
  }

  int lives_ = 0;
};

// --- prefixes ------------------------------------------------------------------------------------

TEST_F(FileNamesTest, PrefixMayHoldAnyBytes) {
  for (const std::string prefix :
       {"", "a.", ".", "..", " ", "*?[", "a b\tline\nline\r", "%s%n%d%n%n%n%",
        "\\\"'`$(x);|&\x01\x7f\x1b[31m", "\xff\xfe\xc3\x28", "lsml0.mdb-lock"}) {
    ExpectLivesWithPrefix(prefix);
  }
  TellFigure("prefixes and paths of tables that have lived", lives_);
}

TEST_F(FileNamesTest, PrefixMayBeAsLongAsTheLongestNameLetsIt) {
  const std::size_t longest = NAME_MAX - std::string("lsml0.mdb-lock").size();
  ExpectLivesWithPrefix(std::string(longest, 'p'));
  InChild([&] { ExpectRefused(std::string(longest + 1, 'p'), ENAMETOOLONG); });
  EXPECT_THAT(FilesBelow(dir_.path()), ElementsAre()) << "and nothing has been made";
  InChild([&] { ExpectRefused(std::string(3 * PATH_MAX, 'p'), ENAMETOOLONG); });
}

// A separator is one: what stands in front of it names a directory, which has to be there.
TEST_F(FileNamesTest, PrefixWithASeparatorNamesADirectory) {
  InChild([&] { ExpectRefused("a/b", ENOENT); });
  fs::create_directories(Directory() / "a");
  InChild([&] {
    LiveShortlyIn(Directory().string(), "a/b");
    Close();
  });
  EXPECT_EQ(With("table/a/b", {"lsml0.mdb", "data.mdb", "journal", "dcoffset", "bloom"}),
            FilesBelow(dir_.path()));
  InChild([&] {
    LoadFrom(Directory().string(), "a/b");
    ExpectContent();
    Close();
  });
}

TEST_F(FileNamesTest, PrefixThatLeadsOutOfTheDirectoryDoesSo) {
  InChild([&] {
    LiveShortlyIn(Directory().string(), "../x");
    Close();
  });
  EXPECT_EQ(With("x", {"lsml0.mdb", "data.mdb", "journal", "dcoffset", "bloom"}),
            FilesBelow(dir_.path()));
  EXPECT_TRUE(fs::is_empty(Directory())) << "the directory itself is made all the same";
}

TEST_F(FileNamesTest, PrefixThatBeginsWithASeparatorStaysInTheDirectory) {
  InChild([&] {
    LiveShortlyIn(Directory().string(), "/");
    Close();
  });
  EXPECT_THAT(FilesBelow(dir_.path()), IsSupersetOf(With("table/", {"lsml0.mdb", "data.mdb"})));
}

// LMDB would see the same short name for all databases, and open one file several times.
TEST_F(FileNamesTest, PrefixOrPathWithAZeroByteIsRefused) {
  const std::string zero(1, '\0');
  InChild([&] {
    std::string thrown;
    RefusalOf(Directory().string(), "a" + zero + "b", &thrown);
    EXPECT_EQ(std::to_string(EINVAL), thrown);
    RefusalOf(Directory().string() + zero + "b", "", &thrown);
    EXPECT_EQ(std::to_string(EINVAL), thrown);
  });
  EXPECT_THAT(FilesBelow(dir_.path()), ElementsAre());
}

TEST_F(FileNamesTest, TablesOfDifferentPrefixesShareADirectory) {
  for (const std::string prefix : {"", "a", "a.", "aa"}) {
    InChild([&] {
      LiveShortlyIn(Directory().string(), prefix);
      Close();
    });
  }
  for (const std::string prefix : {"", "a", "a.", "aa"}) {
    InChild([&] {
      LoadFrom(Directory().string(), prefix);
      ExpectContent();
      Close();
    });
  }
  std::set<std::string> prefixes;
  EXPECT_EQ(0, CMappingLMDB::GetMapIndexSet(Directory().string(), &prefixes));
  EXPECT_THAT(prefixes, ElementsAre("", "a", "a.", "aa"));
}

// --- paths ---------------------------------------------------------------------------------------

TEST_F(FileNamesTest, PathOfATableMayHoldAnyBytes) {
  for (const std::string name :
       {"a b\tline\nline", "%s%n%d%n%n%", "\xff\xfe\xc3\x28", "...", "data.mdb"}) {
    SCOPED_TRACE(name);
    ExpectLives((dir_ / name).string(), dir_ / name, "", name + "/");
    fs::remove_all(dir_ / name);
    fs::remove_all(dir_ / "snapshot");
  }
  TellFigure("prefixes and paths of tables that have lived", lives_);
}

TEST_F(FileNamesTest, PathOfATableMayTakeDetours) {
  fs::create_directory(dir_ / "aside");
  const std::string base = dir_.path().string();
  for (const std::string& path :
       {base + "/table///", base + "//./table", base + "/aside/../table", base + "/table/."}) {
    SCOPED_TRACE(path);
    ExpectLives(path, Directory(), "", "table/");
    EXPECT_EQ(0700U, static_cast<unsigned int>(fs::status(Directory()).permissions()));
    fs::remove_all(Directory());
    fs::remove_all(dir_ / "snapshot");
  }
  TellFigure("prefixes and paths of tables that have lived", lives_);
}

TEST_F(FileNamesTest, RelativePathIsTakenFromTheWorkingDirectory) {
  for (const std::string path : {"./table/", "aside/../table"}) {
    SCOPED_TRACE(path);
    fs::create_directory(dir_ / "aside");
    InChild([&] {
      ASSERT_EQ(0, ::chdir(dir_.path().c_str()));
      LiveShortlyIn(path, "");
      Close();
      LoadFrom(path);
      ExpectContent();
      Close();
    });
    EXPECT_TRUE(fs::exists(File("data.mdb")));
    fs::remove_all(Directory());
    fs::remove_all(dir_ / "snapshot");
  }
}

TEST_F(FileNamesTest, PathThatIsTooLongOrEmptyIsRefused) {
  InChild([&] {
    for (const std::string& path : {std::string(), (dir_ / std::string(NAME_MAX + 1, 'd')).string(),
                                    std::string(2 * PATH_MAX, '/') + "d"}) {
      std::string thrown;
      EXPECT_THAT(RefusalOf(path, "", &thrown),
                  ElementsAre("8 Failed to create directories " + path +
                              ", try to see if it can continue"));
      EXPECT_EQ(std::to_string(EIO), thrown);
    }
  });
  EXPECT_THAT(FilesBelow(dir_.path()), ElementsAre());
}

}  // namespace
}  // namespace zefs::test
