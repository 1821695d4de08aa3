#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "support/filesystem.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(FilesystemRaceTest, TwoParallelCallsOnOneNewPathBothSucceed) {
  const zefs::test::TempDir dir;
  const storage::utils::filesystem fs;
  for (int round = 0; round < 50; ++round) {
    const auto path = dir / std::to_string(round) / "a" / "b" / "c";
    std::atomic<int> waiting{0};
    bool results[2] = {false, false};
    const auto make = [&](bool* result) {
      ++waiting;
      while (waiting.load() < 2) {
        std::this_thread::yield();
      }
      *result = fs.check_and_create_directories(path, boost::filesystem::owner_all);
    };
    std::thread other(make, &results[1]);
    make(&results[0]);
    other.join();
    EXPECT_TRUE(results[0]);
    EXPECT_TRUE(results[1]);
    EXPECT_TRUE(fs.is_directory(path));
  }
}

}  // namespace
