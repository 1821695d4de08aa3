#pragma once

// For programs whose pthread_create and pthread_join the linker sends to late_threads.cc.

namespace zefs::test {

/// While it lives, a thread that is created does nothing until somebody waits to join it. One at a
/// time; such a thread is joined before its end.
class LateThreads {
 public:
  LateThreads();
  ~LateThreads();
  LateThreads(const LateThreads&) = delete;
  LateThreads& operator=(const LateThreads&) = delete;
};

}  // namespace zefs::test
