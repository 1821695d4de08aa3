#pragma once

#include <condition_variable>
#include <mutex>

namespace zefs::test {

/// Lets readers go on as far as writers do. A boost::shared_mutex serves nobody in turn: readers
/// that hold it long and come back at once keep a writer out, on a slow machine for good.
class Pace {
 public:
  /// For a writer, after each change.
  void Changed() {
    Tell([this] { ++changes_; });
  }

  /// No change comes any more.
  void End() {
    Tell([this] { ended_ = true; });
  }

  /// For a reader that holds no lock: waits until there is a change that `seen` does not count,
  /// and counts it. False if none comes any more.
  bool AwaitChange(long* seen) {
    std::unique_lock<std::mutex> lock(mutex_);
    told_.wait(lock, [&] { return ended_ || changes_ != *seen; });
    *seen = changes_;
    return !ended_;
  }

 private:
  template <typename Change>
  void Tell(Change change) {
    const std::lock_guard<std::mutex> lock(mutex_);
    change();
    told_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable told_;
  long changes_ = 0;
  bool ended_ = false;
};

}  // namespace zefs::test
