#pragma once

#include <lmdb.h>

#include "support/visibility.h"

namespace storage::utils {

/// A virtual layer over LMDB's C interface, so that a test can replace it. Each operation passes
/// its arguments to the function `mdb_` + its own name and returns that function's result. No
/// state.
class ZEFS_EXTMAP_API LmdbCApiWrapper {
 public:
  virtual ~LmdbCApiWrapper() = default;

  virtual int dbi_open(MDB_txn* txn, const char* name, unsigned int flags, unsigned int* dbi) const;
  virtual int set_compare(MDB_txn* txn, unsigned int dbi,
                          int (*compare)(const MDB_val*, const MDB_val*)) const;
  virtual int txn_begin(MDB_env* env, MDB_txn* parent, unsigned int flags, MDB_txn** txn) const;
  virtual int txn_commit(MDB_txn* txn) const;
  virtual void txn_abort(MDB_txn* txn) const;
  virtual int cursor_open(MDB_txn* txn, unsigned int dbi, MDB_cursor** cursor) const;
  virtual void cursor_close(MDB_cursor* cursor) const;
  virtual int cursor_get(MDB_cursor* cursor, MDB_val* key, MDB_val* data, MDB_cursor_op op) const;
  virtual int put(MDB_txn* txn, unsigned int dbi, MDB_val* key, MDB_val* data,
                  unsigned int flags) const;
  virtual int env_sync(MDB_env* env, int force) const;
  virtual int env_create(MDB_env** env) const;
  virtual int env_set_mapsize(MDB_env* env, unsigned long size) const;
  virtual void env_close(MDB_env* env) const;
  virtual void dbi_close(MDB_env* env, unsigned int dbi) const;
  virtual int env_open(MDB_env* env, const char* path, unsigned int flags, unsigned int mode) const;
  virtual int get(MDB_txn* txn, unsigned int dbi, MDB_val* key, MDB_val* data) const;
  virtual int del(MDB_txn* txn, unsigned int dbi, MDB_val* key, MDB_val* data) const;
  virtual char* strerror(int code) const;
};

}  // namespace storage::utils
