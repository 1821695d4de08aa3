#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "refhost/cache/data_cache.h"
#include "refhost/cache/node_ledger.h"
#include "refhost/replay/unit_tables.h"
#include "refhost/tables/stored_table.h"

namespace zefs::refhost {

/// Persistent tables in a directory. Each write has a node that is ready at once and has no bytes;
/// flushes are asked for on the way and merges follow from them. A few tables are open at a time:
/// of many units, tables are closed and loaded again all along.
class StoredUnitTables final : public UnitTables {
 public:
  /// `directory` exists and is empty.
  explicit StoredUnitTables(std::string directory);

  MappingTable& Of(unsigned long unit) override { return Opened(unit).table->table(); }
  void Insert(unsigned long unit, long start, long end, const ObjectID& object,
              int dcOffset) override;
  void EndWrites() override;
  std::string Problem() const override { return cache_.counts().Problem(); }
  std::uint64_t flushes() const override { return cache_.flushes(); }
  std::uint64_t merges() const override { return merges_; }

 private:
  struct Unit {
    explicit Unit(NodeCounts* counts) : nodes(counts) {}

    NodeLedger nodes;
    std::unique_ptr<StoredTable> table;
    std::size_t sinceFlush = 0;
    std::uint64_t lastUse = 0;
  };

  Unit& Opened(unsigned long unit);
  void CloseOldest();
  void Close(Unit* unit);
  static void Flush(Unit* unit, bool force);

  std::string directory_;
  DataCache cache_;
  std::map<unsigned long, std::unique_ptr<Unit>> open_;
  std::uint64_t uses_ = 0;
  std::atomic<std::uint64_t> merges_{0};
};

}  // namespace zefs::refhost
