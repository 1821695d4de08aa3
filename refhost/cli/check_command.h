#pragma once

#include <iosfwd>

#include "refhost/check/checker.h"

namespace CLI {
class App;
}  // namespace CLI

namespace zefs::refhost {

/// Adds `check PATH...` to `app`. When `app` is parsed with it, the check runs and its exit status
/// is put into `*exitStatus`, which outlives `app`.
void AddCheckCommand(CLI::App& app, int* exitStatus);

/// Runs a check and tells about it: the result on `out`, in words or as JSON; skipped files,
/// differences and failures, one line each, on `err`. Returns the exit status.
int RunAndReport(const CheckOptions& options, bool json, std::ostream& out, std::ostream& err,
                 const BeforeVerify& beforeVerify = {});

}  // namespace zefs::refhost
