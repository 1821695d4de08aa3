#include "refhost/check/work_dir.h"

#include <cstdlib>
#include <memory>
#include <string>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "refhost/store/store_error.h"
#include "tests/refhost/store/store_fixture.h"
#include "tests/support/ordinary_user.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::TempDir;
using test::ThrownText;

TEST(WorkDir, TemporaryOneIsRemovedWithAllInIt) {
  std::string path;
  {
    const WorkDir work("", false, "data");
    path = work.path();
    test::WriteFile(work.data() + "/64", "x");
    test::WriteFile(work.copies(), "x");
  }
  EXPECT_FALSE(fs::exists(path));
}

TEST(WorkDir, KeptOneStays) {
  const TempDir dir;
  { const WorkDir work((dir / "s").string(), true, "data"); }
  EXPECT_TRUE(fs::is_directory(dir / "s/data"));
}

TEST(WorkDir, DirectoryThatWasThereStaysEmpty) {
  const TempDir dir;
  { const WorkDir work(dir.path().string(), false, "data"); }
  EXPECT_TRUE(fs::exists(dir.path()));
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST(WorkDir, MissingDirectoryIsMadeAndRemoved) {
  const TempDir dir;
  {
    const WorkDir work((dir / "s").string(), false, "data");
    EXPECT_TRUE(fs::is_directory(dir / "s"));
  }
  EXPECT_FALSE(fs::exists(dir / "s"));
}

TEST(WorkDir, DirectoryWithContentIsRefusedAndLeftAlone) {
  const TempDir dir;
  test::WriteFile(dir / "precious", "x");
  EXPECT_EQ("cannot use the store " + dir.path().string() + ": Directory not empty (ENOTEMPTY)",
            ThrownText<StoreError>([&] { WorkDir(dir.path().string(), false, "data"); }));
  EXPECT_TRUE(fs::exists(dir / "precious"));
}

TEST(WorkDir, FileIsRefused) {
  const TempDir dir;
  test::WriteFile(dir / "file", "");
  EXPECT_EQ("cannot use the store " + (dir / "file").string() + ": Not a directory (ENOTDIR)",
            ThrownText<StoreError>([&] { WorkDir((dir / "file").string(), false, "data"); }));
  EXPECT_EQ("cannot create " + (dir / "file/s").string() + ": Not a directory (ENOTDIR)",
            ThrownText<StoreError>([&] { WorkDir((dir / "file/s").string(), false, "data"); }));
}

TEST(WorkDir, DirectoryThatMayNotBeWrittenIsRefused) {
  const TempDir dir;
  fs::create_directory(dir / "s");
  fs::permissions(dir / "s", static_cast<fs::perms>(0555));
  const test::AsOrdinaryUser user;
  EXPECT_EQ("cannot create " + (dir / "s/data").string() + ": Permission denied (EACCES)",
            ThrownText<StoreError>([&] { WorkDir((dir / "s").string(), false, "data"); }));
}

TEST(WorkDir, PlaceForTemporaryFilesThatIsNoneIsNamed) {
  const TempDir dir;
  const char* const given = std::getenv("TMPDIR");
  const std::string before = given != nullptr ? given : "";
  setenv("TMPDIR", (dir / "gone").c_str(), 1);
  EXPECT_EQ("cannot make a directory in " + (dir / "gone").string() +
                ": No such file or directory (ENOENT); --store or TMPDIR choose another place",
            ThrownText<StoreError>([&] { WorkDir("", false, "data"); }));
  fs::create_directory(dir / "shut");
  fs::permissions(dir / "shut", static_cast<fs::perms>(0555));
  setenv("TMPDIR", (dir / "shut").c_str(), 1);
  {
    const test::AsOrdinaryUser user;
    EXPECT_EQ("cannot make a directory in " + (dir / "shut").string() +
                  ": Permission denied (EACCES); --store or TMPDIR choose another place",
              ThrownText<StoreError>([&] { WorkDir("", false, "data"); }));
  }
  setenv("TMPDIR", "", 1);
  EXPECT_EQ(0U, WorkDir("", false, "data").path().find("/tmp/zefs-check-"));
  given != nullptr ? setenv("TMPDIR", before.c_str(), 1) : unsetenv("TMPDIR");
}

TEST(WorkDir, MissingParentIsRefused) {
  const TempDir dir;
  EXPECT_EQ("cannot create " + (dir / "a/b").string() + ": No such file or directory (ENOENT)",
            ThrownText<StoreError>([&] { WorkDir((dir / "a/b").string(), false, "data"); }));
}

}  // namespace
}  // namespace zefs::refhost
