#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/peers/stores.h"
#include "bench/process_usage.h"
#include "bench/registry.h"
#include "bench/road_report.h"
#include "bench/trace.h"
#include "bench/trace_run.h"
#include "bench/unit_subjects.h"
#include "tests/support/temp_dir.h"

// Traces of real requests: the writes go the whole road to the disk, and the reads look up between
// them, over what is stored and what still waits.

namespace zefs_bench {

namespace {

using zefs::test::TempDir;

constexpr std::size_t kLoopedWrites = 1000000;
constexpr std::size_t kLoopedRequests = 2000000;

/// A trace and how often it is run on end.
struct Course {
  std::shared_ptr<const Trace> trace;
  std::string length;
  std::size_t rounds;
};

/// As many whole rounds as have at most kLoopedWrites writes and kLoopedRequests requests, but one
/// at least.
std::size_t LoopedRounds(const Trace& trace) {
  const std::size_t byWrites = RoadSize(kLoopedWrites) / std::max(trace.writes, std::size_t{1});
  const std::size_t byRequests = kLoopedRequests / std::max(trace.requests.size(), std::size_t{1});
  return std::max(std::min(byWrites, byRequests), std::size_t{1});
}

/// The writes of a course; only the ones last asked for are kept.
const std::vector<Write>& WritesFor(const Course& course) {
  static std::vector<Write> writes;
  static std::pair<std::shared_ptr<const Trace>, std::size_t> kept;
  if (kept != std::pair(course.trace, course.rounds)) {
    writes = WritesOf(*course.trace, course.rounds);
    kept = {course.trace, course.rounds};
  }
  return writes;
}

/// Throws if a store shows something else than the ones before it have shown at this point.
void ExpectAsBefore(const std::string& point, const Shown& shown) {
  static std::map<std::string, Shown> before;
  if (!(before.emplace(point, shown).first->second == shown)) {
    throw std::runtime_error(point + ": the stores show different extents");
  }
}

template <typename Subject>
void RunCourse(benchmark::State& state, const std::string& name, const Course& course) {
  const Trace& trace = *course.trace;
  const std::vector<Write>& writes = WritesFor(course);
  const auto requests = static_cast<double>(trace.requests.size() * course.rounds);
  const auto written = static_cast<double>(writes.size());
  for (auto _ : state) {
    const TempDir directory;
    Subject subject(directory.path(), trace.units);
    const Usage usage;
    const TraceRun run = RunTrace(trace, writes, kRoadBatch, subject);
    state.SetIterationTime(usage.Wall());
    SettleAndReport(state, usage, "request", requests, directory.path(), subject);
    state.counters["requests_per_second"] = requests / (run.writeSeconds + run.readSeconds);
    if (written > 0) {
      state.counters["writes_per_second"] = written / run.writeSeconds;
    }
    if (requests > written) {
      state.counters["reads_per_second"] = (requests - written) / run.readSeconds;
    }
    state.counters["extents_read"] = static_cast<double>(run.shown.extents());
    const Shown all = ShownByAllUnits(trace.units, subject);
    state.counters["extents"] = static_cast<double>(all.extents());
    ExpectAsBefore(name + ", reads", run.shown);
    ExpectAsBefore(name + ", in the end", all);
  }
}

struct RegisterCourse {
  Course course;

  template <typename Subject>
  void Add(const std::string& subject) const {
    const std::string name = "trace/" + course.trace->name + "/" + course.length;
    Register(name + "/" + subject, 1, [name, course = course](benchmark::State& state) {
      RunCourse<Subject>(state, name, course);
    });
  }
  template <typename Peer>
  void operator()(const std::string& subject) const {
    Add<UnitsInKeys<Peer>>(subject);
  }
};

}  // namespace

void RegisterTraces(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    const auto trace = std::make_shared<const Trace>(LoadTrace(path));
    for (const RegisterCourse& course : {RegisterCourse{{trace, "once", 1}},
                                         RegisterCourse{{trace, "looped", LoopedRounds(*trace)}}}) {
      course.Add<TablePerUnit>("table");
      ForEachStorePeer(course);
    }
  }
}

}  // namespace zefs_bench
