#include "tests/refhost/durable/other_file_system.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <boost/filesystem/operations.hpp>
#include <sys/stat.h>

namespace zefs::test {
namespace {

std::string simulated;  // the directory, with a slash behind it; empty: there is none

bool IsInside(const char* path) {
  return std::string(path).compare(0, simulated.size(), simulated) == 0;
}

/// A new directory in `place`; empty if none can be made there.
std::string NewDirectory(const std::string& place) {
  std::string name = place + "/zefs-test-XXXXXX";
  return ::mkdtemp(name.data()) == nullptr ? std::string() : name;
}

std::string OnAnother(const boost::filesystem::path& path) {
  for (const char* const place : {"/tmp", "/var/tmp", "/dev/shm"}) {
    struct stat own {};
    struct stat other {};
    if (::stat(path.c_str(), &own) == 0 && ::stat(place, &other) == 0 &&
        own.st_dev != other.st_dev) {
      std::string made = NewDirectory(place);
      if (!made.empty()) {
        return made;
      }
    }
  }
  return {};
}

}  // namespace

OtherFileSystem::OtherFileSystem(const boost::filesystem::path& path) {
  if (std::getenv("ZEFS_TEST_ONE_FILE_SYSTEM") == nullptr) {
    path_ = OnAnother(path);
  }
  if (path_.empty()) {
    path_ = NewDirectory(boost::filesystem::temp_directory_path().string());
    if (path_.empty()) {
      throw std::runtime_error("cannot make a directory for another file system");
    }
    simulated = path_.string() + '/';
  }
}

OtherFileSystem::~OtherFileSystem() {
  simulated.clear();
  boost::system::error_code ignored;
  boost::filesystem::remove_all(path_, ignored);
}

}  // namespace zefs::test

// The linker sends the program's calls of `rename` here.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the names that the linker's --wrap prescribes
int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
  if (!zefs::test::simulated.empty() && zefs::test::IsInside(from) != zefs::test::IsInside(to)) {
    errno = EXDEV;
    return -1;
  }
  return __real_rename(from, to);
}
// NOLINTEND(bugprone-reserved-identifier)
}
