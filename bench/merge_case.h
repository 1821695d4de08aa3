#pragma once

#include <cstddef>
#include <cstdint>

#include <boost/filesystem/path.hpp>

#include "bench/peers/lmdb_peers.h"
#include "bench/peers/lmdb_store.h"
#include "bench/registry.h"
#include "bench/road_table.h"
#include "bench/stored_extents.h"

// A merge of the databases of a table, as the benchmarks begin one.

namespace zefs_bench {

/// Records of a full database; the small one has a tenth as many. Nothing overlaps.
inline std::size_t FullRecords() {
  constexpr std::size_t kUsual = 1800000;
  return RoadSize(kUsual);
}
inline Layers MergedLayers() {
  return FullBetweenOthers(FullRecords(), 2);
}
inline std::size_t RecordsOf(const Layers& layers) {
  return layers.full.size() + layers.small.size();
}

/// One write behind all others, whose flush starts a merge of `layers`.
inline void StartMerge(RoadTable& table, const Layers& layers) {
  const MergeAfter oneRecord(0);
  Write write;
  write.sOff = layers.full.back().eOff + layers.small.back().eOff;
  write.eOff = write.sOff + kBlock;
  write.objectID = layers.full.back().record.GetObjectID();
  table.WriteBatch(&write, &write + 1);
}

/// A merge by calls of LMDB alone: cursors side by side into a third database in `directory`, with
/// as many records a synced transaction as the table takes.
inline void MergeByCursors(LmdbMergePeer& source, const boost::filesystem::path& directory) {
  constexpr std::size_t kRecordsATransaction = 10000;
  LmdbStore merged(directory);
  std::size_t count = 0;
  merged.Begin();
  source.Walk([&](std::int64_t, std::int64_t eOff, std::int64_t, const Record& record) {
    merged.Append({eOff, record});  // nothing overlaps here, so no record is cut
    if (++count % kRecordsATransaction == 0) {
      merged.Commit();
      merged.Begin();
    }
  });
  merged.Commit();
}

}  // namespace zefs_bench
