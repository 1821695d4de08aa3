#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/data_cache.h"

// What the benchmarks replay. Everything is drawn from fixed seeds, so that each run, and each map
// in a run, sees the same writes.

namespace zefs_bench {

using ObjectID = zefs::DataCacheNode::ObjectID;

/// One write of a file: the logical range [sOff, eOff) and the object behind it. The object id
/// stands inside, as a host that has just stored the data holds it: reading it costs no map a cache
/// miss.
struct Write {
  std::int64_t sOff = 0;
  std::int64_t eOff = 0;
  std::int64_t objOff = 0;    ///< offset of the range inside the object, bytes
  std::int64_t objCksum = 0;  ///< differs from write to write
  ObjectID objectID;
};

/// Whether the objects lie in data containers. Those that do not are referenced by nothing: the
/// table keeps no counts for them, which is how it is measured without.
enum class Containers { kNone, kReal };

inline constexpr std::int64_t kBlock = 4096;
inline constexpr std::int64_t kRandomRange = std::int64_t{64} << 30;
inline constexpr std::uint64_t kObjects = 500000;

/// `count` overwrites of a range of kRandomRange bytes: sizes uniform from 4 to 128 KiB in steps of
/// 4 KiB, offsets uniform and 4 KiB aligned, each of an object drawn from kObjects, of which 256
/// share a container. Sequences of different length with one seed begin alike. `range` and
/// `objects` can be made small for a test that wants collisions.
std::vector<Write> RandomWrites(std::size_t count, Containers containers,
                                std::int64_t range = kRandomRange,
                                std::uint64_t objects = kObjects);

/// `count` writes of the same sizes and objects, one behind the other from offset 0.
std::vector<Write> AppendWrites(std::size_t count, Containers containers);

/// Gives each write, whatever its range, an object and a place in it as those of RandomWrites have.
void DrawObjects(std::vector<Write>* writes);

/// Brings writes into a random order, the same for all sequences of one length.
void Shuffle(std::vector<Write>* writes);

/// `count` offsets, uniform over [0, range).
std::vector<std::int64_t> UniformOffsets(std::size_t count, std::int64_t range);

}  // namespace zefs_bench
