#include "refhost/tables/new_table.h"

#include <mutex>

#include "host/config.h"

namespace zefs::refhost {

std::unique_ptr<MappingTable> NewTable(TableKind kind, DataCacheManagementInterface* cache,
                                       const std::string& type) {
  static std::mutex mutex;  // the library reads the choice without a lock
  const std::lock_guard<std::mutex> lock(mutex);
  ZefsConfig::GetInstance().useLmdbTable = kind == TableKind::kPersistent ? 1 : 0;
  return std::unique_ptr<MappingTable>(Aldenta::Qnd::Morene::Zefs::CreateMappingTable(cache, type));
}

}  // namespace zefs::refhost
