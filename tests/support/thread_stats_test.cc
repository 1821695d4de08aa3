#include <cstddef>
#include <memory>
#include <type_traits>

#include <gtest/gtest.h>

#include "host/auto_log_cpu.h"

namespace {

using Aldenta::Qnd::Tarvenda::Utils::kThreadStatsElements;
using Aldenta::Qnd::Tarvenda::Utils::thread_stats_t;

TEST(ThreadStatsTest, FieldsStandInOrder) {
  EXPECT_EQ(0U, offsetof(thread_stats_t, wallRunning));
  EXPECT_EQ(8U, offsetof(thread_stats_t, wallSec));
  EXPECT_EQ(16U, offsetof(thread_stats_t, wallNsec));
  EXPECT_EQ(24U, offsetof(thread_stats_t, wallValid));
  EXPECT_EQ(28U, offsetof(thread_stats_t, wallClock));
  EXPECT_EQ(32U, offsetof(thread_stats_t, cpuRunning));
  EXPECT_EQ(40U, offsetof(thread_stats_t, cpuSec));
  EXPECT_EQ(48U, offsetof(thread_stats_t, cpuNsec));
  EXPECT_EQ(56U, offsetof(thread_stats_t, cpuValid));
  EXPECT_EQ(60U, offsetof(thread_stats_t, cpuClock));
  EXPECT_EQ(64U, offsetof(thread_stats_t, counter));
  EXPECT_EQ(72U, offsetof(thread_stats_t, extra));
  EXPECT_EQ(80U, sizeof(thread_stats_t));
}

TEST(ThreadStatsTest, ElementsOfAnArrayStartAtTheirInitialValues) {
  const std::unique_ptr<thread_stats_t[]> counters(new thread_stats_t[kThreadStatsElements]);
  clockid_t id = 0;
  const bool cpuValid = clock_getcpuclockid(0, &id) == 0;
  for (std::size_t i = 0; i < 256; ++i) {
    const thread_stats_t& element = counters[i];
    EXPECT_FALSE(element.wallRunning);
    EXPECT_EQ(0, element.wallSec);
    EXPECT_EQ(0, element.wallNsec);
    EXPECT_TRUE(element.wallValid);
    EXPECT_EQ(1, element.wallClock);
    EXPECT_FALSE(element.cpuRunning);
    EXPECT_EQ(0, element.cpuSec);
    EXPECT_EQ(0, element.cpuNsec);
    EXPECT_EQ(cpuValid, element.cpuValid);
    EXPECT_EQ(3, element.cpuClock);
    EXPECT_EQ(0, element.counter);
    EXPECT_EQ(0, element.extra);
  }
}

TEST(ThreadStatsTest, AnArrayIsAllocatedWithItsCountInFront) {
  static_assert(!std::is_trivially_destructible_v<thread_stats_t>);
  auto* counters = new thread_stats_t[kThreadStatsElements];
  EXPECT_EQ(256U, reinterpret_cast<std::size_t*>(counters)[-1]);
  delete[] counters;
}

}  // namespace
