#include "support/filesystem.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/operations.hpp>
#include <sys/stat.h>

namespace storage::utils {

namespace fs = boost::filesystem;
using boost::system::error_code;

bool filesystem::create_directories(const fs::path& p) const {
  return fs::create_directories(p);
}

bool filesystem::create_directories(const fs::path& p, fs::perms perms) const {
  fs::path current;
  for (const fs::path& component : p) {
    current /= component;
    if (fs::exists(fs::status(current))) {
      continue;
    }
    if (!MakeDirectory(current, perms)) {
      return false;
    }
    fs::permissions(current, perms);
  }
  return true;
}

bool filesystem::check_and_create_directories(const fs::path& p, fs::perms perms) const {
  if (p == p.root_path() || fs::exists(fs::status(p))) {
    return true;
  }
  if (check_and_create_directories(p.parent_path(), perms) && MakeDirectory(p, perms)) {
    fs::permissions(p, perms);
    return true;
  }
  return fs::exists(fs::status(p));
}

bool filesystem::check_and_create_directories(const fs::path& p, fs::perms perms,
                                              error_code& ec) const {
  if (p == p.root_path() || fs::exists(fs::status(p, ec))) {
    return true;
  }
  if (check_and_create_directories(p.parent_path(), perms) && MakeDirectory(p, perms, ec)) {
    fs::permissions(p, perms, ec);
    return true;
  }
  return fs::exists(fs::status(p, ec));
}

bool filesystem::is_directory(fs::file_status s) const {
  return fs::is_directory(s);
}
bool filesystem::is_directory(const fs::path& p) const {
  return fs::is_directory(fs::status(p));
}
bool filesystem::is_regular_file(fs::file_status s) const {
  return fs::is_regular_file(s);
}
bool filesystem::is_regular_file(const fs::path& p) const {
  return fs::is_regular_file(fs::status(p));
}
bool filesystem::exists(const fs::path& p) const {
  return fs::exists(fs::status(p));
}

int filesystem::mkdir(const char* path, unsigned int mode) const {
  return ::mkdir(path, mode);
}

void filesystem::permissions(const fs::path& p, fs::perms perms) const {
  fs::permissions(p, perms);
}
void filesystem::copy(const fs::path& from, const fs::path& to) const {
  fs::copy(from, to);
}

int filesystem::open(const char* path, int flags) const {
  return ::open64(path, flags);
}
ssize_t filesystem::read(int fd, void* buffer, unsigned long size) const {
  return ::read(fd, buffer, size);
}
int filesystem::close(int fd) const {
  return ::close(fd);
}

unsigned long filesystem::remove_all(const fs::path& p, error_code& ec) const {
  return fs::remove_all(p, ec);
}

bool MakeDirectory(const fs::path& p, fs::perms perms, error_code& ec) {
  ec.clear();
  // Rights that are to be added or taken away refer to those that a directory has by itself.
  const bool relative = (perms & (fs::add_perms | fs::remove_perms)) != 0;
  const mode_t mode = relative ? ACCESSPERMS : static_cast<mode_t>(perms & fs::perms_mask);
  if (::mkdir(p.c_str(), mode) == 0) {
    return true;
  }
  const int error = errno;
  error_code ignored;
  if (!fs::is_directory(fs::status(p, ignored))) {
    ec.assign(error, boost::system::system_category());
  }
  return false;
}

bool MakeDirectory(const fs::path& p, fs::perms perms) {
  error_code ec;
  const bool made = MakeDirectory(p, perms, ec);
  if (ec) {
    throw fs::filesystem_error("cannot make a directory", p, ec);
  }
  return made;
}

bool MakeDirectoryAndParents(const fs::path& p, fs::perms perms, error_code& ec) {
  if (p.filename_is_dot()) {  // a slash at the end counts as one
    return MakeDirectoryAndParents(p.parent_path(), perms, ec);
  }
  ec.clear();
  error_code ignored;
  if (fs::is_directory(fs::status(p, ignored))) {
    return false;
  }
  const fs::path parent = p.parent_path();
  if (!parent.empty() && fs::status(parent, ignored).type() == fs::file_not_found) {
    fs::create_directories(parent, ec);
  }
  return !ec && MakeDirectory(p, perms, ec);
}

int OpenNoPipe(const std::string& path, int flags, mode_t mode) {
  struct stat64 status {};
  if (::fstatat64(AT_FDCWD, path.c_str(), &status, 0) == 0 && S_ISFIFO(status.st_mode)) {
    errno = ENXIO;
    return -1;
  }
  return ::open64(path.c_str(), flags, mode);
}

int LinkError(const std::string& path) {
  struct stat64 status {};
  const bool known = ::fstatat64(AT_FDCWD, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
  return known && S_ISLNK(status.st_mode) ? ELOOP : 0;
}

}  // namespace storage::utils
