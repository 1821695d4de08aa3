#include "support/filesystem.h"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/temp_dir.h"
#include "tests/support/vtable_slot.h"

namespace {

namespace fs = boost::filesystem;
using boost::system::error_code;
using storage::utils::filesystem;
using zefs::test::SlotOf;
using zefs::test::TempDir;

fs::perms RightsOf(const fs::path& path) {
  return fs::status(path).permissions();
}

class FilesystemTest : public testing::Test {
 protected:
  void WriteFile(const fs::path& path, const std::string& text) {
    std::ofstream(path.string()) << text;
  }

  TempDir dir_;
  filesystem fs_;
};

/// One operation behind the others: shows how many slots there are.
struct OneMoreFilesystem : filesystem {
  virtual void more() {}
};

TEST(FilesystemSlotTest, OperationsStandInTheirSlots) {
  using C = filesystem;
  using P = const fs::path&;
  EXPECT_EQ(2U, SlotOf(static_cast<bool (C::*)(P) const>(&C::create_directories)));
  EXPECT_EQ(3U, SlotOf(static_cast<bool (C::*)(P, fs::perms) const>(&C::create_directories)));
  EXPECT_EQ(4U,
            SlotOf(static_cast<bool (C::*)(P, fs::perms) const>(&C::check_and_create_directories)));
  EXPECT_EQ(5U, SlotOf(static_cast<bool (C::*)(P, fs::perms, error_code&) const>(
                    &C::check_and_create_directories)));
  EXPECT_EQ(6U, SlotOf(static_cast<bool (C::*)(fs::file_status) const>(&C::is_directory)));
  EXPECT_EQ(7U, SlotOf(static_cast<bool (C::*)(P) const>(&C::is_directory)));
  EXPECT_EQ(8U, SlotOf(static_cast<bool (C::*)(fs::file_status) const>(&C::is_regular_file)));
  EXPECT_EQ(9U, SlotOf(static_cast<bool (C::*)(P) const>(&C::is_regular_file)));
  EXPECT_EQ(10U, SlotOf(&C::exists));
  EXPECT_EQ(11U, SlotOf(&C::mkdir));
  EXPECT_EQ(12U, SlotOf(&C::permissions));
  EXPECT_EQ(13U, SlotOf(&C::copy));
  EXPECT_EQ(14U, SlotOf(&C::open));
  EXPECT_EQ(15U, SlotOf(&C::read));
  EXPECT_EQ(16U, SlotOf(&C::close));
  EXPECT_EQ(17U, SlotOf(&C::remove_all));
  EXPECT_EQ(18U, SlotOf(&OneMoreFilesystem::more)) << "nothing stands behind";
  EXPECT_EQ(sizeof(void*), sizeof(C));
}

TEST_F(FilesystemTest, CheckAndCreateOnAnExistingPathLeavesItsRightsAlone) {
  const fs::path path = dir_ / "there";
  fs::create_directory(path);
  fs::permissions(path, fs::owner_all | fs::group_read);
  EXPECT_TRUE(fs_.check_and_create_directories(path, fs::owner_all));
  EXPECT_EQ(fs::owner_all | fs::group_read, RightsOf(path));
  error_code ec;
  EXPECT_TRUE(fs_.check_and_create_directories(path, fs::owner_all, ec));
  EXPECT_FALSE(ec);
  EXPECT_EQ(fs::owner_all | fs::group_read, RightsOf(path));
}

TEST_F(FilesystemTest, CheckAndCreateOnTheRootIsTrueAndDoesNothing) {
  const fs::perms before = RightsOf("/");
  EXPECT_TRUE(fs_.check_and_create_directories("/", fs::owner_read));
  error_code ec;
  EXPECT_TRUE(fs_.check_and_create_directories("/", fs::owner_read, ec));
  EXPECT_EQ(before, RightsOf("/"));
}

TEST_F(FilesystemTest, CheckAndCreateOnAnExistingFileIsTrueThoughItIsNoDirectory) {
  WriteFile(dir_ / "file", "x");
  EXPECT_TRUE(fs_.check_and_create_directories(dir_ / "file", fs::owner_all));
  EXPECT_TRUE(fs_.is_regular_file(dir_ / "file"));
}

TEST_F(FilesystemTest, CheckAndCreateGivesRightsToEachDirectoryThatItMade) {
  fs::create_directory(dir_ / "old");
  fs::permissions(dir_ / "old", fs::owner_all | fs::others_read);
  const fs::perms rights = fs::owner_all | fs::group_exe;
  EXPECT_TRUE(fs_.check_and_create_directories(dir_ / "old" / "a" / "b", rights));
  EXPECT_EQ(fs::owner_all | fs::others_read, RightsOf(dir_ / "old"));
  EXPECT_EQ(rights, RightsOf(dir_ / "old" / "a"));
  EXPECT_EQ(rights, RightsOf(dir_ / "old" / "a" / "b"));
  error_code ec;
  EXPECT_TRUE(fs_.check_and_create_directories(dir_ / "old" / "c" / "d", rights, ec));
  EXPECT_FALSE(ec);
  EXPECT_EQ(rights, RightsOf(dir_ / "old" / "c" / "d"));
}

TEST_F(FilesystemTest, CheckAndCreateBelowAFileThrowsOrReports) {
  WriteFile(dir_ / "file", "x");
  EXPECT_THROW(fs_.check_and_create_directories(dir_ / "file" / "a", fs::owner_all),
               fs::filesystem_error);
  error_code ec;
  EXPECT_FALSE(fs_.check_and_create_directories(dir_ / "file" / "a", fs::owner_all, ec));
  EXPECT_TRUE(ec);
}

/// Calls of the two-argument operation, to see who calls it.
class CountingFilesystem : public filesystem {
 public:
  using filesystem::check_and_create_directories;
  bool check_and_create_directories(const fs::path& p, fs::perms perms) const override {
    ++calls;
    return refuse ? false : filesystem::check_and_create_directories(p, perms);
  }
  mutable int calls = 0;
  bool refuse = false;
};

TEST_F(FilesystemTest, CheckAndCreateRecursesThroughTheVirtualOperation) {
  const CountingFilesystem counting;
  EXPECT_TRUE(counting.check_and_create_directories(dir_ / "a" / "b", fs::owner_all));
  EXPECT_EQ(3, counting.calls);
  error_code ec;
  EXPECT_TRUE(counting.check_and_create_directories(dir_ / "c" / "d", fs::owner_all, ec));
  EXPECT_EQ(5, counting.calls);
}

TEST_F(FilesystemTest, CheckAndCreateWithoutItsParentIsFalse) {
  CountingFilesystem counting;
  counting.refuse = true;
  error_code ec;
  EXPECT_FALSE(counting.check_and_create_directories(dir_ / "a" / "b", fs::owner_all, ec));
  EXPECT_FALSE(fs::exists(dir_ / "a"));
}

/// Somebody else makes the directory while this call makes its parent.
class RacedFilesystem : public filesystem {
 public:
  explicit RacedFilesystem(fs::path raced) : raced_(std::move(raced)) {}
  using filesystem::check_and_create_directories;
  bool check_and_create_directories(const fs::path& p, fs::perms perms) const override {
    const bool made = filesystem::check_and_create_directories(p, perms);
    if (p == raced_.parent_path()) {
      fs::create_directory(raced_);
      fs::permissions(raced_, fs::owner_all | fs::others_exe);
    }
    return made;
  }

