#include "refhost/threads/job_group.h"

#include <atomic>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

TEST(JobGroup, WaitReturnsWhenTheLastJobHasEnded) {
  JobGroup group;
  std::atomic<int> ended{0};
  group.Wait();  // none is under way
  group.Begin();
  group.Begin();
  std::thread first([&] {
    ++ended;
    group.End();
  });
  std::thread second([&] {
    ++ended;
    group.End();
  });
  group.Wait();
  EXPECT_EQ(2, ended);
  first.join();
  second.join();
}

TEST(JobGroup, FirstFailureIsThrownAgainAndAgain) {
  JobGroup group;
  group.ThrowFailure();
  for (const char* const text : {"first", "second"}) {
    group.Begin();
    group.End(std::make_exception_ptr(std::runtime_error(text)));
  }
  for (int i = 0; i < 2; ++i) {
    try {
      group.ThrowFailure();
      FAIL();
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ("first", error.what());
    }
  }
}

}  // namespace
}  // namespace zefs::refhost
