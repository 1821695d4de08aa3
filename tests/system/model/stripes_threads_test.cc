#include <gtest/gtest.h>

#include "tests/support/figures.h"
#include "tests/support/in_memory.h"
#include "tests/support/property.h"
#include "tests/system/model/faulty_tables.h"
#include "tests/system/model/shared_memory.h"
#include "tests/system/model/stripe.h"
#include "tests/system/model/stripes.h"

namespace zefs::test {
namespace {

TEST(StripesThreadsTest, ReadersSeeAStripeAsItWasAfterOneOfTheWritesOfTheirTime) {
  constexpr std::uint64_t kRuns = 6;
  const TableMakers genuine = Genuine();
  Tally tally;
  std::cout << "ZEFS_TEST_SEED=" << PropertySeed() << '\n';
  for (std::uint64_t i = 0; i < kRuns; ++i) {
    ASSERT_EQ(std::nullopt, RunStripes(PropertySeed() + i, genuine, &tally));
  }
  EXPECT_GT(tally.readings.load(), kRuns * 200);
  EXPECT_GT(tally.flushes.load(), kRuns);
  TellFigure("look-ups beside writers under the model", static_cast<long>(tally.readings.load()));
}

TEST(StripesThreadsTest, AWriteThatIsDroppedIsSeen) {
  Tally tally;
  EXPECT_NE(std::nullopt, RunStripes(1, WithFaultyStored<StoredThatDropsWrites>(), &tally));
}

TEST(StripesThreadsTest, NodesThatNeverComeBackAreSeen) {
  Tally tally;
  EXPECT_NE(std::nullopt, RunStripes(1, WithFaultyStored<StoredThatReleasesNothing>(), &tally));
}

TEST(StripeStateTest, ALookUpGivesTheWholeRunOfAWrite) {
  const Stripe stripe(1, 40, 9);
  StripeState state(&stripe);
  EXPECT_FALSE(state.LookUp(stripe.begin()).has_value());
  state.AdvanceTo(1);
  const auto first = state.LookUp(stripe.begin());
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(stripe.PieceOf(0).start, first->piece.start);
  EXPECT_EQ(stripe.EndOf(0), first->end);
  state.AdvanceTo(40);
  long offset = stripe.begin();
  for (auto seen = state.LookUp(offset); seen && offset < stripe.end();
       seen = state.LookUp(offset)) {
    EXPECT_LE(offset, seen->piece.start);
    EXPECT_EQ(stripe.PieceOf(seen->layer).objOff - stripe.PieceOf(seen->layer).start,
              seen->piece.objOff - seen->piece.start);
    offset = seen->end;
    if (offset == stripe.end()) {
      break;
    }
  }
}

}  // namespace
}  // namespace zefs::test
