// Whatever host threads may do at the same time with a stored table, done at random by several, on
// two tables of one process at once. ZEFS_STRESS_ROUNDS makes it longer, ZEFS_TEST_SEED another
// run.

#include "tests/system/stress/stored_stress.h"

#include <iostream>
#include <thread>

#include <gtest/gtest.h>

#include "host/config.h"
#include "host/zefs_log.h"
#include "refhost/host/log_recorder.h"
#include "tests/support/figures.h"
#include "tests/support/property.h"
#include "tests/system/stress/stress_settings.h"

namespace zefs::test::stress {
namespace {

constexpr int kThreads = 4;
constexpr int kSteps = 60;
constexpr int kUsualRounds = 12;

class StoredStressTest : public testing::Test {
 protected:
  using Config = FileSystemDaemonConfig;

  void RunTwo(bool prefetched) {
    Config::GetInstance().Set(&Config::prefetchEnabled, prefetched ? 1 : 0);
    std::cout << "ZEFS_TEST_SEED=" << PropertySeed() << '\n';
    refhost::LogRecorder log(kLogRare);
    StoredStress first("PROVISION", prefetched, PropertySeed(), kThreads);
    StoredStress second("GENERIC", prefetched, PropertySeed() + 1, kThreads);
    {
      const Watchdog watchdog({&first, &second});
      std::thread other([&] { second.Run(Rounds(kUsualRounds), kSteps); });
      first.Run(Rounds(kUsualRounds), kSteps);
      other.join();
      first.ExpectTheModel();
      second.ExpectTheModel();
    }
    long merges = 0;
    for (const auto& record : log.Take()) {
      EXPECT_LT(record.level, kLogRecoverable) << record.text;
      merges += record.text.rfind("start merging", 0) == 0 ? 1 : 0;
    }
    TellFigure("operations of a stress of stored tables", first.steps() + second.steps());
    TellFigure("merges of a stress of stored tables", merges);
    TellFigure("flushes of a stress of stored tables", first.flushes() + second.flushes());
    TellFigure("nodes of a stress of stored tables", first.nodes() + second.nodes());
  }

  const StressSettings settings_;
};

TEST_F(StoredStressTest, PermittedOperationsOfSeveralThreadsLeaveWhatEachHasWritten) {
  RunTwo(false);
}

TEST_F(StoredStressTest, TheSameWithPrefetchedExtents) {
  RunTwo(true);
}

}  // namespace
}  // namespace zefs::test::stress
