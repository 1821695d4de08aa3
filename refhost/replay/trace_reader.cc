#include "refhost/replay/trace_reader.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>
#include <utility>
#include <zlib.h>

#include <sys/stat.h>

namespace zefs::refhost {

namespace {

std::string ErrnoText() {
  return std::strerror(errno);
}

/// Opened here rather than by zlib, which does not always tell why it cannot.
gzFile Open(const std::string& path, std::uint64_t* fileBytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) {
    throw TraceError(path + ": cannot be opened: " + ErrnoText());
  }
  struct stat status {};
  if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
    *fileBytes = static_cast<std::uint64_t>(status.st_size);
  }
  const gzFile file = ::gzdopen(fd, "rb");
  if (file == nullptr) {
    ::close(fd);
    throw std::bad_alloc();
  }
  return file;
}

}  // namespace

void TraceReader::CloseFile::operator()(gzFile_s* file) const {
  ::gzclose_r(file);
}

TraceReader::TraceReader(std::string path)
    : path_(std::move(path)),
      file_(Open(path_, &fileBytes_)),
      buffer_(std::make_unique<char[]>(kBufferBytes)),
      unread_(buffer_.get(), 0) {}

std::string TraceReader::Position() const {
  return path_ + ":" + std::to_string(lines_);
}

std::uint64_t TraceReader::BytesRead() const {
  const auto offset = ::gzoffset(file_.get());
  return offset < 0 ? 0 : static_cast<std::uint64_t>(offset);
}

void TraceReader::FailRead() const {
  int code = Z_OK;
  const char* const text = ::gzerror(file_.get(), &code);
  const std::string reason = code == Z_ERRNO       ? ErrnoText()
                             : code == Z_BUF_ERROR ? "the gzip data is cut short"
                                                   : std::string("damaged gzip data: ") + text;
  const std::string place = lines_ == 0 ? "" : " after line " + std::to_string(lines_);
  throw TraceError(path_ + ": cannot be read" + place + ": " + reason);
}

bool TraceReader::Refill() {
  std::memmove(buffer_.get(), unread_.data(), unread_.size());
  char* const free = buffer_.get() + unread_.size();
  const auto room = static_cast<unsigned>(kBufferBytes - unread_.size());
  const int got = ::gzread(file_.get(), free, room);
  int code = Z_OK;
  ::gzerror(file_.get(), &code);
  if (got < 0 || (got == 0 && code != Z_OK)) {
    FailRead();
  }
  unread_ = {buffer_.get(), unread_.size() + static_cast<std::size_t>(got)};
  return got != 0;
}

bool TraceReader::Next(std::string_view* line) {
  std::size_t length = unread_.find('\n');
  while (length == std::string_view::npos && !ended_ && unread_.size() <= kLongestLine) {
    ended_ = !Refill();
    length = unread_.find('\n');
  }
  if (ended_ && unread_.empty()) {
    return false;
  }
  ++lines_;
  *line = unread_.substr(0, length);
  if (line->size() > kLongestLine) {
    throw TraceError(Position() + ": the line is longer than " + std::to_string(kLongestLine) +
                     " characters");
  }
  unread_.remove_prefix(line->size() + (length == std::string_view::npos ? 0 : 1));
  return true;
}

}  // namespace zefs::refhost
