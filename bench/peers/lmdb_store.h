#pragma once

#include <cstdint>
#include <cstring>
#include <lmdb.h>

#include <boost/filesystem/path.hpp>

#include "bench/peers/lmdb_database.h"

namespace zefs_bench {

/// A store for StorePeer: plain LMDB, one database, one synced transaction a batch.
class LmdbStore {
 public:
  explicit LmdbStore(const boost::filesystem::path& directory)
      : database_(FileIn(directory).string(), MDB_CREATE, LmdbDatabase::kSynced) {}

  static boost::filesystem::path FileIn(const boost::filesystem::path& directory) {
    return directory / "extents.mdb";
  }

  void Begin() {
    txn_ = database_.Begin(0);
    CheckLmdb(::mdb_cursor_open(txn_, database_.dbi(), &cursor_), "mdb_cursor_open");
  }
  void Commit() {
    ::mdb_cursor_close(cursor_);
    CheckLmdb(::mdb_txn_commit(txn_), "mdb_txn_commit");
  }

  /// The cursor searches in the leaf that it stands on before it goes to the root, so that a search
  /// just behind the last one is no descent.
  bool Seek(std::int64_t offset, StoredExtent* out) {
    std::int64_t number = offset + 1;
    MDB_val key{sizeof(number), &number};
    MDB_val value{};
    const int code = ::mdb_cursor_get(cursor_, &key, &value, MDB_SET_RANGE);
    if (code == MDB_NOTFOUND) {
      return false;
    }
    CheckLmdb(code, "mdb_cursor_get");
    std::memcpy(&out->eOff, key.mv_data, sizeof(out->eOff));
    std::memcpy(&out->record, value.mv_data, sizeof(out->record));
    return true;
  }
  bool Next(StoredExtent* out) { return Seek(out->eOff, out); }

  void Put(const StoredExtent& extent) { Put(extent, 0); }
  void Append(const StoredExtent& extent) { Put(extent, MDB_APPEND); }
  void Delete(std::int64_t end) {
    MDB_val key{sizeof(end), &end};
    MDB_val value{};
    CheckLmdb(::mdb_cursor_get(cursor_, &key, &value, MDB_SET), "mdb_cursor_get");
    CheckLmdb(::mdb_cursor_del(cursor_, 0), "mdb_cursor_del");
  }

  void Settle() {}

  class Reader : public LmdbCursor {
   public:
    explicit Reader(const LmdbStore& store) : LmdbCursor(store.database_) {}
  };

 private:
  void Put(const StoredExtent& extent, unsigned int flags) {
    std::int64_t number = extent.eOff;
    Record record = extent.record;
    MDB_val key{sizeof(number), &number};
    MDB_val value{sizeof(record), &record};
    CheckLmdb(::mdb_cursor_put(cursor_, &key, &value, flags), "mdb_cursor_put");
  }

  LmdbDatabase database_;
  MDB_txn* txn_ = nullptr;
  MDB_cursor* cursor_ = nullptr;
};

}  // namespace zefs_bench
