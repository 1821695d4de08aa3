#include <algorithm>

#include "host/config.h"
#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "persistent/printed.h"
#include "support/measure_cpu.h"

// Where every write stops first: the cached extents, the nodes behind them, and the keys that are
// still to be flushed.

namespace Aldenta::Qnd::Morene::Zefs {

using zefs::kLogTrace;

int CMappingLMDB::insert(long sOff, long eOff, const ObjectID* oid, long objOff, long /*objCksum*/,
                         void* data, int dcOffset, FILE* /*trace*/) {
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  if (eOff <= sOff) {
    return 0;
  }
  const UniqueLock lock(rwLock_);
  DropPrefetchedUnderWrite(sOff, eOff);
  return insert2Cache(sOff, eOff, oid, objOff, 0, data, dcOffset);
}

int CMappingLMDB::append(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum,
                         void* data, FILE* trace) {
  return insert(sOff, eOff, oid, objOff, objCksum, data, -1, trace);
}

void CMappingLMDB::DropPrefetchedUnderWrite(long sOff, long eOff) {
  if (FileSystemDaemonConfig::GetInstance().Get(&FileSystemDaemonConfig::prefetchEnabled) == 0) {
    return;
  }
  const UniqueLock lock(prefetchLock_);
  if (prefetchExts_.empty()) {
    return;
  }
  const long firstS = prefetchExts_.front().getSOff();
  const long lastE = prefetchExts_.back().getEOff();
  if ((sOff <= firstS && firstS < eOff) || (sOff < lastE && lastE <= eOff)) {
    prefetchExts_.clear();
  }
}

int CMappingLMDB::insert2Cache(long sOff, long eOff, const ObjectID* oid, long objOff,
                               long /*objCksum*/, void* data, int dcOffset) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::insert2Cache(), start=%llu, end=%llu, offset=%llu, data=%p",
           static_cast<unsigned long long>(sOff), static_cast<unsigned long long>(eOff),
           static_cast<unsigned long long>(objOff), data);
  dataChanged_ = true;
  auto at = FirstEndingBehind(sOff);
  while (at != extCache_.end()) {
    if (eOff <= at->second.startOffset) {
      ZEFS_LOG(kLogTrace,
               "current extent is SOff=%lld, EOff=%lld, no overlap with SOff=%lld, EOff=%lld",
               Printed(at->second.startOffset), Printed(at->first), Printed(sOff), Printed(eOff));
      break;
    }
    at = CutCached(at, sOff, eOff, data);
  }

  ExtLMDBEntry entry{};
  entry.FillExtLMDBEntry(sOff, oid, objOff, dcOffset);
  PushPending(eOff);
  const auto share = sharedDataPointers_.find(data);
  if (share != sharedDataPointers_.end() && share->second.size() > 1) {
    share->second.insert(eOff);
  }
  extCache_.insert_or_assign(at, eOff, entry);
  fileSize_ = std::max<std::int64_t>(fileSize_, eOff);
  if (data != nullptr) {
    extDataPointers_[eOff] = data;
  }
  return 0;
}

CMappingLMDB::ExtentCache::iterator CMappingLMDB::FirstEndingBehind(long offset) {
  // A file that is written in order needs no search: its next extent lies behind all others.
  if (extCache_.empty() || extCache_.rbegin()->first <= offset) {
    return extCache_.end();
  }
  return extCache_.upper_bound(offset);
}

CMappingLMDB::ExtentCache::iterator CMappingLMDB::CutCached(ExtentCache::iterator at, long sOff,
                                                            long eOff, const void* data) {
  const long key = at->first;
  ExtLMDBEntry entry = at->second;  // the pieces carry the freshest object id there is
  const long start = entry.startOffset;
  const auto pointer = extDataPointers_.find(key);
  const bool hasNode = pointer != extDataPointers_.end();
  void* const node = hasNode ? pointer->second : nullptr;
  const auto share = hasNode ? sharedDataPointers_.find(node) : sharedDataPointers_.end();
  const bool shared = share != sharedDataPointers_.end();

  if (node != nullptr) {
    ObjectID fresh;
    if (dci_->GetNodeObjectID(node, &fresh, true) == 0 && fresh.dcid != entry.dcid) {
      entry.UpdateObjectID(fresh);
      entry.dcOffset = static_cast<const zefs::DataCacheNode*>(node)->dcOffset;
    }
  }

  const bool tailSurvives = eOff < key;
  const bool headSurvives = start < sOff;
  ExtentCache::iterator next;
  if (tailSurvives) {
    at->second = PieceFrom(entry, eOff);
    PushPending(key);
    if (shared) {
      share->second.insert(key);
      ZEFS_LOG(kLogTrace, "add shared dp %p for offset %lld", node, Printed(key));
    }
    next = std::next(at);
  } else {
    next = extCache_.erase(at);
    if (shared) {
      share->second.erase(key);
    }
    if (!headSurvives && hasNode) {
      DropNode(pointer, share, data);
    }
  }
  if (!headSurvives) {
    return next;
  }

  extCache_.insert_or_assign(tailSurvives ? at : next, sOff, PieceFrom(entry, start));
  PushPending(sOff);
  if (hasNode) {
    ZEFS_LOG(kLogTrace, "remap data pointer for entry %lld to entry %lld", Printed(key),
             Printed(sOff));
    if (tailSurvives) {
      std::set<long>& keys = shared ? share->second : sharedDataPointers_[node];
      keys.insert(sOff);
      keys.insert(key);
    } else {
      extDataPointers_.erase(pointer);
      if (shared) {
        share->second.insert(sOff);
      }
    }
    extDataPointers_[sOff] = node;
  }
  return next;
}

void CMappingLMDB::DropNode(NodeByKey::iterator pointer, KeysByNode::iterator share,
                            const void* data) {
  const long key = pointer->first;
  void* const node = pointer->second;
  bool stillShared = share != sharedDataPointers_.end();
  if (stillShared && share->second.empty()) {
    ZEFS_LOG(kLogTrace, "remove shared dp %p for offset %lld", node, Printed(key));
    sharedDataPointers_.erase(share);
    stillShared = false;
  }
  if (node != data && !stillShared) {
    ZEFS_LOG(kLogTrace,
             "put data pointer for entry %lld to to be released, since it is will be released, "
             "dp:%p",
             Printed(key), node);
    toBeReleased_.insert(node);
  }
  extDataPointers_.erase(pointer);
  ZEFS_LOG(kLogTrace, "remove entry %lld from datapoint map", Printed(key));
}

void CMappingLMDB::PushPending(long key) {
  objList_.push_back(key);
  ++objListCount_;
}

void CMappingLMDB::RecycleDanglingPointer(std::set<void*>* released) {
  released->insert(toBeReleased_.begin(), toBeReleased_.end());
  toBeReleased_.clear();
}

void CMappingLMDB::GetExtentData(std::set<void*>* released) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::GetExtentData()");
  released->clear();
  const SharedLock lock(tableLock_);
  for (const auto& [key, node] : extDataPointers_) {
    if (node != nullptr) {
      released->insert(node);
    }
  }
  extDataPointers_.clear();
}

void CMappingLMDB::SetObjectID(Ext* /*ext*/, const ObjectID& /*oid*/) {}

}  // namespace Aldenta::Qnd::Morene::Zefs
