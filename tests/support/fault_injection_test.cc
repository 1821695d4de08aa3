#include "tests/support/fault_injection.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace {

namespace fs = boost::filesystem;
using zefs::test::Call;
using zefs::test::Faults;
using zefs::test::TempDir;
using zefs::test::WatchCalls;

class FaultInjectionTest : public testing::Test {
 protected:
  std::string Path(const char* name) const { return (dir_ / name).string(); }
  static int Create(const std::string& path) {
    return ::open64(path.c_str(), O_RDWR | O_CREAT | O_APPEND, 0600);
  }

  TempDir dir_;
  TempDir elsewhere_;
  WatchCalls watch_{dir_.path().string()};
};

TEST_F(FaultInjectionTest, CallsOutsideTheDirectoryAreNeitherCountedNorFailed) {
  Faults::FailNth(Call::kOpen, 1, EIO, true);
  Faults::FailNth(Call::kWrite, 1, EIO, true);
  const int fd = Create((elsewhere_ / "file").string());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(1, ::write(fd, "x", 1));
  EXPECT_EQ(0, ::close(fd));
  const int beside = Create(dir_.path().string() + "-beside");
  EXPECT_GE(beside, 0) << "a name that only begins like the directory";
  EXPECT_EQ(0, ::close(beside));
  EXPECT_EQ(0, ::unlink((dir_.path().string() + "-beside").c_str()));
  EXPECT_EQ(0, Faults::Count(Call::kOpen));
  EXPECT_EQ(0, Faults::Count(Call::kWrite));
  EXPECT_FALSE(Faults::Fired());
}

TEST_F(FaultInjectionTest, EveryCallIsCountedAndTheNthFailsOnce) {
  const std::string path = Path("file");
  Faults::FailNth(Call::kOpen, 2, EMFILE);
  const int fd = Create(path);
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(Faults::Fired());
  EXPECT_EQ(-1, ::open(path.c_str(), O_RDONLY));
  EXPECT_EQ(EMFILE, errno);
  EXPECT_TRUE(Faults::Fired());
  const int again = ::open(path.c_str(), O_RDONLY);
  EXPECT_GE(again, 0);
  EXPECT_EQ(0, ::close(again));
  EXPECT_EQ(3, Faults::Count(Call::kOpen));

  Faults::FailNth(Call::kWrite, 1, ENOSPC);
  EXPECT_EQ(-1, ::write(fd, "abc", 3));
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_EQ(3, ::write(fd, "abc", 3));
  Faults::FailNth(Call::kFsync, 1, EIO);
  EXPECT_EQ(-1, ::fsync(fd));
  EXPECT_EQ(0, ::fsync(fd));
  Faults::FailNth(Call::kRead, 1, EIO);
  std::array<char, 8> buffer{};
  EXPECT_EQ(-1, ::read(fd, buffer.data(), buffer.size()));
  EXPECT_EQ(0, ::lseek(fd, 0, SEEK_SET));
  EXPECT_EQ(3, ::read(fd, buffer.data(), buffer.size()));
  Faults::FailNth(Call::kClose, 1, EIO);
  EXPECT_EQ(-1, ::close(fd));
  EXPECT_EQ(EIO, errno);
  EXPECT_EQ(-1, ::fsync(fd)) << "closed all the same";
  EXPECT_EQ(EBADF, errno);

  EXPECT_EQ(2, Faults::Count(Call::kWrite));
  EXPECT_EQ(2, Faults::Count(Call::kFsync));
  EXPECT_EQ(2, Faults::Count(Call::kRead));
  EXPECT_EQ(2, Faults::Count(Call::kClose));
}

TEST_F(FaultInjectionTest, CallsThatBoostMakesAreSeen) {
  ASSERT_EQ(0, ::close(Create(Path("file"))));
  Faults::FailNth(Call::kRename, 1, EXDEV);
  EXPECT_EQ(-1, std::rename(Path("file").c_str(), Path("to").c_str()));
  EXPECT_EQ(EXDEV, errno);
  boost::system::error_code ec;
  Faults::FailNth(Call::kRename, 1, EXDEV);
  fs::rename(dir_ / "file", elsewhere_ / "to", ec);
  EXPECT_EQ(EXDEV, ec.value()) << "one of the two paths is watched";
  Faults::FailNth(Call::kUnlink, 1, EPERM);
  EXPECT_FALSE(fs::remove(dir_ / "file", ec));
  EXPECT_EQ(EPERM, ec.value());
  Faults::FailNth(Call::kMkdir, 1, ENOSPC);
  EXPECT_FALSE(fs::create_directories(dir_ / "a" / "b", ec));
  EXPECT_EQ(ENOSPC, ec.value());
  Faults::FailNth(Call::kStat, 1, EACCES);
  EXPECT_THROW(fs::status(dir_ / "file"), fs::filesystem_error);
  EXPECT_TRUE(fs::exists(dir_ / "file"));
}

