#pragma once

#include <set>
#include <string>

#include "host/data_cache.h"

// What the factory needs of the persistent table. Defined beside that table, so that nothing here
// depends on it.

namespace Aldenta::Qnd::Morene::Zefs {

class CMappingTable;

/// A new persistent table, owned by the caller, that still has to be loaded.
CMappingTable* NewPersistentTable(zefs::DataCacheManagementInterface* dci, std::string tableType);

/// CMappingLMDB::GetMapAbsolutePath and GetMapIndexSet, with their results and failures.
int PersistentMapAbsolutePath(const std::string& path, std::string* out);
int PersistentMapIndexSet(const std::string& path, std::set<std::string>* out);

}  // namespace Aldenta::Qnd::Morene::Zefs
