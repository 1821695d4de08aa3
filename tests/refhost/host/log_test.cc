#include "refhost/host/log.h"

#include <cerrno>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "tests/support/temp_dir.h"

namespace zefs::refhost {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

constexpr int kAllLevels[] = {kLogTrace, kLogStep, kLogRare, kLogRecoverable, kLogFailure};

/// Puts the start-up settings back.
class LogTest : public ::testing::Test {
 protected:
  void TearDown() override {
    SetLogLevel(kLogRecoverable);
    LogToStderr();
  }
};

class LogFileTest : public LogTest {
 protected:
  std::vector<std::string> LinesOf(const std::string& name) const {
    std::ifstream file((directory_ / name).string());
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  test::TempDir directory_;
};

TEST_F(LogTest, EveryLevelArrivesAsItWasGiven) {
  LogRecorder recorder;
  for (const int level : kAllLevels) {
    ZEFS_LOG(level, "level %d", level);
  }
  EXPECT_THAT(recorder.Take(),
              ElementsAre(LogRecord{kLogTrace, "level 0"}, LogRecord{kLogStep, "level 1"},
                          LogRecord{kLogRare, "level 2"}, LogRecord{kLogRecoverable, "level 4"},
                          LogRecord{kLogFailure, "level 8"}));
}

TEST_F(LogTest, TakeForgetsWhatItReturned) {
  LogRecorder recorder;
  ZEFS_LOG(kLogTrace, "once");
  EXPECT_EQ(recorder.Take().size(), 1U);
  EXPECT_THAT(recorder.Take(), IsEmpty());
}

TEST_F(LogTest, EachMinimumLetsThroughItselfAndAbove) {
  for (const int minimum : kAllLevels) {
    SCOPED_TRACE(minimum);
    LogRecorder recorder(minimum);
    std::vector<LogRecord> expected;
    for (const int level : kAllLevels) {
      EXPECT_EQ(LogEnabled(level), level >= minimum);
      ZEFS_LOG(level, "x");
      if (level >= minimum) {
        expected.push_back({level, "x"});
      }
    }
    EXPECT_EQ(recorder.Take(), expected);
  }
}

TEST_F(LogTest, RecordsWhateverTheLevelSettingWas) {
  SetLogLevel(kLogFailure + 1);
  LogRecorder recorder;
  ZEFS_LOG(kLogTrace, "still here");
  SetLogLevel(kLogFailure + 1);  // not while a recorder lives either
  ZEFS_LOG(kLogTrace, "and here");
  EXPECT_THAT(recorder.Take(),
              ElementsAre(LogRecord{kLogTrace, "still here"}, LogRecord{kLogTrace, "and here"}));
}

TEST_F(LogTest, TheYoungestRecorderTakesAll) {
  LogRecorder older;
  {
    LogRecorder younger(kLogFailure);
    ZEFS_LOG(kLogTrace, "for nobody");
    ZEFS_LOG(kLogFailure, "for the younger");
    EXPECT_THAT(younger.Take(), ElementsAre(LogRecord{kLogFailure, "for the younger"}));
  }
  ZEFS_LOG(kLogTrace, "for the older");
  EXPECT_THAT(older.Take(), ElementsAre(LogRecord{kLogTrace, "for the older"}));
}

TEST_F(LogTest, LevelIsBackWhenTheRecorderIsGone) {
  { LogRecorder recorder; }
  EXPECT_FALSE(LogEnabled(kLogRare));
  EXPECT_TRUE(LogEnabled(kLogRecoverable));
}

TEST_F(LogTest, AboveFailureTurnsAllOff) {
  SetLogLevel(kLogFailure + 1);
  EXPECT_FALSE(LogEnabled(kLogFailure));
}

// A format with %n would store the number of characters formatted so far, which is the one way in
// which formatting shows from outside; `count` therefore tells whether a line was formatted.
TEST_F(LogTest, ADroppedLineIsNeverFormatted) {
  const std::string tooLong(1U << 20, 'x');
  LogRecorder recorder(kLogFailure);
  int count = -1;
  ZEFS_LOG(kLogRecoverable, "%s%n", tooLong.c_str(), &count);
  EXPECT_EQ(count, -1);
  ZEFS_LOG(kLogFailure, "%s%n", tooLong.c_str(), &count);
  EXPECT_EQ(count, 1 << 20);
}

TEST_F(LogTest, LinesOfEveryLengthAreWhole) {
  LogRecorder recorder;
  for (const std::size_t length : {0U, 1U, 510U, 511U, 512U, 513U, 4096U, 1U << 20}) {
    const std::string text(length, 'y');
    ZEFS_LOG(kLogTrace, "%s", text.c_str());
    const std::vector<LogRecord> records = recorder.Take();
    ASSERT_EQ(records.size(), 1U) << length;
    EXPECT_EQ(records[0].text, text);
  }
}

TEST_F(LogTest, ALongLineReadsItsArgumentsTwice) {
  LogRecorder recorder;
  const std::string padding(600, '.');
  ZEFS_LOG(kLogTrace, "%d %s %lld %s", 1, padding.c_str(), -5LL, "end");
  EXPECT_THAT(recorder.Take(), ElementsAre(LogRecord{kLogTrace, "1 " + padding + " -5 end"}));
}

TEST_F(LogTest, BracesAndPercentSignsAreText) {
  LogRecorder recorder;
  ZEFS_LOG(kLogTrace, "{} {0} 100%%");
  EXPECT_THAT(recorder.Take(), ElementsAre(LogRecord{kLogTrace, "{} {0} 100%"}));
}

TEST_F(LogTest, ErrnoSurvivesALine) {
  LogRecorder recorder;
  errno = ENOSPC;
  ZEFS_LOG(kLogFailure, "%s", std::string(5000, 'z').c_str());
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(LogFileTest, LinesAreAppendedToTheFile) {
  const std::string path = (directory_ / "sub/host.log").string();
  ASSERT_TRUE(LogToFile(path));
  ZEFS_LOG(kLogRare, "below the level");
  ZEFS_LOG(kLogRecoverable, "first");
  ASSERT_TRUE(LogToFile(path));
  ZEFS_LOG(kLogFailure, "second");
  EXPECT_THAT(LinesOf("sub/host.log"), ElementsAre(EndsWith("first"), EndsWith("second")));
}

TEST_F(LogFileTest, AFileThatCannotBeOpenedChangesNothing) {
  ASSERT_TRUE(LogToFile((directory_ / "good").string()));
  EXPECT_FALSE(LogToFile(directory_.path().string()));
  ZEFS_LOG(kLogFailure, "kept");
  EXPECT_THAT(LinesOf("good"), ElementsAre(EndsWith("kept")));
}

TEST_F(LogFileTest, ARecorderKeepsLinesOutOfTheFile) {
  ASSERT_TRUE(LogToFile((directory_ / "host.log").string()));
  {
    LogRecorder recorder;
    ZEFS_LOG(kLogFailure, "recorded");
    ASSERT_TRUE(LogToFile((directory_ / "other.log").string()));
    ZEFS_LOG(kLogFailure, "recorded too");
    EXPECT_EQ(recorder.Take().size(), 2U);
  }
  ZEFS_LOG(kLogFailure, "written");
  EXPECT_THAT(LinesOf("host.log"), IsEmpty());
  EXPECT_THAT(LinesOf("other.log"), ElementsAre(EndsWith("written")));
}

}  // namespace
}  // namespace zefs::refhost
