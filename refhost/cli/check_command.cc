#include "refhost/cli/check_command.h"

#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>

#include "refhost/cli/exit_status.h"
#include "refhost/cli/progress.h"
#include "refhost/cli/report.h"

namespace zefs::refhost {

namespace {

constexpr const char* kDescription =
    "Store files, change them, and compare every byte with a plain copy.\n"
    "Every regular file at and under the paths is stored in deduplicated segments; then, decided "
    "by\n"
    "the seed, ranges across segment boundaries are overwritten, data is appended, and files are "
    "cut\n"
    "and extended with holes; in the end every byte is read back through the extent maps and "
    "compared,\n"
    "and all references are counted again. The files themselves are only read. The plain copies "
    "lie\n"
    "beside the store, so the place needs room for about twice the size of the files.\n"
    "Exit status: 0 all is equal; 1 a difference; 2 the check cannot run.";

/// Set by the first interrupt, so that the check ends and removes what it has made.
std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");

extern "C" void NoteInterrupt(int signal) {
  interrupted = true;
  std::signal(signal, SIG_DFL);  // a second one ends the process at once
}

/// While it lives, interrupts are noted and a file-size limit is an error of the write.
class SignalGuard {
 public:
  SignalGuard()
      : interrupt_(std::signal(SIGINT, NoteInterrupt)),
        terminate_(std::signal(SIGTERM, NoteInterrupt)),
        fileSize_(std::signal(SIGXFSZ, SIG_IGN)) {}
  ~SignalGuard() {
    std::signal(SIGINT, interrupt_);
    std::signal(SIGTERM, terminate_);
    std::signal(SIGXFSZ, fileSize_);
  }
  SignalGuard(const SignalGuard&) = delete;
  SignalGuard& operator=(const SignalGuard&) = delete;

 private:
  using Handler = void (*)(int);
  Handler interrupt_;
  Handler terminate_;
  Handler fileSize_;
};

double RateOf(const PhaseFigures& phase) {
  return phase.seconds > 0 ? static_cast<double>(phase.bytes) / phase.seconds : 0;
}

double DedupRatio(std::uint64_t written, std::uint64_t kept) {
  return kept == 0 ? 1.0 : static_cast<double>(written) / static_cast<double>(kept);
}

nlohmann::ordered_json SkippedAsJson(const std::vector<Skipped>& skipped) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const Skipped& one : skipped) {
    list.push_back({{"path", one.path}, {"reason", one.reason}});
  }
  return list;
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
  if (options.keep) {
    report.Words("store", "store kept in", result.storePath);
  }
  return report;
}

void Tell(const CheckResult& result, const Report& report, bool json, std::ostream& out,
          std::ostream& err) {
  for (const Skipped& one : result.skipped) {
    err << "skipped " << one.path << ": " << one.reason << '\n';
  }
  if (result.difference.has_value()) {
    const Difference& difference = *result.difference;
    err << "difference in " << difference.path << " at offset " << difference.offset << ": "
        << difference.text << '\n';
  }
  if (json) {
    out << report.Json();
    return;
  }
  out << (result.difference.has_value() ? "not equal:\n" : "every byte is equal:\n")
      << report.Text();
}

/// What is wrong with a segment size as it stands on the command line, in bytes; empty if nothing
/// is.
std::string SegmentSizeTextProblem(const std::string& text) {
  std::uint64_t size = 0;
  const char* const end = text.data() + text.size();
  const auto [behind, error] = std::from_chars(text.data(), end, size);
  if (error != std::errc() || behind != end) {
    return "segment size " + text + " is not a number of bytes";
  }
  return SegmentSizeProblem(size);
}

CheckResult RunWithProgress(const CheckOptions& options, const BeforeVerify& beforeVerify) {
  ProgressBar bar;
  interrupted = false;
  const SignalGuard guard;
  const auto progress = [&bar](std::string_view phase, std::uint64_t done, std::uint64_t total) {
    if (interrupted) {
      throw std::runtime_error("interrupted");
    }
    bar.Update(phase, done, total);
  };
  return RunCheck(options, progress, beforeVerify);
}

}  // namespace

int RunAndReport(const CheckOptions& options, bool json, std::ostream& out, std::ostream& err,
                 const BeforeVerify& beforeVerify) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  try {
    const CheckResult result = RunWithProgress(options, beforeVerify);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    Tell(result, ReportOf(result, options, seconds), json, out, err);
    return result.difference.has_value() ? kExitDifference : kExitFine;
  } catch (const std::bad_alloc&) {
    err << "zefs-host check: out of memory\n";
  } catch (const std::exception& error) {
    err << "zefs-host check: " << error.what() << '\n';
  }
  return kExitCannotRun;
}

void AddCheckCommand(CLI::App& app, int* exitStatus) {
  struct Given {
    CheckOptions options;
    bool json = false;
  };
  const auto given = std::make_shared<Given>();
  CLI::App* const command = app.add_subcommand("check", kDescription);
  command->add_option("PATH", given->options.paths, "Files, and directories with all below them")
      ->required()
      ->check(CLI::ExistingPath);
  command->add_option("--store", given->options.storeDirectory,
                      "Empty or missing directory for the store (default: a temporary one)");
  command->add_flag("--keep", given->options.keep, "Do not remove the store at the end");
  command
      ->add_option(
          "--segment-size", given->options.segmentSize,
          "Bytes of a segment, a power of two from 512 to 1048576; 16K and 1M are taken too")
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Validator(SegmentSizeTextProblem, ""))
      ->capture_default_str();
  command->add_option("--seed", given->options.seed, "Decides how files are changed")
      ->capture_default_str();
  command->add_flag("--json", given->json, "Print the result as JSON");
  command->callback([given, exitStatus] {
    *exitStatus = RunAndReport(given->options, given->json, std::cout, std::cerr);
  });
}

}  // namespace zefs::refhost
