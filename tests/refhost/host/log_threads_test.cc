#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "refhost/host/log.h"
#include "refhost/host/log_recorder.h"

namespace zefs::refhost {
namespace {

TEST(LogThreadsTest, NoLineIsLostOrTorn) {
  constexpr int kThreads = 4;
  constexpr int kLines = 2000;
  const std::string padding(700, '-');  // some go through the heap
  LogRecorder recorder(kLogStep);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread, &padding] {
      for (int line = 0; line < kLines; ++line) {
        ZEFS_LOG(kLogTrace, "dropped");
        ZEFS_LOG(line % 2 == 0 ? kLogStep : kLogFailure, "%d %d%s", thread, line,
                 line % 16 == 0 ? padding.c_str() : "");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::multiset<std::string> expected;
  for (int thread = 0; thread < kThreads; ++thread) {
    for (int line = 0; line < kLines; ++line) {
      expected.insert(std::to_string(thread) + " " + std::to_string(line) +
                      (line % 16 == 0 ? padding : ""));
    }
  }
  std::multiset<std::string> seen;
  for (const LogRecord& record : recorder.Take()) {
    seen.insert(record.text);
  }
  EXPECT_EQ(seen, expected);
}

TEST(LogThreadsTest, RecordersAndLevelsComeAndGoUnderLoggingThreads) {
  LogRecorder outer;  // so that nothing reaches the terminal
  std::atomic<bool> stop{false};
  std::atomic<int> written{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 2; ++thread) {
    threads.emplace_back([&] {
      while (!stop) {
        ZEFS_LOG(kLogStep, "line");
        ++written;
      }
    });
  }
  for (int round = 0; round < 200; ++round) {
    LogRecorder inner(kLogStep);
    SetLogLevel(round % 8);
    const int before = written;
    while (written < before + 4) {  // at least one whole call of some thread lies inside
      std::this_thread::yield();
    }
    for (const LogRecord& record : inner.Take()) {
      ASSERT_EQ(record, (LogRecord{kLogStep, "line"}));
    }
  }
  stop = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  SetLogLevel(kLogRecoverable);
  for (const LogRecord& record : outer.Take()) {
    ASSERT_EQ(record, (LogRecord{kLogStep, "line"}));
  }
}

}  // namespace
}  // namespace zefs::refhost
