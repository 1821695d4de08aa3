#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "bench/merge_case.h"
#include "bench/peers/lmdb_peers.h"
#include "bench/process_usage.h"
#include "bench/registry.h"
#include "bench/road_table.h"
#include "bench/stored_extents.h"
#include "tests/support/temp_dir.h"

// How long single look-ups take beside a merge, and once it is over.

namespace zefs_bench {

namespace {

using zefs::test::TempDir;
using Persistent = RoadTable::Persistent;

constexpr std::size_t kLookups = 500000;
constexpr std::size_t kLookupsARound = 1000;

/// Look-ups timed one by one, by the wall: they may wait.
template <typename Subject>
class TimedLookups {
 public:
  TimedLookups(Subject* subject, const std::vector<std::int64_t>* offsets)
      : subject_(*subject), offsets_(*offsets) {}

  void Run(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const double begin = WallSeconds();
      subject_.Find(offsets_[next_],
                    [&](std::int64_t sOff, std::int64_t, std::int64_t, const auto& id) {
                      sum_ += static_cast<std::uint64_t>(sOff) + id.dcid;
                    });
      seconds_.push_back(WallSeconds() - begin);
      next_ = (next_ + 1) % offsets_.size();
    }
  }

  /// What was timed since the last call.
  void Report(benchmark::State& state, const std::string& phase) {
    constexpr double kMicro = 1e6;
    constexpr double kMilli = 1e3;
    std::sort(seconds_.begin(), seconds_.end());
    double all = 0;
    for (const double one : seconds_) {
      all += one;
    }
    state.counters[phase + "_mean_us"] = all / static_cast<double>(seconds_.size()) * kMicro;
    state.counters[phase + "_p50_us"] = seconds_[seconds_.size() / 2] * kMicro;
    state.counters[phase + "_p99_us"] = seconds_[seconds_.size() / 100 * 99] * kMicro;
    state.counters[phase + "_longest_ms"] = seconds_.back() * kMilli;
    benchmark::DoNotOptimize(sum_);
    seconds_.clear();
  }
  void Forget() { seconds_.clear(); }

 private:
  Subject& subject_;
  const std::vector<std::int64_t>& offsets_;
  std::size_t next_ = 0;
  std::uint64_t sum_ = 0;
  std::vector<double> seconds_;
};

/// Look-ups while `merging` says so, after `start` has begun a merge, then as many as usual once
/// `settle` has waited for its end. Those before, and the first ones behind it, which bring the
/// pages into memory, are not counted.
template <typename Subject, typename Start, typename Merging, typename Settle>
void LookUpRoundMerge(benchmark::State& state, const std::vector<std::int64_t>& offsets,
                      Subject& subject, Start start, Merging merging, Settle settle) {
  const double begin = WallSeconds();
  TimedLookups lookups(&subject, &offsets);
  lookups.Run(offsets.size());
  lookups.Forget();
  ::sync();  // or the first commit of the merge would wait for the databases to reach the disk
  start();
  do {
    lookups.Run(kLookupsARound);
  } while (merging());
  settle();
  lookups.Report(state, "merging");
  lookups.Run(offsets.size());
  lookups.Forget();
  lookups.Run(offsets.size());
  lookups.Report(state, "merged");
  state.SetIterationTime(WallSeconds() - begin);
}

void LookUpInTable(benchmark::State& state) {
  const PersistBloom bloom(false);
  const Layers layers = MergedLayers();
  const auto offsets = OffsetsIn(layers.full, kLookups);
  for (auto _ : state) {
    const TempDir directory;
    WriteDatabases(directory.path(), layers);
    RoadTable table(directory.path());
    const auto tmp = directory / Persistent::TMPDB;
    const auto start = [&] {
      StartMerge(table, layers);
      while (!boost::filesystem::exists(tmp)) {
        std::this_thread::yield();
      }
    };
    LookUpRoundMerge(
        state, offsets, table, start, [&] { return boost::filesystem::exists(tmp); },
        [&] { table.Settle(); });
  }
}

/// Bare LMDB: look-ups in one database with all of the records, beside a merge of as many by bare
/// cursors, in files of its own as no file may be opened twice.
void LookUpInLmdb(benchmark::State& state) {
  const Layers layers = MergedLayers();
  const auto offsets = OffsetsIn(layers.full, kLookups);
  for (auto _ : state) {
    const TempDir directory;
    WriteDatabases(directory.path(), layers);
    LmdbMergePeer source(directory.path());
    const auto file = directory / "all.mdb";
    WriteDatabase(file, Alternating(RecordsOf(layers), 1).full);
    LmdbBegunPeer lmdb(file);
    std::thread merge;
    std::atomic<bool> merging{true};
    const auto start = [&] {
      merge = std::thread([&] {
        MergeByCursors(source, directory.path());
        merging = false;
      });
    };
    LookUpRoundMerge(
        state, offsets, lmdb, start, [&] { return merging.load(); }, [&] { merge.join(); });
  }
}

}  // namespace

void RegisterMergeLookups() {
  const std::string name = "road/lookups/" + std::to_string(FullRecords() + FullRecords() / 10);
  Register(name + "/table", 1, LookUpInTable);
  Register(name + "/lmdb", 1, LookUpInLmdb);
}

}  // namespace zefs_bench
