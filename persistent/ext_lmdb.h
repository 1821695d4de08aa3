#pragma once

#include "support/visibility.h"
#include "table/extent.h"

namespace Aldenta::Qnd::Morene::Zefs {

class CMappingLMDB;

/// An extent that a persistent table returned, and the table. A copy: what it shows may be stale as
/// soon as the table changes.
class ZEFS_EXTMAP_API ExtLMDB : public Ext {
 public:
  /// All fields zero, no known container offset, no table.
  ExtLMDB() = default;
  ExtLMDB(const ExtLMDB& other) = default;
  /// Copies every field; the node pointer goes through the virtual setData.
  ExtLMDB& operator=(const ExtLMDB& other) {
    Ext::operator=(other);
    owner_ = other.owner_;
    return *this;
  }

  void setData(void* node) override { data = node; }

  /// Writes the extent back through `insert` of its table, with the checksum 0 and without a
  /// container offset; locks and result as there, so not under the table's `rwLock_`. -1 if there
  /// is no table.
  int update() override;

  ~ExtLMDB() override { data = nullptr; }

  CMappingLMDB* owner_ = nullptr;  ///< the table that produced the extent; not owned
};

static_assert(sizeof(ExtLMDB) == sizeof(Ext) + sizeof(void*), "one member behind those of Ext");

}  // namespace Aldenta::Qnd::Morene::Zefs
