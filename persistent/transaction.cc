#include "persistent/transaction.h"

#include "host/zefs_log.h"
#include "table/sys_exception.h"

namespace Aldenta::Qnd::Morene::Zefs {

Transaction::Transaction(const LMDBContext& db, unsigned int flags, const std::string& tablePath)
    : dbi_(db.dbi) {
  int ret = 0;
  if (db.env == nullptr || (ret = mdb_txn_begin(db.env, nullptr, flags, &txn_)) != 0) {
    ZEFS_LOG(zefs::kLogFailure, "Failed to open transaction for db %s, return value is %d",
             tablePath.c_str(), ret);
    throw SysException(ret);
  }
  ret = mdb_cursor_open(txn_, dbi_, &cursor_);
  if (ret != 0) {
    ZEFS_LOG(zefs::kLogFailure, "Failed to create a cursor, return value is %d", ret);
    mdb_txn_abort(txn_);
    throw SysException(ret);
  }
}

int Transaction::Get(std::int64_t key, MDB_val* value) const {
  RecordKey recordKey(key);
  MDB_val keyVal = recordKey.Val();
  *value = {};
  const int ret = mdb_get(txn_, dbi_, &keyVal, value);
  // A damaged page that claims to hold keys only.
  return ret == 0 && value->mv_data == nullptr ? MDB_CORRUPTED : ret;
}

int Transaction::Put(std::int64_t key, SpecialValue value) const {
  RecordKey recordKey(key);
  MDB_val keyVal = recordKey.Val();
  MDB_val data = value.Val();
  return mdb_put(txn_, dbi_, &keyVal, &data, 0);
}

void Transaction::CloseCursor() {
  if (cursor_ != nullptr) {
    mdb_cursor_close(cursor_);
    cursor_ = nullptr;
  }
}

int Transaction::Commit() {
  MDB_txn* const ending = txn_;
  txn_ = nullptr;
  cursor_ = nullptr;  // LMDB frees the cursors of a write transaction with it
  return mdb_txn_commit(ending);
}

int Transaction::CommitLogged() {
  const void* const handle = txn_;
  const int ret = Commit();
  if (ret != 0) {
    ZEFS_LOG(zefs::kLogFailure, "Failed to commit a transaction %p. ret=%d", handle, ret);
  }
  return ret;
}

void Transaction::Release() {
  cursor_ = nullptr;
  txn_ = nullptr;
}

void Transaction::Abort() {
  CloseCursor();
  if (txn_ != nullptr) {
    mdb_txn_abort(txn_);
    txn_ = nullptr;
  }
}

}  // namespace Aldenta::Qnd::Morene::Zefs
