#pragma once

#include <cstddef>
#include <string>

#include <benchmark/benchmark.h>
#include <boost/filesystem/path.hpp>

#include "bench/process_usage.h"

// What every life of a table or a store on disk has in common.

namespace zefs_bench {

/// Writes that make one durable batch.
inline constexpr std::size_t kRoadBatch = 10000;

/// Waits for what goes on in the background, and reports that wait, CPU time by `item`, of which
/// there were `count`, and the disk. `usage` has measured all that came before.
template <typename Subject>
void SettleAndReport(benchmark::State& state, const Usage& usage, const std::string& item,
                     double count, const boost::filesystem::path& directory, Subject& subject) {
  constexpr double kMicro = 1e6;
  constexpr double kMiB = 1 << 20;
  const double before = usage.Wall();
  subject.Settle();
  state.counters["settle_seconds"] = usage.Wall() - before;
  state.counters["cpu_us_per_" + item] = usage.Cpu() * kMicro / count;
  state.counters["mib_on_disk"] = static_cast<double>(BytesOnDisk(directory)) / kMiB;
  if (BytesWritten()) {
    state.counters["mib_written"] = static_cast<double>(usage.Written()) / kMiB;
  }
}

}  // namespace zefs_bench
