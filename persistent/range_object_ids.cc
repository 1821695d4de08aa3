#include "host/zefs_log.h"
#include "persistent/lmdb_write_extent_txn.h"
#include "persistent/mapping_lmdb.h"
#include "support/measure_cpu.h"

// Object ids of a range of offsets, read out and rewritten in the full database.

namespace Aldenta::Qnd::Morene::Zefs {

using zefs::kLogFailure;

namespace {

/// Containers below this are not listed. One less than the first that may name a container, as in
/// a flush; hosts rely on it.
constexpr std::uint64_t kFirstListedDcid = 63;

/// The record behind that of `*key`. MDB_CORRUPTED for one that is not, as only a damaged tree has
/// it: a walk that went on from there might have no end.
int NextListed(LmdbWriteExtentTxn* transaction, long* key, ExtLMDBEntry* entry) {
  const long last = *key;
  const int ret = transaction->getWithCursor(key, entry, MDB_NEXT);
  if (ret == 0 && *key <= last) {
    LmdbWriteExtentTxn::LogError(LmdbWriteExtentTxn::kNoNextItem, MDB_CORRUPTED);
    return MDB_CORRUPTED;
  }
  return ret;
}

}  // namespace

CMappingTable::ObjectIDs CMappingLMDB::GetObjectIdsAndOffsets(unsigned long start,
                                                              unsigned long end) {
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  if (start == 0) {
    StartMergeThread();
    WaitingForMerge();
  }
  const SharedLock lock(tableLock_);
  LmdbWriteExtentTxn transaction(fullDb_.env, &fullDb_.dbi, lmdbApi_.get());
  ObjectIDs found;
  const long last = static_cast<long>(end);
  long key = static_cast<long>(start);
  ExtLMDBEntry entry;
  int ret = transaction.findWithCursor(&key, &entry);
  while (ret == 0 && key <= last) {
    if (entry.dcid >= kFirstListedDcid) {
      ObjectID id;
      id.dcid = entry.dcid;
      id.fp = entry.fp;
      found.push_back({id, entry.startOffset, key});
    }
    ret = NextListed(&transaction, &key, &entry);
  }
  if (ret != 0 && ret != MDB_NOTFOUND) {
    ZEFS_LOG(kLogFailure, "Could not get all object ids and offsets for the range [%lu,%lu); %s",
             start, end, LMDBErrorMessage(ret).c_str());
  }
  return found;
}

int CMappingLMDB::UpdateObjectIdsByRange(unsigned long start, unsigned long end,
                                         const ObjectIDs& ids) {
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  if (ids.empty()) {
    return 0;
  }
  DropAllPrefetched();                // they would go on showing the old ids
  const SharedLock lock(tableLock_);  // the switch of a merge would close the database
  LmdbWriteExtentTxn transaction(fullDb_.env, &fullDb_.dbi, lmdbApi_.get());
  long key = static_cast<long>(start);
  ExtLMDBEntry entry;
  int ret = transaction.findWithCursor(&key, &entry);
  for (const auto& id : ids) {
    while (ret == 0 && key <= static_cast<long>(id.endOffset)) {
      if (entry.fp == id.objectID.fp) {
        entry.dcid = id.objectID.dcid;
        entry.attrByte = 0;
        entry.attrFlag = 0;
        const int put = transaction.put(key, &entry);
        if (put != 0) {
          ZEFS_LOG(kLogFailure,
                   "Could not update the dcid for the (end) offset %lu for the range %lu %lu; %s",
                   static_cast<unsigned long>(key), start, end, LMDBErrorMessage(put).c_str());
          return put;
        }
      }
      ret = NextListed(&transaction, &key, &entry);
    }
  }
  if (ret != 0 && ret != MDB_NOTFOUND) {
    ZEFS_LOG(kLogFailure, "Could not get the next element; %s", LMDBErrorMessage(ret).c_str());
    ZEFS_LOG(kLogFailure, "Could not commit the transaction");
    return 0;
  }
  transaction.commit();
  return 0;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
