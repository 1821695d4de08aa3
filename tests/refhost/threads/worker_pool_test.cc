#include "refhost/threads/worker_pool.h"

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

TEST(WorkerPool, DoesEveryJobBeforeItEnds) {
  std::atomic<int> done{0};
  {
    WorkerPool pool(3, 2);
    for (int i = 0; i < 500; ++i) {
      pool.Post([&done] { ++done; });
    }
  }
  EXPECT_EQ(500, done);
}

TEST(WorkerPool, TakesJobsFromAnyThread) {
  std::atomic<int> done{0};
  {
    WorkerPool pool(2, 4);
    std::vector<std::thread> posters;
    for (int i = 0; i < 4; ++i) {
      posters.emplace_back([&] {
        for (int j = 0; j < 100; ++j) {
          pool.Post([&done] { ++done; });
        }
      });
    }
    for (std::thread& poster : posters) {
      poster.join();
    }
  }
  EXPECT_EQ(400, done);
}

TEST(WorkerPool, PostWaitsWhileTheQueueIsFull) {
  std::promise<void> gate;
  std::shared_future<void> open = gate.get_future().share();
  std::promise<void> taken;
  std::atomic<bool> gateWasOpen{false};
  std::atomic<int> posted{0};
  WorkerPool pool(1, 1);
  pool.Post([&] {
    taken.set_value();
    open.wait();
  });
  taken.get_future().wait();
  pool.Post([] {});  // fills the queue
  std::thread poster([&] {
    pool.Post([] {});
    gateWasOpen = open.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    ++posted;
  });
  gate.set_value();
  poster.join();
  EXPECT_EQ(1, posted);
  EXPECT_TRUE(gateWasOpen) << "there was no room before the first job ended";
}

}  // namespace
}  // namespace zefs::refhost
