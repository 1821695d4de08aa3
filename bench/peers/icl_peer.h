#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include <boost/icl/interval_map.hpp>

#include "bench/peers/extent_value.h"

namespace zefs_bench {

/// What the interval map keeps behind a segment. It copies values when it cuts a segment, so the
/// place in the object is kept as the offset that the object's first byte has in the file: that one
/// is the same for every piece.
struct IclValue {
  ObjectID objectID;
  std::int64_t objCksum = 0;
  std::int64_t objectStart = 0;
  void* data = nullptr;
  std::int32_t dcOffset = -1;

  /// Two writes never have one checksum, so touching segments of different writes are not joined.
  bool operator==(const IclValue& other) const {
    return objCksum == other.objCksum && objectStart == other.objectStart &&
           objectID.dcid == other.objectID.dcid && objectID.fp == other.objectID.fp;
  }
};

/// An extent map over boost::icl::interval_map, whose own assignment does the cutting. No locks.
/// `Counts` is one of counts.h.
template <typename Counts>
class IclPeer {
 public:
  void Insert(const Write& write) {
    const Interval range(write.sOff, write.eOff);
    CountOut(range);
    map_.set({range, Make(write)});
    counts_.Add(write.objectID, write.eOff - write.sOff);
  }

  void Append(const Write& write) {
    map_.insert(map_.end(), {Interval(write.sOff, write.eOff), Make(write)});
    counts_.Add(write.objectID, write.eOff - write.sOff);
  }

  /// Drops all at and above `size`; an extent that spans it keeps its front.
  void Truncate(std::int64_t size) {
    const Interval range(size, std::numeric_limits<std::int64_t>::max());
    CountOut(range);
    map_.erase(range);
  }

  /// Calls `use` with start offset and value of the extent that holds `offset`, if there is one.
  template <typename Use>
  void Find(std::int64_t offset, Use use) const {
    const auto it = map_.find(offset);
    if (it != map_.end()) {
      use(it->first.lower(), Value(it));
    }
  }

  /// Calls `use` with start, end and value of every extent in order.
  template <typename Use>
  void Walk(Use use) const {
    for (auto it = map_.begin(); it != map_.end(); ++it) {
      use(it->first.lower(), it->first.upper(), Value(it));
    }
  }

  std::size_t size() const { return map_.iterative_size(); }
  const Counts& counts() const { return counts_; }

 private:
  using Interval = boost::icl::right_open_interval<std::int64_t>;
  using Map =
      boost::icl::interval_map<std::int64_t, IclValue, boost::icl::partial_enricher, std::less,
                               boost::icl::inplace_plus, boost::icl::inter_section, Interval>;

  static IclValue Make(const Write& write) {
    return {write.objectID, write.objCksum, write.sOff - write.objOff, nullptr, -1};
  }

  static ExtentValue Value(typename Map::const_iterator it) {
    const IclValue& value = it->second;
    return {value.objectID, value.objCksum, it->first.lower() - value.objectStart, value.data,
            value.dcOffset};
  }

  /// Takes what lies in `range` out of the counts.
  void CountOut(const Interval& range) {
    if constexpr (Counts::kCounts) {
      const auto [first, last] = map_.equal_range(range);
      for (auto it = first; it != last; ++it) {
        CountOut(it->first, range, it->second.objectID);
      }
    }
  }

  void CountOut(const Interval& extent, const Interval& range, const ObjectID& oid) {
    const bool keepsFront = extent.lower() < range.lower();
    const bool keepsTail = range.upper() < extent.upper();
    const std::int64_t front = keepsFront ? range.lower() - extent.lower() : 0;
    const std::int64_t tail = keepsTail ? extent.upper() - range.upper() : 0;
    const std::int64_t length = extent.upper() - extent.lower();
    if (!keepsFront && !keepsTail) {
      counts_.Remove(oid, length);
      return;
    }
    if (keepsFront && keepsTail) {
      counts_.Add(oid, tail);
      counts_.Shrink(oid, length - front);
      return;
    }
    counts_.Shrink(oid, length - front - tail);
  }

  Map map_;
  Counts counts_;
};

}  // namespace zefs_bench
