#include "tests/support/child_process.h"

#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zefs::test {
namespace {

using testing::HasSubstr;

/// Runs `life` in a child; what the child wrote on stderr. Keeps its failures out of the output.
std::string StderrOf(const std::function<void()>& life, int* status) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  *status = RunInChild(life);
  testing::internal::GetCapturedStdout();
  return testing::internal::GetCapturedStderr();
}

TEST(ChildProcess, ALifeThatReturnsEndsWellAndChangesNothingHere) {
  int changed = 0;
  const int status = RunInChild([&] { changed = 1; });
  EXPECT_TRUE(EndedWell(status));
  EXPECT_FALSE(DiedBy(status, SIGKILL));
  EXPECT_EQ(0, changed);
}

TEST(ChildProcess, AFailedCheckIsToldAndTheTestHereGoesOn) {
  int status = 0;
  EXPECT_THAT(StderrOf([] { EXPECT_EQ(1, 2) << "on purpose"; }, &status), HasSubstr("on purpose"));
  EXPECT_FALSE(EndedWell(status));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(1, WEXITSTATUS(status));
  EXPECT_TRUE(EndedWell(RunInChild([] {}))) << "the next life starts afresh";
}

TEST(ChildProcess, AnExceptionIsToldWhateverItsType) {
  int status = 0;
  EXPECT_THAT(StderrOf([] { throw std::runtime_error("out of it"); }, &status),
              HasSubstr("out of it"));
  EXPECT_FALSE(EndedWell(status));
  EXPECT_THAT(StderrOf([] { throw 5; }, &status), HasSubstr("no std::exception"));
  EXPECT_FALSE(EndedWell(status));
}

TEST(ChildProcess, ADeathIsBySignal) {
  const int status = RunInChild([] { std::raise(SIGKILL); });
  EXPECT_TRUE(DiedBy(status, SIGKILL));
  EXPECT_FALSE(DiedBy(status, SIGTERM));
  EXPECT_FALSE(EndedWell(status));
}

}  // namespace
}  // namespace zefs::test
