#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/refhost/gc/gc_fixture.h"

namespace zefs::refhost {
namespace {

using test::GcTest;
using test::kSegment;
using test::Segments;

constexpr std::size_t kWriters = 3;
constexpr std::uint64_t kRounds = 12;

TEST_F(GcTest, CollectionsAndCompactionsBesideWritersAndReaders) {
  store();
  std::atomic<std::size_t> writing{kWriters};
  std::vector<std::thread> threads;
  for (std::size_t number = 0; number < kWriters; ++number) {
    threads.emplace_back([this, number, &writing] {
      const std::string name = "file " + std::to_string(number);
      for (std::uint64_t round = 0; round < kRounds; ++round) {
        const std::string bytes = Segments(number + round * 7, 20);
        store().Create(name);
        store().Write(name, 0, bytes);
        EXPECT_TRUE(bytes == test::ReadAll(store(), name)) << name << " in round " << round;
        store().Write(name, 5 * kSegment, bytes.substr(0, kSegment));
        EXPECT_TRUE(bytes.substr(6 * kSegment) ==
                    test::ReadAll(store(), name).substr(6 * kSegment));
      }
      --writing;
    });
  }
  while (writing != 0) {
    Collect();
    Compact(80);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (std::size_t number = 0; number < kWriters; ++number) {
    std::string& bytes = files_["file " + std::to_string(number)];
    bytes = Segments(number + (kRounds - 1) * 7, 20);
    bytes.replace(5 * kSegment, kSegment, bytes, 0, kSegment);
  }
  store().Sync();
  for (const auto& [name, bytes] : files_) {
    EXPECT_TRUE(bytes == test::ReadAll(store(), name)) << name;
  }
  Compact(100);
  Collect();
  ExpectSoundNow("in the end");
}

}  // namespace
}  // namespace zefs::refhost
