#pragma once

#include <optional>
#include <string>
#include <vector>

namespace zefs::refhost {

/// A run of bytes [start, end) that one line of the trace wrote last.
struct Piece {
  long start = 0;
  long end = 0;
  unsigned long line = 0;  ///< the line, counted from 0
  long objOff = 0;         ///< offset of `start` inside what that line wrote
};

inline bool operator==(const Piece& a, const Piece& b) {
  return a.start == b.start && a.end == b.end && a.line == b.line && a.objOff == b.objOff;
}

/// Appends `piece`, which starts at or behind the end of the last one, or lengthens the last one if
/// it goes on with the same bytes of the same line.
void AppendPiece(std::vector<Piece>* pieces, const Piece& piece);

/// The first byte at which two descriptions of the same range part.
struct PieceDifference {
  long offset = 0;
  std::string found;  ///< what each of them says of that byte, in words
  std::string expected;
};

/// Compares pieces in rising order, joined where they can be.
std::optional<PieceDifference> FirstDifference(const std::vector<Piece>& found,
                                               const std::vector<Piece>& expected);

}  // namespace zefs::refhost
