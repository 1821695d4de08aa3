#include <utility>

#include "host/config.h"
#include "host/zefs_log.h"
#include "table/mapping_table.h"
#include "table/persistent_tables.h"

// Which of the two tables the host gets.

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

bool PersistentTablesWanted() {
  return ZefsConfig::GetInstance().useLmdbTable != 0;
}

void LogChoice() {
  ZEFS_LOG(zefs::kLogTrace, "using CMappingLMDB");
}

}  // namespace

CMappingTable* CreateMappingTable(zefs::DataCacheManagementInterface* dci, std::string tableType) {
  ZEFS_LOG(zefs::kLogTrace, "CreateMappingTable()");
  if (!PersistentTablesWanted()) {
    return new CMappingTable(dci);
  }
  LogChoice();
  return NewPersistentTable(dci, std::move(tableType));
}

int GetMapRelativePath(const std::string& path, std::string* out) {
  return GetMapAbsolutePath(path, out);
}

int GetMapAbsolutePath(const std::string& path, std::string* out) {
  if (!PersistentTablesWanted()) {
    return 0;
  }
  LogChoice();
  return PersistentMapAbsolutePath(path, out);
}

int GetMapIndexSet(const std::string& path, std::set<std::string>* out) {
  if (!PersistentTablesWanted()) {
    return 0;
  }
  return PersistentMapIndexSet(path, out);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
