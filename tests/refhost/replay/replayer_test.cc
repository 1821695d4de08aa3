#include "refhost/replay/replayer.h"

#include <algorithm>
#include <iostream>
#include <map>
#include <random>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/replay/final_state.h"
#include "refhost/replay/interval_model.h"
#include "tests/refhost/replay/faulty_tables.h"
#include "tests/refhost/replay/trace_files.h"
#include "tests/support/temp_dir.h"

namespace zefs::refhost {
namespace {

constexpr const char* kDigestOfNothing =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class ReplayerTest : public ::testing::Test {
 protected:
  ReplayReport ReplayText(const std::string& text) {
    test::WriteFile(options_.path, text);
    options_.check = true;
    return Replay(options_);
  }

  std::string ErrorOf(const std::string& text) {
    try {
      ReplayText(text);
    } catch (const TraceError& error) {
      return error.what();
    }
    return "(none)";
  }

  ReplayDifference DifferenceOf(test::Fault fault, const std::string& text) {
    options_.makeTable = [fault] { return new test::FaultyTable(fault); };
    const ReplayReport report = ReplayText(text);
    EXPECT_TRUE(report.difference.has_value());
    EXPECT_EQ(report.digest, "");
    return report.difference.value_or(ReplayDifference{});
  }

  test::TempDir directory_;
  ReplayOptions options_ = [this] {
    ReplayOptions options;
    options.path = (directory_ / "trace").string();
    return options;
  }();
};

TEST_F(ReplayerTest, ATraceOfNothing) {
  const ReplayReport report = ReplayText("");
  EXPECT_FALSE(report.difference.has_value());
  EXPECT_EQ(report.requests, 0U);
  EXPECT_EQ(report.units, 0U);
  EXPECT_EQ(report.tables.bytes, 0);
  EXPECT_EQ(report.digest, kDigestOfNothing);
}

TEST_F(ReplayerTest, LastWriterOfEachByte) {  // "0 0 4096 0\n0 4096 8192 1\n0 8192 65536 0\n"
  const ReplayReport report = ReplayText("W 0 65536\nW 4096 4096\nR 0 8192\n");
  EXPECT_FALSE(report.difference.has_value());
  EXPECT_EQ(report.requests, 3U);
  EXPECT_EQ(report.writes, 2U);
  EXPECT_EQ(report.reads, 1U);
  EXPECT_EQ(report.bytesWritten, 65536U + 4096U);
  EXPECT_EQ(report.bytesRead, 8192U);
  EXPECT_EQ(report.bytesFound, 8192U);
  EXPECT_EQ(report.units, 1U);
  EXPECT_EQ(report.tables.extents, 3);
  EXPECT_GT(report.tables.bytes, 0);
  EXPECT_EQ(report.runs, 3U);
  EXPECT_EQ(report.bytesMapped, 65536U);
  EXPECT_EQ(report.digest, "eac0024701bf945b1e577ef5f6b93dfc853470560e15fc4d36fa696cbed7881b");
}

// "0 0 3 0\n0 3 5 1\n0 5 10 0\n1 100 101 3\n"
// "18446744073709551615 9223372036854775806 9223372036854775807 4\n": reads count as lines, units
// are in rising order, and a unit that is only read has no run.
TEST_F(ReplayerTest, UnitsAreApartAndInOrder) {
  const ReplayReport report = ReplayText(
      "W 0 10\nW 3 2\nR 0 10 5\nW 100 1 1\nW 9223372036854775806 1 18446744073709551615\n"
      "R 9223372036854775806 1 18446744073709551615\nR 99 3 1\nR 0 9223372036854775807\n");
  EXPECT_FALSE(report.difference.has_value());
  EXPECT_EQ(report.units, 4U);
  EXPECT_EQ(report.bytesFound, 1U + 1U + 10U);
  EXPECT_EQ(report.digest, "98458f7d7b37af29a7b6f641c7efeee4c17639b0e9e561b574c52e67a7f2cf3e");
}

TEST_F(ReplayerTest, ACheckChangesNoResult) {
  const ReplayReport checked = ReplayText("W 0 10\nR 5 10\nW 5 10\n");
  options_.check = false;
  const ReplayReport unchecked = Replay(options_);
  EXPECT_EQ(unchecked.digest, checked.digest);
  EXPECT_EQ(unchecked.bytesFound, checked.bytesFound);
}

TEST_F(ReplayerTest, RandomTracesAgreeWithTheModelAndItsDigest) {
  std::mt19937 random(4);
  for (int round = 0; round < 5; ++round) {
    std::map<unsigned long, IntervalModel> models;
    std::string text;
    for (unsigned long line = 0; line < 4000; ++line) {
      const unsigned long unit = random() % 3;
      const long start = static_cast<long>(random() % 2000);
      const long length = 1 + static_cast<long>(random() % 60);
      const bool write = random() % 3 != 0;
      text += (write ? "W " : "R ") + std::to_string(start) + " " + std::to_string(length) + " " +
              std::to_string(unit) + "\n";
      if (write) {
        models[unit].Write(start, start + length, line);
      }
    }
    FinalState expected;
    for (const auto& [unit, model] : models) {
      for (const Piece& piece : model.Read(0, 1L << 40)) {
        expected.Add(unit, piece);
      }
    }
    expected.Finish();
    const ReplayReport report = ReplayText(text);
    EXPECT_FALSE(report.difference.has_value()) << report.difference->where;
    EXPECT_EQ(report.digest, expected.digest());
    EXPECT_EQ(report.runs, expected.runs());
    EXPECT_EQ(report.bytesMapped, expected.bytes());
  }
}

TEST_F(ReplayerTest, ProgressIsToldInBytesOfTheFile) {
  std::string text;
  for (int line = 0; line < 5000; ++line) {
    text += "W 0 1\n";
  }
  test::WriteFile(options_.path, text);
  std::vector<std::uint64_t> steps;
  Replay(options_, [&](std::uint64_t done, std::uint64_t total) {
    EXPECT_LE(done, total);
    EXPECT_EQ(total, text.size());
    steps.push_back(done);
  });
  EXPECT_EQ(steps.size(), 4U);
  EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end()));
}

