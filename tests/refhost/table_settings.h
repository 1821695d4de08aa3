#pragma once

#include <cstdint>

#include "host/config.h"

namespace zefs::test {

/// Small thresholds for persistent tables, so that little data sees many flushes and merges; the
/// former ones come back with the end of this object.
class SmallThresholds {
 public:
  explicit SmallThresholds(std::uint32_t flushAfter, std::uint32_t mergeAfter) {
    config_.Set(&FileSystemDaemonConfig::batchUpdateThreshold, flushAfter);
    config_.Set(&FileSystemDaemonConfig::objIdReadyThreshold, flushAfter / 2 + 1);
    config_.Set(&FileSystemDaemonConfig::mergeEntriesThreshold, mergeAfter);
    config_.Set(&FileSystemDaemonConfig::bigTableMapSizeGiB, 1U);
  }
  ~SmallThresholds() {
    config_.Set(&FileSystemDaemonConfig::batchUpdateThreshold, batch_);
    config_.Set(&FileSystemDaemonConfig::objIdReadyThreshold, ready_);
    config_.Set(&FileSystemDaemonConfig::mergeEntriesThreshold, merge_);
    config_.Set(&FileSystemDaemonConfig::bigTableMapSizeGiB, map_);
  }
  SmallThresholds(const SmallThresholds&) = delete;
  SmallThresholds& operator=(const SmallThresholds&) = delete;

 private:
  FileSystemDaemonConfig& config_ = FileSystemDaemonConfig::GetInstance();
  const std::uint32_t batch_ = config_.Get(&FileSystemDaemonConfig::batchUpdateThreshold);
  const std::uint32_t ready_ = config_.Get(&FileSystemDaemonConfig::objIdReadyThreshold);
  const std::uint32_t merge_ = config_.Get(&FileSystemDaemonConfig::mergeEntriesThreshold);
  const std::uint32_t map_ = config_.Get(&FileSystemDaemonConfig::bigTableMapSizeGiB);
};

}  // namespace zefs::test
