#include "refhost/prefetch/sequential_reads.h"

#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

constexpr std::int64_t kWindow = 100;
constexpr std::int64_t kSize = 1000;

class SequentialReadsTest : public ::testing::Test {
 protected:
  /// What is to be prepared, as "start-end"; empty if nothing.
  std::string Read(std::int64_t start, std::int64_t end, std::int64_t size = kSize) {
    const auto range = reads.Note({start, end}, size);
    return range.has_value() ? std::to_string(range->start) + "-" + std::to_string(range->end) : "";
  }

  SequentialReads reads{kWindow};
};

TEST_F(SequentialReadsTest, SecondAdjacentReadIsPreparedWithTheWindowBehindIt) {
  EXPECT_EQ("", Read(0, 10));
  EXPECT_EQ("10-120", Read(10, 20));
}

TEST_F(SequentialReadsTest, WindowIsFilledUpWhenHalfOfItIsRead) {
  Read(0, 10);
  Read(10, 20);
  EXPECT_EQ("", Read(20, 70)) << "half of the window lies ahead";
  EXPECT_EQ("120-171", Read(70, 71));
  EXPECT_EQ("", Read(71, 121));
  EXPECT_EQ("171-222", Read(121, 122));
}

TEST_F(SequentialReadsTest, ReadThatOvertakesTheWindowIsPreparedFromItsStart) {
  Read(0, 10);
  Read(10, 20);
  EXPECT_EQ("120-600", Read(20, 500)) << "what is prepared is not prepared again";
  Read(500, 600);
  EXPECT_EQ("700-900", Read(600, 800));
}

TEST_F(SequentialReadsTest, NothingIsPreparedBehindTheEndOfTheFile) {
  Read(900, 950);
  EXPECT_EQ("950-1000", Read(950, 960));
  EXPECT_EQ("", Read(960, 1000));
  EXPECT_EQ("1000-1110", Read(1000, 1010, 2000)) << "it has grown since";
}

TEST_F(SequentialReadsTest, NothingIsPreparedBehindTheLastOffsetThatThereIs) {
  constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max();
  Read(kLast - 20, kLast - 10, kLast);
  EXPECT_EQ(std::to_string(kLast - 10) + "-" + std::to_string(kLast),
            Read(kLast - 10, kLast - 5, kLast));
}

TEST_F(SequentialReadsTest, ReadsThatAreNotAdjacentAreNotPrepared) {
  EXPECT_EQ("", Read(0, 10));
  EXPECT_EQ("", Read(11, 20));
  EXPECT_EQ("", Read(9, 11));
  EXPECT_EQ("", Read(500, 510));
  EXPECT_EQ("", Read(500, 510)) << "the same once more";
}

TEST_F(SequentialReadsTest, FourReadersOfAFileAreKeptApart) {
  for (const std::int64_t start : {0, 200, 400, 600}) {
    EXPECT_EQ("", Read(start, start + 10));
  }
  EXPECT_EQ("10-120", Read(10, 20));
  EXPECT_EQ("210-320", Read(210, 220));
  EXPECT_EQ("410-520", Read(410, 420));
  EXPECT_EQ("610-720", Read(610, 620));
}

TEST_F(SequentialReadsTest, ReaderThatReadLongestAgoIsForgotten) {
  for (const std::int64_t start : {0, 200, 400, 600, 800}) {
    EXPECT_EQ("", Read(start, start + 10));
  }
  EXPECT_EQ("", Read(10, 20)) << "forgotten, and now in place of the one at 200";
  EXPECT_EQ("", Read(210, 220));
  EXPECT_EQ("610-720", Read(610, 620));
  EXPECT_EQ("20-130", Read(20, 30));
}

TEST(SequentialReads, WithoutAWindowNothingIsPrepared) {
  SequentialReads reads(0);
  EXPECT_FALSE(reads.Note({0, 10}, kSize).has_value());
  EXPECT_FALSE(reads.Note({10, 20}, kSize).has_value());
}

}  // namespace
}  // namespace zefs::refhost
