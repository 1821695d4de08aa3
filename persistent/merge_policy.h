#pragma once

#include <cstdint>

// When the small database is folded into the full one, and when a flush waits for that. Plain
// functions over what a flush has seen.

namespace Aldenta::Qnd::Morene::Zefs {

/// What a flush knows when it is through with its commit.
struct FlushOutcome {
  bool tmpOpened;         ///< the tmp database is open now
  bool wroteSmall;        ///< the commit went to the small database
  std::uint64_t entries;  ///< records of the database written, 0 if nothing was
  std::int64_t commits;   ///< since the last merge began
  std::int64_t seconds;   ///< that the flush has taken
};

struct MergeThresholds {
  std::uint32_t entries;
  std::uint32_t commits;
  std::uint32_t seconds;
};

/// Whether a merge is due. An open tmp database is reason enough: a merge has failed, or a crash
/// has ended one, and it has to be done again.
inline bool MergeIsDue(const FlushOutcome& outcome, const MergeThresholds& above) {
  return outcome.tmpOpened || outcome.entries > above.entries ||
         outcome.commits > static_cast<std::int64_t>(above.commits) ||
         outcome.seconds > static_cast<std::int64_t>(above.seconds);
}

/// Whether the flush stops until the merge is over: when it is asked to, or when the database that
/// it wrote has outgrown `maxEntries`. It goes on if it wrote the small database and a merge has
/// opened the tmp database since: what is to come goes there.
inline bool MustWaitForMerge(const FlushOutcome& outcome, bool asked, std::uint32_t maxEntries) {
  return asked || (outcome.entries > maxEntries && !(outcome.wroteSmall && outcome.tmpOpened));
}

}  // namespace Aldenta::Qnd::Morene::Zefs
