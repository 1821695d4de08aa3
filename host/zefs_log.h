#pragma once

#include "host/visibility.h"

namespace zefs {

/// Levels of ZEFS_LOG. Each is a single bit (0 for the routine trace).
enum LogLevel : int {
  kLogTrace = 0,        ///< routine trace of single operations
  kLogStep = 1,         ///< entry and exit of larger steps, sizes of results
  kLogRare = 2,         ///< rare events worth keeping: merges, replays, copies
  kLogRecoverable = 4,  ///< recoverable problems
  kLogFailure = 8,      ///< failures
};

}  // namespace zefs

/// Writes one line to the host's log, in the manner of printf. Supplied by the host.
///
/// May be called from any thread, and from under any lock of the library: the host must not call
/// back into a table from here. Never fails as far as the caller can see. `level` is one of
/// zefs::LogLevel; a host that drops a level is expected to do so before it formats.
ZEFS_HOST_API void ZEFS_LOG(int level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
