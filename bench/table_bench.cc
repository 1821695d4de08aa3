#include <algorithm>
#include <cstdint>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "bench/heap.h"
#include "bench/peers/counts.h"
#include "bench/peers/end_keyed_peer.h"
#include "bench/peers/icl_peer.h"
#include "bench/registry.h"
#include "bench/table_subject.h"
#include "bench/workload.h"

// The table beside its peers: random overwrites and appends, and on what they leave look-ups, a
// walk and a truncate. One map lives at a time and goes through all operations, so that what is
// compared lies seconds apart and nothing else sits in the caches.

namespace zefs_bench {

namespace {

constexpr std::size_t kSmall = 1000;
constexpr std::size_t kMedium = 100000;
constexpr std::size_t kLarge = 1000000;
constexpr std::size_t kAppends = 2000000;
constexpr std::size_t kRandomWrites = 1400000;  // enough for kLarge extents and a batch more
constexpr std::size_t kLookups = 1000000;

enum class Workload { kRandom, kAppend };

/// The writes of a workload; only the ones last asked for are kept.
const std::vector<Write>& Writes(Workload workload, Containers containers) {
  static std::vector<Write> writes;
  static Workload kept{};
  static Containers keptContainers{};
  if (writes.empty() || kept != workload || keptContainers != containers) {
    writes = std::vector<Write>();
    writes = workload == Workload::kRandom ? RandomWrites(kRandomWrites, containers)
                                           : AppendWrites(kAppends, containers);
    kept = workload;
    keptContainers = containers;
  }
  return writes;
}

/// How often an operation over `size` items is repeated inside one measurement.
std::size_t Rounds(std::size_t size) {
  return std::max<std::size_t>(1, kLarge / size);
}

/// Memory of the tree as the table tells it.
template <typename Map>
void AddTreeBytes(benchmark::State& /*state*/, const Map& /*map*/) {}
void AddTreeBytes(benchmark::State& state, const TableSubject& map) {
  const std::ostringstream swallowed;  // getTableSize prints the sizes of its records
  std::streambuf* const standard = std::cout.rdbuf(swallowed.rdbuf());
  long nodes = 0;
  long slots = 0;
  const long bytes = map.table().getTableSize(&nodes, &slots);
  std::cout.rdbuf(standard);
  const auto extents = static_cast<double>(map.size());
  state.counters["tree_bytes_per_extent"] = static_cast<double>(bytes) / extents;
  state.counters["nodes"] = static_cast<double>(nodes);
  state.counters["slots_per_extent"] = static_cast<double>(slots) / extents;
}

/// The one live map of a kind, and how far it is through the writes of its workload.
template <typename Map, Containers kContainers>
class Bench {
 public:
  Bench(Workload workload, std::string prefix, std::string subject)
      : workload_(workload), prefix_(std::move(prefix)), subject_(std::move(subject)) {}

  /// Times `count` writes into an empty map, which is kept.
  void Fill(benchmark::State& state, std::size_t count) {
    for (auto _ : state) {
      Clear();
      Time(state, [&] { Apply(count); });
    }
    CountItems(state, count);
    AddMemory(state);
  }

  /// Times a tenth as many writes as the map holds extents, into a map of `size` extents.
  void Insert(benchmark::State& state, std::size_t size) {
    const std::size_t batch = size / 10;
    for (auto _ : state) {
      if (applied_ == 0 || map_->size() > size) {
        Clear();
      }
      Reach(size);
      Time(state, [&] { Apply(batch); });
    }
    CountItems(state, batch);
  }

  template <typename FindOne>
  void Find(benchmark::State& state, std::size_t size, FindOne findOne) {
    Reach(size);
    const auto offsets = UniformOffsets(kLookups, End());
    for (auto _ : state) {
      std::uint64_t sum = 0;
      Time(state, [&] {
        for (const std::int64_t offset : offsets) {
          findOne(*map_, offset, [&](std::int64_t sOff, const auto& value) {
            sum += static_cast<std::uint64_t>(sOff) + value.objectID.dcid;
          });
        }
      });
      benchmark::DoNotOptimize(sum);
    }
    CountItems(state, kLookups);
  }

  void Walk(benchmark::State& state, std::size_t size) {
    Reach(size);
    for (auto _ : state) {
      std::uint64_t sum = 0;
      Time(state, [&] {
        map_->Walk([&](std::int64_t sOff, std::int64_t eOff, const auto& value) {
          sum += static_cast<std::uint64_t>(eOff - sOff) + value.objectID.dcid;
        });
      });
      benchmark::DoNotOptimize(sum);
    }
    CountItems(state, map_->size());
    AddMemory(state);
  }

  /// Times the truncate to half the range, per extent dropped.
  void Truncate(benchmark::State& state, std::size_t size) {
    std::size_t dropped = 0;
    for (auto _ : state) {
      Reach(size);
      const std::size_t before = map_->size();
      const std::int64_t half = End() / 2;
      Time(state, [&] { map_->Truncate(half); });
      dropped = before - map_->size();
      Clear();
    }
    CountItems(state, dropped);
  }

