#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace zefs::test {

/// The calls of one thread while an object of this class lives on it, each noted when it begins:
/// "lock" and "unlock" of one mutex; "open", "read", "write", "fsync", "close", "rename" and
/// "unlink" as the library makes them, the middle three of the host; and "log TEXT". What
/// Boost.Filesystem calls is not seen. For programs that link zefs_call_trace; one object a thread.
class CallTrace {
 public:
  explicit CallTrace(const std::mutex& mutex);
  ~CallTrace();
  CallTrace(const CallTrace&) = delete;
  CallTrace& operator=(const CallTrace&) = delete;

  /// The calls since the last time. Forgets them.
  std::vector<std::string> Take() { return std::exchange(calls_, {}); }

  /// Runs `act` once, when a call is noted that begins with `call`.
  void AtNext(std::string call, std::function<void()> act);

  /// From now on every line of the log leaves `error` in `errno`, as a host's log may.
  void SetErrnoAfterLogs(int error) { errnoAfterLogs_ = error; }

 private:
  friend struct TracedCalls;

  void Note(std::string call);

  const void* const mutex_;
  std::vector<std::string> calls_;
  std::string awaited_;
  std::function<void()> act_;
  int errnoAfterLogs_ = 0;
};

}  // namespace zefs::test
