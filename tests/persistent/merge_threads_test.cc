// Merges beside readers, a writer and flushes, and who waits for whom.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/clock_steps.h"
#include "tests/persistent/merge_fixture.h"
#include "tests/persistent/thread_switch.h"
#include "tests/support/fault_injection.h"

namespace zefs::test {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

/// Keeps writers away from an open database. A merge that stores a filter stops there, when it
/// counts the records.
class HeldWriters {
 public:
  explicit HeldWriters(const Aldenta::Qnd::Morene::Zefs::LMDBContext& db) {
    EXPECT_EQ(0, ::mdb_txn_begin(db.env, nullptr, 0, &txn_));
  }
  ~HeldWriters() { Release(); }
  HeldWriters(const HeldWriters&) = delete;
  HeldWriters& operator=(const HeldWriters&) = delete;

  void Release() {
    if (txn_ != nullptr) {
      ::mdb_txn_abort(txn_);
      txn_ = nullptr;
    }
  }

 private:
  MDB_txn* txn_ = nullptr;
};

/// Keeps everybody away from the settings. A merge stops there before it comes to its walk.
class HeldSettings {
 public:
  void Release() { lock_.unlock(); }

 private:
  boost::unique_lock<boost::shared_mutex> lock_{FileSystemDaemonConfig::GetInstance().mutex};
};

class MergeThreadsTest : public MergeTest {
 protected:
  MergeThreadsTest() { Set(&Config::persistBloom, std::uint8_t{1}); }

  /// Waits until a merge has written this line.
  void Await(const std::string& expected) {
    while (true) {
      for (const std::string& line : Lines()) {
        lines_.push_back(line);
        if (line == expected) {
          return;
        }
      }
      std::this_thread::yield();
    }
  }
  /// Waits until a merge is about to count the records.
  void AwaitMerge() { Await("0 CMappingLMDB::mergeDBs()"); }
  int LinesLike(const std::string& text) {
    const auto more = Lines();
    lines_.insert(lines_.end(), more.begin(), more.end());
    return static_cast<int>(std::count_if(
        lines_.begin(), lines_.end(),
        [&](const std::string& line) { return line.find(text) != std::string::npos; }));
  }

