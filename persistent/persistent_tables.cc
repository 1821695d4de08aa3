#include "table/persistent_tables.h"

#include <utility>

#include "persistent/mapping_lmdb.h"

namespace Aldenta::Qnd::Morene::Zefs {

CMappingTable* NewPersistentTable(zefs::DataCacheManagementInterface* dci, std::string tableType) {
  return new CMappingLMDB(dci, std::move(tableType));
}

int PersistentMapAbsolutePath(const std::string& path, std::string* out) {
  return CMappingLMDB::GetMapAbsolutePath(path, out);
}

int PersistentMapIndexSet(const std::string& path, std::set<std::string>* out) {
  return CMappingLMDB::GetMapIndexSet(path, out);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
