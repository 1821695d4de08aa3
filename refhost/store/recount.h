#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "host/fingerprint.h"
#include "refhost/tables/new_table.h"

namespace zefs::refhost {

/// What the extents of tables refer to.
struct ReferenceCounts {
  std::map<std::uint64_t, std::uint64_t> bytesByDcid;
  std::map<FingerprintText, std::uint64_t> extentsByFingerprint;
  std::uint64_t extents = 0;
};

/// Counts every extent of `table` into `*counts`, from its first to its last, without a look at
/// what the table has counted itself. The caller serialises.
void CountExtents(MappingTable& table, ReferenceCounts* counts);

/// Compares what `table` says of itself with a recount of its extents, and the extents with each
/// other and with the file's size. Empty if all agrees, else the first difference in one line. The
/// recount is added to `*total`. The caller serialises.
std::string ReferenceDifference(MappingTable& table, std::int64_t fileSize, ReferenceCounts* total);

/// The same for a persistent table, all of which is in its databases. It may count records that
/// newer ones hide; so it has to name every fingerprint that the recount finds, its filter has to
/// admit each, and only where nothing is hidden the counts have to be equal.
std::string StoredReferenceDifference(MappingTable& table, std::int64_t fileSize,
                                      ReferenceCounts* total);

/// Whether the extents of `table` are in order, disjoint, and inside the file. Empty if so, else
/// what is wrong, in one line. The caller serialises.
std::string ShapeDifference(MappingTable& table, std::int64_t fileSize);

}  // namespace zefs::refhost
