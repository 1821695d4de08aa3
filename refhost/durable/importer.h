#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "refhost/durable/durable_store.h"
#include "refhost/store/file_collector.h"

namespace zefs::refhost {

/// What was put into a store.
struct ImportResult {
  std::uint64_t files = 0;
  std::vector<Skipped> skipped;
  std::uint64_t notRegular = 0;  ///< as CollectedFiles
  std::uint64_t bytes = 0;
};

/// Called often: a phase, and how much of its total is done. What it throws ends the work and
/// passes through.
using StoreProgress =
    std::function<void(std::string_view phase, std::uint64_t done, std::uint64_t total)>;

/// Puts files into `store` under their absolute paths, each in place of a file of that name, and
/// syncs now and then and in the end. A file that cannot be read is skipped; of one that shrinks
/// while it is read that much is taken as was read. What was synced before a failure stays.
void ImportFiles(const std::vector<std::string>& paths, DurableStore* store,
                 const StoreProgress& progress, ImportResult* result);

}  // namespace zefs::refhost
