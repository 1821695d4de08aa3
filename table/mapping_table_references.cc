#include <climits>

#include "host/zefs_log.h"
#include "table/mapping_table.h"

// What the in-memory table refers to, and the object ids of stored extents.

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

/// Below this many writing nodes an internal flush takes none.
constexpr std::uint64_t kInternalFlushNodes = 10000;

}  // namespace

ReferenceChange CMappingTable::StartReferenceChange() {
  return ReferenceChange(&refsByDcid_, &refsByFp_, &fpIndex_);
}

void CMappingTable::ClearReferences() {
  fpIndex_.Clear();
  refsByFp_.clear();
  refsByDcid_.clear();
}

void CMappingTable::InnerAddReference(unsigned long dcid, FingerprintText fp, unsigned long bytes) {
  StartReferenceChange().Add(dcid, fp, bytes);
}

void CMappingTable::InnerDeleteReference(unsigned long dcid, FingerprintText fp,
                                         unsigned long bytes) {
  StartReferenceChange().Delete(dcid, fp, bytes);
}

void CMappingTable::SetObjectID(Ext* ext, const ObjectID& oid) {
  UniqueLock lock(tableLock_);
  const unsigned long bytes = LengthOf(*ext);
  ReferenceChange references = StartReferenceChange();
  references.Delete(ext->objectID, bytes);
  ext->objectID = oid;
  references.Add(oid, bytes);
}

CMappingTable::ObjectIDs CMappingTable::GetObjectIdsAndOffsets(unsigned long start,
                                                               unsigned long end) {
  ObjectIDs found;
  const iterator behind = this->end();
  iterator it = lower_bound(static_cast<long>(start), nullptr);
  if (it == behind) {
    return found;
  }
  const iterator last = lower_bound(static_cast<long>(end), nullptr);
  for (; it != last && it != behind; ++it) {
    found.push_back({it->getObjectID(), it->getSOff(), it->getEOff()});
  }
  return found;
}

int CMappingTable::UpdateObjectIdsByRange(unsigned long /*start*/, unsigned long /*end*/,
                                          const ObjectIDs& list) {
  if (list.empty()) {
    return 0;
  }
  UniqueLock lock(tableLock_);
  const iterator behind = end();
  iterator it = lower_bound(list.front().startOffset, nullptr);
  for (auto element = list.begin(); element != list.end(); ++element) {
    const bool isLast = std::next(element) == list.end();
    const auto limit = isLast ? ULONG_MAX : static_cast<unsigned long>(element->startOffset);
    for (; it != behind && static_cast<unsigned long>(it->sOff) < limit; ++it) {
      Ext& ext = *it;
      if (ext.objectID.fp != element->objectID.fp) {
        continue;
      }
      ReferenceChange references = StartReferenceChange();
      references.Delete(ext.objectID, LengthOf(ext));
      ext.objectID.dcid = element->objectID.dcid;
      references.Add(ext.objectID, LengthOf(ext));
    }
  }
  return 0;
}

void CMappingTable::AppendDcids(std::vector<std::pair<unsigned long, unsigned long>>* out) const {
  for (const auto& [dcid, bytes] : refsByDcid_) {
    if (bytes != 0) {
      out->emplace_back(dcid, bytes);
    }
  }
  ZEFS_LOG(zefs::kLogStep, "unique dcid vector size: %llu",
           static_cast<unsigned long long>(out->size()));
}

void CMappingTable::AppendFingerprints(std::vector<FingerprintText>* out) const {
  for (const auto& [fp, extents] : refsByFp_) {
    if (extents != 0) {
      out->push_back(fp);
    }
  }
  ZEFS_LOG(zefs::kLogStep, "unique fp vector size: %llu",
           static_cast<unsigned long long>(out->size()));
}

void CMappingTable::GetNewReferencedDCID(
    std::vector<std::pair<unsigned long, unsigned long>>* out) {
  const SharedLock lock(tableLock_);
  AppendDcids(out);
}

void CMappingTable::GetReferencedFP(std::vector<FingerprintText>* out) {
  const SharedLock lock(tableLock_);
  AppendFingerprints(out);
}

void CMappingTable::GetDCIDAndFP(std::vector<std::pair<unsigned long, unsigned long>>* dcids,
                                 std::vector<FingerprintText>* fps) {
  const SharedLock lock(tableLock_);
  AppendDcids(dcids);
  AppendFingerprints(fps);
}

unsigned long CMappingTable::GetWritingNodesCount() const {
  return writingNodesCount_;
}

void CMappingTable::GetWritingNodes(std::vector<DataCacheNodePointerWithStatus>* out,
                                    bool internal_flush) {
  if (internal_flush && writingNodesCount_ < kInternalFlushNodes) {
    return;
  }
  UniqueLock lock(tableLock_);
  while (!writingNodes_.empty()) {
    DataCacheNodePointerWithStatus entry;
    entry.node = writingNodes_.front();
    entry.status = dci_->GetNodeObjectID(entry.node, &entry.objectID, !internal_flush);
    if (internal_flush && entry.status != 0) {
      break;
    }
    out->push_back(entry);
    writingNodes_.pop_front();
    --writingNodesCount_;
  }
  ZEFS_LOG(zefs::kLogStep, "returned writing nodes vector size: %llu",
           static_cast<unsigned long long>(out->size()));
}

}  // namespace Aldenta::Qnd::Morene::Zefs
