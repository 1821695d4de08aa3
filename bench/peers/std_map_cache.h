#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <type_traits>

#include "bench/stored_extents.h"

namespace zefs_bench {

struct RecordWithNode {
  Record record;
  void* node;
};

/// The extent cache as a bare ordered map of records by end offset. No locks, no host to ask, and
/// no list of what is still to be stored. `Value` is Record, or RecordWithNode to keep a node too.
template <typename Value>
class StdMapCache {
 public:
  /// A write that overlaps nothing.
  void Put(const Write& write, void* node) {
    map_.insert_or_assign(write.eOff, MakeValue(RecordOf(write), node));
  }

  /// Any write: cuts what it overlaps.
  void Insert(const Write& write, void* node) {
    auto it = map_.upper_bound(write.sOff);
    while (it != map_.end() && RecordIn(it->second).startOffset < write.eOff) {
      if (RecordIn(it->second).startOffset < write.sOff) {
        map_.emplace_hint(it, write.sOff, it->second);
      }
      if (write.eOff < it->first) {
        RecordIn(it->second) = TailOf(RecordIn(it->second), write.eOff);
        break;
      }
      it = map_.erase(it);
    }
    map_.emplace_hint(it, write.eOff, MakeValue(RecordOf(write), node));
  }

  template <typename Use>
  void Find(std::int64_t offset, Use use) const {
    const auto it = map_.upper_bound(offset);
    if (it != map_.end() && RecordIn(it->second).startOffset <= offset) {
      UseExtent(it, use);
    }
  }

  template <typename Use>
  void Walk(Use use) const {
    for (auto it = map_.begin(); it != map_.end(); ++it) {
      UseExtent(it, use);
    }
  }

  /// The same for every extent that reaches into [start, end).
  template <typename Use>
  void Read(std::int64_t start, std::int64_t end, Use use) const {
    for (auto it = map_.upper_bound(start);
         it != map_.end() && RecordIn(it->second).startOffset < end; ++it) {
      UseExtent(it, use);
    }
  }

  std::size_t size() const { return map_.size(); }
  void clear() { map_.clear(); }

 private:
  using Map = std::map<std::int64_t, Value>;

  static Value MakeValue(const Record& record, void* node) {
    if constexpr (std::is_same_v<Value, Record>) {
      return record;
    } else {
      return {record, node};
    }
  }
  static const Record& RecordIn(const Record& value) { return value; }
  static const Record& RecordIn(const RecordWithNode& value) { return value.record; }
  static Record& RecordIn(Record& value) { return value; }
  static Record& RecordIn(RecordWithNode& value) { return value.record; }

  template <typename Use>
  static void UseExtent(typename Map::const_iterator it, Use use) {
    const Record& record = RecordIn(it->second);
    use(record.startOffset, it->first, std::int64_t{record.objectOffset}, record);
  }

  Map map_;
};

}  // namespace zefs_bench
