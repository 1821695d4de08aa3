#include "refhost/store/file_store.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

using Aldenta::Qnd::Morene::Zefs::Ext;

void CheckRange(std::int64_t offset, std::uint64_t size) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  if (offset < 0 || size > static_cast<std::uint64_t>(kMax - offset)) {
    throw std::invalid_argument("range of " + std::to_string(size) + " bytes at " +
                                std::to_string(offset) + " is outside of every file");
  }
}

void CheckMapped(int result) {
  if (result != 0) {
    throw StoreError("the extent map refuses a change: " + ReasonOf(result), result);
  }
}

/// Reads the part of `ext` in [offset, end), which lies inside its range.
void ReadExtent(const ObjectStore& objects, Ext& ext, std::int64_t offset, std::int64_t end,
                char* out) {
  try {
    objects.Read(ext.getObjectID(), ext.getObjOff() + (offset - ext.getSOff()),
                 static_cast<std::uint32_t>(end - offset), out);
  } catch (const DamageError& error) {
    throw DamageError("extent [" + std::to_string(ext.getSOff()) + ", " +
                      std::to_string(ext.getEOff()) + "): " + error.what());
  }
}

}  // namespace

Files::FileId FileStore::Create() {
  File file;
  file.table = NewTable(TableKind::kMemory, cache_);
  files_.emplace(next_, std::move(file));
  return next_++;
}

void FileStore::Remove(FileId id) {
  if (files_.erase(id) == 0) {
    throw std::out_of_range("no file " + std::to_string(id));
  }
}

void FileStore::Write(FileId id, std::int64_t offset, std::string_view bytes) {
  CheckRange(offset, bytes.size());
  File& file = files_.at(id);
  for (const Segment& piece : segmenter_.Cut(offset, static_cast<std::int64_t>(bytes.size()))) {
    const auto stored =
        objects_.Put(bytes.substr(static_cast<std::size_t>(piece.offset - offset), piece.length));
    const std::int64_t end = piece.offset + piece.length;
    // No extent ends beyond the size, so behind it there is nothing to cut.
    CheckMapped(
        piece.offset >= file.size
            ? file.table->append(piece.offset, end, &stored.objectID, 0, 0, nullptr, nullptr)
            : file.table->insert(piece.offset, end, &stored.objectID, 0, 0, nullptr,
                                 stored.dcOffset, nullptr));
    file.size = std::max(file.size, end);
  }
}

void FileStore::Truncate(FileId id, std::int64_t size) {
  CheckRange(size, 0);
  File& file = files_.at(id);
  if (size < file.size) {
    CheckMapped(file.table->truncate(size, nullptr));
  }
  file.size = size;
}

std::size_t FileStore::Read(FileId id, std::int64_t offset, char* out, std::size_t size) const {
  CheckRange(offset, 0);
  const File& file = files_.at(id);
  const std::int64_t left = std::max<std::int64_t>(file.size - offset, 0);
  const std::size_t wanted = std::min(size, static_cast<std::size_t>(left));
  const std::int64_t end = offset + static_cast<std::int64_t>(wanted);
  std::int64_t at = offset;
  const auto behind = file.table->end();
  for (auto it = file.table->find(offset, nullptr); at < end && it != behind; ++it) {
    const std::int64_t from = std::max(it->getSOff(), at);
    const std::int64_t to = std::min(it->getEOff(), end);
    if (from >= end) {
      break;
    }
    std::memset(out + (at - offset), 0, static_cast<std::size_t>(from - at));
    ReadExtent(objects_, *it, from, to, out + (from - offset));
    at = to;
  }
  std::memset(out + (at - offset), 0, static_cast<std::size_t>(end - at));
  return wanted;
}

}  // namespace zefs::refhost
