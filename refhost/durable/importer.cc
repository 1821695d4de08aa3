#include "refhost/durable/importer.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "refhost/store/source_file.h"
#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

constexpr std::size_t kBlockBytes = std::size_t{1} << 20;
constexpr std::uint64_t kBytesPerSync = std::uint64_t{64} << 20;

class Importer {
 public:
  Importer(DurableStore* store, const StoreProgress& progress, ImportResult* result)
      : store_(*store), progress_(progress), result_(*result), block_(new char[kBlockBytes]) {}

  void Run(const CollectedFiles& collected) {
    total_ = collected.bytes;
    for (const std::string& path : collected.files) {
      ImportOne(path);
      if (sinceSync_ >= kBytesPerSync) {
        Sync();
      }
    }
    Sync();
  }

 private:
  void ImportOne(const std::string& path) {
    std::optional<FileHandle> source;
    std::int64_t size = 0;
    try {
      source.emplace(OpenSource(path));
      size = source->Size();
    } catch (const StoreError& error) {
      result_.skipped.push_back({path, ReasonToSkip(error)});
      return;
    }
    store_.Create(path);
    std::int64_t at = 0;
    while (at < size) {  // and no further, so that a file that grows has an end
      std::size_t got = 0;
      const std::size_t wanted = std::min(kBlockBytes, static_cast<std::size_t>(size - at));
      try {
        got = source->ReadAt(at, block_.get(), wanted);
      } catch (const StoreError& error) {
        result_.skipped.push_back({path, ReasonToSkip(error)});
        store_.Discard(path);
        return;
      }
      store_.Write(path, at, {block_.get(), got});
      at += static_cast<std::int64_t>(got);
      Tell(got);
      if (got < wanted) {
        break;
      }
    }
    ++result_.files;
    result_.bytes += static_cast<std::uint64_t>(at);
  }

  void Tell(std::size_t got) {
    done_ += got;
    sinceSync_ += got;
    if (progress_) {
      progress_("put", std::min(done_, total_), total_);
    }
  }

  void Sync() {
    store_.Sync();
    sinceSync_ = 0;
  }

  DurableStore& store_;
  const StoreProgress& progress_;
  ImportResult& result_;
  std::unique_ptr<char[]> block_;
  std::uint64_t total_ = 0;
  std::uint64_t done_ = 0;
  std::uint64_t sinceSync_ = 0;
};

}  // namespace

void ImportFiles(const std::vector<std::string>& paths, DurableStore* store,
                 const StoreProgress& progress, ImportResult* result) {
  CollectedFiles collected = CollectFiles(paths);
  result->skipped = std::move(collected.skipped);
  result->notRegular = collected.notRegular;
  Importer(store, progress, result).Run(collected);
}

}  // namespace zefs::refhost
