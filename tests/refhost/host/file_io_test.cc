#include "host/file_io.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace {

/// A pipe whose ends close with it.
class Pipe {
 public:
  Pipe() { EXPECT_EQ(::pipe(ends_.data()), 0); }
  ~Pipe() {
    Close(0);
    Close(1);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int reader() const { return ends_[0]; }
  int writer() const { return ends_[1]; }
  void CloseReader() { Close(0); }
  void CloseWriter() { Close(1); }

 private:
  void Close(std::size_t end) {
    if (ends_[end] != -1) {
      ::close(ends_[end]);
      ends_[end] = -1;
    }
  }
  std::array<int, 2> ends_{};
};

/// Without SA_RESTART a signal ends a blocked call with EINTR.
class SignalInterrupts {
 public:
  SignalInterrupts() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, &before_);
  }
  ~SignalInterrupts() { ::sigaction(SIGUSR1, &before_, nullptr); }
  SignalInterrupts(const SignalInterrupts&) = delete;
  SignalInterrupts& operator=(const SignalInterrupts&) = delete;

 private:
  struct sigaction before_ {};
};

class FileIoTest : public ::testing::Test {
 protected:
  FileIoTest() { fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT, 0600); }
  ~FileIoTest() override { ::close(fd_); }

  zefs::test::TempDir directory_;
  std::string path_ = (directory_ / "file").string();
  int fd_ = -1;
};

TEST_F(FileIoTest, ReadGathersShortTransfers) {
  Pipe pipe;
  std::thread writer([&pipe] {
    for (char c = 'a'; c <= 'z'; ++c) {
      ASSERT_EQ(::write(pipe.writer(), &c, 1), 1);
      std::this_thread::yield();
    }
  });
  std::string got(26, '\0');
  EXPECT_EQ(safe_read(pipe.reader(), got.data(), got.size()), 26);
  writer.join();
  EXPECT_EQ(got, "abcdefghijklmnopqrstuvwxyz");
}

TEST_F(FileIoTest, ReadIsShortOnlyAtTheEnd) {
  Pipe pipe;
  ASSERT_EQ(safe_write(pipe.writer(), "12345", 5), 5);
  pipe.CloseWriter();
  std::array<char, 100> buffer{};
  EXPECT_EQ(safe_read(pipe.reader(), buffer.data(), buffer.size()), 5);
  EXPECT_EQ(safe_read(pipe.reader(), buffer.data(), buffer.size()), 0);
}

TEST_F(FileIoTest, ReadOfNothingIsZero) {
  EXPECT_EQ(safe_read(fd_, nullptr, 0), 0);
  EXPECT_EQ(safe_write(fd_, nullptr, 0), 0);
}

TEST_F(FileIoTest, WriteGoesOnAfterShortTransfers) {
  Pipe pipe;  // far more than a pipe takes at once
  std::vector<char> sent(1 << 20);
  for (std::size_t i = 0; i < sent.size(); ++i) {
    sent[i] = static_cast<char>(i * 7);
  }
  std::vector<char> got(sent.size());
  std::thread reader([&] {
    EXPECT_EQ(safe_read(pipe.reader(), got.data(), got.size()), static_cast<ssize_t>(got.size()));
  });
  EXPECT_EQ(safe_write(pipe.writer(), sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
  reader.join();
  EXPECT_EQ(got, sent);
}

TEST_F(FileIoTest, SignalsDoNotEndATransfer) {
  const SignalInterrupts interrupts;
  Pipe pipe;
  std::vector<char> sent(1 << 18, 'q');
  std::vector<char> got(sent.size());
  ssize_t written = 0;
  std::thread writer([&] { written = safe_write(pipe.writer(), sent.data(), sent.size()); });
  // Signals meet the writer blocked on a full pipe, or running: both must not show.
  for (std::size_t at = 0; at < got.size(); at += 1024) {
    ASSERT_EQ(::pthread_kill(writer.native_handle(), SIGUSR1), 0);
    ASSERT_EQ(safe_read(pipe.reader(), got.data() + at, 1024), 1024);
  }
  writer.join();
  EXPECT_EQ(written, static_cast<ssize_t>(sent.size()));
  EXPECT_EQ(got, sent);
}

TEST_F(FileIoTest, AReadErrorIsTold) {
  char byte = 0;
  errno = 0;
  EXPECT_EQ(safe_read(-1, &byte, 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(FileIoTest, AnErrorOfTheFirstWriteIsTold) {
  errno = 0;
  EXPECT_EQ(safe_write(-1, "x", 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(FileIoTest, AFullDeviceIsTold) {
  const int full = ::open("/dev/full", O_WRONLY);
  ASSERT_NE(full, -1);
  errno = 0;
  EXPECT_EQ(safe_write(full, "x", 1), -1);
  EXPECT_EQ(errno, ENOSPC);
  ::close(full);
}

TEST_F(FileIoTest, ALaterWriteErrorLeavesTheBytesWritten) {
  const auto before = ::signal(SIGPIPE, SIG_IGN);
  Pipe pipe;
  std::vector<char> sent(1 << 20, 'x');
  std::thread reader([&pipe] {
    std::array<char, 4096> some{};
    EXPECT_EQ(safe_read(pipe.reader(), some.data(), some.size()), 4096);
    pipe.CloseReader();
  });
  errno = 0;
  const ssize_t written = safe_write(pipe.writer(), sent.data(), sent.size());
  const int error = errno;
  reader.join();
  ::signal(SIGPIPE, before);
  EXPECT_GE(written, 4096);
  EXPECT_LT(written, static_cast<ssize_t>(sent.size()));
  EXPECT_EQ(error, EPIPE);
}

TEST_F(FileIoTest, FsyncOfAFileSucceedsAndOfNothingFails) {
  EXPECT_EQ(safe_write(fd_, "data", 4), 4);
  EXPECT_EQ(safe_fsync(fd_), 0);
  errno = 0;
  EXPECT_EQ(safe_fsync(-1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(FileIoTest, NommapIsHarmless) {
  ASSERT_EQ(safe_write(fd_, "data", 4), 4);
  EXPECT_EQ(EnableNommap(path_, fd_), 0);
  ASSERT_EQ(::lseek(fd_, 0, SEEK_SET), 0);
  std::string got(4, '\0');
  EXPECT_EQ(safe_read(fd_, got.data(), 4), 4);
  EXPECT_EQ(got, "data");
  EXPECT_FALSE(IsZxfs(path_));
}

TEST_F(FileIoTest, MillisNeverRunBackwards) {
  unsigned long last = get_millis();
  for (int i = 0; i < 100000; ++i) {
    const unsigned long now = get_millis();
    ASSERT_GE(now, last);
    last = now;
  }
}

}  // namespace
