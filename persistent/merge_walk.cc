#include "persistent/merge_walk.h"

#include <algorithm>

namespace Aldenta::Qnd::Morene::Zefs {

MergeStep NextMergeStep(const MergeRecord& full, const MergeRecord& incremental,
                        std::int64_t lastEnd) {
  MergeStep step;
  step.lastEnd = lastEnd;
  const bool fullFirst = full.there && incremental.there && full.start < incremental.start &&
                         incremental.start != lastEnd;
  if (incremental.there && !fullFirst) {
    step.source = MergeStep::kIncremental;
    step.start = incremental.start;
    step.end = incremental.end;
    step.lastEnd = incremental.end;
    step.advanceIncremental = true;
    // One step is enough: what else is covered is passed over when its turn comes.
    step.advanceFull = full.there && full.end < incremental.end;
    return step;
  }

  step.advanceFull = true;
  if (full.end <= lastEnd) {
    return step;  // overridden to its end
  }
  step.source = MergeStep::kFull;
  step.start = std::max(full.start, lastEnd);
  step.end = full.end;
  if (incremental.there && incremental.start < full.end) {
    // What lies behind the incremental record comes back to the same record once that is written.
    step.end = incremental.start;
    step.advanceFull = false;
  }
  step.lastEnd = step.end;
  return step;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
