#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/refhost/durable/durable_fixture.h"

namespace zefs::refhost {
namespace {

using test::DurableStoreTest;
using test::kSegment;
using test::Pattern;
using test::ProblemsOf;
using test::ReadAll;

constexpr int kWriters = 3;
constexpr std::uint64_t kRounds = 12;
constexpr std::size_t kSegments = 40;

std::string NameOf(int writer) {
  return "file " + std::to_string(writer);
}

TEST_F(DurableStoreTest, WritersReadersAndSyncsBesideEachOther) {
  for (int i = 0; i < kWriters; ++i) {
    store().Create(NameOf(i));
    store().Write(NameOf(i), 0, Pattern(0, kSegments * kSegment));
  }
  store().Sync();
  std::atomic<int> writing{kWriters};
  std::vector<std::thread> threads;
  for (int i = 0; i < kWriters; ++i) {
    threads.emplace_back([&, i] {
      for (std::uint64_t round = 1; round <= kRounds; ++round) {
        store().Write(NameOf(i), 0, Pattern(round, kSegments * kSegment));
      }
      --writing;
    });
  }
  std::atomic<int> mixed{0};
  threads.emplace_back([&] {  // each segment is of one round, whole
    std::string segment(kSegment, '\0');
    for (std::size_t n = 0; writing > 0; ++n) {
      const std::size_t at = n % kSegments * kSegment;
      store().Read(NameOf(static_cast<int>(n % kWriters)), static_cast<std::int64_t>(at),
                   segment.data(), segment.size());
      bool known = false;
      for (std::uint64_t round = 0; round <= kRounds && !known; ++round) {
        known = segment == Pattern(round, kSegments * kSegment).substr(at, kSegment);
      }
      mixed += known ? 0 : 1;
    }
  });
  threads.emplace_back([&] {
    while (writing > 0) {
      store().Sync();
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(0, mixed);
  SyncAndReopen();
  for (int i = 0; i < kWriters; ++i) {
    EXPECT_EQ(Pattern(kRounds, kSegments * kSegment), ReadAll(store(), NameOf(i)));
  }
  EXPECT_EQ("", ProblemsOf(store()));
}

}  // namespace
}  // namespace zefs::refhost
