#include "refhost/cli/check_command.h"

#include <charconv>
#include <chrono>
#include <exception>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>

#include "refhost/check/change_plan.h"
#include "refhost/check/plain_copies.h"
#include "refhost/cli/command_support.h"
#include "refhost/cli/common_options.h"
#include "refhost/cli/exit_status.h"
#include "refhost/cli/printable.h"
#include "refhost/cli/report.h"
#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

constexpr const char* kDescription =
    R"(Store files, change them, and compare every byte with a plain copy.
Every regular file at and under the paths is stored in deduplicated segments; then, decided by the
seed, ranges across segment boundaries are overwritten, data is appended, and files are cut and
extended with holes; in the end every byte is read back through the extent maps and compared, and
all references are counted again. The files themselves are only read. The plain copies lie beside
)";

/// What a check needs at the place of its store, at most.
std::string RoomNeeded() {
  return "the store. That place needs room for twice the bytes of the files, those of holes "
         "included, and for\n" +
         std::to_string(kMostWrittenInSegments + kMostGrowthInSegments) + " segments and " +
         std::to_string(kCopyAlignment) + " bytes more for each file, at most.\n";
}

constexpr const char* kStatuses =
    "Exit status: 0 all is equal; 1 a difference; 2 the check cannot run or was interrupted.";

double RateOf(const PhaseFigures& phase) {
  return phase.seconds > 0 ? static_cast<double>(phase.bytes) / phase.seconds : 0;
}

nlohmann::ordered_json DifferenceAsJson(const CheckResult& result) {
  if (!result.difference.has_value()) {
    return nullptr;
  }
  const Difference& difference = *result.difference;
  return {{"path", difference.path}, {"offset", difference.offset}, {"what", difference.text}};
}

Report ReportOf(const CheckResult& result, const CheckOptions& options, double seconds) {
  Report report;
  report.Data("equal", !result.difference.has_value());
  report.Data("difference", DifferenceAsJson(result));
  report.Count("files", "files", result.files);
  report.Count("skipped", "skipped, unreadable", result.skipped.size());
  report.Count("not_regular", "passed over, not regular", result.notRegular);
  report.Data("skipped_files", SkippedAsJson(result.skipped));
  report.Bytes("source_bytes", "read from files", result.sourceBytes);
  report.Bytes("source_stored_bytes", "kept of that", result.storedSourceBytes);
  report.Ratio("source_dedup_ratio", "dedup ratio of the files",
               DedupRatio(result.sourceBytes, result.storedSourceBytes));
  report.Bytes("logical_bytes", "logical size after changes", result.logicalBytes);
  report.Bytes("written_bytes", "written, changes included", result.writtenBytes);
  report.Bytes("stored_bytes", "kept in containers", result.storedBytes);
  report.Ratio("dedup_ratio", "dedup ratio of all writes",
               DedupRatio(result.writtenBytes, result.storedBytes));
  report.Count("containers_written", "containers written", result.containersWritten);
  if (!result.difference.has_value()) {
    report.Count("extents", "extents", result.extents);
    report.Count("containers_referenced", "containers referenced", result.containersReferenced);
    report.Count("fingerprints_referenced", "fingerprints referenced",
                 result.fingerprintsReferenced);
    report.Words("references_recounted", "references, counted again", "equal");
  }
  report.ByteRate("store_bytes_per_second", "store", RateOf(result.store));
  report.ByteRate("change_bytes_per_second", "change", RateOf(result.change));
  report.ByteRate("verify_bytes_per_second", "verify", RateOf(result.verify));
  report.Seconds("seconds", "time in all", seconds);
  report.Data("segment_size", options.segmentSize);
  report.Data("seed", options.seed);
  report.Words("tables", "tables", NameOf(options.tables));
  if (options.tables == TableKind::kPersistent) {
    report.Count("flushes", "flushes of tables", result.activity.flushes);
    report.Count("merges", "merges of tables", result.activity.merges);
    report.Count("nodes", "nodes of the data cache, each released once", result.activity.nodes);
  }
  if (options.keep) {
    report.Words("store", "store kept in", result.storePath);
  }
  return report;
}

