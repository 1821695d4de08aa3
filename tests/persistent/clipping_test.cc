#include "persistent/clipping.h"

#include <climits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/zefs_log.h"
#include "refhost/host/log_recorder.h"
#include "tests/support/oid.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using zefs::refhost::LogRecord;
using zefs::refhost::LogRecorder;
using zefs::test::Oid;

using Clip = void (*)(Ext*, long);

struct Case {
  const char* name;
  Clip clip;
  long sOff, eOff, objOff;  // of the older extent
  long newer;               // where the newer one starts or ends
  long sOffThen, eOffThen, objOffThen;
  std::string line;  // in the log, if anything is hidden
};

void PrintTo(const Case& clipCase, std::ostream* out) {
  *out << clipCase.name;
}

class ClippingTest : public testing::TestWithParam<Case> {};

TEST_P(ClippingTest, HidesWhatIsNewerAndNothingElse) {
  const Case& given = GetParam();
  int node = 0;
  const ObjectID oid = Oid(70, 5);
  Ext older(given.sOff, given.eOff, &oid, given.objOff, 9, &node);
  older.dcOffset = 11;
  LogRecorder log;
  given.clip(&older, given.newer);
  EXPECT_EQ(given.sOffThen, older.sOff);
  EXPECT_EQ(given.eOffThen, older.eOff);
  EXPECT_EQ(given.objOffThen, older.objOff);
  if (given.line.empty()) {
    EXPECT_THAT(log.Take(), IsEmpty());
  } else {
    EXPECT_THAT(log.Take(), ElementsAre(LogRecord{zefs::kLogTrace, given.line}));
  }
  EXPECT_EQ(70U, older.objectID.dcid) << "what the extent says of its object stays";
  EXPECT_EQ(oid.fp, older.objectID.fp);
  EXPECT_EQ(9, older.objCksum);
  EXPECT_EQ(&node, older.data);
  EXPECT_EQ(11, older.dcOffset);
}

INSTANTIATE_TEST_SUITE_P(
    Back, ClippingTest,
    testing::Values(Case{"NewerBehind", HideBack, 10, 20, 5, 21, 10, 20, 5, ""},
                    Case{"NewerTouches", HideBack, 10, 20, 5, 20, 10, 20, 5, ""},
                    Case{"LastByte", HideBack, 10, 20, 5, 19, 10, 19, 5, "modify end 20 to 19"},
                    Case{"AllButOneByte", HideBack, 10, 20, 5, 11, 10, 11, 5,
                         "modify end 20 to 11"},
                    Case{"LargestEnd", HideBack, 0, LONG_MAX, 0, 1L << 40, 0, 1L << 40, 0,
                         "modify end 9223372036854775807 to 1099511627776"}),
    [](const auto& given) { return given.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Front, ClippingTest,
    testing::Values(
        Case{"NewerBefore", HideFront, 10, 20, 5, 9, 10, 20, 5, ""},
        Case{"NewerTouches", HideFront, 10, 20, 5, 10, 10, 20, 5, ""},
        Case{"FirstByte", HideFront, 10, 20, 5, 11, 11, 20, 6,
             "modify start 10 to 11, add objOffset 1"},
        Case{"AllButOneByte", HideFront, 10, 20, 5, 19, 19, 20, 14,
             "modify start 10 to 19, add objOffset 9"},
        Case{"SpecialItemsHideNothing", HideFront, 0, 20, 5, LONG_MIN + 3, 0, 20, 5, ""},
        Case{"BeyondFourGiB", HideFront, 0, 1L << 42, 7, 1L << 41, 1L << 41, 1L << 42,
             (1L << 41) + 7, "modify start 0 to 2199023255552, add objOffset 2199023255552"},
        Case{"ObjectOffsetBelowZero", HideFront, 0, 20, -8, 10, 10, 20, 2,
             "modify start 0 to 10, add objOffset 10"},
        Case{"NumbersOfNoExtentWrapAround", HideFront, LONG_MIN, 20, LONG_MAX, 1, 1, 20, 0,
             "modify start -9223372036854775808 to 1, add objOffset -9223372036854775807"}),
    [](const auto& given) { return given.param.name; });

}  // namespace
