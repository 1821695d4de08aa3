#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "refhost/tables/new_table.h"

namespace zefs::refhost {

/// The tables of a replay, one for each unit, made when a unit is first named. Not synchronised.
class UnitTables {
 public:
  using ObjectID = DataCacheNode::ObjectID;

  virtual ~UnitTables() = default;

  /// The table of a unit, valid until another unit is named.
  virtual MappingTable& Of(unsigned long unit) = 0;

  /// Maps [start, end) of a unit to an object that begins at `dcOffset` of its container.
  virtual void Insert(unsigned long unit, long start, long end, const ObjectID& object,
                      int dcOffset) = 0;

  /// Nothing more is inserted: what tables hold is brought into its last place. Tables that last
  /// are loaded afresh after this.
  virtual void EndWrites() = 0;

  /// What the tables have noticed that is wrong, in one line; empty if nothing.
  virtual std::string Problem() const = 0;

  virtual std::uint64_t flushes() const = 0;  ///< that wrote something
  virtual std::uint64_t merges() const = 0;
};

/// Makes an empty table in memory, which the caller owns.
using TableFactory = std::function<MappingTable*()>;

/// Tables in memory.
class MemoryUnitTables final : public UnitTables {
 public:
  explicit MemoryUnitTables(TableFactory makeTable) : makeTable_(std::move(makeTable)) {}

  MappingTable& Of(unsigned long unit) override {
    std::unique_ptr<MappingTable>& table = tables_[unit];
    if (table == nullptr) {
      table.reset(makeTable_());
    }
    return *table;
  }
  void Insert(unsigned long unit, long start, long end, const ObjectID& object,
              int dcOffset) override {
    Of(unit).insert(start, end, &object, /*objOff=*/0, /*objCksum=*/0, /*data=*/nullptr, dcOffset,
                    /*trace=*/nullptr);
  }
  void EndWrites() override {}
  std::string Problem() const override { return {}; }
  std::uint64_t flushes() const override { return 0; }
  std::uint64_t merges() const override { return 0; }

 private:
  TableFactory makeTable_;
  std::map<unsigned long, std::unique_ptr<MappingTable>> tables_;
};

}  // namespace zefs::refhost
