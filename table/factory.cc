#include <cerrno>

#include "host/config.h"
#include "host/zefs_log.h"
#include "table/mapping_table.h"

// Which of the two tables the host gets.

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

bool PersistentTablesWanted() {
  return ZefsConfig::GetInstance().useLmdbTable != 0;
}

void LogChoice() {
  ZEFS_LOG(zefs::kLogTrace, "using CMappingLMDB");
}

[[noreturn]] void RefusePersistentTable() {
  ZEFS_LOG(zefs::kLogFailure,
           "useLmdbTable is set, but this version of the library has no persistent table");
  throw SysException(ENOSYS);
}

}  // namespace

CMappingTable* CreateMappingTable(zefs::DataCacheManagementInterface* dci,
                                  // NOLINTNEXTLINE(performance-unnecessary-value-param): as given
                                  std::string /*tableType*/) {
  ZEFS_LOG(zefs::kLogTrace, "CreateMappingTable()");
  if (!PersistentTablesWanted()) {
    return new CMappingTable(dci);
  }
  LogChoice();
  RefusePersistentTable();
}

int GetMapRelativePath(const std::string& path, std::string* out) {
  return GetMapAbsolutePath(path, out);
}

int GetMapAbsolutePath(const std::string& /*path*/, std::string* /*out*/) {
  if (!PersistentTablesWanted()) {
    return 0;
  }
  LogChoice();
  RefusePersistentTable();
}

int GetMapIndexSet(const std::string& /*path*/, std::set<std::string>* /*out*/) {
  if (!PersistentTablesWanted()) {
    return 0;
  }
  RefusePersistentTable();
}

}  // namespace Aldenta::Qnd::Morene::Zefs
