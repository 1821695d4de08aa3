#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "tests/refhost/gc/gc_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/fault_injection.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::Call;
using test::Faults;
using test::Files;
using test::kSegment;
using test::Segments;

constexpr std::size_t kLength = 24;

// Of containers, when all garbage is collected: as the files were put, and compacted.
constexpr std::uint64_t kSparseBytes = 64 * 1024;
constexpr std::uint64_t kDenseBytes = 40 * 1024;

/// All that changes something on the disk or may do so, those that LMDB makes included, and of
/// these the ones after which something is different for the next process.
constexpr Call kAllCalls[] = {
    Call::kOpen,        Call::kWrite,       Call::kFsync,  Call::kClose,  Call::kRename,
    Call::kUnlink,      Call::kMkdir,       Call::kPwrite, Call::kWritev, Call::kFdatasync,
    Call::kFtruncate,   Call::kMdbEnvOpen,  Call::kMdbPut, Call::kMdbDel, Call::kMdbCursorPut,
    Call::kMdbTxnBegin, Call::kMdbTxnCommit};
constexpr Call kMostCalls[] = {Call::kRename, Call::kUnlink, Call::kFsync, Call::kMdbTxnCommit};

bool AtEveryCall() {
  return std::getenv("ZEFS_TEST_EVERY_CALL") != nullptr;
}

std::vector<Call> CallsToDieAt() {
  return AtEveryCall() ? std::vector<Call>(std::begin(kAllCalls), std::end(kAllCalls))
                       : std::vector<Call>(std::begin(kMostCalls), std::end(kMostCalls));
}

/// A process that works on a store and dies by SIGKILL in place of a call. ZEFS_TEST_EVERY_CALL
/// has it die at each one; the usual run takes the first ones and some of the rest.
class GcCrash : public ::testing::TestWithParam<std::tuple<const char*, const char*>> {
 protected:
  using Work = std::function<void(DurableStore&)>;

  std::string Path() const { return (dir_ / "store").string(); }
  std::string Before() const { return (dir_ / "before").string(); }

  static DurableStoreOptions Options() {
    DurableStoreOptions options = test::SmallStoreOptions();
    options.format.tableType = std::get<0>(GetParam());
    return options;
  }

  void SetUp() override {
    files_["stays"] = Segments(1, kLength);
    files_["share"] = Segments(1, kLength / 2) + Segments(5, kLength / 2);
    files_["over"] = Segments(2, kLength);
    ASSERT_TRUE(test::EndedWell(test::RunInChild([&] { Make(); })));
    fs::rename(Path(), Before());
    for (std::size_t at = 0; at < kLength; at += 4) {
      files_["over"].replace(at * kSegment, 100, Segments(6, 1), 0, 100);
    }
  }

  /// Sparse containers, dead ones, shared objects, and a table with pieces and merges.
  void Make() const {
    DurableStore store(Path(), Options());
    const Files gone = {{"gone", Segments(3, kLength)}, {"gone too", Segments(4, kLength)}};
    for (const Files& files : {files_, gone}) {
      for (const auto& [name, bytes] : files) {
        store.Create(name);
      }
    }
    for (std::size_t at = 0; at < kLength * kSegment; at += kSegment) {
      for (const Files& files : {files_, gone}) {
        for (const auto& [name, bytes] : files) {
          store.Write(name, static_cast<std::int64_t>(at), bytes.substr(at, kSegment));
        }
      }
    }
    store.Create("dead");
    store.Write("dead", 0, Segments(8, 2 * kLength));
    store.Sync();
    for (std::size_t at = 0; at < kLength; at += 4) {
      store.Write("over", static_cast<std::int64_t>(at * kSegment), Segments(6, 1).substr(0, 100));
    }
    for (const char* const name : {"gone", "gone too", "dead"}) {
      store.Remove(name);
    }
    store.Sync();
    store.CloseFiles();
  }

  void Restore() const {
    fs::remove_all(Path());
    std::filesystem::copy(Before(), Path(), std::filesystem::copy_options::recursive);
  }

