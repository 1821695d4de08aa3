#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/fingerprint.h"
#include "refhost/index/lmdb_file.h"

namespace zefs::refhost {

/// What the catalogue knows of one file.
struct CatalogueEntry {
  std::uint64_t table = 0;  ///< its extent map: volume and number of the directory
  std::int64_t size = 0;    ///< bytes at the last sync, or left by a cut since
  crfp_digest_t digest{};   ///< SHA-256 of all of them
  /// The file has been written to since its last sync: what is in its table may be newer than size
  /// and digest.
  bool changing = false;
  // What the entry intends, which whoever opens the store or the file completes:
  bool cut = false;  ///< the table ends at `size`; a crash may have come before it was cut
  std::optional<std::size_t> movingTo;  ///< volume to which the table's directory is being renamed
};

/// The files of a store by name, kept in a database and, whole, in memory. Failures are
/// StoreErrors; an entry that cannot be read is a DamageError. Not synchronised.
class Catalogue {
 public:
  using Entries = std::map<std::string, CatalogueEntry>;

  explicit Catalogue(const std::string& path);

  const Entries& entries() const { return entries_; }

  /// Null if there is no such file.
  const CatalogueEntry* Find(const std::string& name) const;

  /// Enters and replaces files, and forgets others: all or nothing, on the disk when this returns.
  void Commit(const Entries& entered, const std::vector<std::string>& forgotten = {});

 private:
  LmdbFile file_;
  Entries entries_;
};

}  // namespace zefs::refhost
