#pragma once

#include <cstdint>
#include <memory>
#include <sqlite3.h>
#include <string>

#include <boost/filesystem/path.hpp>

#include "bench/stored_extents.h"

namespace zefs_bench {

/// A store for StorePeer: SQLite, one table whose row ids are the end offsets, a write-ahead log
/// that each commit syncs, and room in memory for all pages of the benchmarks.
class SqliteStore {
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { ::sqlite3_finalize(statement); }
  };
  struct Close {
    void operator()(sqlite3* db) const { ::sqlite3_close(db); }
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

 public:
  explicit SqliteStore(const boost::filesystem::path& directory);

  void Begin() { Run("BEGIN IMMEDIATE"); }
  void Commit() { Run("COMMIT"); }

  bool Seek(std::int64_t offset, StoredExtent* out);
  bool Next(StoredExtent* out) { return Seek(out->eOff, out); }

  void Put(const StoredExtent& extent);
  void Append(const StoredExtent& extent) { Put(extent); }
  void Delete(std::int64_t end);

  /// Moves what the log holds into the database.
  void Settle() { Run("PRAGMA wal_checkpoint(TRUNCATE)"); }

  class Reader {
   public:
    explicit Reader(const SqliteStore& store);
    bool Seek(std::int64_t offset, StoredExtent* out);
    bool Next(StoredExtent* out);

   private:
    sqlite3* db_;
    Statement from_;
  };

 private:
  static void Check(sqlite3* db, int code);
  static Statement Prepare(sqlite3* db, const char* sql);
  /// The row that a statement has stepped to, if it has.
  static bool Take(sqlite3* db, sqlite3_stmt* statement, StoredExtent* out);
  void Run(const char* sql);
  /// Runs a statement that gives no row, and resets it.
  void Step(sqlite3_stmt* statement);

  std::unique_ptr<sqlite3, Close> db_;
  Statement seek_;
  Statement put_;
  Statement delete_;
};

}  // namespace zefs_bench
