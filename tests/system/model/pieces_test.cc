#include "tests/system/model/pieces.h"

#include <limits>
#include <ostream>
#include <tuple>

#include <gmock/gmock.h>

#include "tests/support/oid.h"

namespace zefs::test {
namespace {

using testing::ElementsAre;

/// A piece of the object with this tag, whose bytes are counted from the start of the file.
Piece PieceAt(long start, unsigned int tag) {
  Piece piece;
  piece.start = start;
  piece.objOff = start;
  piece.id = Oid(tag, tag);
  return piece;
}

void Put(Layer* layer, long start, long end, unsigned int tag) {
  Cut(layer, start, end, From);
  (*layer)[end] = PieceAt(start, tag);
}

using Range = std::tuple<long, long, std::uint64_t>;

std::vector<Range> Ranges(const std::vector<Seen>& all) {
  std::vector<Range> ranges;
  for (const Seen& seen : all) {
    EXPECT_EQ(seen.piece.start, seen.piece.objOff);  // bytes keep their place in the object
    ranges.emplace_back(seen.piece.start, seen.end, seen.piece.id.dcid);
  }
  return ranges;
}

Range At(const Layers& layers, long offset) {
  const auto seen = LookUp(layers, offset);
  return seen ? Range{seen->piece.start, seen->end, seen->piece.id.dcid} : Range{-1, -1, 0};
}

TEST(PiecesTest, AWriteInsideAPieceLeavesBothSides) {
  Layer layer;
  Put(&layer, 0, 100, 1);
  Put(&layer, 40, 60, 2);
  EXPECT_THAT(Ranges(AllOf({&layer})),
              ElementsAre(Range{0, 40, 1}, Range{40, 60, 2}, Range{60, 100, 1}));
}

TEST(PiecesTest, AWriteOverSeveralPiecesCutsTheOuterTwo) {
  Layer layer;
  Put(&layer, 0, 10, 1);
  Put(&layer, 10, 20, 2);
  Put(&layer, 20, 30, 3);
  Put(&layer, 5, 25, 4);
  EXPECT_THAT(Ranges(AllOf({&layer})),
              ElementsAre(Range{0, 5, 1}, Range{5, 25, 4}, Range{25, 30, 3}));
}

TEST(PiecesTest, PiecesThatTouchAreLeftAlone) {
  Layer layer;
  Put(&layer, 0, 10, 1);
  Put(&layer, 20, 30, 3);
  Put(&layer, 10, 20, 2);
  EXPECT_EQ(3U, layer.size());
}

TEST(PiecesTest, WhatIsOlderShowsAsFarAsNothingNewerHidesIt) {
  Layer older;
  Layer newer;
  Put(&older, 0, 100, 1);
  Put(&newer, 40, 60, 2);
  const Layers both = {&newer, &older};
  EXPECT_EQ((Range{0, 40, 1}), At(both, 10));
  EXPECT_EQ((Range{40, 60, 2}), At(both, 50));
  EXPECT_EQ((Range{60, 100, 1}), At(both, 60));
  EXPECT_EQ((Range{-1, -1, 0}), At(both, 100));
}

TEST(PiecesTest, AHoleShowsWhatComesBehindIt) {
  Layer older;
  Layer newer;
  Put(&older, 60, 100, 1);
  Put(&newer, 70, 80, 2);
  const Layers both = {&newer, &older};
  EXPECT_EQ((Range{60, 70, 1}), At(both, 5));
  Put(&newer, 55, 65, 3);
  EXPECT_EQ((Range{55, 65, 3}), At(both, 5));
  EXPECT_EQ((Range{65, 70, 1}), At(both, 65));
}

TEST(PiecesTest, OfSeveralThatBeginTogetherTheNewestShows) {
  Layer oldest;
  Layer middle;
  Layer newest;
  Put(&oldest, 10, 50, 1);
  Put(&middle, 10, 40, 2);
  Put(&newest, 10, 20, 3);
  EXPECT_THAT(Ranges(AllOf({&newest, &middle, &oldest})),
              ElementsAre(Range{10, 20, 3}, Range{20, 40, 2}, Range{40, 50, 1}));
}

TEST(PiecesTest, NothingEndsBehindTheLargestOffset) {
  constexpr long kLargest = std::numeric_limits<long>::max();
  Layer layer;
  Put(&layer, kLargest - 10, kLargest, 1);
  EXPECT_EQ((Range{-1, -1, 0}), At({&layer}, kLargest));
  EXPECT_EQ((Range{kLargest - 10, kLargest, 1}), At({&layer}, kLargest - 1));
}

TEST(PiecesTest, ALayerOverlapsOnlyIfTwoPiecesShareAByte) {
  Layer layer;
  layer[10] = PieceAt(0, 1);
  layer[20] = PieceAt(10, 2);
  EXPECT_FALSE(Overlaps(layer));
  layer[20] = PieceAt(9, 2);
  EXPECT_TRUE(Overlaps(layer));
}

TEST(PiecesTest, ADatabaseKeepsTheLowHalfOfAnObjectOffset) {
  EXPECT_EQ(5, Stored32(5));
  EXPECT_EQ(-(1L << 31), Stored32(1L << 31));
  Piece piece = PieceAt(0, 1);
  piece.objOff = (1L << 31) - 4;
  EXPECT_EQ(-(1L << 31), FromStored(piece, 4).objOff);
  EXPECT_EQ(1L << 31, From(piece, 4).objOff);
}

}  // namespace
}  // namespace zefs::test
