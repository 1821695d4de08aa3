#pragma once

#include <string>

#include "refhost/durable/durable_store.h"
#include "refhost/store/files.h"

namespace zefs::refhost {

/// The files of a durable store by number, under names made of the numbers.
class NumberedFiles final : public Files {
 public:
  /// `store` is not owned. It may be another one, with the same files, after Use.
  explicit NumberedFiles(DurableStore* store) : store_(store) {}
  void Use(DurableStore* store) { store_ = store; }

  FileId Create() override {
    store_->Create(NameOf(next_));
    return next_++;
  }
  void Remove(FileId id) override { store_->Remove(NameOf(id)); }
  void Write(FileId id, std::int64_t offset, std::string_view bytes) override {
    store_->Write(NameOf(id), offset, bytes);
  }
  void Truncate(FileId id, std::int64_t size) override { store_->Truncate(NameOf(id), size); }
  std::size_t Read(FileId id, std::int64_t offset, char* out, std::size_t size) const override {
    return store_->Read(NameOf(id), offset, out, size);
  }
  std::int64_t SizeOf(FileId id) const override { return store_->SizeOf(NameOf(id)); }
  void WithTable(FileId id, const std::function<void(MappingTable&)>& look) const override {
    store_->WithTable(NameOf(id), look);
  }

 private:
  static std::string NameOf(FileId id) { return std::to_string(id); }

  DurableStore* store_;
  FileId next_ = 0;
};

}  // namespace zefs::refhost
