#include "refhost/check/checker.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "refhost/check/change_plan.h"
#include "refhost/check/checked_store.h"
#include "refhost/check/plain_copies.h"
#include "refhost/check/verifier.h"
#include "refhost/check/work_dir.h"
#include "refhost/store/source_file.h"
#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

/// Spreads file numbers over the seeds, so that neighbours are changed differently.
constexpr std::uint64_t kSeedStep = 0x9e3779b97f4a7c15;

constexpr const char* kTooLarge =
    "too large: changed and copied, it would reach beyond the largest offset of a file";

class Check {
 public:
  Check(const CheckOptions& options, const Segmenter& segmenter, const WorkDir& workDir,
        const CheckProgress& progress, CheckResult* result)
      : options_(options),
        segmenter_(segmenter),
        progress_(progress),
        checked_(
            MakeCheckedStore(options.tables, workDir.data(), segmenter, options.containerBytes)),
        store_(checked_->files()),
        copies_(workDir.copies()),
        block_(new char[kCheckBlockBytes]),
        result_(*result) {}

  void Run(const CollectedFiles& collected, const BeforeVerify& beforeVerify) {
    const bool equal = StoreAll(collected) && ChangeAll();
    if (equal) {
      if (beforeVerify) {
        beforeVerify(&store_);
      }
      VerifyAll();
    }
    result_.writtenBytes = checked_->putBytes();
    result_.storedBytes = checked_->storedBytes();
    result_.containersWritten = checked_->containers();
    result_.activity = checked_->Activity();
  }

 private:
  void VerifyAll() {
    result_.difference =
        Attempt(kAllFiles, 0, [&] { Timed(&result_.change, 0, [&] { checked_->Settle(); }); });
    if (!result_.difference.has_value()) {
      Verifier(checked_->kind(), &store_, &copies_, progress_, &result_).Run(files_);
    }
    if (const std::string problem = checked_->Problem();
        !problem.empty() && !result_.difference.has_value()) {
      result_.difference = Difference{kAllFiles, 0, problem};
    }
  }

  void Tell(std::string_view phase, std::uint64_t done, std::uint64_t total) const {
    if (progress_) {
      progress_(phase, done, total);
    }
  }

  bool StoreAll(const CollectedFiles& collected) {
    std::uint64_t done = 0;
    for (const std::string& path : collected.files) {
      if (!StoreOne(path, &done, collected.bytes)) {
        return false;
      }
    }
    if (files_.empty()) {
      throw StoreError("no readable file among the " + std::to_string(collected.files.size()) +
                           " found, " + std::to_string(result_.skipped.size()) + " skipped, " +
                           std::to_string(result_.notRegular) + " passed over as not regular",
                       0);
    }
    Timed(&result_.store, 0, [&] { checked_->Sync(); });
    Tell("store", collected.bytes, collected.bytes);
    result_.files = files_.size();
    result_.storedSourceBytes = checked_->storedBytes();
    return true;
  }

  bool StoreOne(const std::string& path, std::uint64_t* done, std::uint64_t total) {
    std::optional<FileHandle> source;
    std::int64_t size = 0;
    try {
      source.emplace(OpenSource(path));
      size = source->Size();
      if (!copies_.Fits(LargestSize(size, segmenter_.segmentSize()))) {
        throw StoreError(kTooLarge, 0);
      }
    } catch (const StoreError& error) {
      result_.skipped.push_back({path, ReasonToSkip(error)});
      return true;
    }
    return CopyIn(path, *source, size, done, total);
  }

  /// Takes at most `size` bytes, so that a file that grows has an end.
  bool CopyIn(const std::string& path, const FileHandle& source, std::int64_t size,
              std::uint64_t* done, std::uint64_t total) {
    const Files::FileId id = store_.Create();
    PlainCopies::Copy copy = copies_.Begin(LargestSize(size, segmenter_.segmentSize()));
    for (std::int64_t at = 0; at < size;) {
      const std::size_t wanted = std::min(kCheckBlockBytes, static_cast<std::size_t>(size - at));
      std::size_t got = 0;
      try {
        got = source.ReadAt(at, block_.get(), wanted);
      } catch (const StoreError& error) {
        result_.skipped.push_back({path, ReasonToSkip(error)});
        store_.Remove(id);
        return true;
      }
      const std::string_view bytes(block_.get(), got);
      copies_.Write(at, bytes, &copy);
      const auto write = [&] { store_.Write(id, at, bytes); };
      result_.difference = Attempt(path, at, [&] { Timed(&result_.store, got, write); });
      if (result_.difference.has_value()) {
        return false;
      }
      at += static_cast<std::int64_t>(got);
      *done += got;
      Tell("store", std::min(*done, total), total);
      if (got < wanted) {
        break;
      }
    }
    result_.sourceBytes += static_cast<std::uint64_t>(store_.SizeOf(id));
    files_.push_back({id, path, copy});
    return true;
  }

  bool ChangeAll() {
    for (CopiedFile& file : files_) {
      if (!ChangeOne(file)) {
        return false;
      }
      Tell("change", ++changed_, files_.size());
    }
    return true;
  }

  bool ChangeOne(CopiedFile& file) {
    const std::uint64_t seed = options_.seed + kSeedStep * (file.id + 1);
    for (const Change& change :
         PlanChanges(store_.SizeOf(file.id), segmenter_.segmentSize(), seed)) {
      copies_.Apply(change, &file.copy);
      result_.difference = Attempt(file.path, change.offset, [&] {
        Timed(&result_.change, change.bytes.size(), [&] { ApplyToStore(change, file.id); });
      });
      if (result_.difference.has_value()) {
        return false;
      }
    }
    result_.logicalBytes += static_cast<std::uint64_t>(store_.SizeOf(file.id));
    return true;
  }

  void ApplyToStore(const Change& change, Files::FileId id) {
    if (change.kind == Change::Kind::kWrite) {
      store_.Write(id, change.offset, change.bytes);
    } else {
      store_.Truncate(id, change.offset);
    }
  }

  const CheckOptions& options_;
  const Segmenter& segmenter_;
  const CheckProgress& progress_;
  const std::unique_ptr<CheckedStore> checked_;
  Files& store_;
  PlainCopies copies_;
  std::unique_ptr<char[]> block_;
  std::vector<CopiedFile> files_;
  std::uint64_t changed_ = 0;
  CheckResult& result_;
};

}  // namespace

CheckResult RunCheck(const CheckOptions& options, const CheckProgress& progress,
                     const BeforeVerify& beforeVerify) {
  CheckResult result;
  RunCheckInto(options, progress, beforeVerify, &result);
  return result;
}

void RunCheckInto(const CheckOptions& options, const CheckProgress& progress,
                  const BeforeVerify& beforeVerify, CheckResult* result) {
  const Segmenter segmenter(options.segmentSize);
  CollectedFiles collected = CollectFiles(options.paths);
  result->skipped = std::move(collected.skipped);
  result->notRegular = collected.notRegular;
  const WorkDir workDir(options.storeDirectory, options.keep,
                        options.tables == TableKind::kMemory ? "containers" : "store");
  result->storePath = workDir.path();
  Check(options, segmenter, workDir, progress, result).Run(collected, beforeVerify);
}

}  // namespace zefs::refhost
