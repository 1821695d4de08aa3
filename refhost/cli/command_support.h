#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "refhost/store/file_collector.h"

namespace zefs::refhost {

/// Runs `body` with what every long command has: a progress bar, and an end in order when the
/// process is asked to end. `body` gets what to call with its progress; that throws when the
/// process was interrupted.
using Progress =
    std::function<void(std::string_view phase, std::uint64_t done, std::uint64_t total)>;
void WithProgress(const std::function<void(const Progress&)>& body);

/// Runs `body` and returns its exit status; what it throws becomes one line on `err`, with the name
/// of the command, and a status: damage is a difference, all else cannot run.
int RunCommand(const char* command, std::ostream& err, const std::function<int()>& body);

/// One line on `err` for each file that was skipped, and the same for machines.
void TellSkipped(const std::vector<Skipped>& skipped, std::ostream& err);
nlohmann::ordered_json SkippedAsJson(const std::vector<Skipped>& skipped);

/// Why `path` cannot be taken as a source: it is not there. Any other trouble with it is that of
/// one unreadable file. Empty if there is none.
std::string PathProblem(const std::string& path);

/// Bytes given by bytes kept; 1 if nothing is kept.
double DedupRatio(std::uint64_t given, std::uint64_t kept);

}  // namespace zefs::refhost
