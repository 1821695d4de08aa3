#pragma once

#include <ostream>
#include <rapidcheck.h>
#include <vector>

// What may happen to a table on its way, at random.

namespace zefs::test {

inline constexpr long kRoadDomain = 128;  ///< the bytes of the file

enum class Act {
  kWriteNode,
  kWriteKnown,
  kWriteNothing,  // neither a node nor an object id: never leaves the cache
  kMakeReady,
  kFlush,
  kForcedFlush,
  kMerge,
  kFailedMerge,
  kReload,
  kFlushAndReload,
  kTruncate,
  kTruncateOverTmp,  // through an extent that only the tmp database of a failed merge holds
  kPlan,
  kRewriteIds,
  kBackfill,
  kSnapshot
};

struct Step {
  Act act;
  long at;
  long length;
  int pick;
};

inline void showValue(const Step& step, std::ostream& out) {
  static const char* const kNames[] = {
      "write node", "write known",      "write nothing", "make ready",
      "flush",      "forced flush",     "merge",         "failed merge",
      "reload",     "flush and reload", "truncate",      "truncate over tmp",
      "plan",       "rewrite ids",      "backfill",      "snapshot"};
  out << kNames[static_cast<int>(step.act)] << " [" << step.at << ", " << step.at + step.length
      << ") " << step.pick << '\n';
}

inline rc::Gen<std::vector<Step>> AnyRoad() {
  using rc::gen::inRange;
  const auto act = rc::gen::weightedElement<Act>({{16, Act::kWriteNode},
                                                  {8, Act::kWriteKnown},
                                                  {2, Act::kWriteNothing},
                                                  {16, Act::kMakeReady},
                                                  {8, Act::kFlush},
                                                  {4, Act::kForcedFlush},
                                                  {3, Act::kMerge},
                                                  {1, Act::kFailedMerge},
                                                  {2, Act::kReload},
                                                  {1, Act::kFlushAndReload},
                                                  {4, Act::kTruncate},
                                                  {2, Act::kTruncateOverTmp},
                                                  {8, Act::kPlan},
                                                  {2, Act::kRewriteIds},
                                                  {3, Act::kBackfill},
                                                  {2, Act::kSnapshot}});
  const auto step = rc::gen::build<Step>(rc::gen::set(&Step::act, act),
                                         rc::gen::set(&Step::at, inRange<long>(0, kRoadDomain - 1)),
                                         rc::gen::set(&Step::length, inRange<long>(1, 40)),
                                         rc::gen::set(&Step::pick, inRange<int>(0, 1000)));
  return rc::gen::resize(
      60, rc::gen::container<std::vector<Step>>(rc::gen::resize(rc::kNominalSize, step)));
}

}  // namespace zefs::test
