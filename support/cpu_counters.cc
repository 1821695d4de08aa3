#include "support/cpu_counters.h"

CpuCounterRegistry CMap_cpu_counts;
CpuCounterRegistry mapping_lmdb_cpu_counters;
CpuCounterRegistry extent_journal_cpu_counters;
