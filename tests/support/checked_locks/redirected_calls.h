#pragma once

#include <pthread.h>
#include <thread>

#include "tests/support/checked_locks/checked_calls.h"

#define mdb_txn_begin zefs_checked_txn_begin    // NOLINT(cppcoreguidelines-macro-usage)
#define mdb_txn_commit zefs_checked_txn_commit  // NOLINT(cppcoreguidelines-macro-usage)
#define mdb_txn_abort zefs_checked_txn_abort    // NOLINT(cppcoreguidelines-macro-usage)
#define pthread_join zefs_checked_join          // NOLINT(cppcoreguidelines-macro-usage)
