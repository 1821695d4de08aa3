#pragma once

#include <cstdint>

#include "persistent/ext_lmdb.h"
#include "persistent/mapping_lmdb.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// A position in a persistent table: a copy of the extent there. It stays usable when the table
/// changes, though what it shows may be stale. Assignment from another kind of iterator throws
/// SysException(kErrInvalid); comparison with one is false.
class CMappingLMDB::iteratorimp final : public CMappingTable::iteratorbase {
 public:
  /// The position behind the last extent of `table`.
  explicit iteratorimp(CMappingLMDB* table) : table_(table) {}
  iteratorimp(const ExtLMDB& ext, CMappingLMDB* table) : key_(ext.eOff), ext_(ext), table_(table) {}
  iteratorimp(const iteratorimp& other) = default;
  iteratorimp& operator=(const iteratorimp& other);

  iteratorbase* clone() const override;
  iteratorbase& operator=(const iteratorbase& other) override;
  Ext& operator*() const override;
  Ext* operator->() const override;
  /// Throws SysException(kErrNoStepBack) if there is a table.
  iteratorbase& operator--() override;
  /// The next extent behind the current one; from the last one to the end, which keeps showing the
  /// last extent; from the end to the first. Takes no rwLock_: the caller holds it if the cache can
  /// change. Takes prefetchLock_ and tableLock_, both shared, and throws as a look-up does; the
  /// iterator is then as it was.
  iteratorbase& operator++() override;
  /// Of the same table and with the same end offset.
  bool operator==(const iteratorbase& other) const override;
  bool operator!=(const iteratorbase& other) const override;
  ~iteratorimp() override = default;

 private:
  std::int64_t key_ = -1;  // end offset of the current extent, -1 at the end
  mutable ExtLMDB ext_;    // copy of it; handed out for changing through a const iterator
  CMappingLMDB* table_;
};

}  // namespace Aldenta::Qnd::Morene::Zefs
