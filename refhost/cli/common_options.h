#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace zefs::refhost {

// Options that several commands have. What they are read into outlives `command`.

/// PATH...: files, and directories with all below them, which are there.
void AddSourcePaths(CLI::App* command, std::vector<std::string>* paths);

/// --segment-size, in the forms 4096, 16K and 1M. `text` says what it means if it is absent.
void AddSegmentSize(CLI::App* command, std::uint64_t* size);
void AddSegmentSize(CLI::App* command, std::optional<std::uint64_t>* size);

/// --table-type.
void AddTableType(CLI::App* command, std::optional<std::string>* type);

/// --volume, any number of times.
void AddVolumes(CLI::App* command, std::vector<std::string>* volumes);

/// When persistent tables flush and merge.
struct TableOptions {
  std::optional<std::uint32_t> flushAfter;
  std::optional<std::uint32_t> mergeAfter;

  /// Makes them the settings of the process.
  void Apply() const;
};

/// --flush-after and --merge-after. `usual` is what holds where they are absent.
void AddTableOptions(CLI::App* command, TableOptions* options,
                     const TableOptions& usual = {1024, 100000});

}  // namespace zefs::refhost
