#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <boost/filesystem/path.hpp>

#include "bench/workload.h"
#include "persistent/records.h"

// What the benchmarks of the persistent table put into its databases.

namespace zefs_bench {

using Record = Aldenta::Qnd::Morene::Zefs::ExtLMDBEntry;

/// An extent as a database holds it: the record, and the key that it stands under.
struct StoredExtent {
  std::int64_t eOff = 0;
  Record record{};
};
using Extents = std::vector<StoredExtent>;

/// The record of a write.
Record RecordOf(const Write& write);

/// What stays of `record` from `start`, which lies inside its extent.
Record TailOf(const Record& record, std::int64_t start);

/// What the databases of a table hold, each in the order of its keys. The tmp database is the
/// newest, the full one the oldest.
struct Layers {
  Extents full;
  Extents small;
  Extents tmp;  ///< empty: there is no tmp database
};

/// One behind the other from offset 0 on, each stands in one of the first `databases` (1 to 3) of
/// full, small, tmp in turn.
Layers Alternating(std::size_t count, int databases);

/// `count` extents in the full database, and in each further one a tenth as many in holes between
/// them.
Layers FullBetweenOthers(std::size_t count, int databases);

/// Newer extents hide parts of older ones so that about `count` pieces are visible. Each of the
/// small database hides the back of one extent of the full database and the front of the next; with
/// three `databases` one of the tmp database lies strictly inside each of those. All ranges are
/// multiples of kPieceUnit.
Layers Overlapping(std::size_t count, int databases);

inline constexpr std::int64_t kPieceUnit = kBlock / 4;

/// `count` offsets, each at a random place in a random extent.
std::vector<std::int64_t> OffsetsIn(const Extents& extents, std::size_t count);

/// Makes the database file of a table by calls of LMDB alone, with nothing but `extents`, and
/// leaves no lock file. Nothing is synced: the file lives no longer than the measurement.
void WriteDatabase(const boost::filesystem::path& file, const Extents& extents);

/// Makes the directory of a table without extents. Its special items, all zero but for the version,
/// are there already: loading it stores nothing, and so waits for no sync.
void WriteEmptyTable(const boost::filesystem::path& directory);

/// Makes the database files of a table in `directory`, without special items.
void WriteDatabases(const boost::filesystem::path& directory, const Layers& layers);

}  // namespace zefs_bench
