#pragma once

#include <string>

#include "host/zefs_log.h"

// Where the lines of ZEFS_LOG go. All functions may be called from any thread at any time.

namespace zefs::refhost {

/// Drops every line below `minimum`, a zefs::LogLevel; a value above kLogFailure drops all. The
/// start-up value is kLogRecoverable.
void SetLogLevel(int minimum);

/// Whether a line of `level` would be written now. One relaxed load.
bool LogEnabled(int level);

/// Lines go to standard error. This is so from the start.
void LogToStderr();

/// Lines are appended to the file at `path`, which is created if need be together with its
/// directories. False if it cannot be opened; lines then go where they went before.
bool LogToFile(const std::string& path);

}  // namespace zefs::refhost
