#include "refhost/cli/common_options.h"

#include <charconv>
#include <limits>
#include <system_error>

#include <CLI/CLI.hpp>

#include "host/config.h"
#include "refhost/cli/command_support.h"
#include "refhost/durable/store_directory.h"
#include "refhost/store/segmenter.h"

namespace zefs::refhost {

namespace {

constexpr const char* kSegmentSizeHelp =
    "Bytes of a segment, a power of two from 512 to 1048576; 16K and 1M are taken too";

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

template <typename Size>
CLI::Option* AddSize(CLI::App* command, Size* size) {
  return command->add_option("--segment-size", *size, kSegmentSizeHelp)
      ->transform(CLI::AsSizeValue(false))
      ->check(CLI::Validator(SegmentSizeTextProblem, ""));
}

}  // namespace

void AddSourcePaths(CLI::App* command, std::vector<std::string>* paths) {
  // Any number of paths without the extra arguments of one option: with these, CLI11 would take
  // the name `[a,b]` for a list of names.
  constexpr int kAnyNumber = CLI::detail::expected_max_vector_size;
  command->add_option("PATH", *paths, "Files, and directories with all below them")
      ->required()
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->expected(kAnyNumber, kAnyNumber)
      ->allow_extra_args(false)
      ->check(CLI::Validator(PathProblem, ""));
}

void AddSegmentSize(CLI::App* command, std::uint64_t* size) {
  AddSize(command, size)->capture_default_str();
}

void AddSegmentSize(CLI::App* command, std::optional<std::uint64_t>* size) {
  AddSize(command, size);
}

void AddTableType(CLI::App* command, std::optional<std::string>* type) {
  command->add_option("--table-type", *type, "Type of the tables: PROVISION, INGEST or GENERIC")
      ->check(CLI::Validator([](const std::string& text) { return TableTypeProblem(text); }, ""));
}

void AddVolumes(CLI::App* command, std::vector<std::string>* volumes) {
  command
      ->add_option("--volume", *volumes,
                   "Directory over which, with the others given, a new store spreads its tables")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->expected(1)
      ->allow_extra_args(false)
      ->check(CLI::ExistingDirectory);
}

void AddTableOptions(CLI::App* command, TableOptions* options, const TableOptions& usual) {
  const CLI::Range range(1U, std::numeric_limits<std::uint32_t>::max() / 4);
  const auto add = [&](const char* name, std::optional<std::uint32_t>* value, const char* what,
                       const std::optional<std::uint32_t>& absent) {
    command
        ->add_option(name, *value,
                     std::string(what) + " (default: " + std::to_string(absent.value_or(0)) + ")")
        ->check(range);
  };
  add("--flush-after", &options->flushAfter,
      "Writes of a persistent table after which it is flushed", usual.flushAfter);
  add("--merge-after", &options->mergeAfter,
      "Records in the small database of a persistent table after which it is merged",
      usual.mergeAfter);
}

void TableOptions::Apply() const {
  auto& config = FileSystemDaemonConfig::GetInstance();
  if (flushAfter.has_value()) {
    config.Set(&FileSystemDaemonConfig::batchUpdateThreshold, *flushAfter);
    config.Set(&FileSystemDaemonConfig::objIdReadyThreshold, *flushAfter / 2 + 1);
  }
  if (mergeAfter.has_value()) {
    config.Set(&FileSystemDaemonConfig::mergeEntriesThreshold, *mergeAfter);
    config.Set(&FileSystemDaemonConfig::mergeWaitEntriesThreshold, *mergeAfter * 4);
  }
}

}  // namespace zefs::refhost
