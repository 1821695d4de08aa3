#pragma once

#include <cstdint>
#include <ctime>

#include <boost/thread/shared_mutex.hpp>

#include "host/visibility.h"

namespace Aldenta::Qnd::Tarvenda::Utils {

/// One element of a counter array: what an operation took on the wall clock and on the CPU clock of
/// its thread. The library allocates arrays of kThreadStatsElements of these, one per measured
/// operation, and never looks inside; how threads are spread over the elements is the host's.
struct ZEFS_HOST_API thread_stats_t {
  thread_stats_t() {
    clockid_t id = 0;
    cpuValid = ::clock_getcpuclockid(0, &id) == 0;
  }
  /// Not trivial on purpose: an array of these is allocated with its element count in front.
  ~thread_stats_t() {}

  bool wallRunning = false;
  std::int64_t wallSec = 0;
  std::int64_t wallNsec = 0;
  bool wallValid = true;
  clockid_t wallClock = CLOCK_MONOTONIC;
  bool cpuRunning = false;
  std::int64_t cpuSec = 0;
  std::int64_t cpuNsec = 0;
  bool cpuValid;
  clockid_t cpuClock = CLOCK_THREAD_CPUTIME_ID;
  std::int64_t counter = 0;
  std::int32_t extra = 0;
};
static_assert(CLOCK_MONOTONIC == 1 && CLOCK_THREAD_CPUTIME_ID == 3, "clock ids of the record");

inline constexpr unsigned long kThreadStatsElements = 256;

/// Scope guard that accounts the time between `start` and its own end. All but the destructor is
/// supplied by the host. Safe from any thread.
class ZEFS_HOST_API AutoLogCpu {
 public:
  AutoLogCpu() = default;
  ~AutoLogCpu() {
    if (stats != nullptr) {
      end(stats);
    }
  }
  AutoLogCpu(const AutoLogCpu&) = delete;
  AutoLogCpu& operator=(const AutoLogCpu&) = delete;

  /// Begins and ends the measuring of one call in the counter array `counters`.
  void start(thread_stats_t* counters);
  void end(thread_stats_t* counters);

  thread_stats_t* stats = nullptr;  ///< the counter array; null: nothing is measured

  static bool enabled_;                 ///< measuring is wanted; the host sets it at start-up
  static bool initialized_;             ///< the host is ready for counter arrays
  static boost::shared_mutex rwMutex_;  ///< guards the registries and the making of arrays
};

}  // namespace Aldenta::Qnd::Tarvenda::Utils
