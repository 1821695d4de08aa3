// For programs that are linked with --wrap=_exit and count what is run of the library: a child
// process that ends by itself leaves its counts as well.

#include <cstdlib>
#include <gcov.h>

extern "C" {

[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status);

void __wrap__exit(int status) {
  __gcov_dump();
  __real__exit(status);
}
}
