#include "refhost/replay/interval_model.h"

#include <algorithm>
#include <iterator>

namespace zefs::refhost {

void IntervalModel::CutAt(long offset) {
  const auto behind = byStart_.lower_bound(offset);
  if (behind == byStart_.begin()) {
    return;
  }
  Interval& before = std::prev(behind)->second;
  if (before.end > offset) {
    byStart_.emplace_hint(behind, offset, before);
    before.end = offset;
  }
}

void IntervalModel::Write(long start, long end, unsigned long line) {
  CutAt(start);
  CutAt(end);
  byStart_.erase(byStart_.lower_bound(start), byStart_.lower_bound(end));
  byStart_.emplace(start, Interval{end, line, start});
}

std::vector<Piece> IntervalModel::Read(long start, long end) const {
  std::vector<Piece> pieces;
  auto entry = byStart_.upper_bound(start);
  if (entry != byStart_.begin() && std::prev(entry)->second.end > start) {
    --entry;
  }
  for (; entry != byStart_.end() && entry->first < end; ++entry) {
    const Interval& interval = entry->second;
    const long from = std::max(start, entry->first);
    pieces.push_back(
        {from, std::min(end, interval.end), interval.line, from - interval.writeStart});
  }
  return pieces;
}

}  // namespace zefs::refhost
