#include "tests/persistent/file_calls.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace zefs::test {
namespace {

constexpr int kDeath = -1;

FileCall awaited{};
int left = 0;  // calls until the one that fails; 0: none does
int with = 0;
bool failed = false;

/// Whether this call of `call` fails; errno is set then.
bool Fails(FileCall call) {
  if (left == 0 || call != awaited || --left != 0) {
    return false;
  }
  if (with == kDeath) {
    ::kill(::getpid(), SIGKILL);
  }
  failed = true;
  errno = with;
  return true;
}

}  // namespace

void FailFileCall(FileCall call, int nth, int error) {
  awaited = call;
  left = nth;
  with = error;
  failed = false;
}

void DieAtFileCall(FileCall call, int nth) {
  FailFileCall(call, nth, kDeath);
}

bool FileCallFailed() {
  return failed;
}

}  // namespace zefs::test

// In front of the C library's own for the whole process.
#define ZEFS_FILE_CALL(call, type, failure, name, params, args)                              \
  __attribute__((visibility("default"))) type name params {                                  \
    static const auto next = reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name)); \
    return zefs::test::Fails(zefs::test::FileCall::call) ? (failure) : next args;            \
  }

extern "C" {

ZEFS_FILE_CALL(kFstat, int, -1, fstat64, (int fd, struct stat64* out) noexcept, (fd, out))
ZEFS_FILE_CALL(kLstat, int, -1, lstat64, (const char* path, struct stat64* out) noexcept,
               (path, out))
ZEFS_FILE_CALL(kChmod, int, -1, chmod, (const char* path, mode_t mode) noexcept, (path, mode))
ZEFS_FILE_CALL(kSendfile, ssize_t, -1, sendfile64,
               (int to, int from, off64_t* at, size_t size) noexcept, (to, from, at, size))
ZEFS_FILE_CALL(kFdatasync, int, -1, fdatasync, (int fd), (fd))
ZEFS_FILE_CALL(kOpendir, DIR*, nullptr, opendir, (const char* path), (path))
ZEFS_FILE_CALL(kReaddir, struct dirent64*, nullptr, readdir64, (DIR * directory), (directory))
ZEFS_FILE_CALL(kRmdir, int, -1, rmdir, (const char* path) noexcept, (path))

// Boost.Filesystem makes this call by its number.
__attribute__((visibility("default"))) long syscall(long number, ...) noexcept {
  using Syscall = long (*)(long, ...) noexcept;
  static const auto next = reinterpret_cast<Syscall>(::dlsym(RTLD_NEXT, "syscall"));
  if (number == SYS_copy_file_range && zefs::test::Fails(zefs::test::FileCall::kCopyFileRange)) {
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
