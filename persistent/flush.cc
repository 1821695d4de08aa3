#include <algorithm>
#include <climits>
#include <ctime>
#include <memory_resource>
#include <unordered_set>

#include "host/config.h"
#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "persistent/merge_policy.h"
#include "persistent/printed.h"
#include "persistent/seek.h"
#include "persistent/transaction.h"
#include "support/measure_cpu.h"
#include "table/fingerprint.h"

// From the cache to a database: which extents are ready, the transaction that stores them, and what
// follows for the merge.

namespace Aldenta::Qnd::Morene::Zefs {

using zefs::kLogFailure;
using zefs::kLogRare;
using zefs::kLogRecoverable;
using zefs::kLogTrace;

namespace {

/// A cached extent below this has no object id yet.
constexpr std::uint64_t kFirstValidDcid = 63;

/// What a set of keys takes for each of them, bucket and element.
constexpr std::size_t kSeenBytes = 32;

template <typename T>
T Setting(T FileSystemDaemonConfig::*field) {
  return FileSystemDaemonConfig::GetInstance().Get(field);
}

MergeThresholds Thresholds() {
  return {Setting(&FileSystemDaemonConfig::mergeEntriesThreshold),
          Setting(&FileSystemDaemonConfig::mergeCommitCountThreshold),
          Setting(&FileSystemDaemonConfig::mergeCommitTimeThreshold)};
}

[[noreturn]] void FailUpdate(int ret) {
  ZEFS_LOG(kLogFailure, "fail to update object id, ret %d", ret);
  throw SysException(ret);
}

}  // namespace

// --- entry points ------------------------------------------------------------------------------

void CMappingLMDB::checkAndBackfillObjectID(std::set<void*>* released, bool force,
                                            const std::string& shareScope, const std::string& share,
                                            zefs::DataTransferManagement* transfer,
                                            UniqueLock* lock) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::checkAndBackfillObjectID()");
  UniqueLock held(rwLock_);
  released->clear();
  if (objListCount_ < Setting(&FileSystemDaemonConfig::batchUpdateThreshold) && !force) {
    return;
  }
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  RecycleDanglingPointer(released);
  ReadyExtents ids;
  ZEFS_LOG(kLogTrace, "objlist number %d", static_cast<int>(objListCount_));
  GetObjectIDMap(&ids, released, force);
  ZEFS_LOG(kLogTrace, "after processed objlist number %d and objmap size is %d",
           static_cast<int>(objListCount_), static_cast<int>(ids.size()));
  if (!ids.empty()) {
    DropAllPrefetched();  // the extents are about to change place
    const int ret = dci_->ProtectShare(transfer, shareScope, share);
    if (ret != 0) {
      ZEFS_LOG(kLogFailure, "fail to protect share %s, ret %d", share.c_str(), ret);
      throw SysException(ret);
    }
  }
  if (HasJournal() && !JournalRuns()) {
    journal_->Start();  // a failure shows when a record is to be added
  }
  const int ret = UpdateObjectID(ids, false);
  if (ret != 0) {
    FailUpdate(ret);
  }
  if (HasJournal() && force) {
    journal_->Destroy();
  }
  if (force) {
    dcOffsetStore_->Flush();
  }
  if (!released->empty() && lock != nullptr) {
    *lock = std::move(held);
  }
}

void CMappingLMDB::checkAndBackfillObjectIDUnlock(bool wait) {
  std::set<void*> released;
  ReadyExtents ids;
  RecycleDanglingPointer(&released);
  GetObjectIDMap(&ids, &released, true);
  const int ret = UpdateObjectID(ids, wait);
  if (ret != 0) {
    FailUpdate(ret);
  }
}

// --- what is ready -----------------------------------------------------------------------------

void CMappingLMDB::GetObjectIDMap(ReadyExtents* ids, std::set<void*>* released, bool force) {
  if (force) {
    objListCursor_ = objList_.end();
  } else {
    ScanReadyNodes();
    // A cursor at the end: not even the first node is ready, and collecting would take the whole
    // list for scanned.
    if (objListScanned_ < Setting(&FileSystemDaemonConfig::objIdReadyThreshold) ||
        objListCursor_ == objList_.end()) {
      return;
    }
  }
  CollectReadyExtents(ids, released, force);
  objListScanned_ = 0;
  objListCursor_ = objList_.end();
}

