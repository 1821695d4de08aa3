#pragma once

#include <cstdint>
#include <cstring>
#include <lmdb.h>
#include <string>

#include "bench/stored_extents.h"

namespace zefs_bench {

/// Throws std::runtime_error with the call and LMDB's words for a code that is not 0.
void CheckLmdb(int code, const char* call);

/// A database file as the peers use it: by calls of LMDB alone, with the flags and the key order of
/// the table. No table may have the file open.
class LmdbDatabase {
 public:
  enum Durability { kUnsynced, kSynced };

  /// `dbiFlags` are those of mdb_dbi_open. Only with kSynced is a commit synced.
  explicit LmdbDatabase(const std::string& file, unsigned int dbiFlags = 0,
                        Durability durability = kUnsynced);
  ~LmdbDatabase() { ::mdb_env_close(env_); }
  LmdbDatabase(const LmdbDatabase&) = delete;
  LmdbDatabase& operator=(const LmdbDatabase&) = delete;

  /// A transaction of the caller's.
  MDB_txn* Begin(unsigned int flags) const {
    MDB_txn* txn = nullptr;
    CheckLmdb(::mdb_txn_begin(env_, nullptr, flags, &txn), "mdb_txn_begin");
    return txn;
  }
  MDB_dbi dbi() const { return dbi_; }

  /// Writes a copy to `file`, which does not exist, without free pages and in the order of its
  /// keys.
  void CopyCompactly(const std::string& file) const {
    CheckLmdb(::mdb_env_copy2(env_, file.c_str(), MDB_CP_COMPACT), "mdb_env_copy2");
  }

 private:
  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
};

/// A read transaction and a cursor in it, as long as this object lives.
class LmdbCursor {
 public:
  explicit LmdbCursor(const LmdbDatabase& database) : txn_(database.Begin(MDB_RDONLY)) {
    CheckLmdb(::mdb_cursor_open(txn_, database.dbi(), &cursor_), "mdb_cursor_open");
  }
  ~LmdbCursor() {
    ::mdb_cursor_close(cursor_);
    ::mdb_txn_abort(txn_);
  }
  LmdbCursor(const LmdbCursor&) = delete;
  LmdbCursor& operator=(const LmdbCursor&) = delete;

  /// Lets the snapshot go, and takes a new one.
  void Reset() { ::mdb_txn_reset(txn_); }
  void Renew() {
    CheckLmdb(::mdb_txn_renew(txn_), "mdb_txn_renew");
    CheckLmdb(::mdb_cursor_renew(txn_, cursor_), "mdb_cursor_renew");
  }

  /// Goes to the first extent that ends behind `offset`. False if there is none.
  bool Seek(std::int64_t offset, StoredExtent* out) {
    std::int64_t number = offset + 1;
    MDB_val key{sizeof(number), &number};
    return Read(&key, MDB_SET_RANGE, out);
  }
  /// Goes one on; from nowhere to the first.
  bool Next(StoredExtent* out) {
    MDB_val key{};
    return Read(&key, MDB_NEXT, out);
  }

 private:
  bool Read(MDB_val* key, MDB_cursor_op operation, StoredExtent* out) {
    MDB_val value{};
    const int code = ::mdb_cursor_get(cursor_, key, &value, operation);
    if (code == MDB_NOTFOUND) {
      return false;
    }
    CheckLmdb(code, "mdb_cursor_get");
    std::memcpy(&out->eOff, key->mv_data, sizeof(out->eOff));
    std::memcpy(&out->record, value.mv_data, sizeof(out->record));
    return true;
  }

  MDB_txn* txn_;
  MDB_cursor* cursor_ = nullptr;
};

}  // namespace zefs_bench
