#pragma once

#include <lmdb.h>
#include <pthread.h>

// Included in front of everything in the library of a build that checks locks: its transactions,
// and its waiting for a merge, are told to the checker. The writers of a database wait for each
// other, and whoever waits for a thread waits for all that the thread takes.

#ifdef __cplusplus
extern "C" {
#endif
int zefs_checked_txn_begin(MDB_env* env, MDB_txn* parent, unsigned int flags, MDB_txn** txn);
int zefs_checked_txn_commit(MDB_txn* txn);
void zefs_checked_txn_abort(MDB_txn* txn);
int zefs_checked_join(pthread_t thread, void** result);
#ifdef __cplusplus
}
#endif
