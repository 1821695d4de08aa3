#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "refhost/cache/data_cache.h"
#include "refhost/cache/node_ledger.h"
#include "refhost/durable/lasting_objects.h"
#include "refhost/prefetch/read_ahead.h"
#include "refhost/prefetch/sequential_reads.h"
#include "refhost/store/segmenter.h"
#include "refhost/tables/stored_table.h"
#include "refhost/threads/job_group.h"
#include "refhost/threads/worker_pool.h"

namespace zefs::refhost {

/// What the files of a store share. Nothing is owned.
struct FileServices {
  const Segmenter* segmenter;
  const std::string* tableType;
  LastingObjects* objects;
  DataCache* cache;
  WorkerPool* workers;
  std::atomic<std::uint64_t>* merges;
  ReadAhead* ahead;
};

/// One file of a store that lasts, open: its table, and the nodes of what was written and is not
/// flushed. Writes stop in nodes; workers store the bytes behind them, and flushes on the way take
/// what is stored into the table's databases.
///
/// Reads and writes may run in any threads; a write is seen from then on when it returns, and
/// beside it segment by segment. What is thrown is StoreError, and DamageError by reads. A failed
/// write or flush leaves the file good for reading only: whatever changes it throws the same again.
class StoredFile {
 public:
  /// Opens the file whose table lies in `directory`, or a new one if there is none. `size` is what
  /// it has at least, `share` as of SetShare.
  StoredFile(const FileServices& services, const std::string& directory, std::int64_t size,
             std::string share);

  /// What the data cache is told before the table changes on the disk. Nobody writes meanwhile.
  void SetShare(std::string share) { share_ = std::move(share); }

  /// Ends what workers do for the file. A table with a journal gets a last forced flush, as the
  /// journal would take back the others; from any other, what was not flushed is dropped.
  ~StoredFile();
  StoredFile(const StoredFile&) = delete;
  StoredFile& operator=(const StoredFile&) = delete;

  /// Writes `bytes` at `offset`, which is in the range of offsets with them.
  void Write(std::int64_t offset, std::string_view bytes);

  /// Makes the file at least `size` bytes long, by zeros.
  void Grow(std::int64_t size);

  /// Reads up to `size` bytes at `offset`; returns the bytes read, short only at the end. Holes are
  /// zeros.
  std::size_t Read(std::int64_t offset, char* out, std::size_t size) const;

  std::int64_t size() const { return size_; }

  /// Waits until all bytes written are stored. Nobody writes meanwhile.
  void AwaitStored();

  /// Brings the whole file into the databases of its table and frees all nodes. What it refers to
  /// is durable already, and all bytes are stored. Nobody writes meanwhile.
  void FlushAll();

  /// As StoredTable::FinishMerges, of a file that has been flushed.
  bool FinishMerges();

  // As the operations of StoredTable, of a file that has been flushed, whose merges are finished,
  // and that nobody uses.

  /// Cuts the file, which is larger.
  void Cut(std::int64_t size);
  void SnapshotTable(const std::string& target);
  void FollowTable(const std::string& directory);

  /// Deletes the table, whatever of it is flushed. The file can only be destroyed then.
  void RemoveTable();

  MappingTable& table() const { return table_.table(); }
  const std::string& directory() const { return table_.directory(); }

 private:
  using SharedLock = MappingTable::SharedLock;

  template <typename Change>
  void ChangeIt(const Change& change);
  void WriteSegment(std::int64_t offset, std::string_view bytes);
  void StoreBytes(CacheNode* node, const CacheNode::Bytes& bytes);
  void Flush(bool force);
  void LookAhead(const FileRange& read) const;
  void ReadExtent(Aldenta::Qnd::Morene::Zefs::Ext& ext, std::int64_t offset, std::int64_t end,
                  SharedLock* lock, char* out) const;

  FileServices services_;
  NodeLedger nodes_;
  JobGroup jobs_;
  StoredTable table_;
  std::string share_;
  std::mutex mutex_;  // one change at a time
  std::string failure_;
  std::size_t segmentsSinceFlush_ = 0;
  std::atomic<std::int64_t> size_;
  mutable SequentialReads reads_;
};

}  // namespace zefs::refhost
