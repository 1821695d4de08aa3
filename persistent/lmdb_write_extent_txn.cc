#include "persistent/lmdb_write_extent_txn.h"

#include <typeinfo>

#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"

namespace Aldenta::Qnd::Morene::Zefs {

using storage::utils::LmdbCApiWrapper;
using zefs::kLogFailure;

LmdbWriteExtentTxn::LmdbWriteExtentTxn(MDB_env* env, unsigned int* dbi, LmdbCApiWrapper* api)
    : api_(api), env_(env), dbi_(dbi) {
  try {
    Begin();
  } catch (...) {
    Discard();
    throw;
  }
}

LmdbWriteExtentTxn::~LmdbWriteExtentTxn() {
  Discard();
}

void LmdbWriteExtentTxn::Begin() {
  int ret = 0;
  if (env_ == nullptr || (ret = api_->txn_begin(env_, nullptr, 0, &txn_)) != 0) {
    txn_ = nullptr;
    LogErrorAndDie("Failed to create a write transaction", ret);
  }
  const LmdbCApiWrapper& api = *api_;
  if (typeid(api) != typeid(LmdbCApiWrapper)) {
    ret = api_->dbi_open(txn_, nullptr, MDB_CREATE, dbi_);
    if (ret != 0) {
      LogErrorAndDie("Failed to open a dbi for a write transaction", ret);
    }
    ret = api_->set_compare(txn_, *dbi_, LMDBKeyCompare);
    if (ret != 0) {
      LogErrorAndDie("Failed to set the key compare for a write transaction", ret);
    }
  }
  ret = api_->cursor_open(txn_, *dbi_, &cursor_);
  if (ret != 0) {
    cursor_ = nullptr;
    LogErrorAndDie("Failed to create an lmdb cursor", ret);
  }
}

void LmdbWriteExtentTxn::Discard() {
  if (cursor_ != nullptr) {
    api_->cursor_close(cursor_);
    cursor_ = nullptr;
  }
  if (txn_ != nullptr) {
    api_->txn_abort(txn_);
    txn_ = nullptr;
  }
}

void LmdbWriteExtentTxn::CheckOpen() const {
  if (txn_ == nullptr) {
    ZEFS_LOG(kLogFailure, "Tried to commit an empty (nullptr) transaction");
    throw SysException(kErrInvalid);
  }
  if (cursor_ == nullptr) {
    ZEFS_LOG(kLogFailure, "Tried to commit an transaction with an invalid cursor (nullptr)");
    throw SysException(kErrInvalid);
  }
}

int LmdbWriteExtentTxn::Find(long* key, MDB_val* value) {
  CheckOpen();
  RecordKey wanted(*key);
  MDB_val found = wanted.Val();
  const int ret = api_->cursor_get(cursor_, &found, value, MDB_SET_RANGE);
  if (ret == 0) {
    *key = ReadKey(found);
  } else if (ret != MDB_NOTFOUND) {
    LogError("Failed to find the virtual offset " + std::to_string(*key), ret);
  }
  return ret;
}

int LmdbWriteExtentTxn::Step(long* key, MDB_val* value, MDB_cursor_op op) {
  CheckOpen();
  MDB_val found{};
  *value = {};
  const int ret = api_->cursor_get(cursor_, &found, value, op);
  if (ret == 0) {
    *key = ReadKey(found);
  } else if (ret != MDB_NOTFOUND) {
    LogError(op == MDB_NEXT ? kNoNextItem : "Failed to get the prev item with the current cursor",
             ret);
  }
  return ret;
}

int LmdbWriteExtentTxn::findWithCursor(long* key, ExtLMDBEntry** entry) {
  MDB_val value{};
  const int ret = Find(key, &value);
  if (ret == 0) {
    *entry = static_cast<ExtLMDBEntry*>(value.mv_data);
  }
  return ret;
}

int LmdbWriteExtentTxn::findWithCursor(long* key, ExtLMDBEntry* entry) {
  MDB_val value{};
  const int ret = Find(key, &value);
  if (ret == 0) {
    *entry = ReadRecord(value);
  }
  return ret;
}

int LmdbWriteExtentTxn::getWithCursor(long* key, ExtLMDBEntry** entry, MDB_cursor_op op) {
  MDB_val value{};
  const int ret = Step(key, &value, op);
  if (ret == 0) {
    *entry = static_cast<ExtLMDBEntry*>(value.mv_data);
  }
  return ret;
}

int LmdbWriteExtentTxn::getWithCursor(long* key, ExtLMDBEntry* entry, MDB_cursor_op op) {
  MDB_val value{};
  const int ret = Step(key, &value, op);
  if (ret == 0) {
    *entry = ReadRecord(value);
  }
  return ret;
}

int LmdbWriteExtentTxn::put(long key, ExtLMDBEntry* entry) {
  CheckOpen();
  RecordKey recordKey(key);
  MDB_val keyVal = recordKey.Val();
  MDB_val value = RecordVal(*entry);
  const int ret = api_->put(txn_, *dbi_, &keyVal, &value, 0);
  if (ret != 0) {
    LogError("Failed to put the virtual offset " + std::to_string(key), ret);
  }
  return ret;
}

void LmdbWriteExtentTxn::commit() {
  CheckOpen();
  MDB_txn* const ending = txn_;
  txn_ = nullptr;
  cursor_ = nullptr;  // LMDB frees the cursors of a write transaction with it
  int ret = api_->txn_commit(ending);
  if (ret != 0) {
    LogErrorAndDie("Could not commit a write transaction", ret);
  }
  ret = api_->env_sync(env_, 1);
  if (ret != 0) {
    LogErrorAndDie("Failed to sync a write transaction", ret);
  }
}

void LmdbWriteExtentTxn::LogError(const std::string& message, int code) {
  ZEFS_LOG(kLogFailure, "%s; %s (errno %d)", message.c_str(),
           CMappingLMDB::LMDBErrorMessage(code).c_str(), code);
}

void LmdbWriteExtentTxn::LogErrorAndDie(const std::string& message, int code) {
  LogError(message, code);
  throw SysException(code);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
