#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string_view>

#include "refhost/store/object_store.h"
#include "refhost/store/segmenter.h"
#include "table/mapping_table.h"

namespace zefs::refhost {

using MappingTable = Aldenta::Qnd::Morene::Zefs::CMappingTable;

/// Files by number, each an extent map over stored objects and a size. Offsets are bytes from 0 to
/// INT64_MAX; a range outside of that is std::invalid_argument. A number that names no file is
/// std::out_of_range. Not synchronised.
class FileStore {
 public:
  using FileId = std::uint64_t;

  /// Neither pointer is owned; both outlive this object.
  FileStore(const Segmenter& segmenter, ObjectStore* objects, DataCacheManagementInterface* cache)
      : segmenter_(segmenter), objects_(*objects), cache_(cache) {}

  /// Makes an empty file. Numbers rise from 0 and are not used again.
  FileId Create();

  /// Forgets a file. What it stored stays in the containers.
  void Remove(FileId id);

  /// Writes `bytes` at `offset`; beyond the end it leaves a hole between. Throws StoreError; the
  /// file then has the segments that were stored before, and a size that covers them.
  void Write(FileId id, std::int64_t offset, std::string_view bytes);

  /// Sets the size. What is cut off is gone for good: growing again gives zeros.
  void Truncate(FileId id, std::int64_t size);

  /// Reads up to `size` bytes at `offset` through the file's extent map; returns the bytes read,
  /// short only at the end of the file. Holes are zeros. Throws what ObjectStore::Read throws, a
  /// DamageError with the extent's range added.
  std::size_t Read(FileId id, std::int64_t offset, char* out, std::size_t size) const;

  std::int64_t SizeOf(FileId id) const { return files_.at(id).size; }

  /// The extent map of a file, owned by the store.
  MappingTable& TableOf(FileId id) const { return *files_.at(id).table; }

  /// Number of files.
  std::size_t size() const { return files_.size(); }

 private:
  struct File {
    std::unique_ptr<MappingTable> table;
    std::int64_t size = 0;
  };

  const Segmenter segmenter_;
  ObjectStore& objects_;
  DataCacheManagementInterface* cache_;
  FileId next_ = 0;
  std::map<FileId, File> files_;
};

}  // namespace zefs::refhost
