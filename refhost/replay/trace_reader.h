#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct gzFile_s;

namespace zefs::refhost {

/// A trace that cannot be read or is no trace. The message is one line that names the file and,
/// where it concerns one, the line, counted from 1.
class TraceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The lines of a text file, plain or gzip. Memory does not depend on the size of the file.
class TraceReader {
 public:
  /// Throws TraceError if the file cannot be opened.
  explicit TraceReader(std::string path);

  /// The next line without its end, valid until the next call. False behind the last one. Throws
  /// TraceError if reading fails, if gzip data is damaged or cut short, and for a line that is too
  /// long to be one of a trace.
  bool Next(std::string_view* line);

  /// Of the line that Next gave last: "path:number".
  std::string Position() const;

  /// Size of the file as it is stored, and how much of it has been read. The size of what is no
  /// regular file is 0.
  std::uint64_t FileBytes() const { return fileBytes_; }
  std::uint64_t BytesRead() const;

 private:
  struct CloseFile {
    void operator()(gzFile_s* file) const;
  };

  bool Refill();
  [[noreturn]] void FailRead() const;

  static constexpr std::size_t kLongestLine = 1024;  // many times what any request takes
  static constexpr std::size_t kBufferBytes = 1 << 16;

  std::string path_;
  std::uint64_t fileBytes_ = 0;
  std::unique_ptr<gzFile_s, CloseFile> file_;
  std::unique_ptr<char[]> buffer_;
  std::string_view unread_;  // what of buffer_ has not been given out
  bool ended_ = false;       // the file has no more than unread_
  unsigned long lines_ = 0;
};

}  // namespace zefs::refhost
