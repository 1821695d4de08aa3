#include <string>

#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "table/fingerprint.h"

// Container offsets that were not known when an extent was written: which are wanted, and what the
// host has found since.

namespace Aldenta::Qnd::Morene::Zefs {

using zefs::kLogFailure;

namespace {

/// The offset answers for this very data, and not for what stood there when it was asked for.
bool IsFor(const zefs::DCOffset& offset, const Ext& ext) {
  return ext.objectID.dcid == offset.dcid &&
         CRFPDigestCompare(ext.objectID.fp.data(), offset.fp.data(), kCrfpDigestKind) == 0;
}

}  // namespace

int CMappingLMDB::GetEmptyDcOffsetList(std::vector<zefs::DCOffset>* out) {
  const SharedLock lock(rwLock_);
  if (out == nullptr) {
    return -1;
  }
  return dcOffsetStore_->Read(out);
}

int CMappingLMDB::BackfillDcOffset(std::vector<zefs::DCOffset>& offsets) {
  {
    const UniqueLock lock(rwLock_);
    DropAllPrefetched();  // they would go on showing the old offset
    const iterator behind = end();
    for (const zefs::DCOffset& offset : offsets) {
      const iterator found = lower_bound_unlocked(offset.key);
      if (found == behind || !IsFor(offset, *found)) {
        continue;
      }
      const Ext& ext = *found;
      const int ret = insert2Cache(ext.sOff, ext.eOff, &ext.objectID, ext.objOff, ext.objCksum,
                                   ext.data, static_cast<int>(offset.dcOffset));
      if (ret != 0) {
        ZEFS_LOG(kLogFailure, "Failed to back fill DC offset, ret=%s", std::to_string(ret).c_str());
        return ret;
      }
    }
  }
  const int ret = dcOffsetStore_->MergeDcOffset(offsets);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to merge DC offset, ret=%s", std::to_string(ret).c_str());
  }
  return ret;
}

int CMappingLMDB::AppendToRefreshDcOffsetList(long key, unsigned long dcid, crfp_digest_t fp) {
  constexpr int kWanted = -1;
  return dcOffsetStore_->CheckAndStore(key, dcid, fp, kWanted);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
