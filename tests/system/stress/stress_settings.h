#pragma once

#include <cstdint>

#include "host/config.h"

namespace zefs::test::stress {

/// Settings under which flushes and merges are frequent and nothing is large; puts back what was.
class StressSettings {
 public:
  StressSettings() {
    Set(&Config::bigTableMapSizeGiB, 1U, &mapSize_);
    Set(&Config::batchUpdateThreshold, 4U, &batch_);
    Set(&Config::objIdReadyThreshold, 2U, &ready_);
    Set(&Config::mergeEntriesThreshold, 30U, &entries_);
    Set(&Config::mergeCommitCountThreshold, 8U, &commits_);
    Set(&Config::mergeCommitTimeThreshold, 1000U, &time_);
    Set(&Config::mergeWaitEntriesThreshold, 60U, &wait_);
    Set(&Config::mergeCommitBatchSize, 16U, &mergeBatch_);
    Set(&Config::persistBloom, std::uint8_t{1}, &bloom_);
    Set(&Config::prefetchSpanBytes, 100U, &span_);
    Set(&Config::dcOffsetTrackingEnabled, true, &tracking_);
    Set(&Config::dcOffsetStoreThreshold, 5U, &store_);
    Set(&Config::prefetchEnabled, 0, &prefetch_);
  }
  ~StressSettings() {
    auto& config = Config::GetInstance();
    config.Set(&Config::bigTableMapSizeGiB, mapSize_);
    config.Set(&Config::batchUpdateThreshold, batch_);
    config.Set(&Config::objIdReadyThreshold, ready_);
    config.Set(&Config::mergeEntriesThreshold, entries_);
    config.Set(&Config::mergeCommitCountThreshold, commits_);
    config.Set(&Config::mergeCommitTimeThreshold, time_);
    config.Set(&Config::mergeWaitEntriesThreshold, wait_);
    config.Set(&Config::mergeCommitBatchSize, mergeBatch_);
    config.Set(&Config::persistBloom, bloom_);
    config.Set(&Config::prefetchSpanBytes, span_);
    config.Set(&Config::dcOffsetTrackingEnabled, tracking_);
    config.Set(&Config::dcOffsetStoreThreshold, store_);
    config.Set(&Config::prefetchEnabled, prefetch_);
  }
  StressSettings(const StressSettings&) = delete;
  StressSettings& operator=(const StressSettings&) = delete;

 private:
  using Config = FileSystemDaemonConfig;
  template <typename T>
  static void Set(T Config::*field, T value, T* before) {
    *before = Config::GetInstance().Get(field);
    Config::GetInstance().Set(field, value);
  }

  std::uint32_t mapSize_, batch_, ready_, entries_, commits_, time_, wait_, mergeBatch_, span_,
      store_;
  std::uint8_t bloom_;
  std::int32_t prefetch_;
  bool tracking_;
};

}  // namespace zefs::test::stress
