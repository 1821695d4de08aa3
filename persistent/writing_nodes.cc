#include <unordered_set>

#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"

// Which nodes still wait for an object id.

namespace Aldenta::Qnd::Morene::Zefs {

void CMappingLMDB::GetWritingNodes(std::vector<DataCacheNodePointerWithStatus>* out,
                                   bool internal_flush) {
  constexpr int kNotReady = 1;
  ZEFS_LOG(zefs::kLogTrace, "CMappingLMDB::GetWritingNodes(), internal_flush=%d",
           static_cast<int>(internal_flush));
  out->clear();
  std::unordered_set<const void*> seen;
  for (const long key : objList_) {
    const auto pointer = extDataPointers_.find(key);
    if (pointer == extDataPointers_.end() || pointer->second == nullptr ||
        seen.count(pointer->second) != 0) {
      continue;
    }
    DataCacheNodePointerWithStatus entry;
    entry.node = static_cast<zefs::DataCacheNode*>(pointer->second);
    entry.status = dci_->GetNodeObjectID(entry.node, &entry.objectID, !internal_flush);
    if (internal_flush && entry.status == kNotReady) {
      continue;  // another key of this node asks again
    }
    seen.insert(entry.node);
    out->push_back(entry);
  }
}

}  // namespace Aldenta::Qnd::Morene::Zefs
