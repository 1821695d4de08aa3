#include "refhost/replay/piece.h"

#include <algorithm>

namespace zefs::refhost {

namespace {

/// What the pieces from `piece` on, none of which ends at or below `offset`, say of that byte.
std::string Describe(std::vector<Piece>::const_iterator piece,
                     std::vector<Piece>::const_iterator end, long offset) {
  if (piece == end || piece->start > offset) {
    return "nothing written";
  }
  return "byte " + std::to_string(piece->objOff + (offset - piece->start)) + " of line " +
         std::to_string(piece->line + 1);
}

}  // namespace

void AppendPiece(std::vector<Piece>* pieces, const Piece& piece) {
  if (!pieces->empty()) {
    Piece& last = pieces->back();
    if (last.end == piece.start && last.line == piece.line &&
        last.objOff + (last.end - last.start) == piece.objOff) {
      last.end = piece.end;
      return;
    }
  }
  pieces->push_back(piece);
}

std::optional<PieceDifference> FirstDifference(const std::vector<Piece>& found,
                                               const std::vector<Piece>& expected) {
  auto [a, b] = std::mismatch(found.begin(), found.end(), expected.begin(), expected.end());
  if (a == found.end() && b == expected.end()) {
    return std::nullopt;
  }
  long offset = 0;
  if (a == found.end() || b == expected.end()) {
    offset = a == found.end() ? b->start : a->start;
  } else if (a->start != b->start || a->line != b->line || a->objOff != b->objOff) {
    offset = std::min(a->start, b->start);
  } else {  // the shorter one is passed: the difference begins where it ends
    offset = std::min(a->end, b->end);
    a += a->end == offset ? 1 : 0;
    b += b->end == offset ? 1 : 0;
  }
  return PieceDifference{offset, Describe(a, found.end(), offset),
                         Describe(b, expected.end(), offset)};
}

}  // namespace zefs::refhost