  void Live(const Work& work) const {
    DurableStore store(Path(), Options());
    work(store);
    store.CloseFiles();
  }

  /// Bytes in containers that are left when everything has been done.
  std::uint64_t Finish(const Work& work) const {
    const LogRecorder quiet;
    {
      DurableStoreOptions options = Options();
      options.finishCompaction = false;
      DurableStore store(Path(), options);
      test::ExpectSound(store, files_, "before the rest is done");
      store.CloseFiles();
    }
    DurableStore store(Path(), Options());
    EXPECT_FALSE(store.objects().byFingerprint());
    test::ExpectSound(store, files_, "after the rest is done");
    work(store);
    test::ExpectSound(store, files_, "after the work was done again");
    CollectGarbage(&store, {});
    test::ExpectSound(store, files_, "after a collection");
    std::uint64_t bytes = 0;
    for (const auto& [dcid, size] : store.objects().ContainerSizes()) {
      bytes += size;
    }
    EXPECT_EQ(0U, CollectGarbage(&store, {}).containersRemoved);
    store.CloseFiles();
    return bytes;
  }

  /// Runs `work` again and again, dies at another call each time, and has `inspect` look at what
  /// is there afterwards.
  void DieEverywhere(const Work& work, const std::function<void()>& inspect) {
    int crashes = 0;
    for (const Call call : CallsToDieAt()) {
      for (int nth = 1;; nth += AtEveryCall() ? 1 : 1 + nth / 2) {
        Restore();
        const int status = test::RunInChild([&] {
          const LogRecorder quiet;
          Faults::OnlyBelow(Path());
          Faults::KillNth(call, nth);
          Live(work);
        });
        if (test::EndedWell(status)) {
          break;
        }
        ASSERT_TRUE(test::DiedBy(status, SIGKILL)) << static_cast<int>(call) << " " << nth;
        ++crashes;
        ASSERT_TRUE(test::EndedWell(test::RunInChild(inspect)))
            << "after a crash at call " << nth << " of kind " << static_cast<int>(call);
      }
    }
    std::cout << crashes << " crashes\n";
    EXPECT_GT(crashes, 0);
  }

  const test::SmallThresholds thresholds_{
      4, static_cast<std::uint32_t>(std::atoi(std::get<1>(GetParam())))};
  const test::TempDir dir_;
  Files files_;
};

TEST_P(GcCrash, ACollectionCanDieAnywhere) {
  const Work work = [](DurableStore& store) { CollectGarbage(&store, {}); };
  DieEverywhere(work, [&] { EXPECT_LE(Finish(work), kSparseBytes); });
}

TEST_P(GcCrash, ACompactionCanDieAnywhere) {
  const Work work = [](DurableStore& store) { Compact(&store, 75, {}); };
  DieEverywhere(work, [&] { EXPECT_LE(Finish(work), kDenseBytes); });
}

TEST_P(GcCrash, ACollectionAfterAnyCrashOfAWriterDropsNothingThatIsUsed) {
  const Work work = [](DurableStore& store) {
    for (std::size_t at = 0; at < kLength; ++at) {
      store.Write("over", static_cast<std::int64_t>(at * kSegment), Segments(20 + at, 1));
    }
    store.Sync();
  };
  DieEverywhere(work, [this] {
    DurableStore store(Path(), Options());
    CollectGarbage(&store, {});
    EXPECT_EQ("", test::ProblemsOf(store));
    EXPECT_EQ("", test::IndexProblemsOf(store));
    EXPECT_TRUE(files_.at("stays") == test::ReadAll(store, "stays"));
    store.CloseFiles();
  });
}

INSTANTIATE_TEST_SUITE_P(TypesAndMerges, GcCrash,
                         ::testing::Values(std::tuple("PROVISION", "100000"),
                                           std::tuple("PROVISION", "10"),
                                           std::tuple("GENERIC", "100000")),
                         [](const auto& tested) {
                           return std::string(std::get<0>(tested.param)) +
                                  std::get<1>(tested.param);
                         });

}  // namespace
}  // namespace zefs::refhost
