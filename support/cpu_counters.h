#pragma once

#include <map>
#include <string>

#include "host/auto_log_cpu.h"
#include "support/visibility.h"

/// Counter arrays by operation name, for the host to read. Guarded by AutoLogCpu::rwMutex_. The
/// arrays are made by the measured operations and live as long as the process.
using CpuCounterRegistry = std::map<std::string, Aldenta::Qnd::Tarvenda::Utils::thread_stats_t*>;

/// In-memory table; no operation of the tree feeds it.
extern ZEFS_EXTMAP_API CpuCounterRegistry CMap_cpu_counts;
/// Persistent table.
extern ZEFS_EXTMAP_API CpuCounterRegistry mapping_lmdb_cpu_counters;
/// Extent journal.
extern ZEFS_EXTMAP_API CpuCounterRegistry extent_journal_cpu_counters;
