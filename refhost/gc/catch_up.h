#pragma once

#include <cstdint>

#include "refhost/durable/durable_store.h"
#include "refhost/durable/store_directory.h"

// Where an object lies is said twice: by the index, and by each extent that refers to it. A
// compaction moves the object in the index, where one transaction is enough, and then has the
// tables catch up. In between a table may name the old container, or the new one with the offset
// of the old. For so long there is a mark in the store, and nobody goes by what extents say but by
// the index alone.

namespace zefs::refhost {

/// Whether the store has the mark.
bool IsCompacting(const StoreDirectory& directory);

/// Sets the mark: it is on the disk when this returns, and objects are found by fingerprint.
void BeginCompacting(DurableStore::Still* still);

/// Removes it. All tables agree with the index.
void EndCompacting(DurableStore::Still* still);

/// If the store has the mark: has all tables catch up, and removes it. Can be repeated after a
/// failure or a crash, whatever the compaction and earlier attempts have done. What was to be moved
/// and was not stays where it is.
void FinishCompaction(DurableStore::Still* still);

/// While it lives, merges leave room for few further records in their filters. A compaction merges
/// many small tables, and each would get a megabyte. A filter that overflows says yes too often,
/// until the next merge.
class SmallFilters {
 public:
  SmallFilters();
  ~SmallFilters();
  SmallFilters(const SmallFilters&) = delete;
  SmallFilters& operator=(const SmallFilters&) = delete;

 private:
  const std::uint32_t before_;
};

/// The extents of `file`, all of them in its full database. Merges it first.
MappingTable::ObjectIDs MergedExtents(StoredFile* file);

/// Brings the extents of the file called `name` to where the index has their objects, and returns
/// how many were elsewhere. `merged` says that nothing has happened since MergedExtents. The tables
/// keep track of wanted offsets (dcOffsetTrackingEnabled). Throws StoreError if the table does not
/// take the new places.
std::uint64_t CatchUp(const std::string& name, StoredFile* file, const LastingObjects& objects,
                      bool merged);

}  // namespace zefs::refhost
