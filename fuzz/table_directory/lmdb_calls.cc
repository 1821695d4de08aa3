#include "fuzz/table_directory/lmdb_calls.h"

#include <atomic>
#include <lmdb.h>

// The linker sends the program's calls of LMDB here (--wrap): a program that hangs inside of one
// call can so be told from one that calls for ever.

namespace {

std::atomic<unsigned long> calls{0};
std::atomic<const char*> inside{nullptr};

template <typename Function, typename... Arguments>
auto Counted(const char* name, Function function, Arguments... arguments) {
  ++calls;
  inside = name;
  const auto result = function(arguments...);
  inside = nullptr;
  return result;
}

}  // namespace

namespace zefs::fuzz {

unsigned long LmdbCalls() {
  return calls;
}

const char* InsideLmdb() {
  return inside;
}

}  // namespace zefs::fuzz

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {

int __real_mdb_env_open(MDB_env* env, const char* path, unsigned int flags, mdb_mode_t mode);
int __wrap_mdb_env_open(MDB_env* env, const char* path, unsigned int flags, mdb_mode_t mode) {
  return Counted("mdb_env_open", __real_mdb_env_open, env, path, flags, mode);
}
int __real_mdb_txn_commit(MDB_txn* txn);
int __wrap_mdb_txn_commit(MDB_txn* txn) {
  return Counted("mdb_txn_commit", __real_mdb_txn_commit, txn);
}
int __real_mdb_get(MDB_txn* txn, MDB_dbi dbi, MDB_val* key, MDB_val* data);
int __wrap_mdb_get(MDB_txn* txn, MDB_dbi dbi, MDB_val* key, MDB_val* data) {
  return Counted("mdb_get", __real_mdb_get, txn, dbi, key, data);
}
int __real_mdb_put(MDB_txn* txn, MDB_dbi dbi, MDB_val* key, MDB_val* data, unsigned int flags);
int __wrap_mdb_put(MDB_txn* txn, MDB_dbi dbi, MDB_val* key, MDB_val* data, unsigned int flags) {
  return Counted("mdb_put", __real_mdb_put, txn, dbi, key, data, flags);
}
int __real_mdb_del(MDB_txn* txn, MDB_dbi dbi, MDB_val* key, MDB_val* data);
int __wrap_mdb_del(MDB_txn* txn, MDB_dbi dbi, MDB_val* key, MDB_val* data) {
  return Counted("mdb_del", __real_mdb_del, txn, dbi, key, data);
}
int __real_mdb_cursor_get(MDB_cursor* cursor, MDB_val* key, MDB_val* data, MDB_cursor_op op);
int __wrap_mdb_cursor_get(MDB_cursor* cursor, MDB_val* key, MDB_val* data, MDB_cursor_op op) {
  return Counted("mdb_cursor_get", __real_mdb_cursor_get, cursor, key, data, op);
}
int __real_mdb_cursor_put(MDB_cursor* cursor, MDB_val* key, MDB_val* data, unsigned int flags);
int __wrap_mdb_cursor_put(MDB_cursor* cursor, MDB_val* key, MDB_val* data, unsigned int flags) {
  return Counted("mdb_cursor_put", __real_mdb_cursor_put, cursor, key, data, flags);
}
int __real_mdb_cursor_del(MDB_cursor* cursor, unsigned int flags);
int __wrap_mdb_cursor_del(MDB_cursor* cursor, unsigned int flags) {
  return Counted("mdb_cursor_del", __real_mdb_cursor_del, cursor, flags);
}
}
// NOLINTEND(bugprone-reserved-identifier)
