#include "refhost/replay/final_state.h"

#include <climits>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

TEST(FinalStateTest, NothingIsTheDigestOfNoText) {
  FinalState state;
  state.Finish();
  EXPECT_EQ(state.runs(), 0U);
  EXPECT_EQ(state.bytes(), 0U);
  EXPECT_EQ(state.digest(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(FinalStateTest, OneRun) {  // "7 0 10 3\n"
  FinalState state;
  state.Add(7, {0, 10, 3, 0});
  state.Finish();
  EXPECT_EQ(state.runs(), 1U);
  EXPECT_EQ(state.bytes(), 10U);
  EXPECT_EQ(state.digest(), "c8b44b4b98f413d808c0b21086bd612d26e7242506030d5a950cf2b2c193f9f0");
}

TEST(FinalStateTest, PiecesOfOneWriterThatTouchAreOneRun) {
  FinalState state;
  state.Add(7, {0, 4, 3, 0});
  state.Add(7, {4, 5, 3, 4});
  state.Add(7, {5, 10, 3, 5});
  state.Finish();
  EXPECT_EQ(state.runs(), 1U);
  EXPECT_EQ(state.digest(), "c8b44b4b98f413d808c0b21086bd612d26e7242506030d5a950cf2b2c193f9f0");
}

TEST(FinalStateTest, GapsWritersAndUnitsEndARun) {
  FinalState gap;
  gap.Add(0, {0, 4, 3, 0});
  gap.Add(0, {5, 10, 3, 5});
  gap.Finish();
  EXPECT_EQ(gap.runs(), 2U);
  FinalState writer;
  writer.Add(0, {0, 4, 3, 0});
  writer.Add(0, {4, 10, 4, 0});
  writer.Finish();
  EXPECT_EQ(writer.runs(), 2U);
  FinalState unit;
  unit.Add(0, {0, 4, 3, 0});
  unit.Add(1, {4, 10, 3, 4});
  unit.Finish();
  EXPECT_EQ(unit.runs(), 2U);
}

// "0 0 3 0\n0 3 5 1\n0 5 10 0\n1 100 101 3\n"
// "18446744073709551615 9223372036854775806 9223372036854775807 4\n"
TEST(FinalStateTest, TheLargestNumbers) {
  FinalState state;
  state.Add(0, {0, 3, 0, 0});
  state.Add(0, {3, 5, 1, 0});
  state.Add(0, {5, 10, 0, 5});
  state.Add(1, {100, 101, 3, 0});
  state.Add(ULONG_MAX, {LONG_MAX - 1, LONG_MAX, 4, 0});
  state.Finish();
  EXPECT_EQ(state.runs(), 5U);
  EXPECT_EQ(state.bytes(), 12U);
  EXPECT_EQ(state.digest(), "98458f7d7b37af29a7b6f641c7efeee4c17639b0e9e561b574c52e67a7f2cf3e");
}

}  // namespace
}  // namespace zefs::refhost
