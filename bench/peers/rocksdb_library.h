#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/options.h>
#include <rocksdb/table.h>

namespace zefs_bench {

/// RocksDB for LogStore: no compression, as fingerprints have nothing to compress, and room in
/// memory for all blocks of the benchmarks.
class RocksDbLibrary {
 public:
  using Iterator = rocksdb::Iterator;
  using Batch = rocksdb::WriteBatch;

  explicit RocksDbLibrary(const std::string& directory) {
    rocksdb::BlockBasedTableOptions table;
    table.block_cache = rocksdb::NewLRUCache(kCacheBytes);
    rocksdb::Options options;
    options.create_if_missing = true;
    options.compression = rocksdb::kNoCompression;
    options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(table));
    rocksdb::DB* opened = nullptr;
    const rocksdb::Status status = rocksdb::DB::Open(options, directory, &opened);
    if (!status.ok()) {
      throw std::runtime_error("rocksdb: " + status.ToString());
    }
    db_.reset(opened);
  }

  rocksdb::DB& db() { return *db_; }
  Iterator* NewIterator() const { return db_->NewIterator({}); }
  static rocksdb::WriteOptions Synced() {
    rocksdb::WriteOptions options;
    options.sync = true;
    return options;
  }

  /// Waits until no table is being written or merged, and none is due.
  void Settle() {
    while (Number("rocksdb.mem-table-flush-pending") + Number("rocksdb.num-running-flushes") +
               Number("rocksdb.compaction-pending") + Number("rocksdb.num-running-compactions") !=
           0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

 private:
  static constexpr std::size_t kCacheBytes = std::size_t{256} << 20;

  std::uint64_t Number(const char* property) {
    std::uint64_t number = 0;
    db_->GetIntProperty(property, &number);
    return number;
  }

  std::unique_ptr<rocksdb::DB> db_;
};

}  // namespace zefs_bench
