#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "refhost/check/checked_store.h"
#include "refhost/store/file_collector.h"

namespace zefs::refhost {

/// Stands for the path where no single file is concerned.
inline constexpr const char* kAllFiles = "all files together";

/// Where a file of the store is not what it has to be.
struct Difference {
  std::string path;
  std::int64_t offset;  ///< of the first wrong byte, or of the change or read that failed
  std::string text;     ///< one line
};

/// Bytes that went through the store in one phase, and the time inside the store alone: reading the
/// sources, keeping the plain copies and comparing are not in it.
struct PhaseFigures {
  std::uint64_t bytes = 0;
  double seconds = 0;
};

struct CheckResult {
  std::uint64_t files = 0;              ///< stored and compared
  std::vector<Skipped> skipped;         ///< not read, and why
  std::uint64_t notRegular = 0;         ///< as CollectedFiles
  std::uint64_t sourceBytes = 0;        ///< read from the files
  std::uint64_t logicalBytes = 0;       ///< sizes of the stored files in the end, holes included
  std::uint64_t writtenBytes = 0;       ///< written to the store by both phases
  std::uint64_t storedSourceBytes = 0;  ///< of the source bytes not deduplicated
  std::uint64_t storedBytes = 0;        ///< of all written not deduplicated: bytes in containers
  std::uint64_t extents = 0;
  std::uint64_t containersWritten = 0;
  std::uint64_t containersReferenced = 0;
  std::uint64_t fingerprintsReferenced = 0;
  TableActivity activity;
  std::string storePath;
  PhaseFigures store;
  PhaseFigures change;
  PhaseFigures verify;
  std::optional<Difference> difference;  ///< the first one; the check ended there
};

/// Called often while a check runs: a phase, and how much of its total is done. What it throws ends
/// the check and passes through.
using CheckProgress =
    std::function<void(std::string_view phase, std::uint64_t done, std::uint64_t total)>;

/// Runs `work` and adds `bytes` and its time to the phase.
template <typename Work>
auto Timed(PhaseFigures* phase, std::uint64_t bytes, const Work& work) {
  struct Clock {
    PhaseFigures* phase;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    ~Clock() {
      phase->seconds +=
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
  };
  phase->bytes += bytes;
  const Clock clock{phase};
  return work();
}

}  // namespace zefs::refhost
