#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "bench/peers/lmdb_peers.h"
#include "bench/persistent_subject.h"
#include "bench/registry.h"
#include "bench/stored_extents.h"
#include "host/bloom_filter.h"
#include "tests/support/temp_dir.h"

// What a stored table is asked about a whole range, and copies of it, beside the least that LMDB
// and the file system do for the same: prefetch plans, references, object ids, snapshots.

namespace zefs_bench {

namespace {

using Persistent = PersistentSubject::Persistent;
using zefs::test::TempDir;

constexpr std::size_t kExtents = 1000000;

Layers OneDatabase() {
  return Alternating(kExtents, 1);
}

/// A table with the databases of `layers`, in a directory of its own.
struct StoredSubject {
  explicit StoredSubject(const Layers& layers) {
    WriteDatabases(directory.path(), layers);
    subject = std::make_unique<PersistentSubject>(directory.path());
  }
  Persistent& table() const { return subject->table(); }

  TempDir directory;
  std::unique_ptr<PersistentSubject> subject;
};

/// Runs `work` once untimed, which brings the pages into memory, and then times it by CPU time.
template <typename Work>
void TimeWarm(benchmark::State& state, const std::size_t& items, Work work) {
  work();
  for (auto _ : state) {
    Time(state, work);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(items));
}

// --- plans ------------------------------------------------------------------------------------

struct View {
  const char* name;
  Layers (*make)();
};

constexpr View kViews[] = {
    {"full", OneDatabase},
    {"two_alternating", [] { return Alternating(kExtents, 2); }},
    {"two_overlapping", [] { return Overlapping(kExtents, 2); }},
    {"three_alternating", [] { return Alternating(kExtents, 3); }},
};

/// The plan of the whole table, with its extents kept for look-ups or not.
void Plan(benchmark::State& state, const View& view, bool kept) {
  StoredSubject stored(view.make());
  auto& config = FileSystemDaemonConfig::GetInstance();
  config.Set(&FileSystemDaemonConfig::prefetchEnabled, kept ? 1 : 0);
  Persistent::PrefetchRange range;
  range.end = std::int64_t{1} << 62;
  std::size_t planned = 0;
  TimeWarm(state, planned, [&] {
    std::list<Persistent::DCInfo> containers;
    stored.table().GetDCInfoList(range, &containers);
    planned = 0;
    for (const auto& container : containers) {
      planned += container.extents.size();
    }
  });
  config.Set(&FileSystemDaemonConfig::prefetchEnabled, 0);
}

/// `Peer` walks `source` and keeps nothing.
template <typename Peer>
void WalkBy(benchmark::State& state, const Layers& layers, const char* file) {
  const TempDir directory;
  WriteDatabases(directory.path(), layers);
  Peer peer(directory / file);
  std::size_t extents = 0;
  std::uint64_t sum = 0;
  TimeWarm(state, extents, [&] {
    extents = 0;
    peer.Walk([&](std::int64_t sOff, std::int64_t eOff, std::int64_t, const Record& record) {
      ++extents;
      sum += static_cast<std::uint64_t>(eOff - sOff) + record.dcid;
    });
  });
  benchmark::DoNotOptimize(sum);
}

/// A walk of all databases by cursors that writes down the same plan.
void PlanByCursors(benchmark::State& state, const View& view) {
  const TempDir directory;
  WriteDatabases(directory.path(), view.make());
  LmdbMergePeer peer(directory.path());
  std::size_t planned = 0;
  TimeWarm(state, planned, [&] {
    std::list<Persistent::DCInfo> containers;
    std::unordered_map<std::uint64_t, Persistent::DCInfo*> byDcid;
    planned = 0;
    peer.Walk([&](std::int64_t sOff, std::int64_t eOff, std::int64_t objOff, const Record& record) {
      Persistent::DCInfo*& info = byDcid[record.dcid];
      if (info == nullptr) {
        info = &containers.emplace_back();
        info->dcid = record.dcid;
      }
      auto& extent = info->extents.emplace_back();
      extent.objectID = record.GetObjectID();
      extent.sOff = sOff;
      extent.objOff = static_cast<std::uint32_t>(objOff);
      extent.length = static_cast<std::uint32_t>(eOff - sOff);
      extent.dcOffset = record.dcOffset;
      extent.inRange = true;
      info->totalBytes += extent.length;
      ++planned;
    });
  });
}

// --- references -------------------------------------------------------------------------------

void References(benchmark::State& state) {
  StoredSubject stored(OneDatabase());
  const std::size_t extents = kExtents;
  TimeWarm(state, extents, [&] {
    std::unordered_map<unsigned long, unsigned long> containers;
    std::vector<crfp_digest_t> fingerprints;
    stored.table().GetDCIDAndFPs(&containers, &fingerprints);
  });
}

/// A walk that counts the bytes of each container.
void CountByCursor(benchmark::State& state) {
  const TempDir directory;
  WriteDatabases(directory.path(), OneDatabase());
  LmdbCursorPeer peer(directory / Persistent::FULLDB);
  const std::size_t extents = kExtents;
  TimeWarm(state, extents, [&] {
    std::unordered_map<unsigned long, unsigned long> containers;
    peer.Walk([&](std::int64_t sOff, std::int64_t eOff, std::int64_t, const Record& record) {
      containers[record.dcid] += static_cast<std::uint64_t>(eOff - sOff);
    });
    benchmark::DoNotOptimize(containers.size());
  });
}

// --- object ids -------------------------------------------------------------------------------

/// Lists all; from 1, as a listing from 0 merges first.
void ListIds(benchmark::State& state) {
  StoredSubject stored(OneDatabase());
  const std::size_t extents = kExtents;
  TimeWarm(state, extents, [&] {
    benchmark::DoNotOptimize(stored.table().GetObjectIdsAndOffsets(1, 1UL << 62).size());
  });
}

void RewriteIds(benchmark::State& state) {
  StoredSubject stored(OneDatabase());
  auto ids = stored.table().GetObjectIdsAndOffsets(1, 1UL << 62);
  for (auto& id : ids) {
    ++id.objectID.dcid;
  }
  for (auto _ : state) {
    TimeByWall(state, ids.size(),
               [&] { stored.table().UpdateObjectIdsByRange(1, 1UL << 62, ids); });
  }
}

/// The same change by a cursor that puts each record back where it stands, in one transaction.
void RewriteByCursor(benchmark::State& state) {
  const TempDir directory;
  WriteDatabases(directory.path(), OneDatabase());
  const LmdbDatabase database((directory / Persistent::FULLDB).string(), 0, LmdbDatabase::kSynced);
  for (auto _ : state) {
    TimeByWall(state, kExtents, [&] {
      MDB_txn* const txn = database.Begin(0);
      MDB_cursor* cursor = nullptr;
      CheckLmdb(::mdb_cursor_open(txn, database.dbi(), &cursor), "mdb_cursor_open");
      MDB_val key{};
      MDB_val value{};
      while (::mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0) {
        Record record{};
        std::memcpy(&record, value.mv_data, sizeof(record));
        ++record.dcid;
        MDB_val changed{sizeof(record), &record};
        CheckLmdb(::mdb_cursor_put(cursor, &key, &changed, MDB_CURRENT), "mdb_cursor_put");
      }
      ::mdb_cursor_close(cursor);
      CheckLmdb(::mdb_txn_commit(txn), "mdb_txn_commit");
    });
  }
}

// --- snapshots --------------------------------------------------------------------------------

void Snapshot(benchmark::State& state) {
  StoredSubject stored(OneDatabase());
  ::sync();  // the databases were written without
  for (auto _ : state) {
    const TempDir directory;
    const std::string to = (directory / "copy").string();
    TimeByWall(state, kExtents,
               [&] { stored.table().Snapshot(stored.directory.path().string(), to); });
  }
}

void SyncFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd == -1 || ::fsync(fd) != 0) {
    throw std::runtime_error("cannot sync " + path);
  }
  ::close(fd);
}

