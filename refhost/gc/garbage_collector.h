#pragma once

#include <cstdint>

#include "refhost/durable/durable_store.h"
#include "refhost/durable/importer.h"

namespace zefs::refhost {

/// What a collection has done.
struct Collected {
  std::uint64_t tablesAsked = 0;
  std::uint64_t tablesSkipped = 0;   ///< unchanged since they were last asked
  std::uint64_t entriesDropped = 0;  ///< of the index
  std::uint64_t containersRemoved = 0;
  std::uint64_t bytesReclaimed = 0;  ///< in these
  std::uint64_t containersKept = 0;
  std::uint64_t bytesKept = 0;
};

/// Syncs the store, and removes what no table of it refers to: entries of the index first, in one
/// transaction, then containers. An entry goes when its container goes, or when no table that lists
/// the container knows the fingerprint; tables may know too much, so some garbage can stay. The
/// container that is being written stays. A crash leaves a sound store, for which a further
/// collection does the rest. Finishes an unfinished compaction first.
///
/// Nothing else happens in the store meanwhile. What `progress` throws ends the work before
/// anything is removed.
Collected CollectGarbage(DurableStore* store, const StoreProgress& progress);

}  // namespace zefs::refhost
