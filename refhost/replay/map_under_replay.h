#pragma once

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "refhost/replay/piece.h"
#include "refhost/replay/trace_parser.h"
#include "table/mapping_table.h"

namespace zefs::refhost {

using MappingTable = Aldenta::Qnd::Morene::Zefs::CMappingTable;

/// Makes an empty table, which the caller owns.
using TableFactory = std::function<MappingTable*()>;

/// What CreateMappingTable makes.
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
  explicit MapUnderReplay(TableFactory makeTable) : makeTable_(std::move(makeTable)) {}

  /// Line `line` of the trace, counted from 0, writes its range.
  void Write(const TraceRequest& request, unsigned long line);

  /// Looks the range up. What it holds, clipped to it, goes to `*pieces` in rising order. Throws
  /// ForeignExtent.
  void Read(const TraceRequest& request, std::vector<Piece>* pieces);

  /// Everything mapped in one unit, as Read.
  std::vector<Piece> ReadAll(unsigned long unit);

  /// The units that have been named, in rising order.
  std::vector<unsigned long> Units() const;

  struct Size {
    long extents = 0;
    long bytes = 0;  ///< memory of the tables' nodes
    long nodes = 0;
  };
  /// Of all tables together.
  Size Measure();

 private:
  MappingTable& TableOf(unsigned long unit);

  TableFactory makeTable_;
  std::map<unsigned long, std::unique_ptr<MappingTable>> tables_;
};

}  // namespace zefs::refhost
