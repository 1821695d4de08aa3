#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "refhost/durable/durable_store.h"

namespace zefs::refhost {

/// Records of extents by the database that they are in. One that is newer hides what it overlaps of
/// an older one: tmp before small before full.
struct DatabaseRecords {
  std::uint64_t tmp = 0;
  std::uint64_t small = 0;
  std::uint64_t full = 0;

  std::uint64_t all() const { return tmp + small + full; }
};

struct StoreFigures {
  std::uint64_t files = 0;
  std::uint64_t changing = 0;  ///< written to after their last sync
  std::uint64_t logicalBytes = 0;
  std::uint64_t objects = 0;
  std::uint64_t containers = 0;
  std::uint64_t containerBytes = 0;
  std::uint64_t diskBytes = 0;  ///< that the whole store takes
  DatabaseRecords records;
  std::vector<std::uint64_t> tables;  ///< of files, by volume; one figure if there are no volumes
};

/// Adds the records of the table in `directory`, which is not open anywhere.
void CountRecords(const std::string& directory, DatabaseRecords* records);

/// Looks at a store in which no file has been opened yet.
StoreFigures FiguresOf(DurableStore* store);

}  // namespace zefs::refhost
