#pragma once

#include <map>
#include <vector>

#include "refhost/replay/piece.h"

namespace zefs::refhost {

/// The last writer of every byte of one unit, kept as plainly as can be: what a table is checked
/// against. Shares no code with it.
class IntervalModel {
 public:
  /// Line `line` writes [start, end), which is not empty.
  void Write(long start, long end, unsigned long line);

  /// What lies in [start, end), clipped to it, in rising order.
  std::vector<Piece> Read(long start, long end) const;

 private:
  struct Interval {
    long end;
    unsigned long line;
    long writeStart;  // where the line's own range began
  };

  /// Makes `offset` a border between intervals.
  void CutAt(long offset);

  std::map<long, Interval> byStart_;  // disjoint
};

}  // namespace zefs::refhost
