#include "refhost/replay/interval_model.h"

#include <climits>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::vector<Piece> All(const IntervalModel& model) {
  return model.Read(0, LONG_MAX);
}

TEST(IntervalModelTest, NothingIsMappedAtFirst) {
  EXPECT_THAT(All(IntervalModel()), IsEmpty());
}

TEST(IntervalModelTest, AWriteInsideAnotherSplitsIt) {
  IntervalModel model;
  model.Write(10, 20, 0);
  model.Write(13, 15, 1);
  EXPECT_THAT(All(model),
              ElementsAre(Piece{10, 13, 0, 0}, Piece{13, 15, 1, 0}, Piece{15, 20, 0, 5}));
}

TEST(IntervalModelTest, HeadTailExactAndCover) {
  IntervalModel model;
  model.Write(10, 20, 0);
  model.Write(5, 12, 1);   // takes the head
  model.Write(18, 25, 2);  // takes the tail
  EXPECT_THAT(All(model),
              ElementsAre(Piece{5, 12, 1, 0}, Piece{12, 18, 0, 2}, Piece{18, 25, 2, 0}));
  model.Write(12, 18, 3);  // exactly
  EXPECT_THAT(All(model),
              ElementsAre(Piece{5, 12, 1, 0}, Piece{12, 18, 3, 0}, Piece{18, 25, 2, 0}));
  model.Write(0, 100, 4);  // all
  EXPECT_THAT(All(model), ElementsAre(Piece{0, 100, 4, 0}));
}

TEST(IntervalModelTest, ReadsAreClipped) {
  IntervalModel model;
  model.Write(10, 20, 0);
  model.Write(20, 30, 1);
  EXPECT_THAT(model.Read(12, 22), ElementsAre(Piece{12, 20, 0, 2}, Piece{20, 22, 1, 0}));
  EXPECT_THAT(model.Read(0, 10), IsEmpty());
  EXPECT_THAT(model.Read(30, 40), IsEmpty());
  EXPECT_THAT(model.Read(19, 20), ElementsAre(Piece{19, 20, 0, 9}));
  EXPECT_THAT(model.Read(20, 21), ElementsAre(Piece{20, 21, 1, 0}));
}

TEST(IntervalModelTest, AgreesWithPaintedBytes) {
  std::mt19937 random(20);
  constexpr long kBytes = 200;
  IntervalModel model;
  std::vector<long> painted(kBytes, -1);  // line of each byte
  std::vector<long> starts;
  for (unsigned long line = 0; line < 3000; ++line) {
    const long start = static_cast<long>(random() % kBytes);
    const long end = start + 1 + static_cast<long>(random() % 30) % (kBytes - start);
    model.Write(start, end, line);
    starts.push_back(start);
    for (long byte = start; byte < end; ++byte) {
      painted[static_cast<std::size_t>(byte)] = static_cast<long>(line);
    }
    std::vector<Piece> expected;
    const long from = static_cast<long>(random() % kBytes);
    for (long byte = from; byte < kBytes; ++byte) {
      const long writer = painted[static_cast<std::size_t>(byte)];
      if (writer != -1) {
        AppendPiece(&expected, {byte, byte + 1, static_cast<unsigned long>(writer),
                                byte - starts[static_cast<std::size_t>(writer)]});
      }
    }
    ASSERT_EQ(model.Read(from, kBytes), expected) << "after line " << line;
  }
}

}  // namespace
}  // namespace zefs::refhost
