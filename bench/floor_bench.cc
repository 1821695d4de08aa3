#include <algorithm>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "bench/peers/counts.h"
#include "bench/peers/extent_value.h"
#include "bench/registry.h"
#include "bench/workload.h"

// What no ordered map with these values can beat, and what the two reference counts cost alone.

namespace zefs_bench {

namespace {

constexpr std::size_t kItems = 1000000;

void CountItems(benchmark::State& state, std::size_t items) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(items));
}

/// Extents come and go at random: each item takes the object of the oldest write out and counts
/// that of a new one in.
void CountsAlone(benchmark::State& state) {
  const auto writes = RandomWrites(2 * kItems, Containers::kReal);
  for (auto _ : state) {
    ReferenceCounts counts;
    for (std::size_t i = 0; i < kItems; ++i) {
      counts.Add(writes[i].objectID, writes[i].eOff - writes[i].sOff);
    }
    Time(state, [&] {
      for (std::size_t i = 0; i < kItems; ++i) {
        counts.Remove(writes[i].objectID, writes[i].eOff - writes[i].sOff);
        const Write& write = writes[kItems + i];
        counts.Add(write.objectID, write.eOff - write.sOff);
      }
    });
  }
  CountItems(state, 2 * kItems);
}

/// The counts of a fresh map.
void CountsFill(benchmark::State& state) {
  const auto writes = RandomWrites(kItems, Containers::kReal);
  for (auto _ : state) {
    ReferenceCounts counts;
    Time(state, [&] {
      for (const Write& write : writes) {
        counts.Add(write.objectID, write.eOff - write.sOff);
      }
    });
  }
  CountItems(state, kItems);
}

void HashInsert(benchmark::State& state) {
  const auto writes = RandomWrites(kItems, Containers::kReal);
  for (auto _ : state) {
    std::unordered_map<std::int64_t, ExtentValue> map;
    Time(state, [&] {
      for (const Write& write : writes) {
        map.insert_or_assign(write.sOff, ValueOf(write));
      }
    });
  }
  CountItems(state, kItems);
}

void SortedArrayFind(benchmark::State& state) {
  auto ends = UniformOffsets(kItems, kRandomRange);
  const auto offsets = ends;
  std::sort(ends.begin(), ends.end());
  for (auto _ : state) {
    std::int64_t sum = 0;
    Time(state, [&] {
      for (const std::int64_t offset : offsets) {
        sum += *std::lower_bound(ends.begin(), ends.end(), offset);
      }
    });
    benchmark::DoNotOptimize(sum);
  }
  CountItems(state, kItems);
}

void ArrayScan(benchmark::State& state) {
  std::vector<Extent> extents;
  for (const Write& write : RandomWrites(kItems, Containers::kReal)) {
    extents.push_back({write.sOff, write.eOff, ValueOf(write)});
  }
  for (auto _ : state) {
    std::uint64_t sum = 0;
    Time(state, [&] {
      for (const Extent& extent : extents) {
        sum += static_cast<std::uint64_t>(extent.eOff - extent.sOff) + extent.value.objectID.dcid;
      }
    });
    benchmark::DoNotOptimize(sum);
  }
  CountItems(state, kItems);
}

}  // namespace

void RegisterFloors() {
  Register("floor/counts_fill", 1, CountsFill);
  Register("floor/counts_replace", 1, CountsAlone);
  Register("floor/hash_insert", 1, HashInsert);
  Register("floor/sorted_array_find", 1, SortedArrayFind);
  Register("floor/array_scan", 5, ArrayScan);
}

}  // namespace zefs_bench
