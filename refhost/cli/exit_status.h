#pragma once

namespace zefs::refhost {

// Exit statuses of the commands.
inline constexpr int kExitFine = 0;
inline constexpr int kExitDifference = 1;  ///< something is not what it has to be
inline constexpr int kExitCannotRun = 2;   ///< bad option or input, no place to store, interrupted

}  // namespace zefs::refhost
