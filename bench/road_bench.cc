#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/peers/stores.h"
#include "bench/process_usage.h"
#include "bench/registry.h"
#include "bench/road_report.h"
#include "bench/road_table.h"
#include "tests/support/temp_dir.h"

// The whole road of a write to the disk: the persistent table with its flushes and the merges that
// run beside them, and other stores that do the same job. One benchmark is one life of a table: all
// writes in durable batches, then look-ups and a walk.

namespace zefs_bench {

namespace {

using zefs::test::TempDir;

constexpr std::size_t kRandomWrites = 1000000;
constexpr std::size_t kAppendWrites = 2000000;
constexpr std::size_t kLookups = 1000000;

enum class Order { kRandom, kAppend };

/// The writes of a workload; only the ones last asked for are kept.
const std::vector<Write>& WritesFor(Order order, std::size_t count) {
  static std::vector<Write> writes;
  static Order kept{};
  if (writes.size() != count || kept != order) {
    writes = order == Order::kRandom ? RandomWrites(count, Containers::kReal)
                                     : AppendWrites(count, Containers::kReal);
    kept = order;
  }
  return writes;
}

/// Stores all writes. Counts the seconds up to the last durable batch for the rate, and the work in
/// the background for CPU and disk.
template <typename Subject>
void StoreAll(benchmark::State& state, Order order, const std::vector<Write>& writes,
              const boost::filesystem::path& directory, Subject& subject) {
  const Usage usage;
  for (std::size_t first = 0; first < writes.size(); first += kRoadBatch) {
    const Write* const begin = &writes[first];
    const Write* const end = begin + std::min(kRoadBatch, writes.size() - first);
    if (order == Order::kRandom) {
      subject.WriteBatch(begin, end);
    } else {
      subject.AppendBatch(begin, end);
    }
  }
  const double stored = usage.Wall();
  const auto count = static_cast<double>(writes.size());
  state.counters["writes_per_second"] = count / stored;
  SettleAndReport(state, usage, "write", count, directory, subject);
}

/// Nothing here waits, so that CPU time counts. The first round, not timed, brings the pages into
/// memory.
template <typename Subject>
void ReadAll(benchmark::State& state, const std::vector<std::int64_t>& offsets, Subject& subject) {
  typename Subject::View view(subject);
  std::uint64_t sum = 0;
  std::size_t extents = 0;
  const auto use = [&](std::int64_t sOff, std::int64_t eOff, std::int64_t, const auto& id) {
    ++extents;
    sum += static_cast<std::uint64_t>(eOff - sOff) + id.dcid;
  };
  const auto findAll = [&] {
    for (const std::int64_t offset : offsets) {
      view.Find(offset, use);
    }
  };
  findAll();
  double begin = CpuSeconds();
  findAll();
  state.counters["finds_per_second"] = static_cast<double>(offsets.size()) / (CpuSeconds() - begin);
  extents = 0;
  begin = CpuSeconds();
  view.Walk(use);
  state.counters["walk_per_second"] = static_cast<double>(extents) / (CpuSeconds() - begin);
  state.counters["extents"] = static_cast<double>(extents);
  benchmark::DoNotOptimize(sum);
}

template <typename Subject>
void Road(benchmark::State& state, Order order, std::size_t count) {
  const std::vector<Write>& writes = WritesFor(order, count);
  const std::int64_t range = order == Order::kRandom ? kRandomRange : writes.back().eOff;
  const auto offsets = UniformOffsets(std::min(count, kLookups), range);
  for (auto _ : state) {
    const double begin = WallSeconds();
    const TempDir directory;
    Subject subject(directory.path());
    StoreAll(state, order, writes, directory.path(), subject);
    ReadAll(state, offsets, subject);
    state.SetIterationTime(WallSeconds() - begin);
  }
}

struct RegisterRoadOf {
  std::string workload;
  Order order;
  std::size_t count;

  template <typename Subject>
  void operator()(const std::string& subject) const {
    Register("road/" + workload + "/" + std::to_string(count) + "/" + subject, 1,
             [order = order, count = count](benchmark::State& state) {
               Road<Subject>(state, order, count);
             });
  }
};

}  // namespace

std::size_t RoadSize(std::size_t usual) {
  const char* const wanted = std::getenv("ZEFS_BENCH_ROAD");
  return wanted == nullptr ? usual : std::max(std::strtoul(wanted, nullptr, 10), 1UL);
}

void RegisterRoads() {
  for (const RegisterRoadOf& road :
       {RegisterRoadOf{"random", Order::kRandom, RoadSize(kRandomWrites)},
        RegisterRoadOf{"append", Order::kAppend, RoadSize(kAppendWrites)}}) {
    road.operator()<RoadTable>("table");
    ForEachStorePeer(road);
  }
}

}  // namespace zefs_bench
