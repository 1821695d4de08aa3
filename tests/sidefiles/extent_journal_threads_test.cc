// Several threads at one journal. Each record carries its thread in `dcid` and its number in
// `offset`.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <map>
#include <thread>

#include "sidefiles/extent_journal.h"
#include "tests/sidefiles/extent_journal_fixture.h"

namespace {

using namespace zefs::test;

constexpr int kThreads = 4;
constexpr int kRecords = 12000;  // of each thread: the buffer fills twice and more

class ExtentJournalThreadsTest : public ExtentJournalFixture {
 protected:
  // Lines of failures only: those of single records would fill the memory.
  ExtentJournalThreadsTest() : failures_(8) {}

  static int AddNumbered(ExtentJournal& journal, int thread, int number) {
    std::array<unsigned char, 32> fp{};
    fp.fill(static_cast<unsigned char>(number));
    return journal.Add(number, number + 1L, number, 64U + static_cast<unsigned>(thread), fp, 0);
  }

  /// `work(thread)` on each of kThreads threads, and `beside` on this one while they run.
  static void Run(const std::function<void(int)>& work, const std::function<void()>& beside) {
    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        work(t);
        --running;
      });
    }
    while (running > 0) {
      beside();
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  /// The numbers of each thread in the order of the records, all of which are whole.
  static std::map<std::uint64_t, std::vector<std::int64_t>> Numbers(
      const std::vector<Extent>& records) {
    std::map<std::uint64_t, std::vector<std::int64_t>> numbers;
    for (const Extent& record : records) {
      EXPECT_EQ(record.start, record.offset);
      EXPECT_EQ(record.end, record.offset + 1);
      EXPECT_EQ(record.fp.front(), static_cast<unsigned char>(record.offset));
      EXPECT_EQ(record.fp.front(), record.fp.back());
      numbers[record.dcid].push_back(record.offset);
    }
    return numbers;
  }

  LogRecorder failures_;
};

TEST_F(ExtentJournalThreadsTest, EveryRecordGetsToTheFileOnceAndInTheOrderOfItsThread) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  Run(
      [&](int thread) {
        for (int i = 0; i < kRecords; ++i) {
          EXPECT_EQ(0, AddNumbered(journal, thread, i));
        }
      },
      [&] { EXPECT_EQ(0, journal.Flush(true)); });
  std::vector<Extent> out;
  ASSERT_EQ(0, journal.Get(&out));
  EXPECT_EQ(std::size_t{kThreads * kRecords}, out.size());
  std::vector<std::int64_t> all;
  for (int i = 0; i < kRecords; ++i) {
    all.push_back(i);
  }
  const auto numbers = Numbers(out);
  EXPECT_EQ(std::size_t{kThreads}, numbers.size());
  for (const auto& [thread, ofThread] : numbers) {
    EXPECT_TRUE(all == ofThread) << "thread " << thread;
  }
  EXPECT_EQ(Log{}, failures_.Take());
}

TEST_F(ExtentJournalThreadsTest, FullBuffersAreWrittenByWhoeverFillsThem) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  Run(
      [&](int thread) {
        for (int i = 0; i < kRecords; ++i) {
          EXPECT_EQ(0, AddNumbered(journal, thread, i));
        }
      },
      [] { std::this_thread::yield(); });
  const auto written = boost::filesystem::file_size(Path()) / kJournalRecordSize;
  EXPECT_EQ(std::size_t{kThreads * kRecords}, written + Buffered(journal));
  EXPECT_LT(Buffered(journal), std::size_t{kLimit});
}

TEST_F(ExtentJournalThreadsTest, FailingWritesRepeatRecordsButLoseNone) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  WatchCalls watch(dir_.path().string());
  std::atomic<int> failed{0};
  for (int nth = 2; nth < 40; nth += 3) {
    Faults::FailNth(nth % 2 == 0 ? Call::kWrite : Call::kFsync, nth, ENOSPC);
  }
  Run(
      [&](int thread) {
        for (int i = 0; i < kRecords; ++i) {
          failed += AddNumbered(journal, thread, i) != 0 ? 1 : 0;
        }
      },
      [&] { failed += journal.Flush(true) != 0 ? 1 : 0; });
  for (int i = 0; i < 40; ++i) {
    failed += journal.Flush(true) != 0 ? 1 : 0;  // until the last fault has fired
  }
  EXPECT_GT(failed, 0);
  std::vector<Extent> out;
  ASSERT_EQ(0, journal.Get(&out));
  for (auto& [thread, numbers] : Numbers(out)) {
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    EXPECT_EQ(std::size_t{kRecords}, numbers.size()) << "thread " << thread;
  }
}

TEST_F(ExtentJournalThreadsTest, DestroyAndStartBesideAddLeaveWholeRecordsOnly) {
  ExtentJournal journal(Path(), false);
  ASSERT_EQ(0, journal.Start());
  std::atomic<int> refused{0};
  Run(
      [&](int thread) {
        for (int i = 0; i < kRecords; ++i) {
          refused += AddNumbered(journal, thread, i) != 0 ? 1 : 0;
          if (i % 1000 == 999) {
            journal.Flush(false);
          }
        }
      },
      [&] {
        EXPECT_EQ(0, journal.Destroy());
        EXPECT_EQ(0, journal.Start());
      });
  EXPECT_EQ(0, journal.Flush(true));
  std::vector<Extent> out;
  ASSERT_EQ(0, journal.Get(&out));
  EXPECT_LE(out.size(), std::size_t{kThreads * kRecords});
  Numbers(out);
}

}  // namespace
