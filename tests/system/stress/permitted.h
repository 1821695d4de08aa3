#pragma once

#include <string>
#include <vector>

// Which operations of a table may run at the same time, in other threads. Written once, as what
// each operation touches and under which lock; whether two go together, and why, follows.

namespace zefs::test::stress {

/// What operations of a table have in common.
enum class Thing {
  kWhole,       ///< the object: its life, its directory
  kCache,       ///< cached extents, their nodes, and what waits for a flush
  kPrefetched,  ///< the prefetched run
  kDatabases,   ///< which databases are open
  kStored,      ///< what is stored in them
  kMergeInput,  ///< the full database as a merge finds it
  kSizes,       ///< the two file sizes, and the format version
  kPath,        ///< the directory's name
  kObjectId,    ///< the table's own object id
  kChanged,     ///< whether the table has changed since its references were taken
  kReferences,  ///< references counted in memory
  kCommitFlag,  ///< kept for the host
  kSideFiles,   ///< journal and offset store
  kTree,        ///< the tree of a table in memory
  kPlaces,      ///< where the extents of that tree lie in memory
};

/// What keeps others away from it.
enum class By {
  kNothing,       ///< the host
  kRwLock,        ///< rwLock_
  kTableLock,     ///< tableLock_
  kPrefetchLock,  ///< prefetchLock_
  kTransaction,   ///< LMDB's writers wait for each other; its readers see one state
  kOwnLock,       ///< a lock of the thing's own
  kEither,        ///< a reader that takes the value from before or after a change
};

struct Use {
  Thing thing;
  bool changes;
  By by;
  bool exclusively;
};

/// One operation, and what it touches.
struct Operation {
  std::string name;
  std::vector<Use> uses;
};

/// Whether two operations may run at the same time, and for which reason.
struct Verdict {
  bool permitted;
  std::string reason;
};

/// The operations of each kind of table, in the order of their slots, and behind them those that
/// have none. The destructor is "~".
const std::vector<Operation>& StoredOperations();
const std::vector<Operation>& TreeOperations();

Verdict MayRunTogether(const Operation& one, const Operation& other);

/// The operation of this name. Throws std::out_of_range if there is none.
const Operation& Find(const std::vector<Operation>& operations, const std::string& name);

}  // namespace zefs::test::stress
