#include "refhost/cache/data_cache.h"

#include <cerrno>

namespace zefs::refhost {

int DataCache::GetNodeObjectID(void* node, DataCacheNode::ObjectID* out, bool /*flag*/) {
  const CacheNode& asked = *CacheNode::FromTable(node);
  if (asked.released()) {
    ++counts_.askedAfterRelease;
  }
  return asked.Stored(out) ? 0 : ENOENT;
}

int DataCache::ProtectShare(DataTransferManagement* /*transfer*/, const std::string& /*shareScope*/,
                            const std::string& share) {
  ++flushes_;
  return protect_(share);
}

}  // namespace zefs::refhost
