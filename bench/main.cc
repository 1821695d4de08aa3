#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/registry.h"
#include "refhost/host/log.h"
#include "refhost/replay/trace_reader.h"

namespace {

/// The values of the options `--trace=FILE`, which are taken out of the arguments.
std::vector<std::string> TakeTraces(int* argc, char** argv) {
  const std::string option = "--trace=";
  std::vector<std::string> paths;
  int kept = 0;
  for (int i = 0; i < *argc; ++i) {
    const std::string argument = argv[i];
    if (argument.compare(0, option.size(), option) == 0) {
      paths.push_back(argument.substr(option.size()));
    } else {
      argv[kept++] = argv[i];
    }
  }
  *argc = kept;
  return paths;
}

}  // namespace

int main(int argc, char** argv) {
  zefs::refhost::SetLogLevel(zefs::kLogFailure);
  benchmark::Initialize(&argc, argv);
  const std::vector<std::string> traces = TakeTraces(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  zefs_bench::RegisterMaps();
  zefs_bench::RegisterFloors();
  zefs_bench::RegisterPersistent();
  zefs_bench::RegisterRoads();
  zefs_bench::RegisterMerges();
  zefs_bench::RegisterRanges();
  zefs_bench::RegisterMergeLookups();
  try {
    zefs_bench::RegisterTraces(traces);
  } catch (const zefs::refhost::TraceError& error) {
    std::fprintf(stderr, "zefs-bench: %s\n", error.what());
    return 2;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
