#pragma once

#include "bench/peers/lmdb_store.h"
#include "bench/peers/store_peer.h"
#if defined(ZEFS_BENCH_LEVELDB) || defined(ZEFS_BENCH_ROCKSDB)
#include "bench/peers/log_store.h"
#endif
#ifdef ZEFS_BENCH_LEVELDB
#include "bench/peers/leveldb_library.h"
#endif
#ifdef ZEFS_BENCH_ROCKSDB
#include "bench/peers/rocksdb_library.h"
#endif
#ifdef ZEFS_BENCH_SQLITE
#include "bench/peers/sqlite_store.h"
#endif

namespace zefs_bench {

/// Calls `use.template operator()<Peer>(name)` for the StorePeer of every store that this build
/// has.
template <typename Use>
void ForEachStorePeer(Use use) {
  use.template operator()<StorePeer<LmdbStore>>("lmdb");
#ifdef ZEFS_BENCH_LEVELDB
  use.template operator()<StorePeer<LogStore<LevelDbLibrary>>>("leveldb");
#endif
#ifdef ZEFS_BENCH_ROCKSDB
  use.template operator()<StorePeer<LogStore<RocksDbLibrary>>>("rocksdb");
#endif
#ifdef ZEFS_BENCH_SQLITE
  use.template operator()<StorePeer<SqliteStore>>("sqlite");
#endif
}

}  // namespace zefs_bench