TEST_F(FaultInjectionTest, AFaultForGoodLastsUntilDisarmed) {
  const int fd = Create(Path("file"));
  Faults::FailNth(Call::kFsync, 2, EIO, true);
  EXPECT_EQ(0, ::fsync(fd));
  EXPECT_EQ(-1, ::fsync(fd));
  EXPECT_EQ(-1, ::fsync(fd));
  Faults::Disarm();
  EXPECT_EQ(0, ::fsync(fd));
  EXPECT_EQ(4, Faults::Count(Call::kFsync)) << "the counts stay";
  EXPECT_TRUE(Faults::Fired());
  Faults::Reset();
  EXPECT_EQ(0, ::fsync(fd));
  EXPECT_EQ(0, Faults::Count(Call::kFsync));
  EXPECT_EQ(0, ::close(fd));
}

TEST_F(FaultInjectionTest, AShortWriteSaysSoAndSizesAreThoseAskedFor) {
  const int fd = Create(Path("file"));
  Faults::ShortWriteNth(2, 3);
  Faults::FailNth(Call::kWrite, 3, ENOSPC);
  EXPECT_EQ(5, ::write(fd, "12345", 5));
  EXPECT_EQ(3, ::write(fd, "67890", 5));
  EXPECT_EQ(-1, ::write(fd, "90", 2));
  EXPECT_EQ(0, ::close(fd));
  EXPECT_EQ((std::vector<std::size_t>{5, 5, 2}), Faults::WriteSizes());
  EXPECT_EQ(8U, fs::file_size(dir_ / "file"));
}

TEST_F(FaultInjectionTest, ARemovedFileIsStillWatched) {
  const int fd = Create(Path("file"));
  ASSERT_EQ(0, ::unlink(Path("file").c_str()));
  EXPECT_EQ(1, ::write(fd, "x", 1));
  EXPECT_EQ(0, ::close(fd));
  EXPECT_EQ(1, Faults::Count(Call::kWrite));
  EXPECT_EQ(1, Faults::Count(Call::kClose));
}

TEST_F(FaultInjectionTest, ADirectoryReachedThroughALinkIsWatchedUnderBothNames) {
  fs::create_directory(dir_ / "real");
  fs::create_directory_symlink(dir_ / "real", elsewhere_ / "link");
  Faults::OnlyBelow((elsewhere_ / "link").string());
  const int fd = Create((elsewhere_ / "link" / "file").string());
  EXPECT_EQ(1, ::write(fd, "x", 1));
  EXPECT_EQ(0, ::close(fd));
  EXPECT_EQ(0, ::unlink(Path("real/file").c_str()));
  EXPECT_EQ(1, Faults::Count(Call::kOpen));
  EXPECT_EQ(1, Faults::Count(Call::kWrite));
  EXPECT_EQ(1, Faults::Count(Call::kUnlink));
  EXPECT_THROW(Faults::OnlyBelow(Path("nothing")), std::runtime_error);
}

TEST_F(FaultInjectionTest, TheLoopEndsWithTheFirstRunThatNothingDisturbs) {
  std::vector<int> written;
  const int fd = Create(Path("file"));
  EXPECT_EQ(3, Faults::UntilNoneFires([&](int nth) {
              Faults::FailNth(Call::kWrite, nth, EIO);
              int done = 0;
              for (int i = 0; i < 3; ++i) {
                done += ::write(fd, "x", 1) == 1;
              }
              written.push_back(done);
            }));
  EXPECT_EQ((std::vector<int>{2, 2, 2, 3}), written);
  EXPECT_EQ(0, ::close(fd));
}

TEST_F(FaultInjectionTest, TheProcessDiesInPlaceOfTheCall) {
  const std::string path = Path("file");
  EXPECT_EXIT(
      {
        Faults::KillNth(Call::kWrite, 2);
        const int fd = Create(path);
        for (int i = 0; i < 3; ++i) {
          static_cast<void>(!::write(fd, "x", 1));
        }
        ::_exit(0);
      },
      testing::KilledBySignal(SIGKILL), "");
  EXPECT_EQ(1U, fs::file_size(path));
}

TEST_F(FaultInjectionTest, CallsOfSeveralThreadsAreAllCountedAndOneOfThemFails) {
  constexpr int kThreads = 4;
  constexpr int kWrites = 250;
  Faults::FailNth(Call::kWrite, 500, EIO);
  std::array<int, kThreads> failed{};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const int fd = Create(Path("file") + std::to_string(t));
      for (int i = 0; i < kWrites; ++i) {
        failed.at(static_cast<std::size_t>(t)) += ::write(fd, "x", 1) != 1;
      }
      ::close(fd);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(kThreads * kWrites, Faults::Count(Call::kWrite));
  EXPECT_EQ(1, failed[0] + failed[1] + failed[2] + failed[3]);
}

}  // namespace
