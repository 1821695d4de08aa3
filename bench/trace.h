#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/workload.h"
#include "refhost/replay/trace_parser.h"

namespace zefs_bench {

/// The requests of a trace, in their order. Units are numbered from 0 as they come.
struct Trace {
  std::string name;  ///< that of the file, without what follows its first dot
  std::vector<zefs::refhost::TraceRequest> requests;
  std::size_t units = 0;
  std::size_t writes = 0;
};

/// Offsets of a unit lie below this, and there are at most so many units, so that both fit into one
/// number.
inline constexpr int kUnitBits = 44;
inline constexpr std::int64_t kUnitRoom = std::int64_t{1} << kUnitBits;
inline constexpr std::size_t kMostUnits = std::size_t{1} << (63 - kUnitBits);

/// Reads a whole trace. Throws zefs::refhost::TraceError if it cannot be read, has a line that is
/// no request, or is larger than that.
Trace LoadTrace(const std::string& path);

/// The writes of a trace that is run `rounds` times on end. Each has an object of its own draw, so
/// that a round replaces what the one before has written.
std::vector<Write> WritesOf(const Trace& trace, std::size_t rounds);

}  // namespace zefs_bench
