#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zefs::refhost {

class TraceFile;

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
  ~TraceReader();
  TraceReader(const TraceReader&) = delete;
  TraceReader& operator=(const TraceReader&) = delete;

  /// The next line without its end, valid until the next call. False behind the last one. Throws
  /// TraceError if reading fails, if gzip data is damaged, cut short or followed by something else,
  /// and for a line that is too long to be one of a trace.
  bool Next(std::string_view* line);

  /// Of the line that Next gave last: "path:number".
  std::string Position() const;

  /// As of TraceFile.
  std::uint64_t FileBytes() const;
  std::uint64_t BytesRead() const;

 private:
  bool Refill();

  static constexpr std::size_t kLongestLine = 1024;  // many times what any request takes
  static constexpr std::size_t kBufferBytes = 1 << 16;

  std::string path_;
  std::unique_ptr<TraceFile> file_;
  std::unique_ptr<char[]> buffer_;
  std::string_view unread_;  // what of buffer_ has not been given out
  bool ended_ = false;       // the file has no more than unread_
  unsigned long lines_ = 0;
};

}  // namespace zefs::refhost
