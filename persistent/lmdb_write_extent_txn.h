#pragma once

#include <lmdb.h>
#include <string>

#include "persistent/records.h"
#include "support/lmdb_c_api_wrapper.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// One write transaction with one cursor on the extents of a database, for operations that may run
/// over a replacement of LMDB: nothing but the wrapper is called. Committed, or discarded when it
/// goes out of scope; any operation after the commit throws SysException(22).
///
/// It waits for the database's other writers, holds them off, and belongs to the thread that made
/// it. Every failure is logged with its words and its code, but for MDB_NOTFOUND of a search.
class LmdbWriteExtentTxn {
 public:
  /// Begins on `env`, with the cursor open. Throws SysException with the code of what failed (0 for
  /// a null environment), and leaves nothing open. None of the three arguments is owned. With
  /// LMDB's own interface `*dbi` is used as it is: opening the database a second time would put its
  /// key order back to that of bytes, under the readers of the moment. A replacement is asked to
  /// open the database into `*dbi` and to order its keys.
  LmdbWriteExtentTxn(MDB_env* env, unsigned int* dbi, storage::utils::LmdbCApiWrapper* api);
  ~LmdbWriteExtentTxn();
  LmdbWriteExtentTxn(const LmdbWriteExtentTxn&) = delete;
  LmdbWriteExtentTxn& operator=(const LmdbWriteExtentTxn&) = delete;

  /// The first record whose key is at least `*key`. 0, its key in `*key`, and the address of its
  /// value in `*entry`: in the map, good until the next write, and shorter than an entry in a table
  /// of the first version. MDB_NOTFOUND or another code otherwise.
  int findWithCursor(long* key, ExtLMDBEntry** entry);
  /// The same with a copy of the record, whole whatever the length of the value.
  int findWithCursor(long* key, ExtLMDBEntry* entry);

  /// Moves the cursor by `op`, MDB_NEXT or MDB_PREV. Results as above.
  int getWithCursor(long* key, ExtLMDBEntry** entry, MDB_cursor_op op);
  int getWithCursor(long* key, ExtLMDBEntry* entry, MDB_cursor_op op);

  /// Stores a record under a key, in place of any other. 0 or a code.
  int put(long key, ExtLMDBEntry* entry);

  /// Commits, and syncs the environment whatever its flags. Throws SysException with the code of
  /// what failed; the transaction has ended either way, and is committed if only the sync failed.
  void commit();

  static constexpr const char* kNoNextItem = "Failed to get the next item with the current cursor";

  /// Logs "%s; %s (errno %d)" with `message` and `code`.
  static void LogError(const std::string& message, int code);
  /// The same, and throws SysException(code).
  [[noreturn]] static void LogErrorAndDie(const std::string& message, int code);

 private:
  void Begin();
  void Discard();
  void CheckOpen() const;
  int Find(long* key, MDB_val* value);
  int Step(long* key, MDB_val* value, MDB_cursor_op op);

  storage::utils::LmdbCApiWrapper* api_;
  MDB_env* env_;
  unsigned int* dbi_;
  MDB_txn* txn_ = nullptr;
  MDB_cursor* cursor_ = nullptr;
};

}  // namespace Aldenta::Qnd::Morene::Zefs
