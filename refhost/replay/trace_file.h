#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <zlib.h>

namespace zefs::refhost {

/// Why a trace file cannot be opened or read, in words that can follow "path: cannot be read: ".
class TraceFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The bytes of a file that is plain or gzip data; which of them shows in its first two bytes. Gzip
/// data is one member or several, one behind the other, and nothing else. The file may be a pipe.
/// Not synchronised.
class TraceFile {
 public:
  /// Throws TraceFileError if the file cannot be opened.
  explicit TraceFile(const std::string& path);
  ~TraceFile();
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  /// Puts up to `room` bytes, at least 1, to `out` and returns how many; 0 only at the end. Throws
  /// TraceFileError if reading fails, and if gzip data is damaged, cut short or followed by
  /// something else, once all bytes before that have been given out.
  std::size_t Read(char* out, std::size_t room);

  /// Size of the file as it is stored, and how much of it has been read. The size of what is no
  /// regular file is 0.
  std::uint64_t FileBytes() const { return fileBytes_; }
  std::uint64_t BytesRead() const { return bytesRead_; }

 private:
  enum class Kind { kUnknown, kPlain, kGzip };

  static constexpr std::size_t kInputBytes = 1 << 16;

  bool Buffer(std::size_t count);
  bool AtMember();
  std::size_t ReadPlain(char* out, std::size_t room);
  std::size_t ReadGzip(char* out, std::size_t room);
  void BeginMember();
  [[noreturn]] void FailInflate(int code) const;

  std::unique_ptr<unsigned char[]> input_;
  int fd_;
  std::uint64_t fileBytes_ = 0;
  std::uint64_t bytesRead_ = 0;
  z_stream stream_{};  // its next_in and avail_in are the unread part of input_, of either kind
  Kind kind_ = Kind::kUnknown;
  bool inMember_ = false;
};

}  // namespace zefs::refhost
