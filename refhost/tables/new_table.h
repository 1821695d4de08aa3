#pragma once

#include <memory>
#include <string>

#include "host/data_cache.h"
#include "table/mapping_table.h"

namespace zefs::refhost {

using MappingTable = Aldenta::Qnd::Morene::Zefs::CMappingTable;

/// Which of the library's tables a command works on.
enum class TableKind { kMemory, kPersistent };

inline const char* NameOf(TableKind kind) {
  return kind == TableKind::kMemory ? "memory" : "persistent";
}

/// A new table of the given kind and type. A persistent one is still to be loaded: StoredTable does
/// both. The choice of the process is set for it, so all tables come from here. Thread-safe.
std::unique_ptr<MappingTable> NewTable(TableKind kind, DataCacheManagementInterface* cache,
                                       const std::string& type = "PROVISION");

}  // namespace zefs::refhost
