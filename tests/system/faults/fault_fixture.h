#pragma once

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <unistd.h>

#include <gtest/gtest.h>

#include "refhost/host/log.h"
#include "refhost/host/log_recorder.h"
#include "table/sys_exception.h"
#include "tests/persistent/flush_fixture.h"
#include "tests/system/faults/small_table.h"

namespace zefs::test {

/// Settings under which small tables do everything that there is, directories in memory, and no log
/// line for which memory would be taken.
class FaultTest : public testing::Test {
 protected:
  using Config = FileSystemDaemonConfig;

  FaultTest() {
    refhost::SetLogLevel(kLogFailure + 1);
    ResetSettings();
    { const refhost::LogRecorder first; }  // the first makes what lasts
    try {                                  // and so does the first exception
      throw Aldenta::Qnd::Morene::Zefs::SysException(1);
    } catch (const Aldenta::Qnd::Morene::Zefs::SysException&) {
    }
  }
  ~FaultTest() override { refhost::SetLogLevel(kLogRecoverable); }

  template <typename T>
  static void Set(T Config::*field, T value) {
    Config::GetInstance().Set(field, value);
  }

  /// No flush starts a merge, but with a tmp database.
  static void ResetSettings() {
    constexpr auto kNever = std::numeric_limits<std::uint32_t>::max();
    Set(&Config::batchUpdateThreshold, 1U);
    Set(&Config::objIdReadyThreshold, 1U);
    Set(&Config::mergeEntriesThreshold, kNever);
    Set(&Config::mergeCommitCountThreshold, kNever);
    Set(&Config::mergeCommitTimeThreshold, kNever);
    Set(&Config::mergeWaitEntriesThreshold, 100U);
    Set(&Config::mergeCommitBatchSize, 3U);
    Set(&Config::persistBloom, std::uint8_t{1});
    Set(&Config::dcOffsetTrackingEnabled, true);
    Set(&Config::dcOffsetStoreThreshold, 2U);
    Set(&Config::prefetchEnabled, 0);
    Set(&Config::prefetchSpanBytes, 1000U);
    Set(&Config::bigTableMapSizeGiB, 1U);
  }

 private:
  /// No test here is about what a disk does: it is left out where there is such a place and nobody
  /// says otherwise.
  static bool UseMemory() {
    constexpr const char* kInMemory = "/dev/shm";
    return ::access(kInMemory, W_OK | X_OK) == 0 && ::setenv("TMPDIR", kInMemory, 0) == 0;
  }

  const SavedSettings settings_;
  const SavedFlushSettings flushSettings_;
  const bool inMemory_ = UseMemory();  // ahead of the first directory

 protected:
  const Templates templates_;
};

}  // namespace zefs::test
