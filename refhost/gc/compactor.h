#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "refhost/durable/durable_store.h"
#include "refhost/durable/importer.h"

namespace zefs::refhost {

inline constexpr unsigned kUsualSparseBelow = 50;

/// What a compaction has done.
struct Compacted {
  std::uint64_t tablesAsked = 0;
  std::uint64_t tablesSkipped = 0;     ///< unchanged since they were last asked
  std::uint64_t sparseContainers = 0;  ///< that objects were moved from
  std::uint64_t sparseBytes = 0;       ///< in these
  std::uint64_t objectsMoved = 0;
  std::uint64_t bytesMoved = 0;
  std::uint64_t tablesRewritten = 0;
  std::uint64_t extentsRewritten = 0;
  std::vector<std::string> damaged;  ///< objects that were left where they are, and why
};

/// Moves the live objects of sparse containers to new ones, each once and those of a file
/// together, and brings the tables to their new places. A container is sparse if less
/// than `below` per cent of its bytes are live. The sparse ones stay until a collection.
///
/// A crash or a failure in between costs nothing: every byte can be read at any time, and the next
/// who opens the store has the tables catch up with what was moved by then. Nothing else happens in
/// the store meanwhile. What `progress` throws counts as a failure.
Compacted Compact(DurableStore* store, unsigned below, const StoreProgress& progress);

}  // namespace zefs::refhost
