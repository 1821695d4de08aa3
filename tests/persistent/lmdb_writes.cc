#include "tests/persistent/lmdb_writes.h"

#include <csignal>
#include <dlfcn.h>
#include <unistd.h>

#include <sys/types.h>
#include <sys/uio.h>

namespace {

int left = 0;  // until death; 0: none is due

void Pass() {
  if (left > 0 && --left == 0) {
    ::kill(::getpid(), SIGKILL);
  }
}

}  // namespace

void zefs::test::DieAtLmdbWrite(int nth) {
  left = nth;
}

// In front of the C library's own for the whole process. Nothing but LMDB makes these calls here.
#define ZEFS_PASS(name, params, args)                                                        \
  __attribute__((visibility("default"))) ssize_t name params {                               \
    static const auto next = reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name)); \
    Pass();                                                                                  \
    return next args;                                                                        \
  }

extern "C" {

ZEFS_PASS(pwrite, (int fd, const void* buffer, size_t size, off_t at), (fd, buffer, size, at))
ZEFS_PASS(writev, (int fd, const iovec* parts, int count), (fd, parts, count))

__attribute__((visibility("default"))) int fdatasync(int fd) {
  static const auto next =
      reinterpret_cast<decltype(&::fdatasync)>(::dlsym(RTLD_NEXT, "fdatasync"));
  Pass();
  return next(fd);
}

}  // extern "C"
