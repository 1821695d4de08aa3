#include "tests/persistent/thread_switch.h"

#include <atomic>
#include <cstring>
#include <pthread.h>

namespace {

std::atomic<int> refused{0};
std::atomic<int> tried{0};

}  // namespace

// The linker sends the library's calls of `pthread_create` here.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the names that the linker's --wrap prescribes
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument) {
  ++tried;
  const int error = refused.exchange(0);
  if (error != 0) {
    std::memset(thread, 0x5a, sizeof(*thread));  // nothing is promised about it
    return error;
  }
  return __real_pthread_create(thread, attributes, start, argument);
}
// NOLINTEND(bugprone-reserved-identifier)
}

void zefs::test::FailNextThread(int error) {
  refused = error;
}

int zefs::test::TakeThreadCount() {
  return tried.exchange(0);
}
