#include "refhost/store/file_collector.h"

#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/refhost/store/store_fixture.h"
#include "tests/support/ordinary_user.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::TempDir;

class Collect : public ::testing::Test {
 protected:
  Collect() {
    fs::create_directories(dir / "tree/sub");
    test::WriteFile(dir / "tree/b", "bb");
    test::WriteFile(dir / "tree/a", "a");
    test::WriteFile(dir / "tree/sub/c", "ccc");
  }
  std::string In(const std::string& name) const { return (dir / name).string(); }

  TempDir dir;
};

TEST_F(Collect, TakesATreeInOrder) {
  const CollectedFiles found = CollectFiles({In("tree")});
  EXPECT_EQ((std::vector<std::string>{In("tree/a"), In("tree/b"), In("tree/sub/c")}), found.files);
  EXPECT_EQ(6U, found.bytes);
  EXPECT_TRUE(found.skipped.empty());
}

TEST_F(Collect, OverlappingPathsGiveEachFileOnce) {
  const CollectedFiles found =
      CollectFiles({In("tree/sub"), In("tree"), In("tree/"), In("tree/sub/../a")});
  EXPECT_EQ(3U, found.files.size());
  EXPECT_EQ(6U, found.bytes);
}

TEST_F(Collect, FollowsNoLinkBelowThePathsAndTakesNoPipe) {
  fs::create_symlink(dir / "tree/a", dir / "tree/link");
  fs::create_symlink(dir / "tree", dir / "tree/sub/loop");
  fs::create_symlink(dir / "nowhere", dir / "tree/dangling");
  ASSERT_EQ(0, mkfifo(In("tree/pipe").c_str(), 0600));
  const CollectedFiles found = CollectFiles({In("tree")});
  EXPECT_EQ(3U, found.files.size());
  EXPECT_EQ(4U, found.notRegular);
  EXPECT_TRUE(found.skipped.empty());
}

TEST_F(Collect, FollowsALinkThatIsGiven) {
  fs::create_symlink(dir / "tree/sub", dir / "link");
  EXPECT_EQ((std::vector<std::string>{In("tree/sub/c")}), CollectFiles({In("link")}).files);
}

TEST_F(Collect, NamesWhatIsGone) {
  const CollectedFiles found = CollectFiles({In("gone"), In("tree/a/b"), In("tree/a")});
  EXPECT_EQ(1U, found.files.size());
  ASSERT_EQ(2U, found.skipped.size());
  EXPECT_EQ(In("gone"), found.skipped[0].path);
  EXPECT_EQ("No such file or directory (ENOENT)", found.skipped[0].reason);
  EXPECT_EQ("Not a directory (ENOTDIR)", found.skipped[1].reason);
}

TEST_F(Collect, NamesADirectoryThatCannotBeListed) {
  fs::permissions(dir / "tree/sub", fs::no_perms);
  CollectedFiles found;
  {
    const test::AsOrdinaryUser user;
    found = CollectFiles({In("tree")});
  }
  fs::permissions(dir / "tree/sub", fs::owner_all);
  EXPECT_EQ(2U, found.files.size());
  ASSERT_EQ(1U, found.skipped.size());
  EXPECT_EQ("Permission denied (EACCES)", found.skipped[0].reason);
}

}  // namespace
}  // namespace zefs::refhost
