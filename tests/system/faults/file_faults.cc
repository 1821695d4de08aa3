#include "tests/system/faults/file_faults.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <dirent.h>
#include <dlfcn.h>
#include <lmdb.h>
#include <pthread.h>
#include <unistd.h>

#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/uio.h>

namespace zefs::test {
namespace {

std::atomic<bool> watching{false};
std::array<std::atomic<int>, kFileCalls> counts{};
FileCall failing{};
int failsAt = 0;  // 0: never
int failsWith = 0;
bool failsForGood = false;
std::atomic<bool> fired{false};

/// Whether this call fails; errno is set then.
bool Fails(FileCall call) {
  if (!watching.load(std::memory_order_relaxed)) {
    return false;
  }
  const int number = ++counts.at(static_cast<std::size_t>(call));
  if (failsAt == 0 || call != failing ||
      !(number == failsAt || (failsForGood && number > failsAt))) {
    return false;
  }
  fired = true;
  errno = failsWith;
  return true;
}

std::size_t HalfIf(bool isShort, std::size_t size) {
  return isShort && size > 1 ? size / 2 : size;
}

}  // namespace

void FileFaults::Start() {
  for (auto& count : counts) {
    count = 0;
  }
  failsAt = 0;
  fired = false;
  watching = true;
}

void FileFaults::Stop() {
  watching = false;
}

void FileFaults::FailNth(FileCall call, int nth, int error, bool forGood) {
  failing = call;
  failsAt = nth;
  failsWith = error;
  failsForGood = forGood;
}

int FileFaults::Count(FileCall call) {
  return counts.at(static_cast<std::size_t>(call));
}

bool FileFaults::Fired() {
  return fired;
}

}  // namespace zefs::test

using zefs::test::Fails;
using zefs::test::FileCall;

#define ZEFS_INTERPOSE __attribute__((visibility("default")))
#define ZEFS_NEXT(name) \
  static const auto next = reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name))
// In front of the C library's own for the whole process.
#define ZEFS_FILE_CALL(call, type, failure, name, params, args) \
  ZEFS_INTERPOSE type name params {                             \
    ZEFS_NEXT(name);                                            \
    return Fails(FileCall::call) ? (failure) : next args;       \
  }
// In front of it for the objects of this program: the linker sends their calls here.
#define ZEFS_OWN_CALL(call, type, failure, name, params, args)     \
  type __real_##name params;                                       \
  type __wrap_##name params {                                      \
    return Fails(FileCall::call) ? (failure) : __real_##name args; \
  }

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {

ZEFS_OWN_CALL(kTruncate, int, -1, truncate, (const char* path, off_t size), (path, size))
ZEFS_OWN_CALL(kStatOfTheLibrary, int, -1, stat, (const char* path, struct stat* out), (path, out))

ssize_t __real_read(int fd, void* buffer, std::size_t size);
ssize_t __wrap_read(int fd, void* buffer, std::size_t size) {
  if (Fails(FileCall::kRead)) {
    return -1;
  }
  const bool isShort = Fails(FileCall::kShortRead);
  return __real_read(fd, buffer, zefs::test::HalfIf(isShort, size));
}

int __wrap_fsync(int /*fd*/) {
  return Fails(FileCall::kFsync) ? -1 : 0;
}

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*start)(void*), void* argument) {
  return Fails(FileCall::kThread) ? errno
                                  : __real_pthread_create(thread, attributes, start, argument);
}

ZEFS_INTERPOSE int fdatasync(int /*fd*/) {
  return Fails(FileCall::kFdatasync) ? -1 : 0;
}
ZEFS_FILE_CALL(kPread, ssize_t, -1, pread, (int fd, void* buffer, std::size_t size, off_t at),
               (fd, buffer, size, at))
ZEFS_INTERPOSE ssize_t pwrite(int fd, const void* buffer, std::size_t size, off_t at) {
  ZEFS_NEXT(pwrite);
  if (Fails(FileCall::kPwrite)) {
    return -1;
  }
  const bool isShort = Fails(FileCall::kShortPwrite);
  return next(fd, buffer, zefs::test::HalfIf(isShort, size), at);
}
ZEFS_FILE_CALL(kWritev, ssize_t, -1, writev, (int fd, const struct iovec* parts, int count),
               (fd, parts, count))
ZEFS_FILE_CALL(kMmap, void*, MAP_FAILED, mmap,
               (void* at, std::size_t size, int rights, int flags, int fd, off_t offset) noexcept,
               (at, size, rights, flags, fd, offset))
ZEFS_FILE_CALL(kFstat, int, -1, fstat64, (int fd, struct stat64* out) noexcept, (fd, out))
ZEFS_FILE_CALL(kLstat, int, -1, lstat64, (const char* path, struct stat64* out) noexcept,
               (path, out))
ZEFS_FILE_CALL(kChmod, int, -1, chmod, (const char* path, mode_t mode) noexcept, (path, mode))
ZEFS_FILE_CALL(kSendfile, ssize_t, -1, sendfile64,
               (int to, int from, off64_t* at, std::size_t size) noexcept, (to, from, at, size))
ZEFS_FILE_CALL(kOpendir, DIR*, nullptr, opendir, (const char* path), (path))
ZEFS_FILE_CALL(kReaddir, struct dirent64*, nullptr, readdir64, (DIR * directory), (directory))
ZEFS_FILE_CALL(kRmdir, int, -1, rmdir, (const char* path) noexcept, (path))
ZEFS_FILE_CALL(kStatvfs, int, -1, statvfs64, (const char* path, struct statvfs64* out) noexcept,
               (path, out))
ZEFS_FILE_CALL(kMdbEnvSync, int, errno, mdb_env_sync, (MDB_env * env, int force), (env, force))

// Boost.Filesystem makes this call by its number.
ZEFS_INTERPOSE long syscall(long number, ...) noexcept {
  using Syscall = long (*)(long, ...) noexcept;
  static const auto next = reinterpret_cast<Syscall>(::dlsym(RTLD_NEXT, "syscall"));
  if (number == SYS_copy_file_range && Fails(FileCall::kCopyFileRange)) {
    return -1;
  }
  std::va_list rest;
  va_start(rest, number);
  // NOLINTBEGIN(clang-analyzer-valist.Uninitialized): it does not see va_start in this function
  const long first = va_arg(rest, long);
  const long second = va_arg(rest, long);
  const long third = va_arg(rest, long);
  const long fourth = va_arg(rest, long);
  const long fifth = va_arg(rest, long);
  const long sixth = va_arg(rest, long);
  // NOLINTEND(clang-analyzer-valist.Uninitialized)
  va_end(rest);
  return next(number, first, second, third, fourth, fifth, sixth);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
