// What stays of a record when its extent is cut, as a function of values.

#include <climits>
#include <cstring>

#include <gtest/gtest.h>

#include "persistent/records.h"
#include "tests/support/oid.h"

namespace {

using Aldenta::Qnd::Morene::Zefs::ExtLMDBEntry;
using Aldenta::Qnd::Morene::Zefs::PieceFrom;
using zefs::test::Oid;

ExtLMDBEntry EntryOf(long start, std::int32_t objectOffset) {
  const auto oid = Oid(70, 5);
  ExtLMDBEntry entry{};
  entry.FillExtLMDBEntry(start, &oid, objectOffset, 33);
  return entry;
}

TEST(PieceFromTest, StartAndObjectOffsetMoveByTheSameDistanceInThirtyTwoBits) {
  const struct {
    long start;
    std::int32_t objectOffset;
    long cutAt;
    std::int32_t expected;
  } kCases[] = {
      {0, 0, 0, 0},
      {100, 7, 100, 7},
      {100, 7, 101, 8},
      {0, 7, 4096, 4103},
      {0, -10, 4, -6},
      {0, -10, 10, 0},
      {0, INT32_MAX, 1, INT32_MIN},
      {0, INT32_MAX - 2, 5, INT32_MIN + 2},
      {0, INT32_MAX, 0x80000000, -1},
      {0, INT32_MIN, 0x80000000, 0},
      {0, -1, 1, 0},
      {0, 5, 0xffffffff, 4},
      {0, 5, 0x100000000, 5},
      {0, 5, 0x100000001, 6},
      {0, 5, LONG_MAX, 4},
      {LONG_MAX - 1, 5, LONG_MAX, 6},
      {LONG_MIN, 5, LONG_MAX, 4},
      {LONG_MIN, 5, 0, 5},
  };
  for (const auto& cut : kCases) {
    const ExtLMDBEntry piece = PieceFrom(EntryOf(cut.start, cut.objectOffset), cut.cutAt);
    EXPECT_EQ(cut.cutAt, piece.startOffset);
    EXPECT_EQ(cut.expected, piece.objectOffset)
        << cut.start << ' ' << cut.objectOffset << ' ' << cut.cutAt;
  }
}

TEST(PieceFromTest, OfTheObjectIdTheByteAndTheFlagAreDropped) {
  for (const long cutAt : {100L, 150L}) {
    const ExtLMDBEntry whole = EntryOf(100, 7);
    ASSERT_NE(0, whole.attrByte);
    ASSERT_NE(0, whole.attrFlag);
    const ExtLMDBEntry piece = PieceFrom(whole, cutAt);
    EXPECT_EQ(0, piece.attrByte);
    EXPECT_EQ(0, piece.attrFlag);
    EXPECT_EQ(whole.attrWord, piece.attrWord);
    EXPECT_EQ(whole.dcid, piece.dcid);
    EXPECT_EQ(whole.fp, piece.fp);
    EXPECT_EQ(whole.dcOffset, piece.dcOffset);
  }
}

TEST(PieceFromTest, TheGapsStayZeroAndTheRecordAsItWas) {
  const ExtLMDBEntry whole = EntryOf(100, 7);
  const ExtLMDBEntry before = whole;
  const ExtLMDBEntry piece = PieceFrom(whole, 120);
  EXPECT_EQ(0, std::memcmp(&before, &whole, sizeof(whole)));
  for (const auto gap : piece.gap1) {
    EXPECT_EQ(0, gap);
  }
  for (const auto gap : piece.gap2) {
    EXPECT_EQ(0, gap);
  }
}

}  // namespace
