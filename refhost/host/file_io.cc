#include "host/file_io.h"

#include <cerrno>
#include <ctime>
#include <unistd.h>

ssize_t safe_read(int fd, void* buffer, std::size_t size) {
  char* const bytes = static_cast<char*>(buffer);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = ::read(fd, bytes + done, size - done);
    if (got == 0) {
      break;
    }
    if (got > 0) {
      done += static_cast<std::size_t>(got);
    } else if (errno != EINTR) {
      return -1;
    }
  }
  return static_cast<ssize_t>(done);
}

ssize_t safe_write(int fd, const void* buffer, std::size_t size) {
  const char* const bytes = static_cast<const char*>(buffer);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t put = ::write(fd, bytes + done, size - done);
    if (put > 0) {
      done += static_cast<std::size_t>(put);
    } else if (put == 0) {  // no progress and no reason: a device that would keep us here for ever
      errno = EIO;
      break;
    } else if (errno != EINTR) {
      break;
    }
  }
  return done == 0 && size != 0 ? -1 : static_cast<ssize_t>(done);
}

int safe_fsync(int fd) {
  int result = ::fsync(fd);
  while (result != 0 && errno == EINTR) {
    result = ::fsync(fd);
  }
  return result;
}

// No file system that this host runs on has such a switch for a file.
int EnableNommap(const std::string& /*path*/, int /*fd*/) {
  return 0;
}

bool IsZxfs(const std::string& /*path*/) {
  return false;
}

unsigned long get_millis() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<unsigned long>(now.tv_sec) * 1000 +
         static_cast<unsigned long>(now.tv_nsec) / 1000000;
}
