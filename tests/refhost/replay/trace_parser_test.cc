#include "refhost/replay/trace_parser.h"

#include <climits>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

using Operation = TraceRequest::Operation;

std::string ReasonOf(std::string_view line) {
  const auto parsed = ParseTraceLine(line);
  const auto* error = std::get_if<TraceLineError>(&parsed);
  return error == nullptr ? "(none)" : error->reason;
}

void ExpectRequest(std::string_view line, Operation operation, long start, long end,
                   unsigned long unit) {
  SCOPED_TRACE(line);
  const auto parsed = ParseTraceLine(line);
  const auto* request = std::get_if<TraceRequest>(&parsed);
  ASSERT_NE(request, nullptr) << ReasonOf(line);
  EXPECT_EQ(request->operation, operation);
  EXPECT_EQ(request->start, start);
  EXPECT_EQ(request->end, end);
  EXPECT_EQ(request->unit, unit);
}

TEST(TraceParserTest, RequestsWithAndWithoutUnit) {
  ExpectRequest("R 0 1", Operation::kRead, 0, 1, 0);
  ExpectRequest("W 155426304 3584 0", Operation::kWrite, 155426304, 155429888, 0);
  ExpectRequest("W 10 20 17", Operation::kWrite, 10, 30, 17);
  ExpectRequest("R 007 010", Operation::kRead, 7, 17, 0);
}

TEST(TraceParserTest, TheEndsOfTheNumberRange) {
  ExpectRequest("W 9223372036854775806 1", Operation::kWrite, LONG_MAX - 1, LONG_MAX, 0);
  ExpectRequest("W 0 9223372036854775807", Operation::kWrite, 0, LONG_MAX, 0);
  ExpectRequest("R 1 1 18446744073709551615", Operation::kRead, 1, 2, ULONG_MAX);
}

TEST(TraceParserTest, ARangeBeyondTheLargestOffset) {
  const std::string reason = "the range ends above the largest offset, 9223372036854775807";
  EXPECT_EQ(ReasonOf("W 9223372036854775807 1"), reason);
  EXPECT_EQ(ReasonOf("W 1 9223372036854775807"), reason);
  EXPECT_EQ(ReasonOf("W 9223372036854775807 9223372036854775807"), reason);
}

TEST(TraceParserTest, NumbersThatAreTooLarge) {
  EXPECT_EQ(ReasonOf("W 9223372036854775808 1"), "offset '9223372036854775808' is too large");
  EXPECT_EQ(ReasonOf("W 0 99999999999999999999"), "length '99999999999999999999' is too large");
  EXPECT_EQ(ReasonOf("W 0 1 18446744073709551616"), "unit '18446744073709551616' is too large");
}

TEST(TraceParserTest, NegativeNumbers) {
  EXPECT_EQ(ReasonOf("R -1 5"), "offset '-1' is negative");
  EXPECT_EQ(ReasonOf("R 1 -5"), "length '-5' is negative");
  EXPECT_EQ(ReasonOf("R 1 5 -2"), "unit '-2' is negative");
  EXPECT_EQ(ReasonOf("R - 5"), "offset '-' is no decimal number");
}

TEST(TraceParserTest, ALengthOfZero) {
  EXPECT_EQ(ReasonOf("W 5 0"), "length is 0");
  EXPECT_EQ(ReasonOf("R 5 000 1"), "length is 0");
}

TEST(TraceParserTest, UnknownOperations) {
  EXPECT_EQ(ReasonOf("D 0 1"), "unknown operation 'D', R or W is meant");
  EXPECT_EQ(ReasonOf("w 0 1"), "unknown operation 'w', R or W is meant");
  EXPECT_EQ(ReasonOf("WW 0 1"), "unknown operation 'WW', R or W is meant");
  EXPECT_EQ(ReasonOf(" W 0 1"), "unknown operation '', R or W is meant");
  EXPECT_EQ(ReasonOf("# a comment"), "unknown operation '#', R or W is meant");
}

TEST(TraceParserTest, MissingFields) {
  EXPECT_EQ(ReasonOf(""), "the line is empty");
  EXPECT_EQ(ReasonOf("R"), "offset is missing");
  EXPECT_EQ(ReasonOf("R "), "offset is missing");
  EXPECT_EQ(ReasonOf("R 5"), "length is missing");
  EXPECT_EQ(ReasonOf("R 5 "), "length is missing");
  EXPECT_EQ(ReasonOf("R 5 6 "), "unit is missing");
}

TEST(TraceParserTest, SeparatorsAreSingleBlanks) {
  EXPECT_EQ(ReasonOf("R  5 6"), "offset is missing");
  EXPECT_EQ(ReasonOf("R 5  6"), "length is missing");
  EXPECT_EQ(ReasonOf("R\t5\t6"), "unknown operation 'R?5?6', R or W is meant");
  EXPECT_EQ(ReasonOf("R 5 6\r"), "length '6?' is no decimal number");
}

TEST(TraceParserTest, TextThatIsNoNumber) {
  EXPECT_EQ(ReasonOf("R x 6"), "offset 'x' is no decimal number");
  EXPECT_EQ(ReasonOf("R 5 6k"), "length '6k' is no decimal number");
  EXPECT_EQ(ReasonOf("R 5 +6"), "length '+6' is no decimal number");
  EXPECT_EQ(ReasonOf("R 0x5 6"), "offset '0x5' is no decimal number");
  EXPECT_EQ(ReasonOf("R 5.0 6"), "offset '5.0' is no decimal number");
}

TEST(TraceParserTest, TextBehindTheUnit) {
  EXPECT_EQ(ReasonOf("R 5 6 7 8"), "unexpected '8' after the unit");
  EXPECT_EQ(ReasonOf("R 5 6 7 "), "unexpected '' after the unit");
}

TEST(TraceParserTest, MessagesStayShortAndPrintable) {
  EXPECT_EQ(ReasonOf("R " + std::string(100, '1') + "x 6"),
            "offset '" + std::string(32, '1') + "...' is no decimal number");
  EXPECT_EQ(ReasonOf(std::string("\x1b[31m\0", 6)), "unknown operation '?[31m?', R or W is meant");
}

}  // namespace
}  // namespace zefs::refhost
