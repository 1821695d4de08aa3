#include <algorithm>
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

constexpr int kReaders = 3;
constexpr std::uint64_t kRounds = 60;
constexpr std::size_t kSegments = 48;
constexpr std::size_t kSize = kSegments * kSegment;
constexpr std::size_t kMiddle = kSize / 4;  // what is written over, so inside of what was planned

class ReadAheadThreadsTest : public DurableStoreTest {
 protected:
  ReadAheadThreadsTest() {
    options_.readAhead.windowBytes = 12 * kSegment;
    options_.readAhead.cacheBytes = 40000;
  }

  /// Reads the file from front to back; the number of segments that `isRight` refuses.
  template <typename IsRight>
  int ReadThrough(const std::string& name, const IsRight& isRight) {
    int wrong = 0;
    std::string segment(kSegment, '\0');
    for (std::size_t at = 0; at < kSize; at += kSegment) {
      store().Read(name, static_cast<std::int64_t>(at), segment.data(), segment.size());
      wrong += isRight(at, segment) ? 0 : 1;
    }
    return wrong;
  }
};

TEST_F(ReadAheadThreadsTest, ReadersFromFrontToBackBesideWritesAndSyncs) {
  std::vector<std::string> rounds{Pattern(0, kSize)};
  for (std::uint64_t round = 1; round <= kRounds; ++round) {
    rounds.push_back(rounds[0]);
    rounds.back().replace(kMiddle, kSize / 2, Pattern(round, kSize / 2));
  }
  for (const char* const name : {"still", "written"}) {
    store().Create(name);
    store().Write(name, 0, rounds[0]);
  }
  SyncAndReopen();
  std::atomic<std::uint64_t> written{0};  // rounds that are there whole
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  store();  // opened before there are threads
  for (int i = 0; i < kReaders; ++i) {
    threads.emplace_back([&] {
      for (bool last = false; !last;) {
        last = written == kRounds;
        wrong += ReadThrough("still", [&](std::size_t at, const std::string& segment) {
          return segment == rounds[0].substr(at, kSegment);
        });
        std::uint64_t least = written;  // what is there whole is not seen older
        wrong += ReadThrough("written", [&](std::size_t at, const std::string& segment) {
          const auto isOf = [&](const std::string& round) {
            return segment == round.substr(at, kSegment);
          };
          const auto begin = rounds.begin() + static_cast<std::ptrdiff_t>(least);
          const bool right = std::any_of(begin, rounds.end(), isOf);
          least = written;
          return right;
        });
      }
    });
  }
  threads.emplace_back([&] {
    for (std::uint64_t round = 1; round <= kRounds; ++round) {
      store().Write("written", kMiddle, rounds[round].substr(kMiddle, kSize / 2));
      written = round;
    }
  });
  threads.emplace_back([&] {
    while (written < kRounds) {
      store().Sync();
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(0, wrong);
  EXPECT_GT(store().readAheadFigures().hits, 0U);
  store().Sync();
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(ReadAheadThreadsTest, FilesAreClosedWhileTheirContainersAreFetched) {
  const std::string bytes = Pattern(1, kSize);
  store().Create("a");
  store().Write("a", 0, bytes);
  store().Sync();
  for (int i = 0; i < 20; ++i) {
    std::string two(2 * kSegment, '\0');
    store().Read("a", 0, two.data(), kSegment);
    store().Read("a", kSegment, two.data() + kSegment, kSegment);
    EXPECT_EQ(bytes.substr(0, two.size()), two);
    store().CloseFiles();
  }
  Close();  // with fetches under way
  EXPECT_EQ(0, ReadThrough("a", [&](std::size_t at, const std::string& segment) {
              return segment == bytes.substr(at, kSegment);
            }));
}

}  // namespace
}  // namespace zefs::refhost
