#include "tests/refhost/tables/late_threads.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <pthread.h>

namespace {

std::atomic<bool> late{false};
std::mutex mutex;
std::condition_variable changed;
bool awaited = false;  // guarded by mutex

struct Work {
  void* (*start)(void*);
  void* argument;
};

void* StartLate(void* given) {
  const std::unique_ptr<Work> work(static_cast<Work*>(given));
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [] { return awaited; });
  }
  return work->start(work->argument);
}

}  // namespace

extern "C" {
int RealCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
               void* argument) asm("__real_pthread_create");
int LateCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
               void* argument) asm("__wrap_pthread_create");
int RealJoin(pthread_t thread, void** result) asm("__real_pthread_join");
int LateJoin(pthread_t thread, void** result) asm("__wrap_pthread_join");

int LateCreate(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
               void* argument) {
  if (!late) {
    return RealCreate(thread, attributes, start, argument);
  }
  auto work = std::make_unique<Work>(Work{start, argument});
  const int ret = RealCreate(thread, attributes, &StartLate, work.get());
  if (ret == 0) {
    work.release();  // the thread's now
  }
  return ret;
}

int LateJoin(pthread_t thread, void** result) {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    awaited = true;
  }
  changed.notify_all();
  return RealJoin(thread, result);
}
}

namespace zefs::test {

LateThreads::LateThreads() {
  const std::lock_guard<std::mutex> lock(mutex);
  awaited = false;
  late = true;
}

LateThreads::~LateThreads() {
  late = false;
}

}  // namespace zefs::test
