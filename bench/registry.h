#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/process_usage.h"

namespace zefs_bench {

/// Register the benchmarks. Names are "workload/counting/operation/size/map", "floor/…" for the
/// bounds, "persistent/operation/case/size/subject" for parts of the persistent table,
/// "road/workload/size/subject" for its whole way to the disk, and "trace/name/length/subject" for
/// the same under the requests of traces, the files at `paths`. Throws
/// zefs::refhost::TraceError for a file that is no trace.
void RegisterMaps();
void RegisterFloors();
void RegisterPersistent();
void RegisterRoads();
void RegisterMerges();
void RegisterRanges();
void RegisterMergeLookups();
void RegisterTraces(const std::vector<std::string>& paths);

/// The size of a benchmark of a road: the usual one, or what the environment says in
/// ZEFS_BENCH_ROAD, for a look at whether all of them run.
std::size_t RoadSize(std::size_t usual);

/// CPU time of this thread, seconds.
inline double CpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

/// Runs `work` once and takes the CPU time that it took as that of the iteration: nothing here
/// waits, and the clock on the wall also counts what other programs get of a shared processor.
template <typename Work>
void Time(benchmark::State& state, Work work) {
  const double begin = CpuSeconds();
  work();
  state.SetIterationTime(CpuSeconds() - begin);
}

/// Runs `work`, which waits for the disk or has threads of its own, once: its time is that of the
/// wall, and the CPU time of all threads stands beside it.
template <typename Work>
void TimeByWall(benchmark::State& state, std::size_t items, Work work) {
  const Usage usage;
  work();
  state.SetIterationTime(usage.Wall());
  state.counters["cpu_us_per_item"] = usage.Cpu() * 1e6 / static_cast<double>(items);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.max_iterations) *
                          static_cast<std::int64_t>(items));
}

/// Registers `run`, which times itself, for a fixed number of iterations: what an
/// iteration needs is often far more than what it times.
template <typename Run>
void Register(const std::string& name, std::size_t iterations, Run run) {
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->UseManualTime()
      ->Iterations(static_cast<benchmark::IterationCount>(iterations))
      ->Unit(benchmark::kMillisecond);
}

}  // namespace zefs_bench
