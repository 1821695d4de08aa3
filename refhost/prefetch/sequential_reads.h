#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <optional>

namespace zefs::refhost {

/// Offsets of a file, [start, end).
struct FileRange {
  std::int64_t start;
  std::int64_t end;
};

/// Finds out who reads a file from front to back, and how far ahead that is prepared. Several such
/// readers of one file are kept apart, as long as they are few. Thread-safe.
class SequentialReads {
 public:
  /// `window` is the bytes to be prepared behind a read; 0: nothing ever is.
  explicit SequentialReads(std::int64_t window) : window_(window) {}

  /// A read of `read`, which is not empty, in a file of `size` bytes. Returns what is to be
  /// prepared now: from the second of two adjacent reads on, the read itself and the window behind
  /// it; later, whenever half of that has been read, what then lies in the window and was not yet
  /// returned.
  std::optional<FileRange> Note(const FileRange& read, std::int64_t size);

 private:
  struct Reader {
    std::int64_t next = -1;      // where it goes on, if it is one
    std::int64_t prepared = 0;   // up to here
    std::uint64_t lastRead = 0;  // by the count of reads
  };

  static constexpr std::size_t kReaders = 4;

  const std::int64_t window_;
  std::mutex mutex_;
  std::uint64_t reads_ = 0;
  std::array<Reader, kReaders> readers_;
};

}  // namespace zefs::refhost
