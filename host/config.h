#pragma once

#include <cstdint>

#include <boost/thread/lock_types.hpp>
#include <boost/thread/shared_mutex.hpp>

#include "host/visibility.h"

/// Process-wide choice of the table implementation. Supplied by the host.
class ZEFS_HOST_API ZefsConfig {
 public:
  /// The one instance; lives as long as the process.
  static ZefsConfig& GetInstance();

  /// Non-zero selects the persistent table. Read without a lock: the host sets it before it creates
  /// the first table.
  std::uint32_t useLmdbTable = 0;
};

/// Settings of the tables. Supplied by the host, which also chooses the defaults.
///
/// Every field is guarded by `mutex`. The library reads one field at a time through Get, so a
/// change by the host takes effect at the next read; no two reads are promised to come from one
/// state.
class ZEFS_HOST_API FileSystemDaemonConfig {
 public:
  /// The one instance; lives as long as the process.
  static FileSystemDaemonConfig& GetInstance();

  /// The value of one field, read under the shared lock, which is held for that one read.
  template <typename T>
  T Get(T FileSystemDaemonConfig::*field) const {
    boost::shared_lock<boost::shared_mutex> lock(mutex);
    return this->*field;
  }

  /// Changes one field under the exclusive lock.
  template <typename T>
  void Set(T FileSystemDaemonConfig::*field, T value) {
    boost::unique_lock<boost::shared_mutex> lock(mutex);
    this->*field = value;
  }

  mutable boost::shared_mutex mutex;

  std::uint32_t bigTableMapSizeGiB;         ///< map size of the full database, GiB
  std::uint32_t batchUpdateThreshold;       ///< pending keys below which a flush does nothing
  std::uint32_t objIdReadyThreshold;        ///< ready nodes below which a flush does nothing
  std::uint32_t mergeEntriesThreshold;      ///< small-database records that start a merge
  std::uint32_t mergeCommitCountThreshold;  ///< commits that start a merge
  std::uint32_t mergeCommitTimeThreshold;   ///< seconds of a flush that start a merge
  std::uint32_t mergeWaitEntriesThreshold;  ///< records at which a flush waits for the merge
  std::uint32_t mergeCommitBatchSize;       ///< records per transaction of a merge
  std::uint8_t persistBloom;                ///< non-zero: bloom files are written and read
  std::int32_t prefetchEnabled;             ///< non-zero: prefetched extents are kept and used
  std::uint32_t prefetchSpanBytes;          ///< distance within which prefetched extents are kept
  bool dcOffsetTrackingEnabled;             ///< the offset store records anything
  std::uint32_t dcOffsetStoreThreshold;  ///< records in memory at which the store writes its file

 private:
  FileSystemDaemonConfig();
};