  std::vector<std::string> lines_;
};

TEST_F(MergeThreadsTest, WhileAMergeRunsNoOtherIsStarted) {
  LoadBoth({Stored(0, 100, 70)}, {Stored(40, 60, 80)});
  HeldSettings held;
  TakeThreadCount();
  peer().StartMergeThread();
  Await("0 CMappingLMDB::SetupDBEnv, dbPath=" + Path("mergedb"));
  EXPECT_EQ(Held::kNot, TableLock());
  EXPECT_EQ("tmp small full ", Chain()) << "flushes go on";
  peer().StartMergeThread();
  peer().StartMergeThread();
  EXPECT_EQ(1, TakeThreadCount());
  EXPECT_THAT(peer().mergeThreads(), SizeIs(1));
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_EQ(1, LinesLike("2 already merging, just exist"));
  held.Release();
  peer().WaitingForMerge();
  ExpectNoMerge();
  EXPECT_THAT(Full(), SizeIs(3));
}

TEST_F(MergeThreadsTest, ReadersAndFlushesGoOnWhileAMergeRuns) {
  LoadBoth({Stored(0, 100, 70)}, {Stored(40, 60, 80)});
  HeldWriters held(peer().smallDb());
  peer().StartMergeThread();
  AwaitMerge();
  EXPECT_THAT(Walk(table()), SizeIs(3));
  WriteKnown(200, 210, Oid(90));
  Set(&Config::mergeCommitCountThreshold, 0U);
  Flush();
  EXPECT_EQ(0, LinesLike("start merging")) << "one is under way";
  EXPECT_THAT(Tmp(), SizeIs(1));
  EXPECT_THAT(Walk(table()), SizeIs(4));
  held.Release();
  peer().WaitingForMerge();
  ExpectNoMerge();
  EXPECT_THAT(Small(), SizeIs(1)) << "what the tmp database took";
  EXPECT_THAT(Full(), SizeIs(3));
  EXPECT_THAT(Walk(table()), SizeIs(4));
}

TEST_F(MergeThreadsTest, AFlushWaitsForTheMergeAndHoldsTheCacheMeanwhile) {
  LoadBoth({Stored(0, 100, 70)}, {Stored(40, 60, 80)}, Records{});
  Set(&Config::mergeWaitEntriesThreshold, 0U);  // any record is one too many
  WriteKnown(200, 210, Oid(90));
  HeldWriters held(peer().smallDb());
  std::atomic<bool> back{false};
  std::thread flusher([&] {
    Flush();
    back = true;
  });
  AwaitMerge();
  while (peer().mergeMutex().try_lock()) {  // held while a thread is joined
    peer().mergeMutex().unlock();
    std::this_thread::yield();
  }
  EXPECT_EQ(Held::kExclusively, HowIsHeld(peer().rwLock()));
  EXPECT_NE(Held::kExclusively, TableLock()) << "the databases are not";
  EXPECT_FALSE(back.load());
  held.Release();
  flusher.join();
  EXPECT_THAT(peer().mergeThreads(), IsEmpty()) << "it was waited for";
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
  ExpectNoMerge();
  EXPECT_THAT(Full(), SizeIs(3));
}

TEST_F(MergeThreadsTest, TheSwitchWaitsUntilNoReaderIsInADatabase) {
  LoadBoth({Stored(0, 100, 70)}, {Stored(40, 60, 80)});
  HeldWriters held(peer().smallDb());
  peer().StartMergeThread();
  AwaitMerge();
  {
    const CMappingLMDB::SharedLock reader(peer().tableLock());
    held.Release();
    AwaitWriterAt(peer().tableLock());
    EXPECT_TRUE(peer().fullDb().opened);
    EXPECT_TRUE(boost::filesystem::exists(File("tmp.mdb")));
  }
  peer().WaitingForMerge();
  ExpectNoMerge();
}

TEST_F(MergeThreadsTest, WhetherAFilterIsStoredIsSettledWhenTheMergeBegins) {
  LoadBoth({Stored(0, 100, 70)}, {Stored(40, 60, 80)});
  HeldWriters held(peer().smallDb());
  peer().StartMergeThread();
  AwaitMerge();
  Set(&Config::persistBloom, std::uint8_t{0});
  held.Release();
  peer().WaitingForMerge();
  ExpectNoMerge();
  EXPECT_EQ(3U, ReadBloomFile(File("bloom")).filter->GetInsertedFingerPrints());
}

TEST_F(MergeThreadsTest, SeveralMayWaitForOneMerge) {
  LoadBoth({Stored(0, 100, 70)}, {Stored(40, 60, 80)});
  HeldWriters held(peer().smallDb());
  peer().StartMergeThread();
  AwaitMerge();
  std::atomic<int> back{0};
  constexpr int kWaiters = 3;
  std::vector<std::thread> waiters;
  waiters.reserve(kWaiters);
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      peer().WaitingForMerge();
      ++back;
    });
  }
  while (peer().mergeMutex().try_lock()) {
    peer().mergeMutex().unlock();
    std::this_thread::yield();
  }
  EXPECT_EQ(0, back.load());
  held.Release();
  for (std::thread& waiter : waiters) {
    waiter.join();
  }
  ExpectNoMerge();
  EXPECT_EQ(0, LinesLike("Failed to join")) << "it is joined once";
}

// --- everything at once ------------------------------------------------------------------------

/// A file of blocks without a hole: every extent maps its object at the object's own offset, in
/// whichever place it lies and however it is cut.
class MergeRoadThreadsTest : public MergeThreadsTest {
 protected:
  static constexpr long kBlock = 16;
  static constexpr long kBlocks = 32;
  static constexpr long kEnd = kBlock * kBlocks;

  /// Rounds of the flusher: ZEFS_MERGE_ROUNDS makes it more of them.
  static int Rounds() {
    const char* const given = std::getenv("ZEFS_MERGE_ROUNDS");
    return given == nullptr ? 40 : std::atoi(given);
  }

  void SetUp() override {
    Records full = {{kPlainFileSizeKey, SpecialBytes(std::int64_t{kEnd})}};
    Records small;
    for (long block = 0; block < kBlocks; ++block) {
      EntryFields fields = FieldsOf(block * kBlock, 70);
      fields.objectOffset = static_cast<std::int32_t>(block * kBlock);
      (block % 3 == 0 ? small : full).push_back({(block + 1) * kBlock, EntryBytes(fields)});
    }
    LoadBoth(full, small);
    Set(&Config::mergeCommitBatchSize, 5U);
  }

