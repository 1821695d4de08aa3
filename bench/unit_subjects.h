#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

#include "bench/road_table.h"
#include "bench/trace.h"

// Extent maps of several units behind the same calls. Writes wait for a flush, and reads show them.

namespace zefs_bench {

/// A persistent table for each unit, as it is made for one file. A flush commits in each that has
/// been written to.
class TablePerUnit {
 public:
  TablePerUnit(const boost::filesystem::path& directory, std::size_t units) {
    for (std::size_t unit = 0; unit < units; ++unit) {
      tables_.push_back(std::make_unique<RoadTable>(directory / std::to_string(unit)));
    }
  }

  void Insert(std::size_t unit, const Write& write) { tables_[unit]->Insert(write); }
  void Flush() {
    for (const auto& table : tables_) {
      table->Flush();
    }
  }
  /// Calls `use` with start, end and object offset and the object id of what is visible of every
  /// extent of `unit` that reaches into [start, end); it may lie beyond that.
  template <typename Use>
  void Read(std::size_t unit, std::int64_t start, std::int64_t end, Use use) {
    tables_[unit]->Read(start, end, use);
  }
  void Settle() {
    for (const auto& table : tables_) {
      table->Settle();
    }
  }

 private:
  std::vector<std::unique_ptr<RoadTable>> tables_;
};

/// One store for all units, which stand in the upper bits of its keys: a flush is one commit,
/// however many units it concerns.
template <typename Peer>
class UnitsInKeys {
 public:
  UnitsInKeys(const boost::filesystem::path& directory, std::size_t /*units*/) : peer_(directory) {}

  void Insert(std::size_t unit, Write write) {
    write.sOff += BaseOf(unit);
    write.eOff += BaseOf(unit);
    peer_.Insert(write);
  }
  void Flush() { peer_.Flush(); }
  template <typename Use>
  void Read(std::size_t unit, std::int64_t start, std::int64_t end, Use use) {
    const std::int64_t base = BaseOf(unit);
    peer_.Read(base + start, base + end,
               [&](std::int64_t sOff, std::int64_t eOff, std::int64_t objOff, const auto& id) {
                 use(sOff - base, eOff - base, objOff, id);
               });
  }
  void Settle() { peer_.Settle(); }

 private:
  static std::int64_t BaseOf(std::size_t unit) {
    return static_cast<std::int64_t>(unit) << kUnitBits;
  }

  Peer peer_;
};

}  // namespace zefs_bench