 private:
  fs::path raced_;
};

TEST_F(FilesystemTest, LosingARaceIsSuccessAndTheWinnersRightsStay) {
  const fs::path first = dir_ / "a" / "b";
  EXPECT_TRUE(RacedFilesystem(first).check_and_create_directories(first, fs::owner_all));
  EXPECT_EQ(fs::owner_all | fs::others_exe, RightsOf(first));
  const fs::path second = dir_ / "c" / "d";
  error_code ec;
  EXPECT_TRUE(RacedFilesystem(second).check_and_create_directories(second, fs::owner_all, ec));
  EXPECT_FALSE(ec);
  EXPECT_EQ(fs::owner_all | fs::others_exe, RightsOf(second));
}

TEST_F(FilesystemTest, TheErrorCodeFormThrowsForWhatConcernsAParent) {
  WriteFile(dir_ / "file", "x");
  error_code ec;
  EXPECT_THROW(fs_.check_and_create_directories(dir_ / "file" / "a" / "b", fs::owner_all, ec),
               fs::filesystem_error);
}

TEST_F(FilesystemTest, CreateDirectoriesThrowsBelowAFile) {
  WriteFile(dir_ / "file", "x");
  EXPECT_THROW(fs_.create_directories(dir_ / "file" / "a"), fs::filesystem_error);
  EXPECT_THROW(fs_.create_directories(dir_ / "file" / "a", fs::owner_all), fs::filesystem_error);
}

TEST_F(FilesystemTest, RemoveAllReportsThroughTheErrorCode) {
  error_code ec;
  fs_.remove_all(dir_ / std::string(300, 'x'), ec);
  EXPECT_TRUE(ec) << "a name too long for any directory";
}

TEST_F(FilesystemTest, CreateDirectoriesGivesRightsOnlyToWhatItMade) {
  fs::create_directory(dir_ / "old");
  fs::permissions(dir_ / "old", fs::owner_all | fs::others_read);
  EXPECT_TRUE(fs_.create_directories(dir_ / "old" / "a" / "b", fs::owner_all));
  EXPECT_EQ(fs::owner_all | fs::others_read, RightsOf(dir_ / "old"));
  EXPECT_EQ(fs::owner_all, RightsOf(dir_ / "old" / "a"));
  EXPECT_EQ(fs::owner_all, RightsOf(dir_ / "old" / "a" / "b"));
  EXPECT_TRUE(fs_.create_directories(dir_ / "old" / "a" / "b", fs::owner_all)) << "all there";
}

TEST_F(FilesystemTest, RightsToAddOrToTakeAwayReferToThoseThatADirectoryHasByItself) {
  const mode_t before = ::umask(022);
  error_code ec;
  EXPECT_TRUE(fs_.create_directories(dir_ / "a" / "b", fs::remove_perms | fs::others_all));
  EXPECT_TRUE(fs_.check_and_create_directories(dir_ / "c" / "d", fs::add_perms | fs::group_write));
  EXPECT_TRUE(
      fs_.check_and_create_directories(dir_ / "e" / "f", fs::remove_perms | fs::group_exe, ec));
  ::umask(before);
  for (const char* const made : {"a", "a/b"}) {
    EXPECT_EQ(0750, RightsOf(dir_ / made));
  }
  for (const char* const made : {"c", "c/d"}) {
    EXPECT_EQ(0775, RightsOf(dir_ / made));
  }
  for (const char* const made : {"e", "e/f"}) {
    EXPECT_EQ(0745, RightsOf(dir_ / made));
  }
}

TEST_F(FilesystemTest, CreateDirectoriesWithoutRightsSaysWhetherItMadeAny) {
  EXPECT_TRUE(fs_.create_directories(dir_ / "x" / "y"));
  EXPECT_FALSE(fs_.create_directories(dir_ / "x" / "y"));
}

TEST_F(FilesystemTest, KindsOfFiles) {
  WriteFile(dir_ / "file", "x");
  EXPECT_TRUE(fs_.is_directory(dir_.path()));
  EXPECT_FALSE(fs_.is_directory(dir_ / "file"));
  EXPECT_FALSE(fs_.is_directory(dir_ / "nothing"));
  EXPECT_TRUE(fs_.is_regular_file(dir_ / "file"));
  EXPECT_FALSE(fs_.is_regular_file(dir_.path()));
  EXPECT_TRUE(fs_.is_directory(fs::file_status(fs::directory_file)));
  EXPECT_FALSE(fs_.is_directory(fs::file_status(fs::regular_file)));
  EXPECT_TRUE(fs_.is_regular_file(fs::file_status(fs::regular_file)));
  EXPECT_FALSE(fs_.is_regular_file(fs::file_status(fs::directory_file)));
  EXPECT_TRUE(fs_.exists(dir_ / "file"));
  EXPECT_FALSE(fs_.exists(dir_ / "nothing"));
}

TEST_F(FilesystemTest, ExistsThrowsWhereTheStatusCannotBeRead) {
  fs::create_symlink("loop", dir_ / "loop");
  EXPECT_THROW(fs_.exists(dir_ / "loop" / "x"), fs::filesystem_error);
  EXPECT_THROW(fs_.is_directory(dir_ / "loop" / "x"), fs::filesystem_error);
  EXPECT_THROW(fs_.is_regular_file(dir_ / "loop" / "x"), fs::filesystem_error);
}

TEST_F(FilesystemTest, SystemCallsPassResultsAndErrorsOn) {
  const std::string made = (dir_ / "made").string();
  EXPECT_EQ(0, fs_.mkdir(made.c_str(), 0700));
  EXPECT_EQ(-1, fs_.mkdir(made.c_str(), 0700));
  EXPECT_EQ(EEXIST, errno);
  const std::string file = (dir_ / "file").string();
  WriteFile(file, "hello");
  const int fd = fs_.open(file.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  char buffer[8] = {};
  EXPECT_EQ(5, fs_.read(fd, buffer, sizeof(buffer)));
  EXPECT_STREQ("hello", buffer);
  EXPECT_EQ(0, fs_.close(fd));
  EXPECT_EQ(-1, fs_.close(fd));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(-1, fs_.open((dir_ / "nothing").c_str(), O_RDONLY));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, fs_.read(-1, buffer, 1));
  EXPECT_EQ(EBADF, errno);
}

TEST_F(FilesystemTest, PermissionsCopyAndRemoveAll) {
  WriteFile(dir_ / "from", "text");
  fs_.permissions(dir_ / "from", fs::owner_read);
  EXPECT_EQ(fs::owner_read, RightsOf(dir_ / "from"));
  fs_.copy(dir_ / "from", dir_ / "to");
  EXPECT_EQ(4U, fs::file_size(dir_ / "to"));
  EXPECT_THROW(fs_.copy(dir_ / "nothing", dir_ / "x"), fs::filesystem_error);
  EXPECT_THROW(fs_.permissions(dir_ / "nothing", fs::owner_read), fs::filesystem_error);
  fs::create_directories(dir_ / "tree" / "a");
  error_code ec;
  EXPECT_EQ(2U, fs_.remove_all(dir_ / "tree", ec));
  EXPECT_FALSE(ec);
  EXPECT_EQ(0U, fs_.remove_all(dir_ / "tree", ec));
}

}  // namespace
