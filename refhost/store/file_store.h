#pragma once

#include <map>
#include <memory>

#include "refhost/store/files.h"
#include "refhost/store/object_store.h"
#include "refhost/store/segmenter.h"

namespace zefs::refhost {

/// Files whose extent maps are in memory and end with this object. Not synchronised.
class FileStore final : public Files {
 public:
  /// Neither pointer is owned; both outlive this object.
  FileStore(const Segmenter& segmenter, ObjectStore* objects, DataCacheManagementInterface* cache)
      : segmenter_(segmenter), objects_(*objects), cache_(cache) {}

  FileId Create() override;
  void Remove(FileId id) override;
  void Write(FileId id, std::int64_t offset, std::string_view bytes) override;
  void Truncate(FileId id, std::int64_t size) override;
  std::size_t Read(FileId id, std::int64_t offset, char* out, std::size_t size) const override;
  std::int64_t SizeOf(FileId id) const override { return files_.at(id).size; }
  void WithTable(FileId id, const std::function<void(MappingTable&)>& look) const override {
    look(TableOf(id));
  }

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
