#include "host/auto_log_cpu.h"

#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "refhost/host/cpu_accounting.h"

namespace zefs::refhost {
namespace {

using Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu;
using Aldenta::Qnd::Tarvenda::Utils::kThreadStatsElements;
using Aldenta::Qnd::Tarvenda::Utils::thread_stats_t;

class AutoLogCpuTest : public ::testing::Test {
 protected:
  /// Measures one call and does `inside` meanwhile.
  template <typename Inside>
  void Measured(Inside inside) {
    AutoLogCpu guard;
    guard.stats = counters_.get();
    guard.start(guard.stats);
    inside();
  }

  CpuTotals Totals() const { return SumCpuCounters(counters_.get()); }

  std::unique_ptr<thread_stats_t[]> counters_{new thread_stats_t[kThreadStatsElements]};
};

/// Uses up CPU until the thread's clock has moved by `nanos`.
void Burn(std::int64_t nanos) {
  timespec start{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);
  timespec now{};
  do {
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  } while ((now.tv_sec - start.tv_sec) * 1000000000 + now.tv_nsec - start.tv_nsec < nanos);
}

TEST_F(AutoLogCpuTest, AFreshArraySaysNothing) {
  EXPECT_EQ(Totals().calls, 0);
  EXPECT_EQ(Totals().wallNanos, 0);
  EXPECT_EQ(Totals().cpuNanos, 0);
}

TEST_F(AutoLogCpuTest, BothClocksAreReadAroundACall) {
  Measured([] { Burn(2000000); });
  EXPECT_EQ(Totals().calls, 1);
  EXPECT_GE(Totals().cpuNanos, 2000000);
  EXPECT_GT(Totals().wallNanos, 0);
}

TEST_F(AutoLogCpuTest, TimesOfManyCallsAddUp) {
  for (int call = 0; call < 50; ++call) {
    Measured([] { Burn(100000); });
  }
  EXPECT_EQ(Totals().calls, 50);
  EXPECT_GE(Totals().cpuNanos, 50 * 100000);
}

TEST_F(AutoLogCpuTest, ARecursiveCallCountsOnItsOwnAndInTheOuterOne) {
  Measured([this] {
    Burn(100000);
    Measured([] { Burn(1000000); });
  });
  EXPECT_EQ(Totals().calls, 2);
  EXPECT_GE(Totals().cpuNanos, 2100000);
}

TEST_F(AutoLogCpuTest, ACallInsideAnotherOperationGoesToItsOwnArray) {
  const std::unique_ptr<thread_stats_t[]> other(new thread_stats_t[kThreadStatsElements]);
  Measured([&other] {
    AutoLogCpu guard;
    guard.stats = other.get();
    guard.start(guard.stats);
    Burn(100000);
  });
  EXPECT_EQ(Totals().calls, 1);
  EXPECT_EQ(SumCpuCounters(other.get()).calls, 1);
  EXPECT_LE(SumCpuCounters(other.get()).cpuNanos, Totals().cpuNanos);
}

TEST_F(AutoLogCpuTest, AnEndWithoutAStartIsIgnored) {
  AutoLogCpu guard;
  guard.end(counters_.get());
  EXPECT_EQ(Totals().calls, 0);
}

TEST_F(AutoLogCpuTest, AnExceptionEndsTheMeasuring) {
  try {
    Measured([] { throw 1; });
  } catch (int) {
  }
  EXPECT_EQ(Totals().calls, 1);
}

TEST_F(AutoLogCpuTest, MoreThreadsThanElementsLoseNoCall) {
  constexpr std::size_t kBatches = 10;
  constexpr std::size_t kThreads = 30;
  constexpr int kCalls = 20;
  static_assert(kBatches * kThreads > kThreadStatsElements);
  for (std::size_t batch = 0; batch < kBatches; ++batch) {
    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([this] {
        for (int call = 0; call < kCalls; ++call) {
          Measured([] {});
        }
      });
    }
    EXPECT_LE(Totals().calls, static_cast<long>(kBatches * kThreads) * kCalls);  // beside them
    for (std::thread& thread : threads) {
      thread.join();
    }
  }
  EXPECT_EQ(Totals().calls, static_cast<long>(kBatches * kThreads) * kCalls);
  int used = 0;
  for (std::size_t i = 0; i < kThreadStatsElements; ++i) {
    used += counters_[i].counter != 0 ? 1 : 0;
  }
  EXPECT_EQ(used, static_cast<int>(kThreadStatsElements));  // spread over all of them
}

TEST_F(AutoLogCpuTest, AccountingIsSwitchedByTheHost) {
  EXPECT_FALSE(AutoLogCpu::enabled_);
  EnableCpuAccounting(true);
  EXPECT_TRUE(AutoLogCpu::enabled_);
  EXPECT_TRUE(AutoLogCpu::initialized_);
  EnableCpuAccounting(false);
  EXPECT_FALSE(AutoLogCpu::enabled_);
}

}  // namespace
}  // namespace zefs::refhost
