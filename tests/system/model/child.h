#pragma once

#include <functional>
#include <optional>
#include <string>

namespace zefs::test {

/// Exit status of a child process that has found a difference.
inline constexpr int kDifferent = 3;

/// The child process that runs `run`, which does not return. Throws std::runtime_error if there is
/// none.
int StatusOfChild(const std::function<void()>& run);

/// In a child process: no library log, and nothing on standard output, where tables in memory tell
/// their sizes; one that hangs dies of SIGALRM.
void BeQuiet();

/// What `run` gives in a child process, or how that has died.
std::optional<std::string> InChild(const std::function<std::optional<std::string>()>& run);

}  // namespace zefs::test
