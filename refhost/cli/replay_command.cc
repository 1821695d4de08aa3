#include "refhost/cli/replay_command.h"

#include <exception>
#include <iostream>
#include <memory>
#include <new>

#include <CLI/CLI.hpp>

#include "refhost/cli/common_options.h"
#include "refhost/cli/exit_status.h"
#include "refhost/cli/printable.h"
#include "refhost/cli/progress.h"
#include "refhost/cli/report.h"

namespace zefs::refhost {

namespace {

constexpr const char* kDescription = R"(Replay a real I/O trace on extent maps.
A trace is text, plain or gzip, one request a line: R or W, offset and length in bytes, and perhaps
the number of the unit (file, disk or object) that it belongs to, separated by one space. Every
write maps its range to a new object, every read looks its range up; each unit has a map of its own.
Exit status: 0 fine; 1 a map differs from the model of --check; 2 the trace cannot be read or has a
line that is no request.)";

// Persistent tables of a replay: little enough that real traces see many flushes and merges.
constexpr std::uint32_t kFlushAfter = 256;
constexpr std::uint32_t kMergeAfter = 1000;

double PerSecond(std::uint64_t count, double seconds) {
  return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}

nlohmann::ordered_json DifferenceAsJson(const ReplayReport& replay) {
  if (!replay.difference.has_value()) {
    return nullptr;
  }
  const ReplayDifference& difference = *replay.difference;
  return {{"where", difference.where},
          {"unit", difference.unit},
          {"offset", difference.offset},
          {"found", difference.found},
          {"expected", difference.expected}};
}

Report ReportOf(const ReplayReport& replay, const ReplayOptions& options) {
  Report report;
  report.Data("trace", options.path);
  report.Data("checked", options.check);
  report.Data("difference", DifferenceAsJson(replay));
  report.Count("requests", "requests", replay.requests);
  report.Count("writes", "writes", replay.writes);
  report.Count("reads", "reads", replay.reads);
  report.Bytes("bytes_written", "written", replay.bytesWritten);
  report.Bytes("bytes_read", "read", replay.bytesRead);
  report.Bytes("bytes_found", "read of what was written", replay.bytesFound);
  report.Rate("writes_per_second", "writes per second",
              PerSecond(replay.writes, replay.writeSeconds));
  report.Rate("reads_per_second", "reads per second", PerSecond(replay.reads, replay.readSeconds));
  report.Words("tables", "tables", NameOf(options.tables));
  if (options.tables == TableKind::kPersistent) {
    report.Count("flushes", "flushes", replay.flushes);
    report.Count("merges", "merges", replay.merges);
  }
  if (replay.difference.has_value()) {
    return report;
  }
  report.Count("units", "units, one map each", replay.units);
  report.Count("extents", "extents", static_cast<std::uint64_t>(replay.tables.extents));
  report.Count("runs", "runs of one writer", replay.runs);
  report.Bytes("bytes_mapped", "mapped", replay.bytesMapped);
  if (options.tables == TableKind::kMemory) {
    report.Count("map_nodes", "nodes of the maps", static_cast<std::uint64_t>(replay.tables.nodes));
    report.Bytes("map_bytes", "memory of the maps' nodes",
                 static_cast<std::uint64_t>(replay.tables.bytes));
  }
  report.Words("digest", "digest of the final state", replay.digest);
  return report;
}

void Tell(const ReplayReport& replay, const ReplayOptions& options, bool json, std::ostream& out,
          std::ostream& err) {
  if (replay.difference.has_value()) {
    const ReplayDifference& difference = *replay.difference;
    err << "difference at " << Printable(difference.where) << ": unit " << difference.unit
        << ", offset " << difference.offset << ": the map has " << difference.found
        << ", expected was " << difference.expected << '\n';
  }
  const Report report = ReportOf(replay, options);
  if (json) {
    out << report.Json();
    return;
  }
  out << (replay.difference.has_value() ? "not equal, up to the difference:\n"
          : options.check               ? "every read and the final state are equal to the model:\n"
                                        : "replayed:\n")
      << report.Text();
}

ReplayReport ReplayWithProgress(const ReplayOptions& options) {
  ProgressBar bar;
  return Replay(options, [&bar](std::uint64_t done, std::uint64_t total) {
    bar.Update("replay", done, total);
  });
}

}  // namespace

int ReplayAndReport(const ReplayOptions& options, bool json, std::ostream& out, std::ostream& err) {
  try {
    const ReplayReport replay = ReplayWithProgress(options);
    Tell(replay, options, json, out, err);
    return replay.difference.has_value() ? kExitDifference : kExitFine;
  } catch (const TraceError& error) {
    err << Printable(error.what()) << '\n';
  } catch (const std::bad_alloc&) {
    err << "zefs-host replay: out of memory\n";
  } catch (const std::exception& error) {
    err << "zefs-host replay: " << Printable(error.what()) << '\n';
  }
  return kExitCannotRun;
}

void AddReplayCommand(CLI::App& app, int* exitStatus) {
  struct Given {
    ReplayOptions options;
    bool json = false;
    bool persistent = false;
    TableOptions tables{kFlushAfter, kMergeAfter};
  };
  const auto given = std::make_shared<Given>();
  CLI::App* const command = app.add_subcommand("replay", kDescription);
  command->add_option("TRACE", given->options.path, "The trace, plain text or gzip")->required();
  command->add_flag("--check", given->options.check,
                    "Compare every read, and the final state, with a simple model");
  command->add_flag("--persistent", given->persistent,
                    "Replay on persistent tables, with flushes and merges on the way and a fresh "
                    "load at the end");
  AddTableOptions(command, &given->tables, TableOptions{kFlushAfter, kMergeAfter});
  command->add_flag("--json", given->json, "Print the result as JSON");
  command->callback([given, exitStatus] {
    if (given->persistent) {
      given->options.tables = TableKind::kPersistent;
      given->tables.Apply();
    }
    *exitStatus = ReplayAndReport(given->options, given->json, std::cout, std::cerr);
  });
}

}  // namespace zefs::refhost
