#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

// Random programs of operations on a table. A program is a value: what it does follows from it
// alone, and it stays a program when operations are taken out of it.

namespace zefs::test {

enum class Kind : std::uint8_t {
  // Writes.
  kInsertNode,     // the node learns the object id later
  kInsertKnown,    // without a node
  kInsertBoth,     // the id is known already, its attributes and offset are not
  kInsertNothing,  // neither: never leaves the cache of a stored table
  kInsertEmpty,    // no bytes
  kAppend,
  kUpdate,  // an extent that was found is written back
  kTruncate,
  kSetFileSize,
  kMakeReady,  // one node
  kMakeAllReady,
  // Look-ups.
  kFind,
  kLowerBound,
  kFindCached,
  kWalk,
  kWalkBack,
  kSizes,
  kPlan,
  // Object ids and references.
  kSetObjectId,
  kListIds,
  kRewriteIds,
  kReferences,
  kBinaryReferences,
  kFilter,
  kSetDoid,
  kGetDoid,
  kIsChanged,
  kWritingNodes,
  // Container offsets that are found later.
  kBackfill,
  kRefreshOffset,
  // Flushes and merges.
  kFlush,
  kForcedFlush,
  kFlushUnlocked,
  kRefusedFlush,     // the share cannot be protected
  kFlushOverFailed,  // a flush whose merge, if it starts one, fails
  kForgetNodes,
  kMerge,
  kFailedMerge,
  // The table as files, and its lives.
  kCommitFlag,
  kSave,
  kSetVersion,
  kSnapshot,
  kMove,
  kRemove,
  kReload,
  kKill,   // the process dies here
  kCrash,  // the process dies within what comes next, at one of its calls
};
inline constexpr std::size_t kKinds = static_cast<std::size_t>(Kind::kCrash) + 1;

const char* NameOf(Kind kind);

/// What `at`, `length` and `pick` mean is the kind's: mostly an offset, bytes, and a number that
/// chooses among what there is.
struct Operation {
  Kind kind = Kind::kFind;
  long at = 0;
  long length = 1;
  std::uint32_t pick = 0;
};

/// In `pick` of a flush with a failing merge: it is forced.
inline constexpr std::uint32_t kForcedBit = 1U << 8;

std::ostream& operator<<(std::ostream& out, const Operation& operation);

/// The host's settings, for the whole of a program.
struct Settings {
  std::string type = "PROVISION";
  bool prefetch = false;
  std::uint32_t prefetchSpan = 0;
  bool bloom = true;
  bool tracking = true;
  std::uint32_t trackingThreshold = 4;
  std::uint32_t batchThreshold = 1;
  std::uint32_t readyThreshold = 1;
  std::uint32_t mergeEntries = 40;
  std::uint32_t mergeCommits = 6;
  std::uint32_t mergeBatch = 3;
};

struct Program {
  std::uint64_t seed = 0;
  Settings settings;
  std::vector<Operation> operations;
};

/// All of it, an operation on a line.
std::ostream& operator<<(std::ostream& out, const Program& program);

/// The program of `seed`, of about `length` operations.
Program AnyProgram(std::uint64_t seed, std::size_t length = 300);

}  // namespace zefs::test
