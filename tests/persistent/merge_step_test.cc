// The choice at each step of a merge, as a table of values.

#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "persistent/merge_walk.h"

namespace Aldenta::Qnd::Morene::Zefs {
namespace {

constexpr MergeRecord kNone{};

MergeRecord At(std::int64_t start, std::int64_t end) {
  return {true, start, end};
}

/// A step in words: what is written, the end of all that is written, and which cursors move.
std::string Shown(const MergeStep& step) {
  std::string text;
  switch (step.source) {
    case MergeStep::kNothing:
      text = "nothing";
      break;
    case MergeStep::kFull:
      text = "full [" + std::to_string(step.start) + ", " + std::to_string(step.end) + ")";
      break;
    case MergeStep::kIncremental:
      text = "incremental [" + std::to_string(step.start) + ", " + std::to_string(step.end) + ")";
      break;
  }
  text += " to " + std::to_string(step.lastEnd);
  text += step.advanceFull ? ", full on" : "";
  text += step.advanceIncremental ? ", incremental on" : "";
  return text;
}

struct Choice {
  const char* name;
  MergeRecord full;
  MergeRecord incremental;
  std::int64_t lastEnd;
  const char* step;
};

void PrintTo(const Choice& choice, std::ostream* out) {
  *out << choice.name;
}

class MergeStepTest : public testing::TestWithParam<Choice> {};

TEST_P(MergeStepTest, IsTheOneOfTheTable) {
  const Choice& choice = GetParam();
  EXPECT_EQ(choice.step, Shown(NextMergeStep(choice.full, choice.incremental, choice.lastEnd)));
}

std::string NameOf(const testing::TestParamInfo<Choice>& info) {
  return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(
    FullComesFirst, MergeStepTest,
    testing::ValuesIn(std::vector<Choice>{
        {"WholeWithAHoleBehind", At(0, 10), At(20, 30), 0, "full [0, 10) to 10, full on"},
        {"WholeEndingWhereTheOtherStarts", At(0, 20), At(20, 30), 0, "full [0, 20) to 20, full on"},
        {"WithoutItsBack", At(0, 21), At(20, 30), 0, "full [0, 20) to 20"},
        {"WithoutItsFront", At(0, 20), At(25, 30), 5, "full [5, 20) to 20, full on"},
        {"WithoutFrontAndBack", At(0, 40), At(20, 30), 5, "full [5, 20) to 20"},
        {"StartingAtTheLastEnd", At(5, 20), At(25, 30), 5, "full [5, 20) to 20, full on"},
        {"OneByteBehindTheLastEnd", At(0, 6), At(25, 30), 5, "full [5, 6) to 6, full on"},
        {"EndingAtTheLastEndIsPassedOver", At(0, 5), At(25, 30), 5, "nothing to 5, full on"},
        {"EndingBeforeTheLastEndIsPassedOver", At(0, 4), At(25, 30), 5, "nothing to 5, full on"},
        {"OneByteBeforeTheOther", At(19, 40), At(20, 30), 0, "full [19, 20) to 20"},
        {"OverlappingIncrementalRecordsGiveAFallingEnd", At(0, 40), At(3, 30), 10,
         "full [10, 3) to 3"}}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    IncrementalComesNext, MergeStepTest,
    testing::ValuesIn(std::vector<Choice>{
        {"BeforeTheFullOne", At(40, 50), At(0, 10), 0, "incremental [0, 10) to 10, incremental on"},
        {"WithTheSameStart", At(0, 50), At(0, 10), 0, "incremental [0, 10) to 10, incremental on"},
        {"StartingAtTheLastEndThoughTheFullOneStartsEarlier", At(0, 50), At(20, 30), 20,
         "incremental [20, 30) to 30, incremental on"},
        {"CoveringTheFullOne", At(0, 9), At(0, 10), 0,
         "incremental [0, 10) to 10, full on, incremental on"},
        {"WithTheSameEndTheFullOneStays", At(5, 10), At(0, 10), 0,
         "incremental [0, 10) to 10, incremental on"},
        {"WithTheSameRangeTheFullOneStays", At(0, 10), At(0, 10), 0,
         "incremental [0, 10) to 10, incremental on"},
        {"EndingOneByteBeforeTheFullOne", At(5, 11), At(0, 10), 0,
         "incremental [0, 10) to 10, incremental on"},
        {"BehindTheLastEndWithTheSameStart", At(20, 30), At(20, 30), 5,
         "incremental [20, 30) to 30, incremental on"}}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(
    OnlyFullIsLeft, MergeStepTest,
    testing::ValuesIn(std::vector<Choice>{
        {"Whole", At(10, 20), kNone, 0, "full [10, 20) to 20, full on"},
        {"WholeFromTheLastEnd", At(10, 20), kNone, 10, "full [10, 20) to 20, full on"},
        {"WithoutItsFront", At(10, 20), kNone, 11, "full [11, 20) to 20, full on"},
        {"ItsLastByte", At(10, 20), kNone, 19, "full [19, 20) to 20, full on"},
        {"EndingAtTheLastEndIsPassedOver", At(10, 20), kNone, 20, "nothing to 20, full on"},
        {"EndingBeforeTheLastEndIsPassedOver", At(10, 20), kNone, 21, "nothing to 21, full on"}}),
    NameOf);

INSTANTIATE_TEST_SUITE_P(OnlyIncrementalIsLeft, MergeStepTest,
                         testing::ValuesIn(std::vector<Choice>{
                             {"Whole", kNone, At(10, 20), 0,
                              "incremental [10, 20) to 20, incremental on"},
                             {"WholeFromTheLastEnd", kNone, At(10, 20), 10,
                              "incremental [10, 20) to 20, incremental on"}}),
                         NameOf);

}  // namespace
}  // namespace Aldenta::Qnd::Morene::Zefs
