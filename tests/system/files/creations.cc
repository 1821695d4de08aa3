#include "tests/system/files/creations.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <dlfcn.h>
#include <fcntl.h>
#include <mutex>
#include <utility>

#include <sys/stat.h>

namespace zefs::test {
namespace {

// Calls arrive before main and after it: while nothing is watched nothing is touched.
std::mutex mutex;
std::atomic<bool> watching{false};
std::string* watched = nullptr;
std::vector<Creation>* seen = nullptr;

bool IsWatched(const char* path) {
  if (!watching.load() || path == nullptr) {
    return false;
  }
  const std::lock_guard<std::mutex> lock(mutex);
  return std::string(path).compare(0, watched->size(), *watched) == 0;
}

bool IsThere(const char* path) {
  struct stat status {};
  return ::fstatat(AT_FDCWD, path, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

void Note(Creation::Kind kind, const char* path, mode_t mode) {
  const std::lock_guard<std::mutex> lock(mutex);
  seen->push_back({kind, path, mode & 07777});
}

/// Notes what is there now, made by the call that has just ended.
void NoteMade(Creation::Kind kind, const char* path) {
  const int before = errno;
  struct stat status {};
  if (::fstatat(AT_FDCWD, path, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    Note(kind, path, status.st_mode);
  }
  errno = before;
}

}  // namespace

Creations::Creations(const std::string& directory) {
  watched = new std::string(directory);
  seen = new std::vector<Creation>;
  watching = true;
}

Creations::~Creations() {
  watching = false;
  delete std::exchange(watched, nullptr);
  delete std::exchange(seen, nullptr);
}

std::vector<Creation> Creations::Take() {
  const std::lock_guard<std::mutex> lock(mutex);
  return std::exchange(*seen, {});
}

}  // namespace zefs::test

// In front of the C library's own for the whole process.
#define ZEFS_INTERPOSE __attribute__((visibility("default")))
#define ZEFS_NEXT(name) \
  static const auto next = reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name))
#define ZEFS_INTERPOSE_OPEN(name)                                                            \
  ZEFS_INTERPOSE int name(const char* path, int flags, ...) {                                \
    ZEFS_NEXT(name);                                                                         \
    mode_t mode = 0;                                                                         \
    if ((flags & (O_CREAT | __O_TMPFILE)) != 0) {                                            \
      std::va_list rest;                                                                     \
      va_start(rest, flags);                                                                 \
      mode = va_arg(rest, mode_t);                                                           \
      va_end(rest);                                                                          \
    }                                                                                        \
    const bool makes =                                                                       \
        (flags & O_CREAT) != 0 && zefs::test::IsWatched(path) && !zefs::test::IsThere(path); \
    const int fd = next(path, flags & ~O_DSYNC, mode);                                       \
    if (makes && fd != -1) {                                                                 \
      zefs::test::NoteMade(zefs::test::Creation::kFile, path);                               \
    }                                                                                        \
    return fd;                                                                               \
  }

extern "C" {

ZEFS_INTERPOSE_OPEN(open)
ZEFS_INTERPOSE_OPEN(open64)

ZEFS_INTERPOSE int mkdir(const char* path, mode_t mode) noexcept {
  ZEFS_NEXT(mkdir);
  const int result = next(path, mode);
  if (result == 0 && zefs::test::IsWatched(path)) {
    zefs::test::NoteMade(zefs::test::Creation::kDirectory, path);
  }
  return result;
}

ZEFS_INTERPOSE int chmod(const char* path, mode_t mode) noexcept {
  ZEFS_NEXT(chmod);
  if (zefs::test::IsWatched(path)) {
    zefs::test::Note(zefs::test::Creation::kChange, path, mode);
  }
  return next(path, mode);
}

ZEFS_INTERPOSE int fchmod(int fd, mode_t mode) noexcept {
  ZEFS_NEXT(fchmod);
  if (zefs::test::watching.load()) {
    zefs::test::Note(zefs::test::Creation::kChange, "(a descriptor)", mode);
  }
  return next(fd, mode);
}

// No crash is part of these tests: nothing waits for the disk.
ZEFS_INTERPOSE int fsync(int /*fd*/) {
  return 0;
}
ZEFS_INTERPOSE int fdatasync(int /*fd*/) {
  return 0;
}

}  // extern "C"
