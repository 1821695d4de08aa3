#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "table/extent.h"

// Ranges of a file and what shows there, byte by byte: a range of equal bytes is one piece.

namespace zefs::test {

using ObjectID = Aldenta::Qnd::Morene::Zefs::ObjectID;

/// What a range shows; its end is its key in a layer.
struct Piece {
  long start = 0;
  long objOff = 0;  ///< of the byte at `start`
  ObjectID id;
  std::int32_t dcOffset = -1;
  long checksum = 0;
  int node = 0;  ///< number of the node behind it; 0: none
};

/// Pieces by their end. Disjoint, unless a journal was replayed into them.
using Layer = std::map<long, Piece>;

bool operator==(const Piece& a, const Piece& b);
inline bool operator!=(const Piece& a, const Piece& b) {
  return !(a == b);
}
bool SameObject(const ObjectID& a, const ObjectID& b);  ///< container and fingerprint
bool SameId(const ObjectID& a, const ObjectID& b);      ///< every field

/// The byte at `offset` of the object, as databases keep it: in 32 bits.
long Stored32(long objOff);

/// What stays of `piece` from `start` on, which lies in it.
Piece From(const Piece& piece, long start);
/// The same of a piece that databases keep.
Piece FromStored(const Piece& piece, long start);
/// A cut of the cache and of a flush: two attributes stay behind.
Piece WithoutAttributes(Piece piece);

/// Whether two pieces overlap.
bool Overlaps(const Layer& layer);

/// Hides [start, end) of what `layer` shows; each piece that sticks out goes through `keep`.
template <typename Keep>
void Cut(Layer* layer, long start, long end, const Keep& keep) {
  auto at = layer->upper_bound(start);
  while (at != layer->end() && at->second.start < end) {
    const long pieceEnd = at->first;
    const Piece piece = at->second;
    at = layer->erase(at);
    if (pieceEnd > end) {
      at = layer->emplace_hint(at, pieceEnd, keep(piece, end));
    }
    if (piece.start < start) {
      layer->emplace(start, keep(piece, piece.start));
    }
    if (pieceEnd > end) {
      return;
    }
  }
}

/// One extent as a table shows it.
struct Seen {
  long end = 0;
  Piece piece;
  std::size_t layer = 0;  ///< of those asked
};

/// The layers of a table, newest first.
using Layers = std::vector<const Layer*>;

/// The first byte from `offset` on that shows, with all around it that shows the same piece.
std::optional<Seen> LookUp(const Layers& layers, long offset);

/// All that shows, by rising offset.
std::vector<Seen> AllOf(const Layers& layers);

}  // namespace zefs::test
