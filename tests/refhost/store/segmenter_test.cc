#include "refhost/store/segmenter.h"

#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

std::string Show(const std::vector<Segment>& pieces) {
  std::string text;
  for (const Segment& piece : pieces) {
    text += "[" + std::to_string(piece.offset) + "+" + std::to_string(piece.length) + "]";
  }
  return text;
}

TEST(Segmenter, CutsAtTheMultiplesOfTheSegmentSize) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  struct Case {
    const char* name;
    std::int64_t offset;
    std::int64_t length;
    std::string pieces;
  };
  const Segmenter segmenter(512);
  for (const Case& c : {
           Case{"nothing", 0, 0, ""},
           Case{"nothing at a boundary", 512, 0, ""},
           Case{"one byte", 0, 1, "[0+1]"},
           Case{"exactly one segment", 0, 512, "[0+512]"},
           Case{"one byte more", 0, 513, "[0+512][512+1]"},
           Case{"ends at a boundary", 100, 412, "[100+412]"},
           Case{"inside a segment", 600, 10, "[600+10]"},
           Case{"one byte on each side", 511, 2, "[511+1][512+1]"},
           Case{"a whole one in the middle", 500, 1000, "[500+12][512+512][1024+476]"},
           Case{"aligned run", 1024, 1024, "[1024+512][1536+512]"},
           Case{"the last bytes there are", kMax - 600, 600,
                "[9223372036854775207+89][9223372036854775296+511]"},
       }) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.pieces, Show(segmenter.Cut(c.offset, c.length)));
  }
}

TEST(Segmenter, TakesPowersOfTwoWithinItsLimitsOnly) {
  for (const std::uint64_t good : {512U, 1024U, 16384U, 1048576U}) {
    EXPECT_EQ("", SegmentSizeProblem(good));
    EXPECT_EQ(good, Segmenter(good).segmentSize());
  }
  for (const std::uint64_t bad :
       {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{256}, std::uint64_t{511},
        std::uint64_t{513}, std::uint64_t{12288}, std::uint64_t{2097152},
        (std::uint64_t{1} << 32) + 512, std::uint64_t{1} << 63}) {
    EXPECT_EQ("segment size " + std::to_string(bad) + " is not a power of two from 512 to 1048576",
              SegmentSizeProblem(bad));
    EXPECT_THROW(Segmenter{bad}, std::invalid_argument);
  }
}

}  // namespace
}  // namespace zefs::refhost
