#include "refhost/replay/trace_reader.h"

#include <cstring>
#include <utility>

#include "refhost/replay/trace_file.h"

namespace zefs::refhost {

namespace {

std::unique_ptr<TraceFile> Open(const std::string& path) {
  try {
    return std::make_unique<TraceFile>(path);
  } catch (const TraceFileError& error) {
    throw TraceError(path + ": cannot be opened: " + error.what());
  }
}

}  // namespace

TraceReader::TraceReader(std::string path)
    : path_(std::move(path)),
      file_(Open(path_)),
      buffer_(std::make_unique<char[]>(kBufferBytes)),
      unread_(buffer_.get(), 0) {}

TraceReader::~TraceReader() = default;

std::string TraceReader::Position() const {
  return path_ + ":" + std::to_string(lines_);
}

std::uint64_t TraceReader::FileBytes() const {
  return file_->FileBytes();
}

std::uint64_t TraceReader::BytesRead() const {
  return file_->BytesRead();
}

bool TraceReader::Refill() {
  std::memmove(buffer_.get(), unread_.data(), unread_.size());
  std::size_t got = 0;
  try {
    got = file_->Read(buffer_.get() + unread_.size(), kBufferBytes - unread_.size());
  } catch (const TraceFileError& error) {
    const std::string place = lines_ == 0 ? "" : " after line " + std::to_string(lines_);
    throw TraceError(path_ + ": cannot be read" + place + ": " + error.what());
  }
  unread_ = {buffer_.get(), unread_.size() + got};
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
