#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "tests/persistent/road_steps.h"
#include "tests/support/oid.h"

namespace zefs::test {

/// One write: the bytes from `start` on show the object of the container from `objOff` on.
struct RoadWrite {
  long start = 0;
  long objOff = 0;
  std::uint64_t dcid = 0;
  unsigned int tag = 0;           ///< of its fingerprint
  std::int32_t dcOffset = -1;     ///< known to the writer
  DataCacheNode* node = nullptr;  ///< null: none
  bool isKnown = false;           ///< by its writer
  bool isReady = false;           ///< its node knows

  DataCacheNode::ObjectID Id() const { return Oid(dcid, tag); }
  std::int32_t StoredDcOffset() const { return node == nullptr ? dcOffset : node->dcOffset; }
};

/// What a table holds, byte by byte: which write shows there. A write changes the cache; a flush
/// moves bytes to what is stored; a failed merge leaves a newer layer over that until the next one
/// succeeds. A write whose stored bytes get another container or offset goes on as another write.
class RoadModel {
 public:
  using Layer = std::vector<std::optional<std::size_t>>;  // by offset; none: a hole

  RoadModel() { Forget(&cached_), Forget(&tmp_), Forget(&stored_); }

  const std::vector<RoadWrite>& writes() const { return writes_; }
  RoadWrite& write(std::size_t number) { return writes_.at(number); }
  std::size_t Add(const RoadWrite& write) {
    writes_.push_back(write);
    return writes_.size() - 1;
  }
  /// A write that has not been cut yet, with numbers of its own.
  std::size_t AddFresh(long start) {
    const std::size_t number = writes_.size();
    RoadWrite write;
    write.start = start;
    write.objOff = static_cast<long>(number) * 1000;
    write.tag = 100 + static_cast<unsigned int>(number);
    write.dcid = write.tag;
    return Add(write);
  }

  void Cache(long start, long end, std::size_t number) {
    std::fill(cached_.begin() + start, cached_.begin() + end, number);
    size_ = std::max(size_, end);
  }

  /// A flush has taken the cached extent [start, end). False if it is not of one write.
  bool Store(long start, long end, bool toTmp) {
    const auto number = cached_.at(static_cast<std::size_t>(start));
    for (long at = start; at < end; ++at) {
      auto& cached = cached_.at(static_cast<std::size_t>(at));
      if (!number || cached != number) {
        return false;
      }
      cached.reset();
      (toTmp ? tmp_ : stored_).at(static_cast<std::size_t>(at)) = number;
    }
    return true;
  }
  /// The flush that took extents up to `maxEnd` is committed.
  void Commit(long maxEnd, bool toTmp) {
    if (storedSize_ < maxEnd) {
      (toTmp ? sizeInTmp_ : sizeInSmall_) = maxEnd;
      storedSize_ = maxEnd;
    }
    size_ = std::max(size_, storedSize_);
  }

  /// A merge has succeeded: what the tmp database took is in the small one now.
  void Merge() {
    RaiseToLastEnd();
    for (std::size_t at = 0; at < tmp_.size(); ++at) {
      stored_[at] = tmp_[at] ? tmp_[at] : stored_[at];
    }
    Forget(&tmp_);
    sizeInFull_ = storedSize_;
    sizeInSmall_ = sizeInTmp_;
    sizeInTmp_ = 0;
  }

  /// A merge has failed, perhaps after it had learnt of an extent behind the size: one that was in
  /// the tmp database when the table was cut. The table calls its stored size `size` now.
  void FailMerge(long size) {
    if (size != storedSize_) {
      RaiseToLastEnd();
    }
  }

  /// The table is loaded again, without a tmp database.
  void Reload() {
    Forget(&cached_);
    size_ = storedSize_ = SizeInFiles();
  }
  /// What a table has to go by that has nothing but the small and the full database.
  long SizeInFiles() const { return std::max(sizeInSmall_, sizeInFull_); }

  /// Whether the tmp database holds anything from `size` on.
  bool HoldsInTmpFrom(long size) const {
    return std::any_of(tmp_.begin() + std::min(size, kRoadDomain), tmp_.end(),
                       [](const auto& number) { return number.has_value(); });
  }
  /// A tmp database keeps what it holds.
  void Truncate(long size) {
    for (Layer* layer : {&cached_, &stored_}) {
      std::fill(layer->begin() + std::min(size, kRoadDomain), layer->end(), std::nullopt);
    }
    size_ = storedSize_ = sizeInSmall_ = sizeInFull_ = size;
  }

  /// `fresh` shows wherever `old` is stored.
  void Replace(std::size_t old, std::size_t fresh) {
    std::replace(stored_.begin(), stored_.end(), std::optional(old), std::optional(fresh));
  }

  /// Of the cache, over the tmp database, over the rest.
  const std::optional<std::size_t>& At(long offset) const {
    const auto at = static_cast<std::size_t>(offset);
    return cached_[at] ? cached_[at] : tmp_[at] ? tmp_[at] : stored_[at];
  }
  bool IsCached(long offset) const { return cached_[static_cast<std::size_t>(offset)].has_value(); }
  const Layer& cached() const { return cached_; }
  const Layer& stored() const { return stored_; }
  long FileSize() const { return std::max(size_, storedSize_); }

 private:
  void RaiseToLastEnd() {
    const auto last = std::find_if(stored_.rbegin(), stored_.rend(),
                                   [](const auto& number) { return number.has_value(); });
    const long lastEnd = stored_.rend() - last;
    if (storedSize_ < lastEnd) {
      size_ = storedSize_ = lastEnd;
    }
  }
  static void Forget(Layer* layer) {
    layer->assign(static_cast<std::size_t>(kRoadDomain), std::nullopt);
  }

  std::vector<RoadWrite> writes_;
  Layer cached_;
  Layer tmp_;
  Layer stored_;
  long size_ = 0;
  long storedSize_ = 0;   // as the table knows it
  long sizeInSmall_ = 0;  // as the databases do
  long sizeInFull_ = 0;
  long sizeInTmp_ = 0;
};

/// The first offset from `offset` on where `at` shows a write; kRoadDomain if there is none.
template <typename At>
long FirstShown(long offset, const At& at) {
  while (offset < kRoadDomain && !at(offset)) {
    ++offset;
  }
  return offset;
}

}  // namespace zefs::test