void Tell(const CheckResult& result, const Report& report, bool json, std::ostream& out,
          std::ostream& err) {
  TellSkipped(result.skipped, err);
  if (result.difference.has_value()) {
    const Difference& difference = *result.difference;
    err << "difference in " << Printable(difference.path) << " at offset " << difference.offset
        << ": " << Printable(difference.text) << '\n';
  }
  if (json) {
    out << report.Json();
    return;
  }
  out << (result.difference.has_value() ? "not equal:\n" : "every byte is equal:\n")
      << report.Text();
}

/// What a check that came to no result leaves behind.
void TellFailure(const CheckResult& result, const CheckOptions& options, const char* reason,
                 std::ostream& err) {
  TellSkipped(result.skipped, err);
  err << "zefs-host check: " << Printable(reason) << '\n';
  if (options.keep && !result.storePath.empty()) {
    err << "store kept in " << Printable(result.storePath) << '\n';
  }
}

std::string StoreTextProblem(const std::string& text) {
  return text.empty() ? "the name of the directory is empty" : "";
}

/// A seed as it stands on the command line becomes its plain decimal form. Returns what is wrong
/// with it; empty if nothing is.
std::string NormaliseSeed(std::string& text) {
  std::uint64_t seed = 0;
  const char* const end = text.data() + text.size();
  const auto [behind, error] = std::from_chars(text.data(), end, seed);
  if (error != std::errc() || behind != end) {
    return "seed '" + text + "' is not a decimal number from 0 to 18446744073709551615";
  }
  text = std::to_string(seed);
  return {};
}

void RunWithProgress(const CheckOptions& options, const BeforeVerify& beforeVerify,
                     CheckResult* result) {
  WithProgress(
      [&](const Progress& progress) { RunCheckInto(options, progress, beforeVerify, result); });
}

}  // namespace

int RunAndReport(const CheckOptions& options, bool json, std::ostream& out, std::ostream& err,
                 const BeforeVerify& beforeVerify) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  CheckResult result;
  try {
    RunWithProgress(options, beforeVerify, &result);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    Tell(result, ReportOf(result, options, seconds), json, out, err);
    return result.difference.has_value() ? kExitDifference : kExitFine;
  } catch (const std::bad_alloc&) {
    TellFailure(result, options, "out of memory", err);
  } catch (const std::exception& error) {
    TellFailure(result, options, error.what(), err);
  }
  return kExitCannotRun;
}

void AddCheckCommand(CLI::App& app, int* exitStatus) {
  struct Given {
    CheckOptions options;
    bool json = false;
    bool memory = false;
    TableOptions tables;
  };
  const auto given = std::make_shared<Given>();
  CLI::App* const command = app.add_subcommand("check", kDescription + RoomNeeded() + kStatuses);
  AddSourcePaths(command, &given->options.paths);
  command
      ->add_option("--store", given->options.storeDirectory,
                   "Empty or missing directory for the store (default: a temporary one)")
      ->check(CLI::Validator(StoreTextProblem, ""));
  command->add_flag("--keep", given->options.keep, "Do not remove the store at the end");
  AddSegmentSize(command, &given->options.segmentSize);
  command->add_option("--seed", given->options.seed, "Decides how files are changed")
      ->transform(CLI::Validator(NormaliseSeed, ""))
      ->capture_default_str();
  command->add_flag("--memory", given->memory, "Use tables in memory instead of persistent ones");
  AddTableOptions(command, &given->tables);
  command->add_flag("--json", given->json, "Print the result as JSON");
  command->callback([given, exitStatus] {
    given->options.tables = given->memory ? TableKind::kMemory : TableKind::kPersistent;
    given->tables.Apply();
    *exitStatus = RunAndReport(given->options, given->json, std::cout, std::cerr);
  });
}

}  // namespace zefs::refhost
