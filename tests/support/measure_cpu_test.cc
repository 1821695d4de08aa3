#include "support/measure_cpu.h"

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "refhost/host/cpu_accounting.h"
#include "table/mapping_table.h"

namespace {

using Aldenta::Qnd::Morene::Zefs::CpuCounterSite;
using Aldenta::Qnd::Morene::Zefs::StartMeasuring;
using Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu;
using Aldenta::Qnd::Tarvenda::Utils::thread_stats_t;
using zefs::refhost::SumCpuCounters;

class MeasureCpuTest : public testing::Test {
 protected:
  void TearDown() override { Switch(false, false); }

  static void Switch(bool enabled, bool initialized) {
    AutoLogCpu::enabled_ = enabled;
    AutoLogCpu::initialized_ = initialized;
  }

  /// One measured call; what the guard measured into.
  thread_stats_t* Call(CpuCounterSite& site, const char* name = "operation") {
    AutoLogCpu guard;
    StartMeasuring(guard, site, registry_, name);
    return guard.stats;
  }

  /// The arrays of a test are not those of a program, which live for ever.
  static void Release(CpuCounterSite& site) { delete[] site.exchange(nullptr); }

  CpuCounterRegistry registry_;
  CpuCounterSite site_{nullptr};
};

TEST_F(MeasureCpuTest, DisabledMakesNoEntry) {
  Switch(false, true);
  EXPECT_EQ(nullptr, Call(site_));
  EXPECT_TRUE(registry_.empty());
  EXPECT_EQ(nullptr, site_.load());
}

TEST_F(MeasureCpuTest, EnabledBeforeInitialisationRunsWithoutAGuard) {
  Switch(true, false);
  EXPECT_EQ(nullptr, Call(site_));
  EXPECT_TRUE(registry_.empty());
  EXPECT_EQ(nullptr, site_.load());
}

TEST_F(MeasureCpuTest, TheFirstMeasuredCallMakesTheArrayAndLaterOnesUseIt) {
  Switch(true, true);
  thread_stats_t* const counters = Call(site_);
  ASSERT_NE(nullptr, counters);
  EXPECT_EQ(256U, reinterpret_cast<std::size_t*>(counters)[-1]);
  ASSERT_EQ(1U, registry_.size());
  EXPECT_EQ(counters, registry_.at("operation"));
  EXPECT_EQ(counters, Call(site_));
  EXPECT_EQ(1U, registry_.size());
  Release(site_);
}

TEST_F(MeasureCpuTest, DisabledAgainLeavesTheGuardEmptyButKeepsTheArray) {
  Switch(true, true);
  thread_stats_t* const counters = Call(site_);
  Switch(false, true);
  EXPECT_EQ(nullptr, Call(site_));
  EXPECT_EQ(counters, site_.load());
  Release(site_);
}

TEST_F(MeasureCpuTest, AnArrayMadeEarlierIsUsedEvenWhenInitialisedIsOffAgain) {
  Switch(true, true);
  thread_stats_t* const counters = Call(site_);
  Switch(true, false);
  EXPECT_EQ(counters, Call(site_));
  Release(site_);
}

TEST_F(MeasureCpuTest, ASecondSiteOfTheSameNameKeepsTheEntryAndItsOwnArray) {
  Switch(true, true);
  CpuCounterSite second{nullptr};
  thread_stats_t* const first = Call(site_);
  thread_stats_t* const other = Call(second);
  EXPECT_NE(first, other);
  EXPECT_EQ(first, registry_.at("operation"));
  EXPECT_EQ(1U, registry_.size());
  Release(site_);
  Release(second);
}

void measured_function(bool fails = false) {
  ZEFS_MEASURE_CPU(CMap_cpu_counts);
  if (fails) {
    throw std::runtime_error("left by an exception");
  }
}

/// As above, under the same name but at a site of its own, which no other test has used.
struct Untouched {
  static void measured_function() { ZEFS_MEASURE_CPU(extent_journal_cpu_counters); }
};

TEST_F(MeasureCpuTest, TheMacroUsesTheFunctionsOwnUnqualifiedName) {
  Switch(true, true);
  ASSERT_EQ(0U, CMap_cpu_counts.count("measured_function"));
  measured_function();
  EXPECT_EQ(1U, CMap_cpu_counts.count("measured_function"));
  thread_stats_t* const counters = CMap_cpu_counts.at("measured_function");
  EXPECT_EQ(1, SumCpuCounters(counters).calls) << "started, and ended on return";
  EXPECT_THROW(measured_function(true), std::runtime_error);
  EXPECT_EQ(2, SumCpuCounters(counters).calls) << "and ended on the way of an exception";
  CMap_cpu_counts.clear();  // the array stays: the site goes on using it
}

TEST_F(MeasureCpuTest, AMeasuredFunctionWithoutMeasuringEntersNoRegistry) {
  Switch(false, true);
  Untouched::measured_function();
  Switch(true, false);
  Untouched::measured_function();
  EXPECT_TRUE(extent_journal_cpu_counters.empty());
  EXPECT_TRUE(mapping_lmdb_cpu_counters.empty());
  Switch(true, true);
  Untouched::measured_function();
  ASSERT_EQ(1U, extent_journal_cpu_counters.count("measured_function"));
  EXPECT_EQ(1, SumCpuCounters(extent_journal_cpu_counters.at("measured_function")).calls)
      << "the two calls before made no array and were not counted";
  extent_journal_cpu_counters.clear();
}

TEST_F(MeasureCpuTest, NoOperationOfTheInMemoryTableFeedsItsRegistry) {
  Switch(true, true);
  Aldenta::Qnd::Morene::Zefs::CMappingTable table(nullptr);
  table.append(0, 10, nullptr, 0, 0, nullptr, nullptr);
  table.insert(5, 7, nullptr, 0, 0, nullptr, -1, nullptr);
  table.begin();
  table.find(5, nullptr);
  table.lower_bound(5, nullptr);
  table.lower_bound_in_cache(5, nullptr);
  table.load("", false, "");
  table.GetObjectIdsAndOffsets(0, 10);
  table.UpdateObjectIdsByRange(0, 10, {});
  table.Snapshot("", "");
  table.GetDCIDAndBloomFilter(nullptr, nullptr);
  table.checkAndBackfillObjectID(nullptr, true, "", "", nullptr, nullptr);
  table.truncate(0, nullptr);
  EXPECT_TRUE(CMap_cpu_counts.empty());
  EXPECT_TRUE(mapping_lmdb_cpu_counters.empty());
  EXPECT_TRUE(extent_journal_cpu_counters.empty());
}

TEST_F(MeasureCpuTest, ManyThreadsAtOnceMakeExactlyOneArray) {
  Switch(true, true);
  constexpr int kThreads = 8;
  std::atomic<int> waiting{0};
  std::vector<thread_stats_t*> seen(kThreads);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ++waiting;
      while (waiting.load() < kThreads) {
        std::this_thread::yield();
      }
      seen[static_cast<std::size_t>(i)] = Call(site_);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (thread_stats_t* counters : seen) {
    EXPECT_EQ(site_.load(), counters);
  }
  EXPECT_EQ(1U, registry_.size());
  Release(site_);
}

}  // namespace
