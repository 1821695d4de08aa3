#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "sidefiles/dc_offset_store.h"
#include "tests/sidefiles/dc_offset_store_fixture.h"

namespace zefs::test {
namespace {

class DcOffsetStoreThreadsTest : public DcOffsetStoreFixture {
 protected:
  static constexpr int kWriters = 2;
  static constexpr int kPerWriter = 400;

  /// Starts the writers, each with keys of its own, and runs `beside` until they are done.
  template <typename Beside>
  void StoreBeside(const Beside& beside) {
    std::atomic<int> running{kWriters};
    std::vector<std::thread> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
      writers.emplace_back([this, writer, &running] {
        for (int i = 0; i < kPerWriter; ++i) {
          EXPECT_EQ(0, Store(Wanted(writer * kPerWriter + i)));
        }
        --running;
      });
    }
    do {
      beside();
    } while (running > 0);
    for (std::thread& writer : writers) {
      writer.join();
    }
  }

  /// One list, received and given up at once.
  void HandOut(std::vector<DCOffset>* received) {
    std::vector<DCOffset> list;
    EXPECT_EQ(0, store_.Read(&list));
    received->insert(received->end(), list.begin(), list.end());
    for (DCOffset& record : list) {
      record.dcOffset = -2;
    }
    EXPECT_EQ(0, store_.MergeDcOffset(list));
  }

  static std::vector<Fields> All() {
    std::vector<DCOffset> all;
    for (int key = 0; key < kWriters * kPerWriter; ++key) {
      all.push_back(Wanted(key));
    }
    return Sorted(all);
  }
};

TEST_F(DcOffsetStoreThreadsTest, ListsBesideWritersHoldEachRecordOnce) {
  Threshold(3);
  std::vector<DCOffset> received;
  StoreBeside([&] { HandOut(&received); });
  EXPECT_EQ(0, store_.Flush());
  HandOut(&received);
  EXPECT_EQ(All(), Sorted(received));
  EXPECT_FALSE(Exists(path_));
  EXPECT_FALSE(Exists(aside_));
  EXPECT_TRUE(Failures().empty());
}

TEST_F(DcOffsetStoreThreadsTest, PathChangesAndListsBesideWritersHoldEachRecordOnce) {
  Threshold(3);
  const std::string moved = (dir_ / "moved").string();
  std::vector<DCOffset> received;
  StoreBeside([&] {
    std::thread mover([&] {
      store_.UpdatePath(moved);
      store_.UpdatePath(path_);
    });
    HandOut(&received);
    mover.join();
  });
  for (const std::string& path : {moved, path_}) {
    store_.UpdatePath(path);
    HandOut(&received);
  }
  EXPECT_EQ(All(), Sorted(received));
  EXPECT_TRUE(InMemory().empty());
  EXPECT_TRUE(Failures().empty());
}

}  // namespace
}  // namespace zefs::test
