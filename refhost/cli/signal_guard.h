#pragma once

#include <csignal>
#include <utility>
#include <vector>

namespace zefs::refhost {

/// While it lives, the signals that ask a process to end (SIGINT, SIGTERM, SIGHUP) are noted
/// instead, so that the work can end in order; a second one ends the process at once. One that is
/// ignored already, as under nohup, stays ignored. A file-size limit is an error of the write. One
/// at a time.
class SignalGuard {
 public:
  SignalGuard();
  ~SignalGuard();
  SignalGuard(const SignalGuard&) = delete;
  SignalGuard& operator=(const SignalGuard&) = delete;

  /// Whether such a signal came.
  static bool Interrupted();

 private:
  using Handler = void (*)(int);

  void Replace(int signal, Handler handler);

  std::vector<std::pair<int, Handler>> before_;
};

}  // namespace zefs::refhost