TEST_F(ReplayerTest, NothingReachesStandardOutput) {
  ::testing::internal::CaptureStdout();
  ReplayText("W 0 10\nR 0 10\n");
  std::cout.flush();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST_F(ReplayerTest, ALineThatIsNoRequestIsNamed) {
  const std::string path = options_.path;
  EXPECT_EQ(ErrorOf("W 0 1\nX 0 1\n"), path + ":2: unknown operation 'X', R or W is meant");
  EXPECT_EQ(ErrorOf("W 0 1\n\nW 0 1\n"), path + ":2: the line is empty");
  EXPECT_EQ(ErrorOf("W -4 1\n"), path + ":1: offset '-4' is negative");
  EXPECT_EQ(ErrorOf("R 0 1\nR 0 1\nR 0 0"), path + ":3: length is 0");
  EXPECT_EQ(ErrorOf("R 9223372036854775807 9\n"),
            path + ":1: the range ends above the largest offset, 9223372036854775807");
}

TEST_F(ReplayerTest, ALostWriteIsFoundByTheRead) {
  const ReplayDifference difference =
      DifferenceOf(test::Fault::kLosesAWrite, "W 0 10\nW 8 10\nR 20 4\nR 0 30\nW 0 1\n");
  EXPECT_EQ(difference.where, options_.path + ":4");
  EXPECT_EQ(difference.unit, 0U);
  EXPECT_EQ(difference.offset, 8);
  EXPECT_EQ(difference.found, "byte 8 of line 1");
  EXPECT_EQ(difference.expected, "byte 0 of line 2");
}

TEST_F(ReplayerTest, ALostWriteIsFoundInTheFinalState) {
  const ReplayDifference difference =
      DifferenceOf(test::Fault::kLosesAWrite, "W 0 10 3\nW 10 10 3\n");
  EXPECT_EQ(difference.where, options_.path + ": final state");
  EXPECT_EQ(difference.unit, 3U);
  EXPECT_EQ(difference.offset, 10);
  EXPECT_EQ(difference.found, "nothing written");
  EXPECT_EQ(difference.expected, "byte 0 of line 2");
}

TEST_F(ReplayerTest, AWrongObjectOffsetIsADifference) {
  const ReplayDifference difference =
      DifferenceOf(test::Fault::kShiftsTheObject, "W 0 10\nW 5 1\nR 0 10\n");
  EXPECT_EQ(difference.offset, 5);
  EXPECT_EQ(difference.found, "byte 1 of line 2");
  EXPECT_EQ(difference.expected, "byte 0 of line 2");
}

TEST_F(ReplayerTest, AForeignObjectIsADifferenceEvenWithoutACheck) {
  for (const char* text : {"W 0 10\nW 5 1\nR 0 10\n", "W 0 10\nW 5 1\n"}) {
    DifferenceOf(test::Fault::kForgetsTheObject, text);
    options_.check = false;
    const ReplayReport report = Replay(options_);
    ASSERT_TRUE(report.difference.has_value());
    EXPECT_EQ(report.difference->offset, 5);
    EXPECT_EQ(report.difference->found, "an object that was never written");
  }
}

}  // namespace
}  // namespace zefs::refhost
