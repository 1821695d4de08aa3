#pragma once

#include <cstdint>
#include <optional>

#include <boost/filesystem/path.hpp>

namespace zefs_bench {

/// A clock of the wall, seconds.
double WallSeconds();

/// CPU time of all threads of this process, seconds.
double ProcessCpuSeconds();

/// Bytes that this process has handed to write calls; nothing where the kernel does not tell. What
/// it tells of bytes on their way to the disk counts whole groups of pages for one dirty page.
std::optional<std::uint64_t> BytesWritten();

/// Bytes that the files below `directory` take on disk: neither holes, nor room that is reserved
/// behind the end of a file.
std::uint64_t BytesOnDisk(const boost::filesystem::path& directory);

/// What a piece of work takes of the machine, from the making of this object on.
class Usage {
 public:
  double Wall() const { return WallSeconds() - wall_; }
  double Cpu() const { return ProcessCpuSeconds() - cpu_; }
  /// Zero where it is not known.
  std::uint64_t Written() const { return BytesWritten().value_or(0) - written_; }

 private:
  double wall_ = WallSeconds();
  double cpu_ = ProcessCpuSeconds();
  std::uint64_t written_ = BytesWritten().value_or(0);
};

}  // namespace zefs_bench
