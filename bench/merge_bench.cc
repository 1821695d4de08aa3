#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include <boost/filesystem/operations.hpp>

#include "bench/merge_case.h"
#include "bench/peers/lmdb_peers.h"
#include "bench/registry.h"
#include "bench/road_table.h"
#include "bench/stored_extents.h"
#include "host/bloom_filter.h"
#include "tests/support/temp_dir.h"

// A merge of a full and a small database alone, and what a table is asked about its references,
// beside the least that LMDB and the file system do for the same.

namespace zefs_bench {

namespace {

using zefs::test::TempDir;
using Persistent = RoadTable::Persistent;

/// What a merge finds: databases that have been on the disk for long.
void WriteStored(const boost::filesystem::path& directory, const Layers& layers) {
  WriteDatabases(directory, layers);
  for (const char* name : {Persistent::FULLDB, Persistent::LSML0DB}) {
    const int descriptor = ::open((directory / name).c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor == -1 || ::fsync(descriptor) != 0 || ::close(descriptor) != 0) {
      throw std::runtime_error("a database cannot be synced");
    }
  }
}

/// A merge from the flush that starts it to its end.
void MergeNow(RoadTable& table, const Layers& layers) {
  StartMerge(table, layers);
  table.Settle();
}

void MergeByTable(benchmark::State& state, bool withBloom) {
  const PersistBloom bloom(withBloom);
  const Layers layers = MergedLayers();
  for (auto _ : state) {
    const TempDir directory;
    WriteStored(directory.path(), layers);
    RoadTable table(directory.path());
    TimeByWall(state, RecordsOf(layers), [&] { MergeNow(table, layers); });
  }
}

/// Puts the file of a merged database in the place of the full and the small one, as a merge of the
/// table does. Nothing may have any of them open. Freeing the old files takes the file system a
/// time that grows with their size.
void ReplaceBy(const boost::filesystem::path& merged, const boost::filesystem::path& directory) {
  boost::filesystem::rename(merged, directory / Persistent::FULLDB);
  boost::filesystem::remove(directory / Persistent::LSML0DB);
}

/// Cursors side by side into a third database, with as many records a synced transaction.
void MergeByBareCursors(benchmark::State& state) {
  const Layers layers = MergedLayers();
  for (auto _ : state) {
    const TempDir directory;
    WriteStored(directory.path(), layers);
    auto source = std::make_unique<LmdbMergePeer>(directory.path());
    TimeByWall(state, RecordsOf(layers), [&] {
      MergeByCursors(*source, directory.path());
      source.reset();
      ReplaceBy(LmdbStore::FileIn(directory.path()), directory.path());
    });
  }
}

/// LMDB's own compacting copy of one database with all of the records: pages, not records. Nothing
/// is synced but its last page.
void CopyCompactly(benchmark::State& state) {
  const Layers layers = Alternating(RecordsOf(MergedLayers()), 1);
  for (auto _ : state) {
    const TempDir directory;
    WriteStored(directory.path(), layers);
    const auto copy = directory / "copy.mdb";
    auto database = std::make_unique<LmdbDatabase>((directory / Persistent::FULLDB).string());
    TimeByWall(state, layers.full.size(), [&] {
      database->CopyCompactly(copy.string());
      database.reset();
      ReplaceBy(copy, directory.path());
    });
  }
}

/// Asks for containers and filter, with the file of the last merge or without.
void AskForReferences(benchmark::State& state, bool fromFile) {
  const Layers layers = MergedLayers();
  const TempDir directory;
  WriteDatabases(directory.path(), layers);
  RoadTable table(directory.path());
  {
    const PersistBloom bloom(true);
    MergeNow(table, layers);
  }
  const PersistBloom bloom(fromFile);
  for (auto _ : state) {
    std::vector<std::pair<unsigned long, unsigned long>> containers;
    std::unique_ptr<BloomFilter> filter;
    TimeByWall(state, RecordsOf(layers),
               [&] { table.table().GetDCIDAndBloomFilter(&containers, &filter); });
    if (filter->GetInsertedFingerPrints() < RecordsOf(layers)) {
      state.SkipWithError("the filter lacks fingerprints");
    }
  }
}

/// Reads the bloom file of as many records, and does nothing with it.
void ReadBloomFile(benchmark::State& state) {
  const Layers layers = MergedLayers();
  const TempDir directory;
  WriteDatabases(directory.path(), layers);
  RoadTable table(directory.path());
  {
    const PersistBloom bloom(true);
    MergeNow(table, layers);
  }
  const auto file = directory / Persistent::BLOOM_FILE;
  for (auto _ : state) {
    TimeByWall(state, RecordsOf(layers), [&] {
      std::vector<char> content(boost::filesystem::file_size(file));
      std::ifstream stream(file.string(), std::ios::binary);
      stream.read(content.data(), static_cast<std::streamsize>(content.size()));
      benchmark::DoNotOptimize(content.data());
    });
    state.counters["mib"] = static_cast<double>(boost::filesystem::file_size(file)) / (1 << 20);
  }
}

/// A walk of one database with as many records.
void WalkByCursor(benchmark::State& state) {
  const Layers layers = Alternating(RecordsOf(MergedLayers()), 1);
  const TempDir directory;
  WriteDatabase(directory / Persistent::FULLDB, layers.full);
  LmdbCursorPeer cursor(directory / Persistent::FULLDB);
  for (auto _ : state) {
    TimeByWall(state, layers.full.size(), [&] {
      std::uint64_t sum = 0;
      cursor.Walk([&](std::int64_t sOff, std::int64_t eOff, std::int64_t, const Record& record) {
        sum += static_cast<std::uint64_t>(eOff - sOff) + record.dcid;
      });
      benchmark::DoNotOptimize(sum);
    });
  }
}

}  // namespace

void RegisterMerges() {
  const std::string records = std::to_string(FullRecords() + FullRecords() / 10);
  const auto add = [&](const std::string& operation, const std::string& subject, auto run) {
    Register("road/" + operation + "/" + records + "/" + subject, 1, run);
  };
  add("merge", "table", [](benchmark::State& state) { MergeByTable(state, false); });
  add("merge", "lmdb_cursors", MergeByBareCursors);
  add("merge", "lmdb_copy", CopyCompactly);
  add("merge_bloom", "table", [](benchmark::State& state) { MergeByTable(state, true); });
  add("merge_bloom", "lmdb_cursors", MergeByBareCursors);
  add("references_file", "table", [](benchmark::State& state) { AskForReferences(state, true); });
  add("references_file", "plain_read", ReadBloomFile);
  add("references_walk", "table", [](benchmark::State& state) { AskForReferences(state, false); });
  add("references_walk", "lmdb_cursor", WalkByCursor);
}

}  // namespace zefs_bench
