#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <sys/types.h>

#include "refhost/tables/new_table.h"

namespace zefs::refhost {

/// A persistent table, loaded from a directory of its own. Failures of the table are StoreErrors
/// that name the directory; after one, only destruction makes sense.
///
/// The table's operations may be called in any threads, through table(); those of this class in one
/// at a time.
class StoredTable {
 public:
  using ObjectID = DataCacheNode::ObjectID;

  /// Takes the nodes that the table is through with, while the table is locked.
  using TakeReleased = std::function<void(const std::set<void*>&)>;

  /// Loads the table in `directory`, which is made if it is missing. `cache` is not owned, nor is
  /// `merges`, to which every merge of the table is added when it is seen to be finished. In one
  /// process a directory may have one object at a time, and none any more once one of them has left
  /// a merge unfinished.
  StoredTable(std::string directory, const std::string& type, DataCacheManagementInterface* cache,
              std::atomic<std::uint64_t>* merges);

  /// Waits for a merge, and drops what was not flushed.
  ~StoredTable();
  StoredTable(const StoredTable&) = delete;
  StoredTable& operator=(const StoredTable&) = delete;

  MappingTable& table() const { return *table_; }
  const std::string& directory() const { return directory_; }

  /// Maps [start, end). With a node the object is asked of that later, and `id` and `dcOffset` may
  /// be left unknown.
  void Insert(std::int64_t start, std::int64_t end, const ObjectID* id, std::int64_t objOff,
              void* node, std::int32_t dcOffset);

  /// What [start, end) consists of, container by container. The table keeps the extents for
  /// look-ups if `prefetchEnabled` says so, and goes on showing them after a write inside; so the
  /// next Insert has them dropped first. All changes of extents go through this class, or are
  /// operations of the table that drop them on their own. May be called beside anything else but
  /// these.
  std::list<MappingTable::DCInfo> Plan(std::int64_t start, std::int64_t end) const;

  /// Stores what is ready, all of it if `force`, and hands back nodes. The data cache is told
  /// `share`.
  void Flush(bool force, const std::string& share, const TakeReleased& take);

  /// Sees to it that the directory can be loaded again: waits for a merge that runs or has just
  /// been started, and gives one that has failed another try. False if there is still an unfinished
  /// one. Nobody uses the table meanwhile, and all nodes have been handed back.
  bool FinishMerges();

  // The following four have the table to themselves, and all nodes have been handed back.

  /// Makes the table end at `size`. No merge is unfinished, or its tmp database would keep what
  /// lies behind. After a failure some of its databases may be cut: it can be repeated.
  void Truncate(std::int64_t size);

  /// Copies what is flushed to the directory `target`, which is made, where it loads as a table. No
  /// merge is unfinished, or its tmp database would be missing there.
  void Snapshot(const std::string& target);

  /// The directory has been renamed to `directory`: goes on there. No merge is unfinished.
  void Follow(const std::string& directory);

  /// Deletes the directory. The table can only be destroyed then.
  void Remove();

  /// The stored size of the file, and a new one if that is larger.
  std::int64_t FileSize() const { return table_->getFileSize(); }
  void RaiseFileSize(std::int64_t size);

 private:
  void DropPlanned();
  void WaitForMerges();
  void CountMerges();

  std::string directory_;
  std::atomic<std::uint64_t>& merges_;
  std::unique_ptr<MappingTable> table_;
  mutable std::mutex planMutex_;  // held by Plan and by Insert, throughout
  mutable bool planned_ = false;  // since extents were dropped
  ino_t fullDatabase_ = 0;        // a merge replaces the file
};

/// Runs one operation on the table in `directory`: what the table throws becomes a StoreError
/// "cannot `action` the table in DIRECTORY: reason".
template <typename Operation>
auto OnTable(const char* action, const std::string& directory, const Operation& operation);

/// The code of what is being thrown, if a table threw it, as such an error; anything else is thrown
/// on. To be called in a handler.
[[noreturn]] void RethrowTableFailure(const char* action, const std::string& directory);

template <typename Operation>
auto OnTable(const char* action, const std::string& directory, const Operation& operation) {
  try {
    return operation();
  } catch (...) {
    RethrowTableFailure(action, directory);
  }
}

}  // namespace zefs::refhost
