#include "refhost/replay/trace_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>

#include <sys/stat.h>

namespace zefs::refhost {

namespace {

constexpr unsigned char kGzipMagic[] = {0x1f, 0x8b};
constexpr int kGzipWindowBits = 15 + 16;  // the largest window, and a gzip header before it

int Open(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) {
    throw TraceFileError(std::strerror(errno));
  }
  return fd;
}

}  // namespace

TraceFile::TraceFile(const std::string& path)
    : input_(std::make_unique<unsigned char[]>(kInputBytes)), fd_(Open(path)) {
  stream_.next_in = input_.get();
  if (::inflateInit2(&stream_, kGzipWindowBits) != Z_OK) {
    ::close(fd_);
    throw std::bad_alloc();
  }
  struct stat status {};
  if (::fstat(fd_, &status) == 0 && S_ISREG(status.st_mode)) {
    fileBytes_ = static_cast<std::uint64_t>(status.st_size);
  }
}

TraceFile::~TraceFile() {
  ::inflateEnd(&stream_);
  ::close(fd_);
}

std::size_t TraceFile::Read(char* out, std::size_t room) {
  if (kind_ == Kind::kUnknown) {
    kind_ = AtMember() ? Kind::kGzip : Kind::kPlain;
  }
  return kind_ == Kind::kGzip ? ReadGzip(out, room) : ReadPlain(out, room);
}

/// Reads on until `count` bytes are unread; false if the file ends before that.
bool TraceFile::Buffer(std::size_t count) {
  while (stream_.avail_in < count) {
    std::memmove(input_.get(), stream_.next_in, stream_.avail_in);
    stream_.next_in = input_.get();
    const ssize_t got =
        ::read(fd_, input_.get() + stream_.avail_in, kInputBytes - stream_.avail_in);
    if (got == 0) {
      return false;
    }
    if (got > 0) {
      stream_.avail_in += static_cast<unsigned>(got);
      bytesRead_ += static_cast<std::uint64_t>(got);
    } else if (errno != EINTR) {
      throw TraceFileError(std::strerror(errno));
    }
  }
  return true;
}

bool TraceFile::AtMember() {
  return Buffer(sizeof kGzipMagic) &&
         std::equal(std::begin(kGzipMagic), std::end(kGzipMagic), stream_.next_in);
}

std::size_t TraceFile::ReadPlain(char* out, std::size_t room) {
  Buffer(1);
  const auto given = static_cast<unsigned>(std::min<std::size_t>(room, stream_.avail_in));
  std::memcpy(out, stream_.next_in, given);
  stream_.next_in += given;
  stream_.avail_in -= given;
  return given;
}

std::size_t TraceFile::ReadGzip(char* out, std::size_t room) {
  const auto wanted = static_cast<unsigned>(std::min<std::size_t>(room, kInputBytes));
  stream_.next_out = reinterpret_cast<unsigned char*>(out);
  stream_.avail_out = wanted;
  while (stream_.avail_out == wanted) {
    if (!Buffer(1) && !inMember_) {
      return 0;
    }
    if (!inMember_) {
      BeginMember();
    }
    const int code = ::inflate(&stream_, Z_NO_FLUSH);
    if (code == Z_STREAM_END) {
      inMember_ = false;
    } else if (code != Z_OK && stream_.avail_out == wanted) {
      FailInflate(code);  // and again at every further call
    }
  }
  return wanted - stream_.avail_out;
}

void TraceFile::BeginMember() {
  if (!AtMember()) {
    throw TraceFileError("data behind the end of the gzip data");
  }
  ::inflateReset(&stream_);
  inMember_ = true;
}

/// Without input left, and without room for output used, inflate answers Z_BUF_ERROR.
void TraceFile::FailInflate(int code) const {
  if (code == Z_MEM_ERROR) {
    throw std::bad_alloc();
  }
  if (code == Z_BUF_ERROR) {
    throw TraceFileError("the gzip data is cut short");
  }
  const char* const reason = stream_.msg != nullptr ? stream_.msg : ::zError(code);
  throw TraceFileError(std::string("damaged gzip data: ") + reason);
}

}  // namespace zefs::refhost
