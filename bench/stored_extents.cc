#include "bench/stored_extents.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <boost/filesystem/operations.hpp>

#include "bench/peers/lmdb_database.h"
#include "persistent/mapping_lmdb.h"

namespace zefs_bench {

namespace {

using Table = Aldenta::Qnd::Morene::Zefs::CMappingLMDB;

constexpr std::size_t kRecordsATransaction = 100000;
constexpr std::size_t kFullToOthers = 10;

StoredExtent Stored(const Write& write) {
  return {write.eOff, RecordOf(write)};
}

/// The range [sOff, eOff) of the object of `write`.
StoredExtent StoredAt(const Write& write, std::int64_t sOff, std::int64_t eOff) {
  StoredExtent extent{eOff, RecordOf(write)};
  extent.record.startOffset = sOff;
  return extent;
}

std::array<Extents*, 3> OldestFirst(Layers& layers) {
  return {&layers.full, &layers.small, &layers.tmp};
}

}  // namespace

Record RecordOf(const Write& write) {
  Record record{};
  record.startOffset = write.sOff;
  record.dcid = write.objectID.dcid;
  record.fp = write.objectID.fp;
  record.objectOffset = static_cast<std::int32_t>(write.objOff);
  record.dcOffset = -1;
  record.attrByte = write.objectID.attrByte;
  record.attrWord = write.objectID.attrWord;
  record.attrFlag = write.objectID.attrFlag;
  return record;
}

Record TailOf(const Record& record, std::int64_t start) {
  Record tail = record;
  tail.startOffset = start;
  tail.objectOffset += static_cast<std::int32_t>(start - record.startOffset);
  return tail;
}

Layers Alternating(std::size_t count, int databases) {
  Layers layers;
  const auto lists = OldestFirst(layers);
  std::size_t turn = 0;
  for (const Write& write : AppendWrites(count, Containers::kReal)) {
    lists.at(turn++ % static_cast<std::size_t>(databases))->push_back(Stored(write));
  }
  return layers;
}

Layers FullBetweenOthers(std::size_t count, int databases) {
  Layers layers;
  const auto lists = OldestFirst(layers);
  const auto others = static_cast<std::size_t>(databases - 1);
  const std::size_t group = kFullToOthers + others;
  std::size_t place = 0;
  for (const Write& write :
       AppendWrites(count + others * count / kFullToOthers, Containers::kReal)) {
    const std::size_t inGroup = place++ % group;
    lists.at(inGroup < others ? 1 + inGroup : 0)->push_back(Stored(write));
  }
  return layers;
}

Layers Overlapping(std::size_t count, int databases) {
  const std::size_t each = databases == 2 ? count / 2 : count / 4;
  // The first third gives the ranges of the full database; the others only lend their objects.
  const auto writes = AppendWrites(3 * each, Containers::kReal);
  Layers layers;
  for (std::size_t i = 0; i < each; ++i) {
    const Write& write = writes[i];
    const Write& next = writes[i + 1];
    layers.full.push_back(Stored(write));
    const std::int64_t sOff = write.sOff + (write.eOff - write.sOff) / 2;
    const std::int64_t eOff = next.sOff + (next.eOff - next.sOff) / 4;
    layers.small.push_back(StoredAt(writes[each + i], sOff, eOff));
    if (databases == 3) {
      layers.tmp.push_back(StoredAt(writes[2 * each + i], sOff + kPieceUnit, eOff - kPieceUnit));
    }
  }
  return layers;
}

std::vector<std::int64_t> OffsetsIn(const Extents& extents, std::size_t count) {
  const auto draws = UniformOffsets(2 * count, std::int64_t{1} << 62);
  std::vector<std::int64_t> offsets(count);
  for (std::size_t i = 0; i < count; ++i) {
    const StoredExtent& extent = extents[static_cast<std::size_t>(draws[2 * i]) % extents.size()];
    const std::int64_t sOff = extent.record.startOffset;
    offsets[i] = sOff + draws[2 * i + 1] % (extent.eOff - sOff);
  }
  return offsets;
}

void WriteDatabase(const boost::filesystem::path& file, const Extents& extents) {
  {
    const LmdbDatabase database(file.string(), MDB_CREATE);
    for (std::size_t first = 0; first < extents.size(); first += kRecordsATransaction) {
      const std::size_t last = std::min(extents.size(), first + kRecordsATransaction);
      MDB_txn* txn = database.Begin(0);
      for (std::size_t i = first; i < last; ++i) {
        std::int64_t number = extents[i].eOff;
        Record record = extents[i].record;
        MDB_val key{sizeof(number), &number};
        MDB_val value{sizeof(record), &record};
        CheckLmdb(::mdb_put(txn, database.dbi(), &key, &value, MDB_APPEND), "mdb_put");
      }
      CheckLmdb(::mdb_txn_commit(txn), "mdb_txn_commit");
    }
  }
  boost::filesystem::remove(file.string() + Table::MDB_NO_SUBDIR_LOCK);
}

void WriteEmptyTable(const boost::filesystem::path& directory) {
  namespace zefs = Aldenta::Qnd::Morene::Zefs;
  StoredExtent version{zefs::SPECIAL_KEY_LMDB_VERSION, {}};
  static_assert(sizeof(zefs::kCurrentVersion) == sizeof(version.record.startOffset));
  std::memcpy(&version.record.startOffset, &zefs::kCurrentVersion, sizeof(zefs::kCurrentVersion));
  boost::filesystem::create_directory(directory);
  WriteDatabase(directory / Table::FULLDB, {version});
  WriteDatabase(directory / Table::LSML0DB,
                {{zefs::SPECIAL_KEY_COMMIT_COUNTER, {}}, {zefs::SPECIAL_KEY_DOID, {}}});
}

void WriteDatabases(const boost::filesystem::path& directory, const Layers& layers) {
  WriteDatabase(directory / Table::FULLDB, layers.full);
  WriteDatabase(directory / Table::LSML0DB, layers.small);
  if (!layers.tmp.empty()) {
    WriteDatabase(directory / Table::TMPDB, layers.tmp);
  }
}

}  // namespace zefs_bench
