#pragma once

#include <lmdb.h>
#include <string>

#include "persistent/lmdb_context.h"
#include "persistent/records.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// One transaction on one database with one cursor, as every operation on a database needs it. It
/// ends exactly once: by Commit, by Abort, or, left open by a return or an exception, with this
/// object, which aborts it. LMDB frees the handle of a finished write transaction and the next
/// begin would crash on a second end, so nothing here touches a handle that has ended.
///
/// A write transaction waits for the database's other writers, in this process and others. It
/// belongs to the thread that began it.
class Transaction {
 public:
  static constexpr unsigned int kReadOnly = MDB_RDONLY;
  static constexpr unsigned int kWrite = 0;

  /// Begins on `db` and opens the cursor. `tablePath` is what the log calls the table. A failure is
  /// logged and thrown as SysException with LMDB's code; a closed database throws SysException(0).
  Transaction(const LMDBContext& db, unsigned int flags, const std::string& tablePath);
  ~Transaction() { Abort(); }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  MDB_txn* txn() const { return txn_; }
  MDB_cursor* cursor() const { return cursor_; }

  /// Looks one key up. 0 and `*value`, which lies in the map until the next write of this
  /// transaction, or LMDB's code.
  int Get(std::int64_t key, MDB_val* value) const;

  /// Stores a value under a key in place of any other. 0 or LMDB's code.
  int Put(std::int64_t key, SpecialValue value) const;

  /// Closes the cursor ahead of the transaction's end. Nothing to do if it is closed.
  void CloseCursor();

  /// Commits a write transaction; a cursor that is still open ends with it. 0 or LMDB's code; the
  /// transaction has ended either way.
  int Commit();

  /// Commit, with a failure in the log.
  int CommitLogged();

  /// Gives both handles away, open as they are: whoever has them ends them.
  void Release();

  /// Closes the cursor and aborts. Nothing to do if the transaction has ended.
  void Abort();

 private:
  MDB_dbi dbi_;
  MDB_txn* txn_ = nullptr;
  MDB_cursor* cursor_ = nullptr;
};

}  // namespace Aldenta::Qnd::Morene::Zefs
