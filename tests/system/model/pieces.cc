#include "tests/system/model/pieces.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <tuple>

namespace zefs::test {

bool SameObject(const ObjectID& a, const ObjectID& b) {
  return a.dcid == b.dcid && a.fp == b.fp;
}

bool SameId(const ObjectID& a, const ObjectID& b) {
  return std::tie(a.dcid, a.fp, a.attrByte, a.attrWord, a.attrFlag) ==
         std::tie(b.dcid, b.fp, b.attrByte, b.attrWord, b.attrFlag);
}

bool operator==(const Piece& a, const Piece& b) {
  return SameId(a.id, b.id) && std::tie(a.start, a.objOff, a.dcOffset, a.checksum, a.node) ==
                                   std::tie(b.start, b.objOff, b.dcOffset, b.checksum, b.node);
}

long Stored32(long objOff) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(objOff));
}

Piece From(const Piece& piece, long start) {
  Piece rest = piece;
  rest.start = start;
  rest.objOff += start - piece.start;
  return rest;
}

Piece FromStored(const Piece& piece, long start) {
  Piece rest = From(piece, start);
  rest.objOff = Stored32(rest.objOff);
  return rest;
}

Piece WithoutAttributes(Piece piece) {
  piece.id.attrByte = 0;
  piece.id.attrFlag = 0;
  return piece;
}

bool Overlaps(const Layer& layer) {
  long last = 0;
  for (const auto& [end, piece] : layer) {
    if (piece.start < last) {
      return true;
    }
    last = end;
  }
  return false;
}

std::optional<Seen> LookUp(const Layers& layers, long offset) {
  long first = std::numeric_limits<long>::max();
  std::size_t owner = layers.size();
  for (std::size_t i = 0; i < layers.size(); ++i) {
    const auto found = layers[i]->upper_bound(offset);
    if (found != layers[i]->end() && std::max(found->second.start, offset) < first) {
      first = std::max(found->second.start, offset);
      owner = i;
    }
  }
  if (owner == layers.size()) {
    return std::nullopt;
  }
  const auto found = layers[owner]->upper_bound(offset);
  long start = found->second.start;
  long end = found->first;
  for (std::size_t i = 0; i < owner; ++i) {  // what is newer hides both sides
    const auto next = layers[i]->upper_bound(first);
    if (next != layers[i]->end()) {
      end = std::min(end, next->second.start);
    }
    if (next != layers[i]->begin()) {
      start = std::max(start, std::prev(next)->first);
    }
  }
  return Seen{end, From(found->second, start), owner};
}

std::vector<Seen> AllOf(const Layers& layers) {
  std::vector<Seen> all;
  for (auto seen = LookUp(layers, 0); seen; seen = LookUp(layers, all.back().end)) {
    all.push_back(*seen);
  }
  return all;
}

}  // namespace zefs::test
