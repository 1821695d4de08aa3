#include <algorithm>

#include "persistent/mapping_lmdb.h"

// The members that no lock covers. tests/tsan.supp names what stands here, and no more of the
// table.

namespace Aldenta::Qnd::Morene::Zefs {

bool CMappingLMDB::IsMerging() const {
  return merging_;
}

void CMappingLMDB::SetMerging(bool merging) {
  merging_ = merging;
}

long CMappingLMDB::getFileSize() {
  return std::max(CachedSize(), StoredSize());
}

std::int64_t CMappingLMDB::CachedSize() const {
  return fileSize_;
}

std::int64_t CMappingLMDB::StoredSize() const {
  return committedFileSize_;
}

void CMappingLMDB::SetSizes(std::int64_t size) {
  fileSize_ = size;
  committedFileSize_ = size;
}

void CMappingLMDB::RaiseCachedSize(std::int64_t end) {
  if (fileSize_ < end) {
    fileSize_ = end;
  }
}

void CMappingLMDB::RaiseStoredSize(std::int64_t end) {
  if (committedFileSize_ < end) {
    committedFileSize_ = end;
  }
  if (fileSize_ < committedFileSize_) {
    fileSize_ = committedFileSize_;
  }
}

void CMappingLMDB::RaiseMergedSize(std::int64_t end) {
  if (committedFileSize_ < end) {
    committedFileSize_ = end;
    fileSize_ = end;
  }
}

void CMappingLMDB::SetVersion(ExtMapVersion version) {
  extMapVersion_ = version;
}

ExtMapVersion CMappingLMDB::getExtMapVersion() const {
  return extMapVersion_;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
