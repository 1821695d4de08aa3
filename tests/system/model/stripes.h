#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tests/system/model/steps.h"

namespace zefs::test {

/// Two tables used by several threads at once. Each of two writers has stripes of the file to
/// itself, so that the state of a stripe after each of its writes is known; a third thread flushes,
/// and merges run as they come; readers look up, plan, walk and count, and must see a stripe as it
/// was after one of the writes between the last that had returned before they asked and the last
/// that had begun when they got their answer. At the end everything is flushed, loaded again and
/// compared. The first difference in words, or nothing.
///
/// Runs in this process, and leaves no thread and no environment behind.
std::optional<std::string> RunStripes(std::uint64_t seed, const TableMakers& makers, Tally* tally);

/// The same in a child process, as RunProgram.
std::optional<std::string> RunStripesInChild(std::uint64_t seed, const TableMakers& makers,
                                             Tally* tally);

}  // namespace zefs::test
