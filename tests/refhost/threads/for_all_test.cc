#include "refhost/threads/for_all.h"

#include <atomic>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

TEST(ForAll, CallsEachNumberOnce) {
  for (const std::size_t threads : {1U, 3U, 50U}) {
    std::vector<std::atomic<int>> calls(20);
    ForAll(calls.size(), threads, [&](std::size_t i) { ++calls[i]; });
    for (const auto& count : calls) {
      EXPECT_EQ(1, count);
    }
  }
}

TEST(ForAll, OfNothingCallsNothing) {
  ForAll(0, 4, [](std::size_t) { FAIL(); });
}

TEST(ForAll, FailureEndsItAndIsThrown) {
  std::atomic<int> calls{0};
  EXPECT_THROW(ForAll(1000, 1,
                      [&](std::size_t i) {
                        ++calls;
                        if (i == 3) {
                          throw std::runtime_error("no");
                        }
                      }),
               std::runtime_error);
  EXPECT_EQ(4, calls);
}

}  // namespace
}  // namespace zefs::refhost