void CMappingLMDB::ScanReadyNodes() {
  auto next = objList_.begin();
  if (objListCursor_ == objList_.end()) {
    objListScanned_ = 0;
  } else {
    next = std::next(objListCursor_);
  }
  for (; next != objList_.end(); ++next) {
    const auto pointer = extDataPointers_.find(*next);
    if (pointer != extDataPointers_.end()) {
      ObjectID scratch;
      if (dci_->GetNodeObjectID(pointer->second, &scratch, true) != 0) {
        return;
      }
      ++objListScanned_;
    }
    objListCursor_ = next;
  }
}

void CMappingLMDB::CollectReadyExtents(ReadyExtents* ids, std::set<void*>* released, bool force) {
  const auto most = static_cast<std::size_t>(force ? objListCount_ : objListScanned_) + 1;
  std::pmr::monotonic_buffer_resource block(most * kSeenBytes);
  std::pmr::unordered_set<long> seen(&block);
  seen.reserve(most);
  auto at = objList_.begin();
  while (at != objListCursor_) {
    const long key = *at;
    if (!seen.insert(key).second) {
      at = DropPending(at);
      continue;
    }
    const auto pointer = extDataPointers_.find(key);
    if (pointer == extDataPointers_.end()) {
      CollectKnownExtent(key, ids);
    } else if (pointer->second == nullptr) {
      extDataPointers_.erase(pointer);
      ZEFS_LOG(kLogTrace, "find a null point for key %lld, ignore it", Printed(key));
    } else {
      void* const node = pointer->second;
      ObjectIDAndDCOff value;
      if (dci_->GetNodeObjectID(node, &value.objectID, true) == 0) {
        value.dcOffset = static_cast<const zefs::DataCacheNode*>(node)->dcOffset;
        ids->insert_or_assign(ids->end(), key, value);
        released->insert(node);
        extDataPointers_.erase(pointer);
        CollectSharers(node, value, ids);
      } else if (force) {
        return;
      }
      // Otherwise a node that was ready in the scan is so no longer. Its key leaves the list all
      // the same, and keeps its node.
    }
    at = DropPending(at);
  }
}

void CMappingLMDB::CollectKnownExtent(long key, ReadyExtents* ids) {
  const auto cached = extCache_.find(key);
  if (cached == extCache_.end() || cached->second.dcid < kFirstValidDcid) {
    return;
  }
  ids->insert_or_assign(ids->end(), key,
                        ObjectIDAndDCOff{cached->second.GetObjectID(), cached->second.dcOffset});
  ZEFS_LOG(kLogTrace, "this key has already a valid oid, key %lld, dcid is %lld", Printed(key),
           static_cast<long long>(cached->second.dcid));
}

void CMappingLMDB::CollectSharers(void* node, const ObjectIDAndDCOff& value, ReadyExtents* ids) {
  const auto share = sharedDataPointers_.find(node);
  if (share == sharedDataPointers_.end()) {
    return;
  }
  for (const long key : share->second) {
    const auto pointer = extDataPointers_.find(key);
    if (pointer != extDataPointers_.end() && pointer->second == node) {
      ids->insert_or_assign(ids->end(), key, value);
      extDataPointers_.erase(pointer);
      ZEFS_LOG(kLogTrace, "find key %lld sharing data point %p, process it", Printed(key), node);
    }
  }
  sharedDataPointers_.erase(share);
}

std::list<long>::iterator CMappingLMDB::DropPending(std::list<long>::iterator at) {
  --objListCount_;
  return objList_.erase(at);
}

// --- commit and merge policy -------------------------------------------------------------------

int CMappingLMDB::UpdateObjectID(const ReadyExtents& ids, bool wait) {
  const std::time_t begun = std::time(nullptr);
  FlushOutcome outcome{};
  if (!ids.empty()) {
    ZEFS_LOG(kLogTrace, "Committed size is: %d", static_cast<int>(ids.size()));
    ++commitCounter_;
    const SharedLock lock(tableLock_);
    outcome.wroteSmall = !tmpDb_.opened;
    const LMDBContext& target = outcome.wroteSmall ? smallDb_ : tmpDb_;
    const int ret = UpdateObjectID(ids, target);
    if (ret != 0) {
      ZEFS_LOG(kLogFailure, "Failed to update extent map, return value is %d", ret);
      return ret;
    }
    unsigned long entries = 0;
    if (!CountRecords(target, Transaction::kWrite, &entries)) {
      return -1;
    }
    outcome.entries = entries;
  }
  outcome.seconds = std::time(nullptr) - begun;
  outcome.commits = commitCounter_;
  outcome.tmpOpened = IsTmpOpened();
  if (MergeIsDue(outcome, Thresholds()) && !IsMerging()) {
    ZEFS_LOG(kLogRare,
             "start merging, small table entires is %lld tableCommitCounter %lld, commit time %ld, "
             "tmpdb %d",
             static_cast<long long>(outcome.entries), static_cast<long long>(commitCounter_),
             static_cast<long>(outcome.seconds), static_cast<int>(outcome.tmpOpened));
    StartMergeThread();
    commitCounter_ = 0;
  }
  outcome.tmpOpened = IsTmpOpened();  // the merge may have opened it by now
  if (MustWaitForMerge(outcome, wait,
                       Setting(&FileSystemDaemonConfig::mergeWaitEntriesThreshold))) {
    WaitingForMerge();
  }
  return 0;
}

