#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/cache_writes.h"
#include "bench/heap.h"
#include "bench/peers/lmdb_peers.h"
#include "bench/peers/std_map_cache.h"
#include "bench/persistent_subject.h"
#include "bench/registry.h"
#include "bench/stored_extents.h"
#include "tests/support/temp_dir.h"

// The persistent table beside bare maps and bare calls of LMDB: writes into the extent cache,
// look-ups by the place that answers, and walks of one, two and three databases. Each benchmark has
// a directory of its own, as one process loads none twice; what a table with a tmp database leaves
// open stays so until the process ends, and so does the room that its removed file takes.

namespace zefs_bench {

namespace {

using Persistent = PersistentSubject::Persistent;
using zefs::test::TempDir;

constexpr std::size_t kSmall = 1000;
constexpr std::size_t kMedium = 100000;
constexpr std::size_t kLarge = 1000000;
constexpr std::size_t kLookups = 500000;

void CountItems(benchmark::State& state, std::size_t items) {
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(items));
}

std::string Name(const std::string& operation, std::size_t size, const std::string& subject) {
  return "persistent/" + operation + "/" + std::to_string(size) + "/" + subject;
}

// --- writes --------------------------------------------------------------------------------------

/// The writes of a benchmark; only the ones last asked for are kept.
const CacheWrites& WritesFor(Meeting meeting, std::size_t size) {
  static CacheWrites writes;
  static Meeting kept{};
  if (writes.held.size() != size || kept != meeting) {
    writes = CacheWrites();
    writes = MakeCacheWrites(meeting, size);
    kept = meeting;
  }
  return writes;
}

boost::filesystem::path EmptyTable(const TempDir& directory) {
  WriteEmptyTable(directory / "table");
  return directory / "table";
}

/// A fresh cache of a kind: that of the table is the cache of a table without extents on disk.
template <typename Cache>
struct FreshCache {
  Cache cache;
};
template <>
struct FreshCache<PersistentSubject> {
  TempDir directory;
  PersistentSubject cache{EmptyTable(directory)};
};

/// How often a batch is measured. Each time costs a load and the filling of a cache.
std::size_t Batches(std::size_t size) {
  return std::clamp<std::size_t>(kLarge / size, 1, 200);
}

/// Times a batch of writes into a cache that holds `size` extents.
template <typename Cache>
void Insert(benchmark::State& state, Meeting meeting, std::size_t size, bool withNodes) {
  const CacheWrites& writes = WritesFor(meeting, size);
  std::vector<zefs::DataCacheNode> nodes(withNodes ? writes.held.size() + writes.batch.size()
                                                   : std::size_t{0});
  for (auto _ : state) {
    if (size >= kMedium) {
      TrimHeap();
    }
    FreshCache<Cache> fresh;
    std::size_t used = 0;
    const auto nextNode = [&]() -> void* { return withNodes ? &nodes[used++] : nullptr; };
    for (const Write& write : writes.held) {
      fresh.cache.Put(write, nextNode());
    }
    Time(state, [&] {
      if (Overlaps(meeting)) {
        for (const Write& write : writes.batch) {
          fresh.cache.Insert(write, nextNode());
        }
      } else {
        for (const Write& write : writes.batch) {
          fresh.cache.Put(write, nextNode());
        }
      }
    });
  }
  CountItems(state, writes.batch.size());
}

void RegisterInserts(Meeting meeting, std::size_t size, bool withNodes) {
  const std::string operation =
      std::string(withNodes ? "insert_nodes/" : "insert/") + NameOf(meeting);
  Register(Name(operation, size, "table"), Batches(size), [=](benchmark::State& state) {
    Insert<PersistentSubject>(state, meeting, size, withNodes);
  });
  Register(Name(operation, size, "std_map"), Batches(size), [=](benchmark::State& state) {
    if (withNodes) {
      Insert<StdMapCache<RecordWithNode>>(state, meeting, size, withNodes);
    } else {
      Insert<StdMapCache<Record>>(state, meeting, size, withNodes);
    }
  });
}

// --- look-ups ------------------------------------------------------------------------------------

/// Times look-ups at `offsets`, each of which an extent holds. The first round, not timed, brings
/// the pages into memory.
template <typename Subject>
void TimeFinds(benchmark::State& state, Subject& subject,
               const std::vector<std::int64_t>& offsets) {
  std::size_t found = 0;
  std::uint64_t sum = 0;
  const auto findAll = [&] {
    for (const std::int64_t offset : offsets) {
      subject.Find(offset, [&](std::int64_t sOff, std::int64_t, std::int64_t, const auto& id) {
        ++found;
        sum += static_cast<std::uint64_t>(sOff) + id.dcid;
      });
    }
  };
  findAll();
  if (found != offsets.size()) {
    state.SkipWithError("not every look-up meets an extent");
    return;
  }
  for (auto _ : state) {
    Time(state, findAll);
  }
  benchmark::DoNotOptimize(sum);
  CountItems(state, offsets.size());
}

/// Look-ups in a cache of kLarge extents that were written in random order.
template <typename Cache>
void FindInCache(benchmark::State& state) {
  FreshCache<Cache> fresh;
  auto writes = AppendWrites(kLarge, Containers::kReal);
  const auto offsets = UniformOffsets(kLookups, writes.back().eOff);
  Shuffle(&writes);
  for (const Write& write : writes) {
    fresh.cache.Put(write, nullptr);
  }
  TimeFinds(state, fresh.cache, offsets);
}

/// Databases, and the one of them that answers the look-ups.
struct Depth {
  const char* name;
  Layers (*make)();
  Extents Layers::*answers;
  const char* file;
};

Layers SmallAlone() {
  Layers layers;
  layers.small = Alternating(kLarge, 1).full;
  return layers;
}

constexpr Depth kDepths[] = {
    {"small", SmallAlone, &Layers::small, Persistent::LSML0DB},
    {"full_small_empty", [] { return Alternating(kLarge, 1); }, &Layers::full, Persistent::FULLDB},
    {"full_behind_small", [] { return FullBetweenOthers(kLarge, 2); }, &Layers::full,
     Persistent::FULLDB},
    {"full_behind_small_and_tmp", [] { return FullBetweenOthers(kLarge, 3); }, &Layers::full,
     Persistent::FULLDB},
};

void FindInDatabases(benchmark::State& state, const Depth& depth) {
  const TempDir directory;
  const Layers layers = depth.make();
  WriteDatabases(directory.path(), layers);
  PersistentSubject subject(directory.path());
  TimeFinds(state, subject, OffsetsIn(layers.*depth.answers, kLookups));
}

/// The same look-ups by a peer that knows which database answers and opens no other.
template <typename Peer>
void FindInOneDatabase(benchmark::State& state, const Depth& depth) {
  const TempDir directory;
  const Layers layers = depth.make();
  WriteDatabase(directory / depth.file, layers.*depth.answers);
  Peer peer(directory / depth.file);
  TimeFinds(state, peer, OffsetsIn(layers.*depth.answers, kLookups));
}

void RegisterFinds() {
  Register(Name("find/cache", kLarge, "table"), 1, FindInCache<PersistentSubject>);
  Register(Name("find/cache", kLarge, "std_map"), 1, FindInCache<StdMapCache<Record>>);
  for (const Depth& depth : kDepths) {
    const std::string operation = std::string("find/") + depth.name;
    Register(Name(operation, kLarge, "table"), 1,
             [&depth](benchmark::State& state) { FindInDatabases(state, depth); });
    Register(Name(operation, kLarge, "lmdb_begun"), 1,
             [&depth](benchmark::State& state) { FindInOneDatabase<LmdbBegunPeer>(state, depth); });
    Register(Name(operation, kLarge, "lmdb_renewed"), 1, [&depth](benchmark::State& state) {
      FindInOneDatabase<LmdbRenewedPeer>(state, depth);
    });
  }
}

// --- walks ---------------------------------------------------------------------------------------

/// Databases that show kLarge extents or pieces of them.
struct View {
  const char* name;
  Layers (*make)();
};

constexpr View kViews[] = {
    {"small", SmallAlone},
    {"full", [] { return Alternating(kLarge, 1); }},
    {"two_alternating", [] { return Alternating(kLarge, 2); }},
    {"two_overlapping", [] { return Overlapping(kLarge, 2); }},
    {"three_alternating", [] { return Alternating(kLarge, 3); }},
    {"three_overlapping", [] { return Overlapping(kLarge, 3); }},
};

/// Times a walk. The first one, not timed, brings the pages into memory.
template <typename Subject>
void TimeWalk(benchmark::State& state, Subject& subject) {
  std::size_t extents = 0;
  std::uint64_t sum = 0;
  const auto walk = [&] {
    extents = 0;
    subject.Walk([&](std::int64_t sOff, std::int64_t eOff, std::int64_t, const auto& id) {
      ++extents;
      sum += static_cast<std::uint64_t>(eOff - sOff) + id.dcid;
    });
  };
  walk();
  for (auto _ : state) {
    Time(state, walk);
  }
  benchmark::DoNotOptimize(sum);
  CountItems(state, extents);
}

/// `Subject` walks a table's directory.
template <typename Subject>
void WalkView(benchmark::State& state, const View& view) {
  const TempDir directory;
  WriteDatabases(directory.path(), view.make());
  Subject subject(directory.path());
  TimeWalk(state, subject);
}

/// One database with as many extents as a view shows.
void WalkOneDatabase(benchmark::State& state) {
  const TempDir directory;
  WriteDatabase(directory / Persistent::FULLDB, Alternating(kLarge, 1).full);
  LmdbCursorPeer peer(directory / Persistent::FULLDB);
  TimeWalk(state, peer);
}

void RegisterWalks() {
  for (const View& view : kViews) {
    const std::string operation = std::string("walk/") + view.name;
    Register(Name(operation, kLarge, "table"), 1,
             [&view](benchmark::State& state) { WalkView<PersistentSubject>(state, view); });
    Register(Name(operation, kLarge, "lmdb_merge"), 1,
             [&view](benchmark::State& state) { WalkView<LmdbMergePeer>(state, view); });
    Register(Name(operation, kLarge, "lmdb_cursor"), 1, WalkOneDatabase);
  }
}

}  // namespace

void RegisterPersistent() {
  for (const Meeting meeting : kMeetings) {
    for (const std::size_t size : {kLarge, kMedium, kSmall}) {
      RegisterInserts(meeting, size, false);
      RegisterInserts(meeting, size, true);
    }
  }
  RegisterFinds();
  RegisterWalks();
}

}  // namespace zefs_bench
