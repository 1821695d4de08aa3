#include "refhost/replay/piece.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

using ::testing::ElementsAre;

std::vector<Piece> Joined(const std::vector<Piece>& pieces) {
  std::vector<Piece> joined;
  for (const Piece& piece : pieces) {
    AppendPiece(&joined, piece);
  }
  return joined;
}

std::string DifferenceText(const std::vector<Piece>& found, const std::vector<Piece>& expected) {
  const auto difference = FirstDifference(found, expected);
  return difference.has_value() ? std::to_string(difference->offset) + ": " + difference->found +
                                      " / " + difference->expected
                                : "same";
}

TEST(PieceTest, TouchingBytesOfOneWriteAreJoined) {
  EXPECT_THAT(Joined({{0, 4, 7, 0}, {4, 9, 7, 4}}), ElementsAre(Piece{0, 9, 7, 0}));
}

TEST(PieceTest, WhatDoesNotGoOnIsKeptApart) {
  EXPECT_EQ(Joined({{0, 4, 7, 0}, {5, 9, 7, 5}}).size(), 2U);  // a gap
  EXPECT_EQ(Joined({{0, 4, 7, 0}, {4, 9, 8, 4}}).size(), 2U);  // another line
  EXPECT_EQ(Joined({{0, 4, 7, 0}, {4, 9, 7, 5}}).size(), 2U);  // other bytes of it
}

TEST(PieceTest, TheFirstDifferingByteIsFound) {
  const std::vector<Piece> two = {{0, 4, 0, 0}, {6, 9, 1, 2}};
  EXPECT_EQ(DifferenceText(two, two), "same");
  EXPECT_EQ(DifferenceText({}, {}), "same");
  EXPECT_EQ(DifferenceText({}, two), "0: nothing written / byte 0 of line 1");
  EXPECT_EQ(DifferenceText(two, {}), "0: byte 0 of line 1 / nothing written");
  EXPECT_EQ(DifferenceText({two[0]}, two), "6: nothing written / byte 2 of line 2");
  EXPECT_EQ(DifferenceText(two, {two[0]}), "6: byte 2 of line 2 / nothing written");
  EXPECT_EQ(DifferenceText(two, {two[0], {6, 9, 2, 2}}), "6: byte 2 of line 2 / byte 2 of line 3");
  EXPECT_EQ(DifferenceText(two, {two[0], {6, 9, 1, 0}}), "6: byte 2 of line 2 / byte 0 of line 2");
  EXPECT_EQ(DifferenceText(two, {two[0], {5, 9, 1, 2}}), "5: nothing written / byte 2 of line 2");
  EXPECT_EQ(DifferenceText({two[0], {5, 9, 1, 2}}, two), "5: byte 2 of line 2 / nothing written");
}

TEST(PieceTest, ADifferenceInLengthBeginsAtTheShorterEnd) {
  const std::vector<Piece> shorter = {{0, 4, 0, 0}, {6, 9, 1, 0}};
  const std::vector<Piece> longer = {{0, 5, 0, 0}, {6, 9, 1, 0}};
  EXPECT_EQ(DifferenceText(shorter, longer), "4: nothing written / byte 4 of line 1");
  EXPECT_EQ(DifferenceText(longer, shorter), "4: byte 4 of line 1 / nothing written");
  EXPECT_EQ(DifferenceText({{0, 5, 0, 0}}, {{0, 4, 0, 0}, {4, 5, 1, 0}}),
            "4: byte 4 of line 1 / byte 0 of line 2");
}

}  // namespace
}  // namespace zefs::refhost
