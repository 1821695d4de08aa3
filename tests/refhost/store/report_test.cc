#include "refhost/cli/report.h"

#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

TEST(Format, CountsAreGroupedByThousands) {
  EXPECT_EQ("0", FormatCount(0));
  EXPECT_EQ("999", FormatCount(999));
  EXPECT_EQ("1,000", FormatCount(1000));
  EXPECT_EQ("12,345,678", FormatCount(12345678));
  EXPECT_EQ("18,446,744,073,709,551,615", FormatCount(std::numeric_limits<std::uint64_t>::max()));
}

TEST(Format, BytesHaveThreeDigitsAndTheirUnit) {
  EXPECT_EQ("0 B", FormatBytes(0));
  EXPECT_EQ("1023 B", FormatBytes(1023));
  EXPECT_EQ("1.00 KiB", FormatBytes(1024));
  EXPECT_EQ("9.99 KiB", FormatBytes(9.99 * 1024));
  EXPECT_EQ("12.3 MiB", FormatBytes(12.34 * 1024 * 1024));
  EXPECT_EQ("123 GiB", FormatBytes(123.4 * 1024 * 1024 * 1024));
  EXPECT_EQ("1.00 MiB", FormatBytes(1024 * 1024 - 1)) << "not 1024 KiB";
  EXPECT_EQ("16384 PiB", FormatBytes(18446744073709551615.0));
}

TEST(Format, RatesAndTimes) {
  EXPECT_EQ("210 MiB/s", FormatByteRate(210.0 * 1024 * 1024));
  EXPECT_EQ("12.0 /s", FormatRate(12));
  EXPECT_EQ("1.25 M/s", FormatRate(1250000));
  EXPECT_EQ("0.032 s", FormatSeconds(0.032));
  EXPECT_EQ("12.3 s", FormatSeconds(12.34));
  EXPECT_EQ("2 min 05 s", FormatSeconds(125));
}

TEST(Report, TextAndJsonTellTheSameFigures) {
  Report report;
  report.Count("files", "files", 1234);
  report.Bytes("bytes", "size of all", 2048);
  report.Ratio("ratio", "ratio", 1.5);
  report.Words("state", "state", "equal");
  report.Data("list", {1, 2});
  EXPECT_EQ(
      "  files        1,234\n"
      "  size of all  2.00 KiB\n"
      "  ratio        1.50\n"
      "  state        equal\n",
      report.Text());
  const auto json = nlohmann::ordered_json::parse(report.Json());
  EXPECT_EQ(1234, json.at("files"));
  EXPECT_EQ(2048, json.at("bytes"));
  EXPECT_EQ(1.5, json.at("ratio"));
  EXPECT_EQ("equal", json.at("state"));
  EXPECT_EQ(2U, json.at("list").size());
  EXPECT_EQ("files", json.begin().key());
}

TEST(Report, RateOverNoTimeIsNought) {
  Report report;
  report.Rate("rate", "rate", std::numeric_limits<double>::infinity());
  EXPECT_EQ(0, nlohmann::json::parse(report.Json()).at("rate"));
}

}  // namespace
}  // namespace zefs::refhost
