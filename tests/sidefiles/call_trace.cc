#include "tests/sidefiles/call_trace.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <pthread.h>
#include <stdexcept>

#include <sys/types.h>

// The linker sends the calls of the program's own objects to the functions __wrap_..., and
// __real_... are the ones that were meant.

int RealLock(pthread_mutex_t* mutex) asm("__real_pthread_mutex_lock");
int RealUnlock(pthread_mutex_t* mutex) asm("__real_pthread_mutex_unlock");
int RealOpen(const char* path, int flags, ...) asm("__real_open64");
int RealClose(int fd) asm("__real_close");
int RealRename(const char* from, const char* to) asm("__real_rename");
int RealUnlink(const char* path) asm("__real_unlink");
ssize_t RealRead(int fd, void* buffer, std::size_t size) asm("__real__Z9safe_readiPvm");
ssize_t RealWrite(int fd, const void* buffer, std::size_t size) asm("__real__Z10safe_writeiPKvm");
int RealFsync(int fd) asm("__real__Z10safe_fsynci");
void RealLog(int level, const char* format, ...) asm("__real__Z8ZEFS_LOGiPKcz")
    __attribute__((format(printf, 2, 3)));

int TraceLock(pthread_mutex_t* mutex) asm("__wrap_pthread_mutex_lock");
int TraceUnlock(pthread_mutex_t* mutex) asm("__wrap_pthread_mutex_unlock");
int TraceOpen(const char* path, int flags, mode_t mode) asm("__wrap_open64");
int TraceClose(int fd) asm("__wrap_close");
int TraceRename(const char* from, const char* to) asm("__wrap_rename");
int TraceUnlink(const char* path) asm("__wrap_unlink");
ssize_t TraceRead(int fd, void* buffer, std::size_t size) asm("__wrap__Z9safe_readiPvm");
ssize_t TraceWrite(int fd, const void* buffer, std::size_t size) asm("__wrap__Z10safe_writeiPKvm");
int TraceFsync(int fd) asm("__wrap__Z10safe_fsynci");
void TraceLog(int level, const char* format, ...) asm("__wrap__Z8ZEFS_LOGiPKcz")
    __attribute__((format(printf, 2, 3)));

namespace zefs::test {

/// What the functions below may do with the trace of their thread, if there is one.
struct TracedCalls {
  static thread_local CallTrace* current;

  static void Note(const char* call) {
    if (current != nullptr) {
      const int before = errno;
      current->Note(call);
      errno = before;
    }
  }

  static void Note(const char* call, const pthread_mutex_t* mutex) {
    if (current != nullptr && current->mutex_ == mutex) {
      current->Note(call);
    }
  }

  static void NoteLine(const char* text) {
    if (current == nullptr) {
      return;
    }
    current->Note("log " + std::string(text));
    if (current->errnoAfterLogs_ != 0) {
      errno = current->errnoAfterLogs_;
    }
  }
};

thread_local CallTrace* TracedCalls::current = nullptr;

// A std::mutex is the system's one and nothing more, so the two have one address.
static_assert(sizeof(std::mutex) == sizeof(pthread_mutex_t));

CallTrace::CallTrace(const std::mutex& mutex) : mutex_(&mutex) {
  if (std::exchange(TracedCalls::current, this) != nullptr) {
    throw std::logic_error("a second trace of one thread");
  }
}

CallTrace::~CallTrace() {
  TracedCalls::current = nullptr;
}

void CallTrace::AtNext(std::string call, std::function<void()> act) {
  awaited_ = std::move(call);
  act_ = std::move(act);
}

void CallTrace::Note(std::string call) {
  const bool isAwaited = act_ != nullptr && call.rfind(awaited_, 0) == 0;
  calls_.push_back(std::move(call));
  if (isAwaited) {
    std::exchange(act_, nullptr)();
  }
}

}  // namespace zefs::test

using zefs::test::TracedCalls;

int TraceLock(pthread_mutex_t* mutex) {
  TracedCalls::Note("lock", mutex);
  return RealLock(mutex);
}

int TraceUnlock(pthread_mutex_t* mutex) {
  TracedCalls::Note("unlock", mutex);
  return RealUnlock(mutex);
}

/// A mode that was not given is handed on as it came: nobody looks at it.
int TraceOpen(const char* path, int flags, mode_t mode) {
  TracedCalls::Note("open");
  return RealOpen(path, flags, mode);
}

int TraceClose(int fd) {
  TracedCalls::Note("close");
  return RealClose(fd);
}

int TraceRename(const char* from, const char* to) {
  TracedCalls::Note("rename");
  return RealRename(from, to);
}

int TraceUnlink(const char* path) {
  TracedCalls::Note("unlink");
  return RealUnlink(path);
}

ssize_t TraceRead(int fd, void* buffer, std::size_t size) {
  TracedCalls::Note("read");
  return RealRead(fd, buffer, size);
}

ssize_t TraceWrite(int fd, const void* buffer, std::size_t size) {
  TracedCalls::Note("write");
  return RealWrite(fd, buffer, size);
}

int TraceFsync(int fd) {
  TracedCalls::Note("fsync");
  return RealFsync(fd);
}

void TraceLog(int level, const char* format, ...) {
  char* text = nullptr;
  va_list arguments;
  va_start(arguments, format);
  const int size = ::vasprintf(&text, format, arguments);
  va_end(arguments);
  const std::unique_ptr<char, decltype(&std::free)> owner(size < 0 ? nullptr : text, &std::free);
  RealLog(level, "%s", owner == nullptr ? format : text);
  TracedCalls::NoteLine(owner == nullptr ? format : text);
}
