// For programs that are linked with --wrap=_exit and count what is run of the library: a child
// process that ends by itself leaves its counts as well.

#include <sys/resource.h>

extern "C" {

void __gcov_dump();  // libgcov's; its header has no C linkage
[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status);

void __wrap__exit(int status) {
  rlimit room{};
  // Where a test has taken the room for files the counts would be cut short.
  if (getrlimit(RLIMIT_FSIZE, &room) == 0 && room.rlim_cur == RLIM_INFINITY) {
    __gcov_dump();
  }
  __real__exit(status);
}
}
