#include "refhost/threads/worker_pool.h"

#include <utility>

namespace zefs::refhost {

WorkerPool::WorkerPool(std::size_t threads, std::size_t bound) : bound_(bound) {
  try {
    for (std::size_t i = 0; i < threads; ++i) {
      threads_.emplace_back([this] { Work(); });
    }
  } catch (...) {
    End();
    throw;
  }
}

WorkerPool::~WorkerPool() {
  End();
}

void WorkerPool::End() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
  }
  notEmpty_.notify_all();
  for (std::thread& thread : threads_) {
    thread.join();
  }
}

void WorkerPool::Post(Job job) {
  std::unique_lock<std::mutex> lock(mutex_);
  notFull_.wait(lock, [this] { return jobs_.size() < bound_; });
  jobs_.push_back(std::move(job));
  lock.unlock();
  notEmpty_.notify_one();
}

void WorkerPool::Work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    notEmpty_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
    if (jobs_.empty()) {
      return;
    }
    const Job job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    notFull_.notify_one();
    job();
    lock.lock();
  }
}

}  // namespace zefs::refhost
