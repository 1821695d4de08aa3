#include <algorithm>
#include <cerrno>
#include <limits>
#include <unistd.h>

#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "persistent/printed.h"
#include "persistent/transaction.h"
#include "support/measure_cpu.h"

// Makes the table end at a size: in the cache, and in the two databases that last. Whatever sums
// up the contents (object id, bloom file, references) is dropped with what it no longer describes.

namespace Aldenta::Qnd::Morene::Zefs {

using zefs::kLogFailure;
using zefs::kLogStep;
using zefs::kLogTrace;

namespace {

void LogFailedRead(int ret) {
  ZEFS_LOG(kLogFailure, "Failed to read for a cursor, return value is %d", ret);
}

int PositionFrom(const Transaction& transaction, std::int64_t from, MDB_val* key, MDB_val* value) {
  RecordKey wanted(from);
  *key = wanted.Val();
  return mdb_cursor_get(transaction.cursor(), key, value, MDB_SET_RANGE);
}

/// Deletes the record under the cursor: 0, or -1, and the transaction is aborted.
int DeleteCurrent(Transaction* transaction) {
  const int ret = mdb_cursor_del(transaction->cursor(), 0);
  if (ret == 0) {
    return 0;
  }
  ZEFS_LOG(kLogFailure, "Failed to delete a cursor, return value is %d", ret);
  transaction->Abort();
  return -1;
}

/// Deletes every extent that begins at `size` or behind. What spans `size` or ends there stays. 0,
/// or -1, and the transaction is aborted.
int DeleteBehind(Transaction* transaction, long size) {
  MDB_val key;
  MDB_val value;
  int ret = PositionFrom(*transaction, size, &key, &value);
  if (ret == 0 && ReadRecord(value).startOffset < size) {
    ret = mdb_cursor_get(transaction->cursor(), &key, &value, MDB_NEXT);
  }
  while (ret == 0) {
    const std::int64_t end = ReadKey(key);
    if (DeleteCurrent(transaction) != 0) {
      return -1;
    }
    // No key is larger than the largest number, and the one after it would be the smallest.
    ret = end == std::numeric_limits<std::int64_t>::max()
              ? MDB_NOTFOUND
              : PositionFrom(*transaction, end + 1, &key, &value);
  }
  if (ret != MDB_NOTFOUND) {
    LogFailedRead(ret);
    transaction->Abort();
    return -1;
  }
  return 0;
}

/// Puts the record under the cursor, whose value is `stored`, under the key `size`. 0, -1 or LMDB's
/// code; the transaction is aborted unless it is 0.
int CutLast(Transaction* transaction, const LMDBContext& db, const MDB_val& stored, long size) {
  const ExtLMDBEntry record = ReadRecord(stored);  // a copy: the value goes with the record
  if (DeleteCurrent(transaction) != 0) {
    return -1;
  }
  RecordKey key(size);
  MDB_val keyVal = key.Val();
  ExtLMDBEntry front = PieceFrom(record, record.startOffset);
  MDB_val value = RecordVal(front);
  const int ret = mdb_put(transaction->txn(), db.dbi, &keyVal, &value, 0);
  if (ret != 0) {
    transaction->Abort();
    ZEFS_LOG(kLogFailure, "Failed to update entry %lld, ret is %d", Printed(size), ret);
  }
  return ret;
}

}  // namespace

int CMappingLMDB::truncate(long size, FILE* /*trace*/) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::truncate() to %lld", Printed(size));
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  DropAllPrefetched();
  WaitingForMerge();
  ForgetDOIDUnlocked();
  const std::string bloomPath = PathOf(BLOOM_FILE);
  const int removed = ::unlink(bloomPath.c_str());
  ZEFS_LOG(kLogStep, "remove file %s, return is %d; errno is %d", bloomPath.c_str(), removed,
           errno);
  int ret = truncateCache(size);
  if (ret == 0) {
    ret = truncateDB(&smallDb_, size);
  }
  if (ret == 0) {
    ret = truncateDB(&fullDb_, size);
  }
  return ret;
}

void CMappingLMDB::ForgetSummaries() {
  truncatePending_ = false;
  ClearReferences();
  newDcidRefs_.clear();
}

int CMappingLMDB::truncateCache(long size) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::truncateCache()");
  fileSize_ = size;
  const auto first =
      std::find_if(extCache_.lower_bound(size), extCache_.end(),
                   [&](const auto& entry) { return entry.second.startOffset >= size; });
  ForgetSummaries();
  for (auto at = first; at != extCache_.end(); ++at) {
    const auto pointer = extDataPointers_.find(at->first);
    if (pointer != extDataPointers_.end()) {
      void* const node = pointer->second;
      toBeReleased_.insert(node);
      extDataPointers_.erase(pointer);
      ZEFS_LOG(kLogTrace, "Point Op: add to be released point %p for offset %lld", node,
               Printed(at->first));
    }
  }
  for (auto at = first; at != extCache_.end(); at = extCache_.erase(at)) {
    ZEFS_LOG(kLogTrace, "erase cache extent endOff=%lld, startOff=%lld", Printed(at->first),
             Printed(at->second.startOffset));
  }
  if (extCache_.empty() || std::prev(extCache_.end())->first <= size) {
    return 0;
  }
  const auto last = std::prev(extCache_.end());  // it spans the new size
  const long end = last->first;
  const ExtLMDBEntry front = PieceFrom(last->second, last->second.startOffset);
  extCache_.erase(last);
  extCache_[size] = front;
  PushPending(size);
  ZEFS_LOG(kLogTrace, "modify cache extent endOff=%lld to new endOff=%lld", Printed(end),
           Printed(size));
  const auto pointer = extDataPointers_.find(end);
  if (pointer != extDataPointers_.end()) {
    void* const node = pointer->second;
    extDataPointers_.erase(pointer);
    extDataPointers_[size] = node;
  }
  return 0;
}

int CMappingLMDB::truncateDB(LMDBContext* db, long size) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::truncateDB(), dbpath=%s, offset=%lld", db->path.c_str(),
           Printed(size));
  Transaction transaction(*db, Transaction::kWrite, path_);
  int ret = transaction.Put(SPECIAL_KEY_FILE_SIZE, SpecialValue::OfNumber(size));
  if (ret != 0) {
    transaction.Abort();
    ZEFS_LOG(kLogFailure, "Failed to update file size %lld, ret:%d", Printed(fileSize_), ret);
    return ret;
  }
  ForgetSummaries();
  ret = DeleteBehind(&transaction, size);
  if (ret != 0) {
    return ret;
  }
  MDB_val key;
  MDB_val value;
  const int last = mdb_cursor_get(transaction.cursor(), &key, &value, MDB_LAST);
  const auto setSizes = [&] {
    fileSize_ = size;
    committedFileSize_ = size;
  };
  if (last == 0 && ReadKey(key) > size) {
    ret = CutLast(&transaction, *db, value, size);
    if (ret == 0) {
      ret = transaction.CommitLogged();
    }
    if (ret == 0) {
      setSizes();
    }
    return ret;
  }
  // Nothing is left to cut, and the sizes follow whatever becomes of the commit.
  if (last != 0 && last != MDB_NOTFOUND) {
    LogFailedRead(last);
    ret = -1;
  }
  const int committed = transaction.CommitLogged();
  setSizes();
  return ret != 0 ? ret : committed;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
