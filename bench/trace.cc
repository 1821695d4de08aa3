#include "bench/trace.h"

#include <string_view>
#include <unordered_map>
#include <variant>

#include <boost/filesystem/path.hpp>

#include "refhost/replay/trace_reader.h"

namespace zefs_bench {

namespace {

using zefs::refhost::ParseTraceLine;
using zefs::refhost::TraceError;
using zefs::refhost::TraceLineError;
using zefs::refhost::TraceReader;
using zefs::refhost::TraceRequest;

bool IsWrite(const TraceRequest& request) {
  return request.operation == TraceRequest::Operation::kWrite;
}

std::string NameOf(const std::string& path) {
  const std::string file = boost::filesystem::path(path).filename().string();
  return file.substr(0, file.find('.'));
}

}  // namespace

Trace LoadTrace(const std::string& path) {
  Trace trace;
  trace.name = NameOf(path);
  std::unordered_map<unsigned long, std::size_t> units;
  TraceReader reader(path);
  std::string_view line;
  while (reader.Next(&line)) {
    const auto parsed = ParseTraceLine(line);
    if (const auto* error = std::get_if<TraceLineError>(&parsed)) {
      throw TraceError(reader.Position() + ": " + error->reason);
    }
    TraceRequest request = std::get<TraceRequest>(parsed);
    request.unit = units.emplace(request.unit, units.size()).first->second;
    if (request.end >= kUnitRoom || units.size() > kMostUnits) {
      throw TraceError(reader.Position() + ": the offset or the number of units is too large");
    }
    trace.writes += IsWrite(request) ? 1U : 0U;
    trace.requests.push_back(request);
  }
  trace.units = units.size();
  return trace;
}

std::vector<Write> WritesOf(const Trace& trace, std::size_t rounds) {
  std::vector<Write> writes;
  writes.reserve(trace.writes * rounds);
  for (std::size_t round = 0; round < rounds; ++round) {
    for (const TraceRequest& request : trace.requests) {
      if (IsWrite(request)) {
        Write& write = writes.emplace_back();
        write.sOff = request.start;
        write.eOff = request.end;
      }
    }
  }
  DrawObjects(&writes);
  return writes;
}

}  // namespace zefs_bench
