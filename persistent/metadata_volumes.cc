#include "persistent/metadata_volumes.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <map>

#include <sys/statvfs.h>

#include "host/zefs_log.h"

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

constexpr std::time_t kRefreshSeconds = 10;
constexpr double kFullPercent = 92.0;
constexpr std::uint64_t kHashMultiplier = 31;
constexpr std::uint64_t kHashMask = 0x7fffffff;

/// What is remembered of a volume.
struct VolumeStatus {
  bool full;
  std::time_t lastCheck;
};

std::uint64_t HashOf(const std::string& key) {
  std::uint64_t hash = 0;
  for (const char byte : key) {
    hash = hash * kHashMultiplier + static_cast<unsigned char>(byte);
  }
  return hash;
}

bool MeasuredFull(const std::string& volume) {
  constexpr double kGiB = 1 << 30;
  struct statvfs64 status {};
  if (::statvfs64(volume.c_str(), &status) != 0) {
    return true;
  }
  // What is kept back for the superuser counts as used.
  const double total = static_cast<double>(status.f_blocks * status.f_frsize) / kGiB;
  const double free = static_cast<double>(status.f_bavail * status.f_frsize) / kGiB;
  return ((total - free) / total) * 100.0 >= kFullPercent;
}

}  // namespace

bool isVolumeFull(const std::string& volume) {
  static std::map<std::string, VolumeStatus> volumeStatus;
  const auto known = volumeStatus.find(volume);
  if (known != volumeStatus.end() &&
      std::time(nullptr) < known->second.lastCheck + kRefreshSeconds) {
    return known->second.full;
  }
  const bool full = MeasuredFull(volume);
  volumeStatus[volume] = {full, std::time(nullptr)};
  return full;
}

std::string GetExtentPathInMVolume(const std::vector<std::string>& volumes, bool multiVolume,
                                   const std::string& key) {
  std::string chosen;
  const auto isFree = [](const std::string& volume) {
    if (!isVolumeFull(volume)) {
      return true;
    }
    ZEFS_LOG(zefs::kLogRecoverable, "GetExtentPathInMVolume volume %s is full, skip it",
             volume.c_str());
    return false;
  };
  if (multiVolume && !volumes.empty()) {
    const std::string& own = volumes[(HashOf(key) & kHashMask) % volumes.size()];
    if (isFree(own)) {
      chosen = own;
    } else {
      const auto other = std::find_if(volumes.begin() + 1, volumes.end(), isFree);
      chosen = other == volumes.end() ? volumes.front() : *other;
    }
  }
  ZEFS_LOG(zefs::kLogTrace, "GetExtentPathInMVolume get volume %s, volume number %d",
           chosen.c_str(), static_cast<int>(volumes.size()));
  return chosen;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
