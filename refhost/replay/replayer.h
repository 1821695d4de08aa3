#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "refhost/replay/map_under_replay.h"
#include "refhost/replay/trace_reader.h"

namespace zefs::refhost {

struct ReplayOptions {
  std::string path;    ///< the trace, plain or gzip
  bool check = false;  ///< compare every read and the final state with a model
  TableKind tables = TableKind::kMemory;
  TableFactory makeTable = MakeDefaultTable;  ///< of tables in memory
};

/// Where a table first said something else than the model.
struct ReplayDifference {
  std::string where;  ///< the trace and the line of the read, counted from 1, or its final state
  unsigned long unit = 0;
  long offset = 0;
  std::string found;  ///< what each of them says of that byte, in words
  std::string expected;
};

/// What a replay found out. After a difference: up to there.
struct ReplayReport {
  std::optional<ReplayDifference> difference;
  std::uint64_t requests = 0;
  std::uint64_t writes = 0;
  std::uint64_t reads = 0;
  std::uint64_t bytesWritten = 0;  ///< sums of the lengths
  std::uint64_t bytesRead = 0;
  std::uint64_t bytesFound = 0;  ///< of what was read, the bytes that had been written before
  double writeSeconds = 0;       ///< spent in the tables
  double readSeconds = 0;

  std::uint64_t flushes = 0;  ///< of persistent tables, that wrote something
  std::uint64_t merges = 0;   ///< likewise

  // The final state; nothing of it is known after a difference.
  std::uint64_t units = 0;
  MapUnderReplay::Size tables;
  std::uint64_t runs = 0;  ///< see FinalState
  std::uint64_t bytesMapped = 0;
  std::string digest;
};

/// Called now and then with how much of the trace is read, both in bytes of the file. The total is
/// 0 where it is not known.
using ReplayProgress = std::function<void(std::uint64_t done, std::uint64_t total)>;

/// Replays the whole trace on tables of its own, and stops at the first difference. Persistent
/// tables lie in a directory for temporary files, are flushed and merged on the way, and are loaded
/// afresh before the final state is read. Throws TraceError if the trace cannot be read or has a
/// line that is no request, and what the tables throw.
ReplayReport Replay(const ReplayOptions& options, const ReplayProgress& progress = {});

}  // namespace zefs::refhost
