#pragma once

#include <string>
#include <vector>

// What IsZxfs answers in this program. For programs that link zefs_is_zxfs_switch.

namespace zefs::test {

/// What IsZxfs says of every path from now on. It starts with false.
void AnswerIsZxfs(bool answer);

/// The paths that IsZxfs was asked about since the last time, in their order. Forgets them.
std::vector<std::string> TakeIsZxfsPaths();

}  // namespace zefs::test
