#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
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
    WriteDatabases(directory.path(), layers);
    RoadTable table(directory.path());
    TimeByWall(state, RecordsOf(layers), [&] { MergeNow(table, layers); });
  }
}

void MergeByBareCursors(benchmark::State& state) {
  const Layers layers = MergedLayers();
  for (auto _ : state) {
    const TempDir directory;
    WriteDatabases(directory.path(), layers);
    LmdbMergePeer source(directory.path());
    TimeByWall(state, RecordsOf(layers), [&] { MergeByCursors(source, directory.path()); });
  }
}

/// LMDB's own compacting copy of one database with all of the records: pages, not records. Nothing
/// is synced but its last page.
void CopyCompactly(benchmark::State& state) {
  const Layers layers = Alternating(RecordsOf(MergedLayers()), 1);
  for (auto _ : state) {
    const TempDir directory;
    const auto file = directory / Persistent::FULLDB;
    WriteDatabase(file, layers.full);
    const LmdbDatabase database(file.string());
    TimeByWall(state, layers.full.size(),
               [&] { database.CopyCompactly((directory / "copy.mdb").string()); });
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
