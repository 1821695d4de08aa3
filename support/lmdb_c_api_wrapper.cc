#include "support/lmdb_c_api_wrapper.h"

namespace storage::utils {

int LmdbCApiWrapper::dbi_open(MDB_txn* txn, const char* name, unsigned int flags,
                              unsigned int* dbi) const {
  return mdb_dbi_open(txn, name, flags, dbi);
}

int LmdbCApiWrapper::set_compare(MDB_txn* txn, unsigned int dbi,
                                 int (*compare)(const MDB_val*, const MDB_val*)) const {
  return mdb_set_compare(txn, dbi, compare);
}

int LmdbCApiWrapper::txn_begin(MDB_env* env, MDB_txn* parent, unsigned int flags,
                               MDB_txn** txn) const {
  return mdb_txn_begin(env, parent, flags, txn);
}

int LmdbCApiWrapper::txn_commit(MDB_txn* txn) const {
  return mdb_txn_commit(txn);
}

void LmdbCApiWrapper::txn_abort(MDB_txn* txn) const {
  mdb_txn_abort(txn);
}

int LmdbCApiWrapper::cursor_open(MDB_txn* txn, unsigned int dbi, MDB_cursor** cursor) const {
  return mdb_cursor_open(txn, dbi, cursor);
}

void LmdbCApiWrapper::cursor_close(MDB_cursor* cursor) const {
  mdb_cursor_close(cursor);
}

int LmdbCApiWrapper::cursor_get(MDB_cursor* cursor, MDB_val* key, MDB_val* data,
                                MDB_cursor_op op) const {
  return mdb_cursor_get(cursor, key, data, op);
}

int LmdbCApiWrapper::put(MDB_txn* txn, unsigned int dbi, MDB_val* key, MDB_val* data,
                         unsigned int flags) const {
  return mdb_put(txn, dbi, key, data, flags);
}

int LmdbCApiWrapper::env_sync(MDB_env* env, int force) const {
  return mdb_env_sync(env, force);
}

int LmdbCApiWrapper::env_create(MDB_env** env) const {
  return mdb_env_create(env);
}

int LmdbCApiWrapper::env_set_mapsize(MDB_env* env, unsigned long size) const {
  return mdb_env_set_mapsize(env, size);
}

void LmdbCApiWrapper::env_close(MDB_env* env) const {
  mdb_env_close(env);
}

void LmdbCApiWrapper::dbi_close(MDB_env* env, unsigned int dbi) const {
  mdb_dbi_close(env, dbi);
}

int LmdbCApiWrapper::env_open(MDB_env* env, const char* path, unsigned int flags,
                              unsigned int mode) const {
  return mdb_env_open(env, path, flags, mode);
}

int LmdbCApiWrapper::get(MDB_txn* txn, unsigned int dbi, MDB_val* key, MDB_val* data) const {
  return mdb_get(txn, dbi, key, data);
}

int LmdbCApiWrapper::del(MDB_txn* txn, unsigned int dbi, MDB_val* key, MDB_val* data) const {
  return mdb_del(txn, dbi, key, data);
}

char* LmdbCApiWrapper::strerror(int code) const {
  return mdb_strerror(code);
}

}  // namespace storage::utils
