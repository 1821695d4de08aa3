#include "refhost/check/checked_store.h"

#include "refhost/durable/durable_store.h"
#include "refhost/durable/numbered_files.h"
#include "refhost/store/container_store.h"
#include "refhost/store/dedup_index.h"
#include "refhost/store/file_store.h"
#include "refhost/store/no_data_cache.h"
#include "refhost/store/object_store.h"

namespace zefs::refhost {

namespace {

class InMemory final : public CheckedStore {
 public:
  InMemory(const std::string& directory, const Segmenter& segmenter, std::uint32_t containerBytes)
      : containers_(directory, containerBytes),
        objects_(&containers_, &index_),
        files_(segmenter, &objects_, &noCache_) {}

  TableKind kind() const override { return TableKind::kMemory; }
  Files& files() override { return files_; }
  void Sync() override {}
  void Settle() override {}
  std::string Problem() override { return {}; }
  TableActivity Activity() override { return {}; }
  std::uint64_t putBytes() const override { return objects_.putBytes(); }
  std::uint64_t storedBytes() const override { return objects_.storedBytes(); }
  std::uint64_t containers() const override { return containers_.containers(); }

 private:
  ContainerStore containers_;
  DedupIndex index_;
  ObjectStore objects_;
  NoDataCache noCache_;
  FileStore files_;
};

class Lasting final : public CheckedStore {
 public:
  Lasting(const std::string& directory, const Segmenter& segmenter, std::uint32_t containerBytes)
      : directory_(directory) {
    options_.format.segmentSize = segmenter.segmentSize();
    options_.containerBytes = containerBytes;
    store_ = std::make_unique<DurableStore>(directory_, options_);
    files_.Use(store_.get());
  }

  TableKind kind() const override { return TableKind::kPersistent; }
  Files& files() override { return files_; }

  void Sync() override { store_->Sync(); }

  void Settle() override {
    Sync();
    store_->CloseFiles();
    problem_ = store_->nodes().Problem();
    before_ = {{store_->flushes(), store_->merges(), store_->nodes().released},
               store_->objects().putBytes(),
               store_->objects().storedBytes(),
               store_->objects().containers()};
    store_.reset();
    store_ = std::make_unique<DurableStore>(directory_, options_);
    files_.Use(store_.get());
  }

  std::string Problem() override { return problem_.empty() ? store_->nodes().Problem() : problem_; }
  TableActivity Activity() override {
    return {before_.tables.flushes + store_->flushes(), before_.tables.merges + store_->merges(),
            before_.tables.nodes + store_->nodes().released};
  }
  std::uint64_t putBytes() const override {
    return before_.putBytes + store_->objects().putBytes();
  }
  std::uint64_t storedBytes() const override {
    return before_.storedBytes + store_->objects().storedBytes();
  }
  std::uint64_t containers() const override {
    return before_.containers + store_->objects().containers();
  }

 private:
  struct Sums {
    TableActivity tables;
    std::uint64_t putBytes = 0;
    std::uint64_t storedBytes = 0;
    std::uint64_t containers = 0;
  };

  std::string directory_;
  DurableStoreOptions options_;
  std::unique_ptr<DurableStore> store_;
  NumberedFiles files_{nullptr};
  Sums before_;  // of the store that was closed
  std::string problem_;
};

}  // namespace

std::unique_ptr<CheckedStore> MakeCheckedStore(TableKind kind, const std::string& directory,
                                               const Segmenter& segmenter,
                                               std::uint32_t containerBytes) {
  if (kind == TableKind::kMemory) {
    return std::make_unique<InMemory>(directory, segmenter, containerBytes);
  }
  return std::make_unique<Lasting>(directory, segmenter, containerBytes);
}

}  // namespace zefs::refhost
