#pragma once

#include <cstdint>

#include "host/auto_log_cpu.h"

namespace zefs::refhost {

/// What a counter array says in all: the calls that have ended, and the time that they took. Calls
/// that other calls of the same operation ran under count on their own, and within the outer one.
struct CpuTotals {
  std::int64_t calls = 0;
  std::int64_t wallNanos = 0;
  std::int64_t cpuNanos = 0;
};

/// Sums up the kThreadStatsElements elements at `counters`. May run beside measured calls, each of
/// which it may or may not see, or see in part.
CpuTotals SumCpuCounters(const Aldenta::Qnd::Tarvenda::Utils::thread_stats_t* counters);

/// Has the library measure its operations. To be called before other threads use it. Off at start.
void EnableCpuAccounting(bool enabled);

}  // namespace zefs::refhost
