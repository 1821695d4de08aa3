#include "refhost/prefetch/read_ahead.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <numeric>
#include <set>
#include <utility>

#include "host/zefs_log.h"

namespace zefs::refhost {

namespace {

using DCInfo = DataCacheManagementInterface::DCInfo;
using BlockNumbers = ContainerCache::BlockNumbers;

/// What one worker fetches at a time: 2 MiB, so that several workers share a container.
constexpr std::size_t kBlocksOfJob = 32;
/// A container is fetched whole if one block of so many is needed.
constexpr std::size_t kWholeIfOneOf = 4;

/// The blocks of a container of `end` bytes that the extents of a plan lie in.
BlockNumbers BlocksNeeded(const DCInfo& info, std::int64_t end) {
  std::set<std::uint32_t> needed;
  for (const auto& ext : info.extents) {
    if (!ext.inRange || ext.dcOffset < 0 || ext.length == 0) {
      continue;
    }
    const std::int64_t from = std::int64_t{ext.dcOffset} + ext.objOff;
    const std::int64_t to = std::min(from + ext.length, end);
    for (std::int64_t at = from; at < to; at += ContainerCache::kBlockBytes) {
      needed.insert(static_cast<std::uint32_t>(at / ContainerCache::kBlockBytes));
    }
    if (from < to) {
      needed.insert(static_cast<std::uint32_t>((to - 1) / ContainerCache::kBlockBytes));
    }
  }
  return {needed.begin(), needed.end()};
}

void LogFailedFetch(std::uint64_t dcid, const std::exception& error) {
  ZEFS_LOG(kLogRecoverable, "cannot fetch container %lu ahead: %s",
           static_cast<unsigned long>(dcid), error.what());
}

}  // namespace

/// The blocks of one container that are fetched for a plan, by one or more workers.
class ReadAhead::ContainerFetch {
 public:
  ContainerFetch(ReadAhead* ahead, std::uint64_t dcid, OpenContainer container)
      : ahead_(*ahead), dcid_(dcid), container_(std::move(container)) {}
  /// Gives up what no worker has taken.
  ~ContainerFetch() {
    for (std::size_t i = next_; i < blocks_.size(); ++i) {
      ahead_.cache_.GiveUp(dcid_, blocks_[i]);
    }
  }
  ContainerFetch(const ContainerFetch&) = delete;
  ContainerFetch& operator=(const ContainerFetch&) = delete;

  std::int64_t end() const { return container_.end; }

  /// Begins what is missing of `wanted`; returns for how many jobs that is.
  std::size_t Begin(const BlockNumbers& wanted) {
    ahead_.cache_.Begin(dcid_, wanted, end(), &blocks_);
    return (blocks_.size() + kBlocksOfJob - 1) / kBlocksOfJob;
  }

  /// In a worker.
  void Work() {
    for (std::size_t i = next_++; i < blocks_.size(); i = next_++) {
      if (!FetchBlock(blocks_[i])) {
        failed_ = true;
        ahead_.cache_.GiveUp(dcid_, blocks_[i]);
      }
    }
  }

 private:
  bool FetchBlock(std::uint32_t number) {
    if (failed_) {
      return false;
    }
    try {
      const std::uint32_t length = ContainerCache::LengthOf(number, end());
      std::shared_ptr<char[]> bytes(new char[length]);
      const std::int64_t at = std::int64_t{number} * ContainerCache::kBlockBytes;
      if (container_.file.ReadAt(at, bytes.get(), length) != length) {
        return false;  // it has been cut; whoever reads there is told
      }
      ahead_.fetchedBytes_ += length;
      ahead_.cache_.Put(dcid_, number, std::move(bytes));
      return true;
    } catch (const std::exception& error) {
      LogFailedFetch(dcid_, error);
      return false;
    }
  }

  ReadAhead& ahead_;
  const std::uint64_t dcid_;
  const OpenContainer container_;
  BlockNumbers blocks_;  // as begun, in order
  std::atomic<std::size_t> next_{0};
  std::atomic<bool> failed_{false};
};

ReadAhead::ReadAhead(const ReadAheadOptions& options, const LastingObjects* objects)
    : objects_(*objects),
      window_(static_cast<std::int64_t>(std::min(options.windowBytes, options.cacheBytes / 2))),
      cache_(options.cacheBytes) {}

void ReadAhead::Fetch(const Plan& plan, WorkerPool* workers) {
  ++plans_;
  for (const DCInfo& info : plan) {
    try {
      FetchContainer(info, workers);
    } catch (const std::exception& error) {  // the reader meets it again, if it gets there
      LogFailedFetch(info.dcid, error);
    }
  }
}

void ReadAhead::FetchContainer(const DCInfo& info, WorkerPool* workers) {
  const auto fetch = std::make_shared<ContainerFetch>(this, info.dcid, objects_.Open(info.dcid));
  BlockNumbers wanted = BlocksNeeded(info, fetch->end());
  const auto all = static_cast<std::size_t>((fetch->end() + ContainerCache::kBlockBytes - 1) /
                                            ContainerCache::kBlockBytes);
  if (!wanted.empty() && wanted.size() * kWholeIfOneOf >= all) {
    wanted.resize(all);
    std::iota(wanted.begin(), wanted.end(), 0U);
  }
  const std::size_t jobs = fetch->Begin(wanted);
  containers_ += jobs == 0 ? 0 : 1;
  for (std::size_t i = 0; i < jobs; ++i) {
    workers->Post([fetch] { fetch->Work(); });
  }
}

bool ReadAhead::Read(std::uint64_t dcid, std::int32_t dcOffset, std::int64_t objOff,
                     std::uint32_t size, char* out) {
  if (window_ == 0) {
    return false;
  }
  const bool hit = dcOffset >= 0 && objOff >= 0 && cache_.Read(dcid, dcOffset + objOff, size, out);
  ++(hit ? hits_ : misses_);
  return hit;
}

ReadAheadFigures ReadAhead::figures() const {
  return {plans_, containers_, fetchedBytes_, hits_, misses_};
}

}  // namespace zefs::refhost
