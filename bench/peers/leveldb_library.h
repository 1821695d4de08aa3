#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

namespace zefs_bench {

/// LevelDB for LogStore: no compression, as fingerprints have nothing to compress, room in memory
/// for all blocks of the benchmarks, and tables large enough to merge in few steps.
class LevelDbLibrary {
 public:
  using Iterator = leveldb::Iterator;
  using Batch = leveldb::WriteBatch;

  explicit LevelDbLibrary(std::string directory)
      : directory_(std::move(directory)), cache_(leveldb::NewLRUCache(kCacheBytes)) {
    Open();
  }

  leveldb::DB& db() { return *db_; }
  Iterator* NewIterator() const { return db_->NewIterator({}); }
  static leveldb::WriteOptions Synced() {
    leveldb::WriteOptions options;
    options.sync = true;
    return options;
  }

  /// Closing waits for a merge of tables that is under way; nothing else can be waited for.
  void Settle() {
    db_.reset();
    Open();
  }

 private:
  static constexpr std::size_t kCacheBytes = std::size_t{256} << 20;
  static constexpr std::size_t kMemTableBytes = std::size_t{32} << 20;
  static constexpr std::size_t kFileBytes = std::size_t{16} << 20;

  void Open() {
    leveldb::Options options;
    options.create_if_missing = true;
    options.compression = leveldb::kNoCompression;
    options.block_cache = cache_.get();
    options.write_buffer_size = kMemTableBytes;
    options.max_file_size = kFileBytes;
    leveldb::DB* opened = nullptr;
    const leveldb::Status status = leveldb::DB::Open(options, directory_, &opened);
    if (!status.ok()) {
      throw std::runtime_error("leveldb: " + status.ToString());
    }
    db_.reset(opened);
  }

  std::string directory_;
  std::unique_ptr<leveldb::Cache> cache_;
  std::unique_ptr<leveldb::DB> db_;
};

}  // namespace zefs_bench
