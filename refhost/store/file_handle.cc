#include "refhost/store/file_handle.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include <sys/file.h>

#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

constexpr mode_t kFileMode = 0600;

}  // namespace

FileHandle::FileHandle(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}

FileHandle FileHandle::Open(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC, kFileMode);
  if (fd < 0) {
    throw SystemError((flags & O_CREAT) != 0 ? "create" : "open", path, errno);
  }
  return FileHandle(fd, path);
}

FileHandle::FileHandle(FileHandle&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)) {}

FileHandle& FileHandle::operator=(FileHandle&& other) noexcept {
  std::swap(fd_, other.fd_);
  std::swap(path_, other.path_);
  return *this;
}

FileHandle::~FileHandle() {
  if (fd_ >= 0) {
    ::close(fd_);
  }
}

std::size_t FileHandle::ReadAt(std::int64_t offset, char* out, std::size_t size) const {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n =
        ::pread(fd_, out + done, size - done, offset + static_cast<std::int64_t>(done));
    if (n == 0) {
      break;
    }
    if (n > 0) {
      done += static_cast<std::size_t>(n);
    } else if (errno != EINTR) {
      throw SystemError("read", path_, errno);
    }
  }
  return done;
}

void FileHandle::WriteAt(std::int64_t offset, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::pwrite(fd_, bytes.data(), bytes.size(), offset);
    if (n > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
      offset += n;
    } else if (n == 0 || errno != EINTR) {
      throw SystemError("write", path_, n == 0 ? EIO : errno);
    }
  }
}

void FileHandle::Sync() const {
  if (::fsync(fd_) != 0) {
    throw SystemError("sync", path_, errno);
  }
}

bool FileHandle::TryLock() {
  if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) {
    return true;
  }
  if (errno != EWOULDBLOCK) {
    throw SystemError("lock", path_, errno);
  }
  return false;
}

void FileHandle::Resize(std::int64_t size) {
  if (::ftruncate(fd_, size) != 0) {
    throw SystemError("resize", path_, errno);
  }
}

struct stat FileHandle::Status() const {
  struct stat status {};
  if (::fstat(fd_, &status) != 0) {
    throw SystemError("examine", path_, errno);
  }
  return status;
}

std::int64_t FileHandle::Size() const {
  return Status().st_size;
}

bool FileHandle::IsRegular() const {
  return S_ISREG(Status().st_mode);
}

void SyncDirectory(const std::string& path) {
  FileHandle::Open(path, O_RDONLY | O_DIRECTORY).Sync();
}

}  // namespace zefs::refhost
