#include "tests/persistent/close_trace.h"

#include <utility>

#include <sys/stat.h>

namespace {

std::function<void(ino_t)> atClose;

}  // namespace

// The linker sends the library's calls of `close` here.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the names that the linker's --wrap prescribes
int __real_close(int descriptor);
int __wrap_close(int descriptor) {
  struct stat status {};
  if (atClose && ::fstat(descriptor, &status) == 0 && status.st_nlink == 0) {
    atClose(status.st_ino);
  }
  return __real_close(descriptor);
}
// NOLINTEND(bugprone-reserved-identifier)
}

void zefs::test::AtCloseOfReplaced(std::function<void(ino_t)> act) {
  atClose = std::move(act);
}
