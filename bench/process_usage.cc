#include "bench/process_usage.h"

#include <algorithm>
#include <ctime>
#include <fstream>
#include <string>

#include <boost/filesystem/operations.hpp>
#include <sys/stat.h>

namespace zefs_bench {

namespace {

constexpr std::uint64_t kStatBlock = 512;

double Seconds(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

}  // namespace

double WallSeconds() {
  return Seconds(CLOCK_MONOTONIC);
}

double ProcessCpuSeconds() {
  return Seconds(CLOCK_PROCESS_CPUTIME_ID);
}

std::optional<std::uint64_t> BytesWritten() {
  std::ifstream file("/proc/self/io");
  std::string name;
  std::uint64_t value = 0;
  while (file >> name >> value) {
    if (name == "wchar:") {
      return value;
    }
  }
  return std::nullopt;
}

std::uint64_t BytesOnDisk(const boost::filesystem::path& directory) {
  std::uint64_t bytes = 0;
  for (const auto& entry : boost::filesystem::recursive_directory_iterator(directory)) {
    struct stat status {};
    if (::lstat(entry.path().c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
      bytes += std::min(static_cast<std::uint64_t>(status.st_blocks) * kStatBlock,
                        static_cast<std::uint64_t>(status.st_size));
    }
  }
  return bytes;
}

}  // namespace zefs_bench