/// cp of the same two files, each of them synced.
void CopyByCp(benchmark::State& state) {
  StoredSubject stored(OneDatabase());
  ::sync();
  const auto& from = stored.directory;
  for (auto _ : state) {
    const TempDir to;
    TimeByWall(state, kExtents, [&] {
      for (const char* name : {Persistent::FULLDB, Persistent::LSML0DB}) {
        const std::string command =
            "cp --reflink=never '" + (from / name).string() + "' '" + (to / name).string() + "'";
        if (std::system(command.c_str()) != 0) {  // NOLINT(cert-env33-c): names made here
          throw std::runtime_error("cannot " + command);
        }
      }
      SyncFile((to / Persistent::FULLDB).string());
      SyncFile((to / Persistent::LSML0DB).string());
    });
  }
}

std::string Name(const std::string& what, const std::string& subject) {
  return what + "/" + std::to_string(kExtents) + "/" + subject;
}

}  // namespace

void RegisterRanges() {
  for (const View& view : kViews) {
    for (const bool kept : {false, true}) {
      const std::string plan = std::string(kept ? "persistent/plan_kept/" : "persistent/plan/");
      Register(Name(plan + view.name, "table"), 1,
               [&view, kept](benchmark::State& state) { Plan(state, view, kept); });
      Register(Name(plan + view.name, "lmdb_plan"), 1,
               [&view](benchmark::State& state) { PlanByCursors(state, view); });
      Register(Name(plan + view.name, "lmdb_merge"), 1,
               [&view](benchmark::State& state) { WalkBy<LmdbMergePeer>(state, view.make(), ""); });
      Register(Name(plan + view.name, "lmdb_cursor"), 1, [](benchmark::State& state) {
        WalkBy<LmdbCursorPeer>(state, OneDatabase(), Persistent::FULLDB);
      });
    }
  }
  const auto walkByCursor = [](benchmark::State& state) {
    WalkBy<LmdbCursorPeer>(state, OneDatabase(), Persistent::FULLDB);
  };
  Register(Name("persistent/references/full", "table"), 1, References);
  Register(Name("persistent/references/full", "lmdb_cursor"), 1, walkByCursor);
  Register(Name("persistent/references/full", "lmdb_counting"), 1, CountByCursor);
  Register(Name("persistent/object_ids/full", "table"), 1, ListIds);
  Register(Name("persistent/object_ids/full", "lmdb_cursor"), 1, walkByCursor);
  Register(Name("road/rewrite_object_ids", "table"), 3, RewriteIds);
  Register(Name("road/rewrite_object_ids", "lmdb_cursor"), 3, RewriteByCursor);
  Register(Name("road/snapshot", "table"), 3, Snapshot);
  Register(Name("road/snapshot", "cp"), 3, CopyByCp);
}

}  // namespace zefs_bench