bool CMappingLMDB::IsTmpOpened() {
  const SharedLock lock(tableLock_);
  return tmpDb_.opened;
}

int CMappingLMDB::UpdateObjectID(const ReadyExtents& ids, const LMDBContext& db) {
  Transaction transaction(db, Transaction::kWrite, path_);
  std::vector<ExtentCache::iterator> stored;
  stored.reserve(ids.size());
  long maxEnd = 0;
  bool failed = false;
  auto cached = extCache_.begin();  // in step with `ids`: both go by end offset
  for (const auto& [key, value] : ids) {
    if (cached != extCache_.end() && cached->first < key) {
      cached = extCache_.lower_bound(key);
    }
    if (cached == extCache_.end() || cached->first != key) {
      ZEFS_LOG(kLogRecoverable, "fail to get in memory cache extent key %lld", Printed(key));
      continue;
    }
    if (insert2DB(db, transaction.txn(), transaction.cursor(), cached->second.startOffset, key,
                  &value.objectID, cached->second.objectOffset, value.dcOffset) != 0) {
      failed = true;
      break;
    }
    stored.push_back(cached++);
    maxEnd = std::max(maxEnd, key);
  }
  transaction.CloseCursor();
  if (failed || !PutSpecialItems(transaction, maxEnd)) {
    transaction.Abort();
    return -1;
  }
  // The cache lets go before the commit: whoever holds rwLock_ afterwards finds the extents in one
  // place only.
  const bool all = stored.size() == extCache_.size();
  for (const auto& gone : stored) {
    ZEFS_LOG(kLogTrace, "remove key from in memory cache key %lld", Printed(gone->first));
    if (!all) {
      extCache_.erase(gone);
    }
  }
  if (all) {
    extCache_.clear();  // without keeping the tree balanced meanwhile
  }
  const int ret = transaction.CommitLogged();
  if (ret != 0) {
    return ret;
  }
  if (HasJournal()) {
    journal_->Flush(true);
  }
  RaiseStoredSize(maxEnd);
  return 0;
}

bool CMappingLMDB::PutSpecialItems(const Transaction& transaction, long maxEnd) {
  if (StoredSize() < maxEnd) {
    const int ret = transaction.Put(SPECIAL_KEY_FILE_SIZE, SpecialValue::OfNumber(maxEnd));
    ZEFS_LOG(kLogTrace, "update file size %lld, ret:%d", Printed(maxEnd), ret);
    if (ret != 0) {
      return false;
    }
  }
  if (NoteFirstChange()) {
    const ObjectID doid = OwnId();
    const int ret = transaction.Put(SPECIAL_KEY_DOID, SpecialValue::OfObjectID(doid));
    ZEFS_LOG(kLogTrace, "update do id fp %s, dcid %ld, ret:%d", TextOf(doid.fp).data(),
             static_cast<long>(doid.dcid), ret);
    if (ret != 0) {
      return false;
    }
  }
  const int ret =
      transaction.Put(SPECIAL_KEY_COMMIT_COUNTER, SpecialValue::OfNumber(commitCounter_));
  ZEFS_LOG(kLogTrace, "update table commit counter %lld, ret:%d", Printed(commitCounter_), ret);
  return ret == 0;
}

// --- one extent into a database ----------------------------------------------------------------

