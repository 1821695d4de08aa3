#pragma once

#include <cstdint>

// The choice that a merge makes at each step of its walk, as a plain function over values.

namespace Aldenta::Qnd::Morene::Zefs {

/// The record under one of the two cursors.
struct MergeRecord {
  bool there = false;  ///< false: that database has no more
  std::int64_t start = 0;
  std::int64_t end = 0;
};

/// What to write, if anything, and which cursors move on.
struct MergeStep {
  enum Source { kNothing, kFull, kIncremental };

  Source source = kNothing;
  std::int64_t start = 0;    ///< of what is written: the record's own, or a later one
  std::int64_t end = 0;      ///< the record's own, or an earlier one
  std::int64_t lastEnd = 0;  ///< end of all that is written by then
  bool advanceFull = false;
  bool advanceIncremental = false;
};

/// The next step of a walk over two databases, each with disjoint records by rising end, of which
/// the incremental one is newer and wins wherever both have something. `lastEnd` is the end of what
/// was written last. At least one of the records is there, and no step leaves everything as it was.
MergeStep NextMergeStep(const MergeRecord& full, const MergeRecord& incremental,
                        std::int64_t lastEnd);

}  // namespace Aldenta::Qnd::Morene::Zefs
