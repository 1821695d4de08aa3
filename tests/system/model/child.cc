#include "tests/system/model/child.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

#include <sys/wait.h>

#include "refhost/host/log.h"
#include "tests/system/model/shared_memory.h"

namespace zefs::test {

namespace {

constexpr unsigned int kLongest = 300;  // seconds: longer than any life that does not hang

}  // namespace

int StatusOfChild(const std::function<void()>& run) {
  const pid_t child = ::fork();
  if (child == -1) {
    throw std::runtime_error("cannot start a child process");
  }
  if (child == 0) {
    run();
    ::_exit(0);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) != child) {
    if (errno != EINTR) {
      throw std::runtime_error("cannot wait for a child process");
    }
  }
  return status;
}

void BeQuiet() {
  const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  ::dup2(nowhere, STDOUT_FILENO);
  ::close(nowhere);
  refhost::SetLogLevel(kLogFailure + 1);
  ::alarm(kLongest);
}

std::optional<std::string> InChild(const std::function<std::optional<std::string>()>& run) {
  constexpr std::size_t kRoom = 8192;
  SharedWithChildren<std::array<char, kRoom>> words;
  const int status = StatusOfChild([&] {
    BeQuiet();
    std::optional<std::string> found;
    try {
      found = run();
    } catch (const std::exception& e) {
      found = std::string("thrown: ") + e.what();
    }
    if (found) {
      std::strncpy(words->data(), found->c_str(), kRoom - 1);
      ::_exit(kDifferent);
    }
  });
  if (status == 0) {
    return std::nullopt;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == kDifferent
             ? std::string(words->data())
             : "the process has died, with the status " + std::to_string(status);
}

}  // namespace zefs::test
