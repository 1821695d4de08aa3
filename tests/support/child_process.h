#pragma once

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <stdexcept>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "tests/support/figures.h"

namespace zefs::test {

/// Whether a process with this wait status has ended by itself, with nothing to complain of.
inline bool EndedWell(int status) {
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

inline bool DiedBy(int status, int signal) {
  return WIFSIGNALED(status) && WTERMSIG(status) == signal;
}

/// Counts a child process that was killed on its way among the figures.
inline void CountIfKilled(int status) {
  if (DiedBy(status, SIGKILL)) {
    CountFigure("processes killed at a chosen call");
  }
}

/// What a child process does: lives, tells on stderr which checks of the running test failed in it
/// or what was thrown out of it, and ends without the destructors and the leak check of the
/// parent's objects, of which it has copies.
[[noreturn]] inline void LiveAndExit(const std::function<void()>& life) {
  const testing::TestResult& result =
      *testing::UnitTest::GetInstance()->current_test_info()->result();
  const int before = result.total_part_count();
  bool well = true;
  try {
    life();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "thrown in the child process: %s\n", e.what());
    well = false;
  } catch (...) {
    std::fputs("something that is no std::exception thrown in the child process\n", stderr);
    well = false;
  }
  for (int i = before; i < result.total_part_count(); ++i) {
    const testing::TestPartResult& part = result.GetTestPartResult(i);
    if (part.failed()) {
      std::fprintf(stderr, "failed in the child process: %s:%d: %s\n", part.file_name(),
                   part.line_number(), part.message());
      well = false;
    }
  }
  std::fflush(stdout);
  ::_exit(well ? 0 : 1);
}

/// Runs `life` in a child process and waits for its end; the raw wait status. The child ends with
/// status 0, or with 1 if a check of the running test fails in it or an exception comes out of
/// `life`. What `life` changes in memory the caller does not see. For a test that runs no other
/// thread and has no LMDB environment open, as neither goes through a fork. Throws
/// std::runtime_error if there is no child.
inline int RunInChild(const std::function<void()>& life) {
  std::fflush(stdout);
  const pid_t child = ::fork();
  if (child == -1) {
    throw std::runtime_error("cannot start a child process");
  }
  if (child == 0) {
    LiveAndExit(life);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) != child) {
    if (errno != EINTR) {
      throw std::runtime_error("cannot wait for a child process");
    }
  }
  CountIfKilled(status);
  return status;
}

}  // namespace zefs::test
