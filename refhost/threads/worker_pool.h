#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zefs::refhost {

/// A few threads that take jobs off a queue of bounded length. Thread-safe.
class WorkerPool {
 public:
  /// A job throws nothing.
  using Job = std::function<void()>;

  /// `threads` and `bound`, the jobs that may wait, are at least 1.
  WorkerPool(std::size_t threads, std::size_t bound);

  /// Does the jobs that were posted. None may be posted any more.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  /// Adds a job; waits while the queue is full. Not to be called from a job.
  void Post(Job job);

 private:
  void Work();
  void End();

  const std::size_t bound_;
  std::mutex mutex_;
  std::condition_variable notEmpty_;
  std::condition_variable notFull_;
  std::deque<Job> jobs_;
  bool ending_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace zefs::refhost
