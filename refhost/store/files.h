#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "refhost/tables/new_table.h"

namespace zefs::refhost {

/// Files by number, each an extent map over stored objects and a size. Offsets are bytes from 0 to
/// INT64_MAX; a range outside of that is std::invalid_argument. A number that names no file is
/// std::out_of_range.
class Files {
 public:
  using FileId = std::uint64_t;

  virtual ~Files() = default;

  /// Makes an empty file. Numbers rise from 0 and are not used again.
  virtual FileId Create() = 0;

  /// Forgets a file. What it stored stays in the containers.
  virtual void Remove(FileId id) = 0;

  /// Writes `bytes` at `offset`; beyond the end it leaves a hole between. Throws StoreError; the
  /// file then has the segments that were stored before, and a size that covers them.
  virtual void Write(FileId id, std::int64_t offset, std::string_view bytes) = 0;

  /// Sets the size. What is cut off is gone for good: growing again gives zeros.
  virtual void Truncate(FileId id, std::int64_t size) = 0;

  /// Reads up to `size` bytes at `offset` through the file's extent map; returns the bytes read,
  /// short only at the end of the file. Holes are zeros. Throws StoreError, and DamageError with
  /// the extent's range where what is stored does not fit together.
  virtual std::size_t Read(FileId id, std::int64_t offset, char* out, std::size_t size) const = 0;

  virtual std::int64_t SizeOf(FileId id) const = 0;

  /// Runs `look` on the extent map of a file.
  virtual void WithTable(FileId id, const std::function<void(MappingTable&)>& look) const = 0;
};

}  // namespace zefs::refhost
