#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "host/fingerprint.h"
#include "refhost/store/file_store.h"

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

}  // namespace zefs::refhost
