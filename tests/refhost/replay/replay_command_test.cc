#include "refhost/cli/replay_command.h"

#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include "tests/refhost/replay/faulty_tables.h"
#include "tests/refhost/replay/trace_files.h"
#include "tests/support/temp_dir.h"

namespace zefs::refhost {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr const char* kTrace = "W 0 65536\nW 4096 4096\nR 0 8192\n";
constexpr const char* kDigest = "eac0024701bf945b1e577ef5f6b93dfc853470560e15fc4d36fa696cbed7881b";

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

bool IsOneLine(const std::string& text) {
  return !text.empty() && text.find('\n') == text.size() - 1;
}

class ReplayCommandTest : public ::testing::Test {
 protected:
  /// Runs the real command.
  Outcome Run(const std::string& arguments) const {
    const std::string out = (directory_ / "out").string();
    const std::string err = (directory_ / "err").string();
    const std::string command =
        std::string("'") + ZEFS_HOST + "' " + arguments + " >'" + out + "' 2>'" + err + "'";
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, test::ReadFile(out), test::ReadFile(err)};
  }

  std::string Trace(const std::string& text) const {
    test::WriteFile(path_, text);
    return "'" + path_ + "'";
  }

  /// The same command in this process, on a table that goes wrong.
  Outcome RunFaulty(test::Fault fault, bool json) const {
    ReplayOptions options;
    options.path = path_;
    options.check = true;
    options.makeTable = [fault] { return new test::FaultyTable(fault); };
    std::ostringstream out;
    std::ostringstream err;
    const int status = ReplayAndReport(options, json, out, err);
    return {status, out.str(), err.str()};
  }

  test::TempDir directory_;
  std::string path_ = (directory_ / "trace").string();
};

TEST_F(ReplayCommandTest, TellsInWords) {
  const Outcome outcome = Run("replay --check " + Trace(kTrace));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_THAT(outcome.out, AllOf(StartsWith("every read and the final state are equal"),
                                 HasSubstr(kDigest), HasSubstr("64.0 KiB")));
}

TEST_F(ReplayCommandTest, JsonIsOneObjectAndNothingElse) {
  const Outcome outcome = Run("replay --json " + Trace(kTrace));
  EXPECT_EQ(outcome.status, 0);
  const nlohmann::json json = nlohmann::json::parse(outcome.out);  // throws on anything more
  EXPECT_EQ(json.at("trace"), path_);
  EXPECT_EQ(json.at("checked"), false);
  EXPECT_TRUE(json.at("difference").is_null());
  EXPECT_EQ(json.at("requests"), 3);
  EXPECT_EQ(json.at("writes"), 2);
  EXPECT_EQ(json.at("reads"), 1);
  EXPECT_EQ(json.at("extents"), 3);
  EXPECT_EQ(json.at("runs"), 3);
  EXPECT_EQ(json.at("bytes_mapped"), 65536);
  EXPECT_GT(json.at("map_bytes"), 0);
  EXPECT_GT(json.at("writes_per_second"), 0);
  EXPECT_EQ(json.at("digest"), kDigest);
}

TEST_F(ReplayCommandTest, GzipAndPlainGiveTheSame) {
  test::AppendGzip(path_, kTrace);
  const Outcome outcome = Run("replay --check --json '" + path_ + "'");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(nlohmann::json::parse(outcome.out).at("digest"), kDigest);
}

TEST_F(ReplayCommandTest, PersistentTablesGiveTheSameDigest) {
  const Outcome outcome =
      Run("replay --persistent --check --json --flush-after 1 --merge-after 1 " + Trace(kTrace));
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const nlohmann::json json = nlohmann::json::parse(outcome.out);
  EXPECT_EQ(json.at("digest"), kDigest);
  EXPECT_EQ(json.at("tables"), "persistent");
  EXPECT_EQ(json.at("flushes"), 1);
  EXPECT_EQ(json.at("merges"), 1);
  EXPECT_FALSE(json.contains("map_nodes"));
}

TEST_F(ReplayCommandTest, ReadsFromAPipe) {
  const Outcome outcome = Run("replay /dev/stdin --json <" + Trace(kTrace));
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(nlohmann::json::parse(outcome.out).at("digest"), kDigest);
}

TEST_F(ReplayCommandTest, ABadLineIsStatusTwoAndOneLine) {
  for (const auto& [text, reason] : std::vector<std::pair<std::string, std::string>>{
           {"W 0 1\nD 0 1\n", ":2: unknown operation 'D', R or W is meant"},
           {"W 0 1\nW -1 1\n", ":2: offset '-1' is negative"},
           {"W 0 0\n", ":1: length is 0"},
           {"W 1 9223372036854775807\n",
            ":1: the range ends above the largest offset, 9223372036854775807"},
           {"W 1\n", ":1: length is missing"},
           {std::string(5000, 'W'), ":1: the line is longer than 1024 characters"}}) {
    const Outcome outcome = Run("replay --json " + Trace(text));
    EXPECT_EQ(outcome.status, 2) << reason;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, path_ + reason + "\n");
  }
}

TEST_F(ReplayCommandTest, AFileThatCannotBeReadIsStatusTwoAndOneLine) {
  const Outcome missing = Run("replay '" + path_ + "'");
  EXPECT_EQ(missing.status, 2);
  EXPECT_EQ(missing.err, path_ + ": cannot be opened: No such file or directory\n");

  const Outcome directory = Run("replay '" + directory_.path().string() + "'");
  EXPECT_EQ(directory.status, 2);
  EXPECT_EQ(directory.err, directory_.path().string() + ": cannot be read: Is a directory\n");

  test::AppendGzip(path_, kTrace);
  test::WriteFile(path_, test::ReadFile(path_).substr(0, 30));
  const Outcome cut = Run("replay '" + path_ + "'");
  EXPECT_EQ(cut.status, 2);
  EXPECT_EQ(cut.out, "");
  EXPECT_THAT(cut.err, AllOf(StartsWith(path_), HasSubstr("the gzip data is cut short")));
  EXPECT_TRUE(IsOneLine(cut.err));
}

