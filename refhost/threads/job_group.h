#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <mutex>

namespace zefs::refhost {

/// Jobs that belong together: how many are under way, and what the first that failed threw.
/// Thread-safe.
class JobGroup {
 public:
  void Begin() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++running_;
  }

  /// A job has ended, with `failure` if it failed.
  void End(const std::exception_ptr& failure = nullptr) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (failure_ == nullptr) {
      failure_ = failure;
    }
    if (--running_ == 0) {
      idle_.notify_all();
    }
  }

  /// Waits until none is under way.
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [this] { return running_ == 0; });
  }

  /// Throws what the first job that failed threw, each time.
  void ThrowFailure() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (failure_ != nullptr) {
      std::rethrow_exception(failure_);
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable idle_;
  std::size_t running_ = 0;
  std::exception_ptr failure_;
};

}  // namespace zefs::refhost
