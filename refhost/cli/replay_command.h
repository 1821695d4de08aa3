#pragma once

#include <iosfwd>

#include "refhost/replay/replayer.h"

namespace CLI {
class App;
}

namespace zefs::refhost {

/// Adds `replay TRACE` to `app`. When `app` is parsed with it, the trace is replayed and the exit
/// status is put into `*exitStatus`, which outlives `app`.
void AddReplayCommand(CLI::App& app, int* exitStatus);

/// Replays a trace and tells about it: the result on `out`, in words or as JSON; a difference or
/// what is wrong with the trace, one line, on `err`. Returns the exit status.
int ReplayAndReport(const ReplayOptions& options, bool json, std::ostream& out, std::ostream& err);

}  // namespace zefs::refhost