int CMappingLMDB::insert2DB(const LMDBContext& /*db*/, MDB_txn* /*txn*/, MDB_cursor* cursor,
                            long sOff, long eOff, const ObjectID* oid, long objOff, int dcOffset) {
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  const ObjectID none;
  const ObjectID& id = oid == nullptr ? none : *oid;
  const Extent extent{0, sOff, eOff, objOff, id.dcid, id.fp, ADD};
  MDB_val key;
  MDB_val value;
  int ret = SeekRecord(cursor, sOff + 1, &key, &value);
  if (ret != 0 && ret != MDB_NOTFOUND) {
    ZEFS_LOG(kLogFailure, "Failed to read for a cursor, return value is %d", ret);
    return -1;
  }
  while (ret == 0) {
    const long end = ReadKey(key);
    const ExtLMDBEntry record = ReadRecord(value);
    if (eOff <= record.startOffset) {
      ZEFS_LOG(kLogTrace,
               "current extent is SOff=%lld, EOff=%lld, no overlap with SOff=%lld, EOff=%lld",
               Printed(record.startOffset), Printed(end), Printed(sOff), Printed(eOff));
      break;
    }
    ret = CutStored(cursor, record, end, extent, dcOffset);
    if (ret != 0) {
      return ret;
    }
    ret = MDB_NOTFOUND;
    if (end != LONG_MAX) {
      ret = SeekRecord(cursor, end + 1, &key, &value);
    }
    if (ret != 0 && ret != MDB_NOTFOUND) {
      ZEFS_LOG(kLogFailure, "Failed to prepare to insert new entry SOff=%lld EOff=%lld, ret:%d",
               Printed(sOff), Printed(eOff), ret);
      return ret;
    }
  }

  ExtLMDBEntry entry{};
  entry.FillExtLMDBEntry(sOff, oid, objOff, dcOffset);
  ret = PutRecord(cursor, eOff, entry, eOff);
  if (ret != 0) {
    return ret;
  }
  ret = WriteJournal(extent, ADD);
  if (ret != 0) {
    return ret;
  }
  return TrackDcOffset(sOff, extent, dcOffset, eOff);
}

int CMappingLMDB::CutStored(MDB_cursor* cursor, const ExtLMDBEntry& record, long end,
                            const Extent& extent, int dcOffset) {
  int ret = mdb_cursor_del(cursor, 0);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to delete entry %lld", Printed(end));
    return ret;
  }
  ret = WriteJournal(extent, DEL);
  if (ret != 0) {
    return ret;
  }
  // The pieces are tracked under the incoming extent's object and offset: the host asks about what
  // was written, and finds the pieces by their start.
  if (extent.end < end) {
    ret = PutRecord(cursor, end, PieceFrom(record, extent.end), end);
    if (ret == 0) {
      ret = TrackDcOffset(extent.end, extent, dcOffset, extent.end);
    }
    if (ret != 0) {
      return ret;
    }
  }
  if (record.startOffset < extent.start) {
    ret = PutRecord(cursor, extent.start, PieceFrom(record, record.startOffset), end);
    if (ret == 0) {
      ret = TrackDcOffset(record.startOffset, extent, dcOffset, record.startOffset);
    }
  }
  return ret;
}

int CMappingLMDB::PutRecord(MDB_cursor* cursor, long end, ExtLMDBEntry entry, long named) {
  RecordKey recordKey(end);
  MDB_val key = recordKey.Val();
  MDB_val value = RecordVal(entry);
  const int ret = mdb_cursor_put(cursor, &key, &value, 0);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to add new entry %lld, ret:%d", Printed(named), ret);
  }
  return ret;
}

int CMappingLMDB::TrackDcOffset(long start, const Extent& extent, int dcOffset, long named) {
  const int ret = dcOffsetStore_->CheckAndStore(start, extent.dcid, extent.fp, dcOffset);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to store dc offset %lld, ret:%d", Printed(named), ret);
  }
  return ret;
}

// --- journal -----------------------------------------------------------------------------------

bool CMappingLMDB::JournalRuns() const {
  return journal_->started_ && journal_->opened_;
}

int CMappingLMDB::WriteJournal(const Extent& extent, op_t op) {
  if (!HasJournal()) {
    return 0;
  }
  if (!JournalRuns()) {
    const int ret = journal_->Start();
    if (ret != 0) {
      ZEFS_LOG(kLogFailure, "Failed to start extent journal, ret=%d", ret);
      return ret;
    }
  }
  if (op == DEL) {
    const int ret =
        journal_->Del(extent.start, extent.end, extent.offset, extent.dcid, extent.fp, 0);
    if (ret != 0) {
      ZEFS_LOG(kLogFailure, "Failed to write extent journal for del, ret=%d", ret);
    }
    return ret;
  }
  const int ret = journal_->Add(extent.start, extent.end, extent.offset, extent.dcid, extent.fp, 0);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to write extent journal for add, ret=%d", ret);
  }
  return ret;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
