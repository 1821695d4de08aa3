#pragma once

#include <memory>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "refhost/replay/piece.h"
#include "refhost/replay/trace_parser.h"
#include "refhost/replay/unit_tables.h"

namespace zefs::refhost {

/// A table in memory.
MappingTable* MakeDefaultTable();

/// A table has an extent that no write of the trace can have told it.
class ForeignExtent : public std::runtime_error {
 public:
  explicit ForeignExtent(long start)
      : std::runtime_error("an object that was never written"), offset(start) {}

  long offset;  ///< where that extent starts
};

/// The tables of a replay, one for each unit. A write is mapped to an object of its own, from which
/// its line can be told again; writes share container ids by the hundred, as segments of data do.
class MapUnderReplay {
 public:
  explicit MapUnderReplay(std::unique_ptr<UnitTables> tables) : tables_(std::move(tables)) {}

  /// Line `line` of the trace, counted from 0, writes its range.
  void Write(const TraceRequest& request, unsigned long line);

  /// Looks the range up. What it holds, clipped to it, goes to `*pieces` in rising order. Throws
  /// ForeignExtent.
  void Read(const TraceRequest& request, std::vector<Piece>* pieces);

  /// Everything mapped in one unit, as Read.
  std::vector<Piece> ReadAll(unsigned long unit);

  /// The units that have been named, in rising order.
  std::vector<unsigned long> Units() const { return {units_.begin(), units_.end()}; }

  UnitTables& tables() { return *tables_; }

  struct Size {
    long extents = 0;
    long bytes = 0;  ///< memory of the nodes of tables in memory
    long nodes = 0;
  };
  /// Of all tables together, once each has been read by ReadAll.
  Size Measure();

 private:
  std::unique_ptr<UnitTables> tables_;
  std::set<unsigned long> units_;
  long extentsRead_ = 0;  // by ReadAll
};

}  // namespace zefs::refhost
