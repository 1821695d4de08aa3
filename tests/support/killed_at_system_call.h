#pragma once

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <set>
#include <stdexcept>
#include <unistd.h>

#include <sys/ptrace.h>
#include <sys/wait.h>

#include "tests/support/child_process.h"

namespace zefs::test {

/// A child process that is killed in place of one of its system calls, whichever they are: of the
/// thread that marks the beginning, and of all threads that are started from there on. As for
/// RunInChild, with no other child about.
class KilledAtSystemCall {
 public:
  using Life = std::function<void(const std::function<void()>& begin)>;

  /// Whether one process may trace another here.
  static bool IsPossible() {
    const pid_t child = ::fork();
    if (child == 0) {
      ::_exit(::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 ? 0 : 1);
    }
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && EndedWell(status);
  }

  /// Runs `life`, which calls `begin` when calls are to be counted, and kills it in place of the
  /// `nth` (1: the first) from there on. The raw wait status; a life with fewer calls ends by
  /// itself.
  static int Run(int nth, const Life& life) {
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child == -1) {
      throw std::runtime_error("cannot start a child process");
    }
    if (child == 0) {
      ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      ::raise(SIGSTOP);
      LiveAndExit([&life] { life([] { ::raise(SIGSTOP); }); });
    }
    const int status = KilledAtSystemCall(child, nth).Trace();
    CountIfKilled(status);
    return status;
  }

  /// The call to be killed at after the `nth`: the next, if ZEFS_TEST_EVERY_CALL is set, else one
  /// some `steps` further on, the further the later it is.
  static int Next(int nth, int steps) {
    constexpr int kDenser = 12;
    return std::getenv("ZEFS_TEST_EVERY_CALL") != nullptr ? nth + 1
                                                          : nth + steps * (2 + nth / kDenser);
  }

 private:
  KilledAtSystemCall(pid_t child, int nth) : child_(child), left_(nth) {}

  int Trace() {
    int status = Wait(child_, __WALL);
    if (!WIFSTOPPED(status)) {
      return status;
    }
    Do(PTRACE_SETOPTIONS, child_, PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
    Do(PTRACE_CONT, child_, 0);
    for (;;) {
      pid_t thread = -1;
      status = WaitForAny(&thread);
      if (WIFSTOPPED(status)) {
        GoOn(thread, status);
      } else if (thread == child_) {
        return status;
      }
    }
  }

  void GoOn(pid_t thread, int status) {
    constexpr int kSystemCall = SIGTRAP | 0x80;
    int signal = WSTOPSIG(status);
    if (signal == kSystemCall) {
      if (IsEntry(thread) && --left_ == 0) {
        ::kill(child_, SIGKILL);
        return;
      }
      signal = 0;
    } else if (signal == SIGSTOP || (status >> 16) != 0) {
      // The mark, the start of a thread, or the event of one.
      if (thread == child_ && signal == SIGSTOP) {
        begun_ = true;
      }
      if (begun_) {
        counted_.insert(thread);
      }
      signal = 0;
    }
    Do(counted_.count(thread) != 0 ? PTRACE_SYSCALL : PTRACE_CONT, thread, signal);
  }

  static bool IsEntry(pid_t thread) {
    __ptrace_syscall_info info{};
    ::ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info);
    return info.op == PTRACE_SYSCALL_INFO_ENTRY;
  }

  /// A thread may have been killed meanwhile.
  static void Do(__ptrace_request request, pid_t thread, long data) {
    if (::ptrace(request, thread, nullptr, data) != 0 && errno != ESRCH) {
      throw std::runtime_error("cannot trace a child process");
    }
  }

  static int Wait(pid_t thread, int options) {
    int status = 0;
    while (::waitpid(thread, &status, options) == -1) {
      if (errno != EINTR) {
        throw std::runtime_error("cannot wait for a child process");
      }
    }
    return status;
  }

  static int WaitForAny(pid_t* thread) {
    int status = 0;
    while ((*thread = ::waitpid(-1, &status, __WALL)) == -1) {
      if (errno != EINTR) {
        throw std::runtime_error("cannot wait for a child process");
      }
    }
    return status;
  }

  const pid_t child_;
  int left_;
  bool begun_ = false;
  std::set<pid_t> counted_;
};

}  // namespace zefs::test
