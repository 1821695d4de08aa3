// Part of a mutated copy of the library only (scripts/mutants).
#include "runtime.h"

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include <sys/mman.h>
#include <sys/syscall.h>

namespace zefs_mutants {

namespace {
unsigned char nowhere[ZEFS_MUTANTS_COUNT];
}  // namespace

int active = -1;
unsigned char* reached = nowhere;

namespace {

// Not through the C library's calls: a test program may have replaced them to make them fail.
__attribute__((constructor(101))) void Read() {
  if (const char* const id = std::getenv("ZEFS_MUTANT")) {
    active = std::atoi(id);
  }
  if (const char* const file = std::getenv("ZEFS_MUTANTS_REACHED")) {
    const long fd = ::syscall(SYS_openat, AT_FDCWD, file, O_RDWR, 0);
    const long at =
        ::syscall(SYS_mmap, nullptr, ZEFS_MUTANTS_COUNT, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (at != -1) {
      reached = reinterpret_cast<unsigned char*>(at);
    }
    ::syscall(SYS_close, fd);
  }
}

}  // namespace

}  // namespace zefs_mutants
