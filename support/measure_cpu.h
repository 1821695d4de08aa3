#pragma once

#include <atomic>

#include "host/auto_log_cpu.h"
#include "support/cpu_counters.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// The counter array of one measured site, null until it is first needed. Goes from null to its
/// final value once, under AutoLogCpu::rwMutex_, and is read without a lock.
using CpuCounterSite = std::atomic<Tarvenda::Utils::thread_stats_t*>;

/// Begins the measuring of one call with `guard`, if the host has measuring on. Makes the counter
/// array of `site` on the first measured call and enters it in `registry` under `name`; a name that
/// is there already keeps its entry, and the site keeps its own array. Takes AutoLogCpu::rwMutex_
/// exclusively while it does so.
void StartMeasuring(Tarvenda::Utils::AutoLogCpu& guard, CpuCounterSite& site,
                    CpuCounterRegistry& registry, const char* name);

}  // namespace Aldenta::Qnd::Morene::Zefs

/// Heads a measured function: accounts everything up to the end of the enclosing scope under the
/// function's own unqualified name in `registry`. At most once a scope.
#define ZEFS_MEASURE_CPU(registry)                                                              \
  static ::Aldenta::Qnd::Morene::Zefs::CpuCounterSite zefs_cpu_counter_site{nullptr};           \
  ::Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu zefs_cpu_guard;                                   \
  ::Aldenta::Qnd::Morene::Zefs::StartMeasuring(zefs_cpu_guard, zefs_cpu_counter_site, registry, \
                                               static_cast<const char*>(__func__))
