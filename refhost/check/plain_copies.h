#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "refhost/check/change_plan.h"
#include "refhost/store/file_handle.h"

namespace zefs::refhost {

/// Copies begin at multiples of this, so that no page is written for two of them.
inline constexpr std::int64_t kCopyAlignment = 4096;

/// Plain copies of files, one behind the other in one scratch file, for a store's files to be
/// compared with. One file, because a file system takes longer to remove thousands of them than to
/// write them. Offsets are those of the copied file. Failures are StoreErrors. Not synchronised.
class PlainCopies {
 public:
  /// Where one copy lies. Owned by the caller, who hands it back to every operation.
  class Copy {
   public:
    std::int64_t size() const { return size_; }

   private:
    friend class PlainCopies;
    std::int64_t base_ = 0;
    std::int64_t size_ = 0;
    std::int64_t room_ = 0;
  };

  /// Makes the scratch file at `path`, where there must be none.
  explicit PlainCopies(const std::string& path);

  /// Whether a further copy of up to `room` bytes fits into the offsets of the scratch file. None
  /// with a room of INT64_MAX does.
  bool Fits(std::int64_t room) const;

  /// Begins a copy that will be changed and grow up to `room` bytes, which fit. Room that is not
  /// used takes no place on the disk.
  Copy Begin(std::int64_t room);

  /// Does to the copy what `change` says; bytes between its old and its new end are zeros. Throws
  /// std::length_error, and does nothing, if the copy would outgrow its room.
  void Apply(const Change& change, Copy* copy);

  /// Writes `bytes` at `offset`, as above.
  void Write(std::int64_t offset, std::string_view bytes, Copy* copy);

  /// Reads up to `size` bytes at `offset`; returns the bytes read, short only at the copy's end.
  std::size_t Read(const Copy& copy, std::int64_t offset, char* out, std::size_t size) const;

 private:
  void GrowTo(std::int64_t size, Copy* copy);

  FileHandle file_;
  std::int64_t end_ = 0;  // of the room of all copies
};

}  // namespace zefs::refhost
