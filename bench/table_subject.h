#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "bench/peers/extent_value.h"
#include "table/mapping_table.h"

namespace zefs_bench {

/// The in-memory table behind the same calls as the peers, reached as a host reaches it: on the
/// heap, through the virtual interface.
class TableSubject {
 public:
  using Table = Aldenta::Qnd::Morene::Zefs::CMappingTable;

  TableSubject() : table_(new Table(nullptr)) {}

  void Insert(const Write& write) {
    table_->insert(write.sOff, write.eOff, &write.objectID, write.objOff, write.objCksum, nullptr,
                   -1, nullptr);
  }
  void Append(const Write& write) {
    table_->append(write.sOff, write.eOff, &write.objectID, write.objOff, write.objCksum, nullptr,
                   nullptr);
  }
  void Truncate(std::int64_t size) { table_->truncate(size, nullptr); }

  /// Calls `use` with start offset and object id of the extent that holds `offset`, if there is
  /// one. Under the table's lock, as `find` takes it.
  template <typename Use>
  void Find(std::int64_t offset, Use use) const {
    UseIfHeld(table_->find(offset, nullptr), offset, use);
  }

  /// The same without a lock of the table, as the peers do it.
  template <typename Use>
  void FindUnlocked(std::int64_t offset, Use use) const {
    UseIfHeld(table_->lower_bound(offset, nullptr), offset, use);
  }

  /// Calls `use` with start, end and the extent's value fields of every extent in order.
  template <typename Use>
  void Walk(Use use) const {
    for (auto it = table_->begin(); it != end_; ++it) {
      use(it->sOff, it->eOff, *it);
    }
  }

  std::size_t size() const { return static_cast<std::size_t>(table_->size()); }
  Table& table() const { return *table_; }

 private:
  template <typename Use>
  void UseIfHeld(const Table::iterator& it, std::int64_t offset, Use use) const {
    if (it != end_ && it->sOff <= offset) {
      use(it->sOff, *it);
    }
  }

  std::unique_ptr<Table> table_;
  Table::iterator end_ = table_->end();  // behind every table state alike
};

}  // namespace zefs_bench
