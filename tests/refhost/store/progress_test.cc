#include "refhost/cli/progress.h"

#include <fcntl.h>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

/// What a bar writes, caught in a pipe.
class Progress : public ::testing::Test {
 protected:
  Progress() { EXPECT_EQ(0, pipe2(ends_, O_NONBLOCK)); }
  ~Progress() override {
    close(ends_[0]);
    close(ends_[1]);
  }
  int fd() const { return ends_[1]; }
  std::string Written() const {
    std::string text(65536, '\0');
    const ssize_t n = read(ends_[0], text.data(), text.size());
    text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return text;
  }

 private:
  int ends_[2] = {-1, -1};
};

TEST_F(Progress, WritesNothingWhereThereIsNoTerminal) {
  {
    ProgressBar bar(fd(), false);
    bar.Update("store", 1, 2);
    bar.Clear();
  }
  EXPECT_EQ("", Written());
}

TEST_F(Progress, DrawsTheStartAndTheEndOfAPhase) {
  ProgressBar bar(fd(), true);
  bar.Update("store", 0, 10);
  EXPECT_THAT(Written(), HasSubstr("store    [..............................]   0%"));
  bar.Update("store", 10, 10);
  EXPECT_THAT(Written(), HasSubstr("[##############################] 100%"));
  bar.Update("verify", 5, 10);
  EXPECT_THAT(Written(), HasSubstr("verify   [###############...............]  50%"));
}

TEST_F(Progress, DoesNotDrawEveryStep) {
  ProgressBar bar(fd(), true);
  for (std::uint64_t i = 0; i < 100000; ++i) {
    bar.Update("store", i, 200000);
  }
  EXPECT_LT(Written().size(), 65536U / 2) << "a line for each step would fill the pipe";
}

TEST_F(Progress, IsRemovedAtTheEnd) {
  {
    ProgressBar bar(fd(), true);
    bar.Update("store", 1, 2);
  }
  EXPECT_THAT(Written(), EndsWith("\r\033[K"));
}

TEST_F(Progress, MoreThanAllIsAll) {
  ProgressBar bar(fd(), true);
  bar.Update("store", 30, 10);
  EXPECT_THAT(Written(), HasSubstr("100%"));
}

}  // namespace
}  // namespace zefs::refhost