  void RegisterFill(std::size_t count) {
    Add("fill", count, Rounds(count),
        [this, count](benchmark::State& state) { Fill(state, count); });
  }
  void RegisterInsert(std::size_t size) {
    Add("insert", size, Rounds(size),
        [this, size](benchmark::State& state) { Insert(state, size); });
  }
  /// Find, walk and truncate.
  void RegisterReads(std::size_t size) {
    Add("find", size, 1, [this, size](benchmark::State& state) {
      Find(state, size,
           [](const Map& map, std::int64_t offset, auto use) { map.Find(offset, use); });
    });
    if constexpr (std::is_same_v<Map, TableSubject>) {
      const std::string name = Name("find", size) + "_unlocked";
      Register(name, 1, [this, size](benchmark::State& state) {
        Find(state, size,
             [](const Map& map, std::int64_t offset, auto use) { map.FindUnlocked(offset, use); });
      });
    }
    Add("walk", size, 4 * Rounds(size),
        [this, size](benchmark::State& state) { Walk(state, size); });
    Add("truncate", size, Rounds(size),
        [this, size](benchmark::State& state) { Truncate(state, size); });
  }

 private:
  std::string Name(const char* operation, std::size_t size) const {
    return prefix_ + "/" + operation + "/" + std::to_string(size) + "/" + subject_;
  }

  template <typename Run>
  void Add(const char* operation, std::size_t size, std::size_t iterations, Run run) {
    Register(Name(operation, size), iterations, run);
  }

  void Clear() {
    map_.reset();
    if (applied_ >= kMedium) {  // a small map would pay for getting its few pages back
      TrimHeap();
    }
    applied_ = 0;
    Writes(workload_, kContainers);
    heapBefore_ = HeapInUse();
    map_ = std::make_unique<Map>();
  }

  void Apply(std::size_t count) {
    const auto& writes = Writes(workload_, kContainers);
    for (const std::size_t end = applied_ + count; applied_ < end; ++applied_) {
      if (workload_ == Workload::kRandom) {
        map_->Insert(writes.at(applied_));
      } else {
        map_->Append(writes.at(applied_));
      }
    }
  }

  /// Brings the map to `size` extents, from scratch if it is none or has far more.
  void Reach(std::size_t size) {
    if (map_ == nullptr || map_->size() > size + size / 5) {
      Clear();
    }
    while (map_->size() < size) {
      Apply(1);
    }
  }

  std::int64_t End() const {
    return workload_ == Workload::kRandom ? kRandomRange
                                          : Writes(workload_, kContainers)[applied_ - 1].eOff;
  }

  static void CountItems(benchmark::State& state, std::size_t items) {
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(items));
  }

  void AddMemory(benchmark::State& state) const {
    const auto extents = static_cast<double>(map_->size());
    state.counters["extents"] = extents;
    state.counters["bytes_per_extent"] = static_cast<double>(HeapInUse() - heapBefore_) / extents;
    AddTreeBytes(state, *map_);
  }

  Workload workload_;
  std::string prefix_;
  std::string subject_;
  std::unique_ptr<Map> map_;
  std::size_t applied_ = 0;
  std::size_t heapBefore_ = 0;
};

/// All operations on one kind of map. What is registered refers to the bench, which lives as long
/// as the process, its map only until its truncate.
template <typename Map, Containers kContainers>
void RegisterMap(Workload workload, const std::string& prefix, const std::string& subject) {
  auto* bench = new Bench<Map, kContainers>(workload, prefix, subject);
  if (workload == Workload::kRandom) {
    bench->RegisterFill(kLarge);
    for (const std::size_t size : {kLarge, kMedium, kSmall}) {
      bench->RegisterInsert(size);
      bench->RegisterReads(size);
    }
    return;
  }
  for (const std::size_t count : {kAppends, kMedium, kSmall}) {
    bench->RegisterFill(count);
    bench->RegisterReads(count);
  }
}

template <typename Counts, Containers kContainers>
void RegisterAll(Workload workload, const std::string& prefix) {
  RegisterMap<TableSubject, kContainers>(workload, prefix, "table");
  RegisterMap<EndKeyedPeer<BtreePointerStore, Counts>, kContainers>(workload, prefix,
                                                                    "btree_pointers");
  RegisterMap<EndKeyedPeer<BtreeStore, Counts>, kContainers>(workload, prefix, "btree");
  RegisterMap<EndKeyedPeer<StdMapStore, Counts>, kContainers>(workload, prefix, "std_map");
  RegisterMap<IclPeer<Counts>, kContainers>(workload, prefix, "icl");
}

}  // namespace

void RegisterMaps() {
  RegisterAll<ReferenceCounts, Containers::kReal>(Workload::kRandom, "random/counts");
  RegisterAll<ReferenceCounts, Containers::kReal>(Workload::kAppend, "append/counts");
  RegisterAll<NoCounts, Containers::kNone>(Workload::kRandom, "random/bare");
  RegisterAll<NoCounts, Containers::kNone>(Workload::kAppend, "append/bare");
}

}  // namespace zefs_bench
