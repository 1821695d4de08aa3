#include <benchmark/benchmark.h>

#include "bench/registry.h"
#include "refhost/host/log.h"

int main(int argc, char** argv) {
  zefs::refhost::SetLogLevel(zefs::kLogFailure);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  zefs_bench::RegisterMaps();
  zefs_bench::RegisterFloors();
  zefs_bench::RegisterPersistent();
  zefs_bench::RegisterRoads();
  zefs_bench::RegisterMerges();
  zefs_bench::RegisterRanges();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
