#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "bench/peers/end_keyed_store.h"
#include "bench/peers/extent_value.h"

namespace zefs_bench {

/// An extent map over an ordered map keyed by end offset, as one would write it by hand: one search
/// an overwrite, entries cut in place where their key allows it, hints for what is put beside them.
/// No locks. `Store` is one of end_keyed_store.h, `Counts` one of counts.h.
template <typename Store, typename Counts>
class EndKeyedPeer {
 public:
  void Insert(const Write& write) {
    auto it = map_.upper_bound(write.sOff);
    if (it != map_.end() && Store::At(it).sOff < write.sOff) {
      if (it->first > write.eOff) {
        Split(it, write);
        return;
      }
      it = CutBack(it, write.sOff);
      ++it;
    }
    it = DropUpTo(it, write.eOff);
    if (it != map_.end() && Store::At(it).sOff < write.eOff) {
      CutFront(Store::At(it), write.eOff);
    }
    Put(it, write);
  }

  void Append(const Write& write) { Put(map_.end(), write); }

  /// Drops all at and above `size`; an extent that spans it keeps its front.
  void Truncate(std::int64_t size) {
    auto it = map_.upper_bound(size);
    if (it != map_.end() && Store::At(it).sOff < size) {
      it = CutBack(it, size);
      ++it;
    }
    for (auto gone = it; gone != map_.end(); ++gone) {
      CountOut(gone);
    }
    map_.erase(it, map_.end());
  }

  /// Calls `use` with start offset and value of the extent that holds `offset`, if there is one.
  template <typename Use>
  void Find(std::int64_t offset, Use use) const {
    const auto it = map_.upper_bound(offset);
    if (it != map_.end() && Store::At(it).sOff <= offset) {
      use(Store::At(it).sOff, Store::At(it).value);
    }
  }

  /// Calls `use` with start, end and value of every extent in order.
  template <typename Use>
  void Walk(Use use) const {
    for (auto it = map_.begin(); it != map_.end(); ++it) {
      const Entry& entry = Store::At(it);
      use(entry.sOff, it->first, entry.value);
    }
  }

  std::size_t size() const { return map_.size(); }
  const Counts& counts() const { return counts_; }

 private:
  using Map = typename Store::Map;
  using Position = typename Map::iterator;

  void Put(Position hint, const Write& write) {
    map_.emplace_hint(hint, write.eOff, Store::Make(write.sOff, ValueOf(write)));
    counts_.Add(write.objectID, write.eOff - write.sOff);
  }

  /// `write` lies strictly inside the extent at `it`.
  void Split(Position it, const Write& write) {
    Entry& tail = Store::At(it);
    const Entry front = tail;
    counts_.Add(front.value.objectID, write.sOff - front.sOff);
    counts_.Shrink(front.value.objectID, write.eOff - front.sOff);
    tail.sOff = write.eOff;
    tail.value.objOff += write.eOff - front.sOff;
    it = map_.emplace_hint(it, write.sOff, Store::Make(front.sOff, front.value));
    Put(std::next(it), write);
  }

  /// The extent at `it` ends at `end` from now on.
  Position CutBack(Position it, std::int64_t end) {
    counts_.Shrink(Store::At(it).value.objectID, it->first - end);
    return Store::Rekey(map_, it, end);
  }

  void CutFront(Entry& entry, std::int64_t start) {
    counts_.Shrink(entry.value.objectID, start - entry.sOff);
    entry.value.objOff += start - entry.sOff;
    entry.sOff = start;
  }

  void CountOut(Position it) {
    const Entry& entry = Store::At(it);
    counts_.Remove(entry.value.objectID, it->first - entry.sOff);
  }

  /// Removes the extents from `it` on that end at or below `end`.
  Position DropUpTo(Position it, std::int64_t end) {
    while (it != map_.end() && it->first <= end) {
      CountOut(it);
      it = map_.erase(it);
    }
    return it;
  }

  Map map_;
  Counts counts_;
};

}  // namespace zefs_bench
