#include "bench/peers/sqlite_store.h"

#include <cstring>
#include <stdexcept>

namespace zefs_bench {

namespace {

constexpr char kFrom[] = "SELECT eOff, record FROM extents WHERE eOff > ? ORDER BY eOff";

}  // namespace

SqliteStore::SqliteStore(const boost::filesystem::path& directory) {
  sqlite3* opened = nullptr;
  const int code = ::sqlite3_open((directory / "extents.db").c_str(), &opened);
  db_.reset(opened);  // also after a failure
  Check(db_.get(), code);
  Run("PRAGMA journal_mode = WAL");
  Run("PRAGMA synchronous = FULL");
  Run("PRAGMA cache_size = -262144");         // 256 MiB
  Run("PRAGMA wal_autocheckpoint = 100000");  // 400 MiB, some ten batches
  Run("CREATE TABLE extents (eOff INTEGER PRIMARY KEY, record BLOB NOT NULL)");
  seek_ = Prepare(db_.get(), (std::string(kFrom) + " LIMIT 1").c_str());
  put_ = Prepare(db_.get(), "INSERT OR REPLACE INTO extents VALUES (?, ?)");
  delete_ = Prepare(db_.get(), "DELETE FROM extents WHERE eOff = ?");
}

void SqliteStore::Check(sqlite3* db, int code) {
  if (code != SQLITE_OK && code != SQLITE_ROW && code != SQLITE_DONE) {
    throw std::runtime_error(std::string("sqlite: ") + ::sqlite3_errmsg(db));
  }
}

SqliteStore::Statement SqliteStore::Prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  Check(db, ::sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr));
  return Statement(statement);
}

bool SqliteStore::Take(sqlite3* db, sqlite3_stmt* statement, StoredExtent* out) {
  const int code = ::sqlite3_step(statement);
  Check(db, code);
  if (code != SQLITE_ROW) {
    return false;
  }
  out->eOff = ::sqlite3_column_int64(statement, 0);
  std::memcpy(&out->record, ::sqlite3_column_blob(statement, 1), sizeof(out->record));
  return true;
}

void SqliteStore::Run(const char* sql) {
  Check(db_.get(), ::sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr));
}

void SqliteStore::Step(sqlite3_stmt* statement) {
  Check(db_.get(), ::sqlite3_step(statement));
  ::sqlite3_reset(statement);
}

bool SqliteStore::Seek(std::int64_t offset, StoredExtent* out) {
  ::sqlite3_bind_int64(seek_.get(), 1, offset);
  const bool found = Take(db_.get(), seek_.get(), out);
  ::sqlite3_reset(seek_.get());
  return found;
}

void SqliteStore::Put(const StoredExtent& extent) {
  ::sqlite3_bind_int64(put_.get(), 1, extent.eOff);
  ::sqlite3_bind_blob(put_.get(), 2, &extent.record, sizeof(extent.record), SQLITE_STATIC);
  Step(put_.get());
}

void SqliteStore::Delete(std::int64_t end) {
  ::sqlite3_bind_int64(delete_.get(), 1, end);
  Step(delete_.get());
}

SqliteStore::Reader::Reader(const SqliteStore& store)
    : db_(store.db_.get()), from_(Prepare(db_, kFrom)) {}

bool SqliteStore::Reader::Seek(std::int64_t offset, StoredExtent* out) {
  ::sqlite3_reset(from_.get());
  ::sqlite3_bind_int64(from_.get(), 1, offset);
  return Take(db_, from_.get(), out);
}

bool SqliteStore::Reader::Next(StoredExtent* out) {
  return Take(db_, from_.get(), out);
}

}  // namespace zefs_bench
