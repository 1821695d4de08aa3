#include "host/auto_log_cpu.h"

#include <algorithm>
#include <atomic>
#include <iterator>
#include <vector>

#include "refhost/host/cpu_accounting.h"

// A thread adds to one element of each array, and threads share an element only when there are more
// of them than elements; so the sums are added to atomically, without contention as a rule.
// `counter` is the number of calls; nanoseconds are not carried over into the seconds.

namespace Aldenta::Qnd::Tarvenda::Utils {

bool AutoLogCpu::enabled_ = false;
bool AutoLogCpu::initialized_ = true;  // nothing has to be prepared for the arrays
boost::shared_mutex AutoLogCpu::rwMutex_;

namespace {

struct RunningCall {
  thread_stats_t* counters;
  timespec wall;
  timespec cpu;
};

/// The measured calls that this thread is inside of, the innermost last. They cannot be kept in the
/// element: a recursive call, or another thread, would overwrite them.
std::vector<RunningCall>& RunningCalls() {
  thread_local std::vector<RunningCall> calls;
  return calls;
}

std::size_t ElementOfThisThread() {
  static std::atomic<std::size_t> threads{0};
  thread_local const std::size_t element =
      threads.fetch_add(1, std::memory_order_relaxed) % kThreadStatsElements;
  return element;
}

timespec Now(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return now;
}

void Add(std::int64_t* sum, std::int64_t value) {
  __atomic_fetch_add(sum, value, __ATOMIC_RELAXED);  // the records are plain by layout
}

void AddElapsed(const timespec& from, const timespec& to, std::int64_t* sec, std::int64_t* nsec) {
  const std::int64_t nanos = to.tv_nsec - from.tv_nsec;
  const bool borrow = nanos < 0;
  Add(sec, to.tv_sec - from.tv_sec - (borrow ? 1 : 0));
  Add(nsec, nanos + (borrow ? 1000000000 : 0));
}

}  // namespace

void AutoLogCpu::start(thread_stats_t* counters) {
  const thread_stats_t& element = counters[ElementOfThisThread()];
  RunningCalls().push_back({counters, Now(element.wallClock), Now(element.cpuClock)});
}

void AutoLogCpu::end(thread_stats_t* counters) {
  std::vector<RunningCall>& calls = RunningCalls();
  const auto call =
      std::find_if(calls.rbegin(), calls.rend(),
                   [counters](const RunningCall& running) { return running.counters == counters; });
  if (call == calls.rend()) {
    return;  // never started
  }
  thread_stats_t& element = counters[ElementOfThisThread()];
  AddElapsed(call->cpu, Now(element.cpuClock), &element.cpuSec, &element.cpuNsec);
  AddElapsed(call->wall, Now(element.wallClock), &element.wallSec, &element.wallNsec);
  Add(&element.counter, 1);
  calls.erase(std::next(call).base());
}

}  // namespace Aldenta::Qnd::Tarvenda::Utils

namespace zefs::refhost {

using Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu;
using Aldenta::Qnd::Tarvenda::Utils::kThreadStatsElements;
using Aldenta::Qnd::Tarvenda::Utils::thread_stats_t;

CpuTotals SumCpuCounters(const thread_stats_t* counters) {
  const auto load = [](const std::int64_t& sum) { return __atomic_load_n(&sum, __ATOMIC_RELAXED); };
  CpuTotals totals;
  std::for_each(counters, counters + kThreadStatsElements, [&](const thread_stats_t& element) {
    totals.calls += load(element.counter);
    totals.wallNanos += load(element.wallSec) * 1000000000 + load(element.wallNsec);
    totals.cpuNanos += load(element.cpuSec) * 1000000000 + load(element.cpuNsec);
  });
  return totals;
}

void EnableCpuAccounting(bool enabled) {
  AutoLogCpu::enabled_ = enabled;
}

}  // namespace zefs::refhost
