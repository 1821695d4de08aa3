#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zefs::test {

/// What statvfs64 says of a volume. The rest of its answer is zero.
struct VolumeSize {
  std::uint64_t blocks = 0;     ///< of all, in units of `unit`
  std::uint64_t free = 0;       ///< of those that only the superuser may take, too
  std::uint64_t available = 0;  ///< to an ordinary user
  std::uint64_t unit = 4096;    ///< bytes
  int error = 0;                ///< of the call, if it fails
};

/// While an object of this class lives, statvfs64 knows these volumes and no others: of the others
/// it says that they are not there. For programs that compile volume_switch.cc and send their calls
/// of statvfs64 here; one object at a time.
class Volumes {
 public:
  Volumes();
  ~Volumes();
  Volumes(const Volumes&) = delete;
  Volumes& operator=(const Volumes&) = delete;

  VolumeSize& operator[](const std::string& path) { return sizes_[path]; }

  /// The volumes measured since the last time, in their order. Forgets them.
  std::vector<std::string> TakeMeasured();

  /// As statvfs64, but for the answer.
  const VolumeSize* Measure(const std::string& path);

 private:
  std::map<std::string, VolumeSize> sizes_;
  std::vector<std::string> measured_;
};

}  // namespace zefs::test