  /// Looks at the whole file over and over.
  void Read(const std::atomic<bool>& done) {
    do {
      long at = 0;
      while (at < kEnd) {
        CMappingLMDB::SharedLock lock;
        const auto found = table().lower_bound(at, &lock);
        ASSERT_LE(found->sOff, at) << "no hole";
        ASSERT_GT(found->eOff, at);
        ASSERT_EQ(found->sOff, found->objOff) << "visible bytes keep their place";
        at = found->eOff;
      }
      ASSERT_GE(table().getFileSize(), kEnd);
      ++walks_;
    } while (!done.load());
  }

  /// Lists what is referenced over and over.
  void List(const std::atomic<bool>& done) {
    do {
      std::unordered_map<unsigned long, unsigned long> dcids;
      std::vector<PlainDigest> fps;
      ASSERT_EQ(0, table().GetDCIDAndFPs(&dcids, &fps));
      ASSERT_THAT(fps, testing::Not(IsEmpty()));
    } while (!done.load());
  }

  /// One round of writes and a flush, which starts a merge for the reason that `trigger` says.
  void Round(int round, int trigger) {
    for (int i = 0; i < 6; ++i) {
      const long sOff = (round * 7L + i * 11L) % kBlocks * kBlock + i;
      const long eOff = std::min(sOff + 1 + (round + i) % 40, kEnd);
      const ObjectID oid = Oid(100 + static_cast<std::uint64_t>(round % 50));
      if (i % 2 == 0) {
        WriteKnown(sOff, eOff, oid, sOff);
      } else {
        WriteNode(sOff, eOff, Ready(oid), sOff);
      }
    }
    Set(&Config::mergeEntriesThreshold, trigger == 0 ? 0U : kNever);
    Set(&Config::mergeCommitCountThreshold, trigger == 1 ? 0U : kNever);
    Set(&Config::mergeCommitTimeThreshold, trigger == 2 ? 1U : kNever);
    SetClockStep(trigger == 2 ? 2 : 0);
    if (trigger == 3) {
      peer().WaitingForMerge();
      Faults::OnlyDatabase("mergedb");
      Faults::FailNth(Call::kMdbPut, 1, ENOSPC);  // what fails now has to be done again
      peer().StartMergeThread();
      peer().WaitingForMerge();
      EXPECT_TRUE(Faults::Fired());
      Faults::OnlyBelow(dir_.path().string());
    }
    Set(&Config::mergeWaitEntriesThreshold, round % 5 == 0 ? 0U : 1000U);
    Flush(round % 3 != 0);
    SetClockStep(0);
  }

  std::atomic<int> walks_{0};
};

TEST_F(MergeRoadThreadsTest, ReadersSeeNoHoleBesideAWriterItsFlushesAndMergesForEveryReason) {
  const WatchCalls watch(dir_.path().string());
  refhost::LogRecorder rare(kLogRare);
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  readers.emplace_back([&] { Read(done); });
  readers.emplace_back([&] { Read(done); });
  readers.emplace_back([&] { List(done); });
  std::thread flusher([&] {
    for (int round = 0; round < Rounds(); ++round) {
      Round(round, round / 4 % 5);  // the last of the five starts none
      if (round % 2 == 0) {
        EXPECT_EQ(0, table().setFileSize(kEnd + round));
        EXPECT_EQ(0, table().setExtMapVersion({2, 0}));
      }
    }
    Flush();
  });
  flusher.join();
  done = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_GE(walks_.load(), 2);
  peer().WaitingForMerge();

  std::string log;
  for (const auto& record : rare.Take()) {
    log += record.text + '\n';
  }
  const auto seen = [&](const std::string& expression) {
    return testing::Matches(testing::ContainsRegex(expression))(log);
  };
  EXPECT_TRUE(
      seen("small table entires is [1-9][0-9]* tableCommitCounter [0-9]+, commit time 0, "
           "tmpdb 0"));
  EXPECT_TRUE(seen("commit time [2-9][0-9]*, tmpdb 0"));
  EXPECT_TRUE(seen("tmpdb 1"));
  EXPECT_FALSE(seen("Failed to join"));

  if (peer().tmpDb().opened) {
    EXPECT_EQ(0, peer().MergeAndSwitch());
  }
  ExpectNoMerge();
  std::atomic<bool> once{true};
  Read(once);
}

}  // namespace
}  // namespace zefs::test