TEST_F(ReplayCommandTest, DataBehindTheGzipDataIsStatusTwoAndOneLine) {
  test::AppendGzip(path_, kTrace);
  test::WriteFile(path_, test::ReadFile(path_) + "W 0 1\n");
  const Outcome outcome = Run("replay --json '" + path_ + "'");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, path_ +
                             ": cannot be read after line 3: data behind the end of the gzip "
                             "data\n");
}

TEST_F(ReplayCommandTest, ControlCharactersOfTheNameDoNotReachTheTerminal) {
  const std::string name = (directory_ / "tr\x1b[2Jace").string();
  const std::string shown = (directory_ / "tr\\x1b[2Jace").string();
  EXPECT_EQ(Run("replay '" + name + "'").err,
            shown + ": cannot be opened: No such file or directory\n");
  test::WriteFile(name, "D 0 1\n");
  EXPECT_THAT(Run("replay '" + name + "'").err, StartsWith(shown + ":1: unknown operation"));
  EXPECT_THAT(Run("check '" + name + "x'").err, HasSubstr(shown + "x' does not exist"));
  test::WriteFile(name, kTrace);
  const Outcome fine = Run("replay --json '" + name + "'");
  EXPECT_EQ(nlohmann::json::parse(fine.out).at("trace"), name);
}

TEST_F(ReplayCommandTest, ADifferenceIsStatusOneAndOneLine) {
  Trace("W 0 10\nW 4 2\nR 0 10\n");
  const Outcome outcome = RunFaulty(test::Fault::kLosesAWrite, false);
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "difference at " + path_ +
                             ":3: unit 0, offset 4: the map has byte 4 of line 1, expected was "
                             "byte 0 of line 2\n");
  EXPECT_THAT(outcome.out, StartsWith("not equal"));
}

TEST_F(ReplayCommandTest, ADifferenceStandsInTheJson) {
  Trace("W 0 10 6\nW 4 2 6\n");
  const Outcome outcome = RunFaulty(test::Fault::kForgetsTheObject, true);
  EXPECT_EQ(outcome.status, 1);
  const nlohmann::json json = nlohmann::json::parse(outcome.out);
  EXPECT_EQ(json.at("difference").at("where"), path_ + ": final state");
  EXPECT_EQ(json.at("difference").at("unit"), 6);
  EXPECT_EQ(json.at("difference").at("offset"), 4);
  EXPECT_FALSE(json.contains("digest"));
}

TEST_F(ReplayCommandTest, ATableThatFailsIsStatusTwo) {
  Trace(kTrace);
  ReplayOptions options;
  options.path = path_;
  options.makeTable = []() -> MappingTable* { throw std::runtime_error("no table today"); };
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_EQ(ReplayAndReport(options, false, out, err), 2);
  EXPECT_EQ(err.str(), "zefs-host replay: no table today\n");
  EXPECT_EQ(out.str(), "");
}

TEST_F(ReplayCommandTest, HelpTellsOptionsAndStatuses) {
  const Outcome all = Run("--help");
  EXPECT_EQ(all.status, 0);
  EXPECT_THAT(all.out, AllOf(HasSubstr("check"), HasSubstr("replay")));
  const Outcome replay = Run("replay --help");
  EXPECT_EQ(replay.status, 0);
  EXPECT_THAT(replay.out, AllOf(HasSubstr("TRACE"), HasSubstr("--check"), HasSubstr("--json"),
                                HasSubstr("Exit status")));
}

TEST_F(ReplayCommandTest, BadUsageIsStatusTwoAndNamesWhatIsWrong) {
  for (const auto& [arguments, named] : std::vector<std::pair<std::string, std::string>>{
           {"", "subcommand is required"},
           {"frobnicate", "frobnicate"},
           {"--frobnicate", "--frobnicate"},
           {"replay", "TRACE is required"},
           {"replay --frobnicate x", "--frobnicate"},
           {"replay -dash", "option: -dash "},
           {"check -dash", "option: -dash "},
           {"check", "PATH is required"},
           {"replay x y", "y"},
           {"replay x --merge-after 0", "--merge-after"},
           {"check / --flush-after x", "--flush-after"},
           {"put", "STORE is required"},
           {"put s /nowhere", "/nowhere"},
           {"put s / --table-type X", "table type 'X'"},
           {"get s n", "DEST is required"},
           {"verify", "STORE is required"}}) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 2) << arguments;
    EXPECT_THAT(outcome.err,
                AllOf(StartsWith("zefs-host: "), HasSubstr(named), HasSubstr("--help")));
    EXPECT_THAT(outcome.out, IsEmpty());
  }
}

TEST_F(ReplayCommandTest, AFullOutputIsTold) {
  const std::string err = (directory_ / "err2").string();
  const std::string command =
      std::string("'") + ZEFS_HOST + "' replay " + Trace(kTrace) + " >/dev/full 2>'" + err + "'";
  const int status = std::system(command.c_str());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 2);
  EXPECT_EQ(test::ReadFile(err), "zefs-host: the result cannot be written to standard output\n");
}

}  // namespace
}  // namespace zefs::refhost
