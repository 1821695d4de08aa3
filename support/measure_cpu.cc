#include "support/measure_cpu.h"

#include <boost/thread/lock_types.hpp>

namespace Aldenta::Qnd::Morene::Zefs {

using Tarvenda::Utils::AutoLogCpu;
using Tarvenda::Utils::kThreadStatsElements;
using Tarvenda::Utils::thread_stats_t;

void StartMeasuring(AutoLogCpu& guard, CpuCounterSite& site, CpuCounterRegistry& registry,
                    const char* name) {
  if (!AutoLogCpu::enabled_) {
    return;
  }
  if (AutoLogCpu::initialized_ && site.load(std::memory_order_acquire) == nullptr) {
    boost::unique_lock<boost::shared_mutex> lock(AutoLogCpu::rwMutex_);
    if (AutoLogCpu::initialized_ && site.load(std::memory_order_relaxed) == nullptr) {
      auto* counters = new thread_stats_t[kThreadStatsElements];
      registry.emplace(name, counters);
      site.store(counters, std::memory_order_release);
    }
  }
  guard.stats = site.load(std::memory_order_acquire);
  if (guard.stats != nullptr) {
    guard.start(guard.stats);
  }
}

}  // namespace Aldenta::Qnd::Morene::Zefs
