#pragma once

#include <functional>

#include <sys/types.h>

namespace zefs::test {

/// Runs `act` with the inode ahead of each close, by the table or by a test, that gives up a file
/// to which no name leads any more: its last close frees it. An empty `act` ends that. One at a
/// time. For programs that compile close_trace.cc.
void AtCloseOfReplaced(std::function<void(ino_t)> act);

}  // namespace zefs::test
