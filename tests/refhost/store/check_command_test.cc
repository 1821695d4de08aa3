#include "refhost/cli/check_command.h"

#include <algorithm>
#include <csignal>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/resource.h>

#include "refhost/cli/exit_status.h"
#include "tests/refhost/store/store_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/ordinary_user.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::TempDir;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

int LinesOf(const std::string& text) {
  return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

class CheckCommand : public ::testing::Test {
 protected:
  CheckCommand() {
    fs::create_directories(dir / "tree");
    test::WriteFile(dir / "tree/one", std::string(40000, '1'));
    test::WriteFile(dir / "tree/two", "two");
    options.paths = {In("tree")};
    options.storeDirectory = In("store");
    options.tables = TableKind::kMemory;
  }
  std::string In(const std::string& name) const { return (dir / name).string(); }

  int Run(bool json = false, const BeforeVerify& plant = {}) {
    return RunAndReport(options, json, out, err, plant);
  }

  /// As the shell would call it; -1 and the text in `err` if the arguments are refused.
  int Parse(std::vector<std::string> arguments) {
    CLI::App app;
    int status = -2;
    AddCheckCommand(app, &status);
    std::reverse(arguments.begin(), arguments.end());
    try {
      app.parse(arguments);
    } catch (const CLI::ParseError& error) {
      err << error.what() << '\n';
      return -1;
    }
    return status;
  }

  TempDir dir;
  CheckOptions options;
  std::ostringstream out;
  std::ostringstream err;
};

TEST_F(CheckCommand, EqualTreeGivesStatusNoughtAndTheFigures) {
  EXPECT_EQ(kExitFine, Run());
  EXPECT_THAT(out.str(), AllOf(StartsWith("every byte is equal:\n"), HasSubstr("dedup ratio"),
                               HasSubstr("references, counted again")));
  EXPECT_EQ("", err.str());
}

TEST_F(CheckCommand, JsonParsesAndHoldsTheExactFigures) {
  EXPECT_EQ(kExitFine, Run(true));
  const auto json = nlohmann::json::parse(out.str());
  EXPECT_TRUE(json.at("equal").get<bool>());
  EXPECT_TRUE(json.at("difference").is_null());
  EXPECT_EQ(2, json.at("files"));
  EXPECT_EQ(40003, json.at("source_bytes"));
  EXPECT_EQ(16384 + 40000 - 2 * 16384 + 3, json.at("source_stored_bytes"));
  EXPECT_TRUE(json.at("skipped_files").empty());
  EXPECT_EQ(16384, json.at("segment_size"));
  for (const char* const key :
       {"logical_bytes", "written_bytes", "stored_bytes", "dedup_ratio", "extents",
        "containers_referenced", "fingerprints_referenced", "store_bytes_per_second",
        "change_bytes_per_second", "verify_bytes_per_second", "seconds"}) {
    EXPECT_TRUE(json.at(key).is_number()) << key;
  }
}

TEST_F(CheckCommand, PlantedDifferenceGivesStatusOneFileAndOffset) {
  const auto plant = [](Files* store) { store->Write(0, 123, "!"); };
  EXPECT_EQ(kExitDifference, Run(false, plant));
  EXPECT_THAT(err.str(), StartsWith("difference in " + In("tree/one") + " at offset 123: "));
  EXPECT_THAT(out.str(), StartsWith("not equal:\n"));
}

TEST_F(CheckCommand, PlantedDifferenceStandsInTheJson) {
  EXPECT_EQ(kExitDifference, Run(true, [](Files* store) { store->Write(0, 123, "!"); }));
  const auto json = nlohmann::json::parse(out.str());
  EXPECT_FALSE(json.at("equal").get<bool>());
  EXPECT_EQ(In("tree/one"), json.at("difference").at("path"));
  EXPECT_EQ(123, json.at("difference").at("offset"));
}

TEST_F(CheckCommand, SkippedFilesAreNamedAndCounted) {
  options.paths.push_back(In("gone"));
  EXPECT_EQ(kExitFine, Run(true));
  EXPECT_EQ("skipped " + In("gone") + ": No such file or directory (ENOENT)\n", err.str());
  const auto json = nlohmann::json::parse(out.str());
  EXPECT_EQ(1, json.at("skipped"));
  EXPECT_EQ(In("gone"), json.at("skipped_files").at(0).at("path"));
}

TEST_F(CheckCommand, NameThatIsNoUtf8StillGivesJson) {
  options.paths.push_back(
      In("bad\xff"
         "name"));
  EXPECT_EQ(kExitFine, Run(true));
  EXPECT_TRUE(nlohmann::json::accept(out.str()));
}

TEST_F(CheckCommand, UnwritableStoreIsOneLineAndStatusTwo) {
  options.storeDirectory = In("tree/one/store");
  EXPECT_EQ(kExitCannotRun, Run());
  EXPECT_THAT(err.str(), HasSubstr("tree/one/store: Not a directory (ENOTDIR)"));
  EXPECT_EQ(1, LinesOf(err.str()));
  EXPECT_EQ("", out.str());
}

TEST_F(CheckCommand, TreeWithoutFilesIsStatusTwo) {
  fs::create_directory(dir / "none");
  options.paths = {In("none")};
  EXPECT_EQ(kExitCannotRun, Run());
  EXPECT_EQ(
      "zefs-host check: no readable file among the 0 found, 0 skipped, 0 passed over as not "
      "regular\n",
      err.str());
}

TEST_F(CheckCommand, WhereNoFileCouldBeReadEachIsNamedBeforeThat) {
  fs::permissions(dir / "tree/one", fs::no_perms);
  fs::permissions(dir / "tree/two", fs::no_perms);
  fs::create_symlink(dir / "nowhere", dir / "tree/link");
  options.storeDirectory.clear();
  for (const bool json : {false, true}) {
    err.str("");
    const test::AsOrdinaryUser user;
    EXPECT_EQ(kExitCannotRun, Run(json));
    EXPECT_EQ("skipped " + In("tree/one") + ": Permission denied (EACCES)\nskipped " +
                  In("tree/two") +
                  ": Permission denied (EACCES)\nzefs-host check: no readable file among the 2 "
                  "found, 2 skipped, 1 passed over as not regular\n",
              err.str());
    EXPECT_EQ("", out.str());
  }
}

TEST_F(CheckCommand, ControlCharactersOfNamesDoNotReachTheTerminal) {
  options.paths.push_back(In("gone\x1b[2J\n"));
  options.storeDirectory = In("st\x07ore");
  options.keep = true;
  EXPECT_EQ(kExitFine, Run());
  EXPECT_EQ("skipped " + In("gone\\x1b[2J\\x0a") + ": No such file or directory (ENOENT)\n",
            err.str());
  EXPECT_THAT(out.str(), HasSubstr(In("st\\x07ore")));
  EXPECT_THAT(out.str(), Not(HasSubstr("\x07")));
  fs::remove_all(dir / "st\x07ore");
  out.str("");
  EXPECT_EQ(kExitFine, Run(true));
  EXPECT_EQ(options.storeDirectory, nlohmann::json::parse(out.str()).at("store"));
}

TEST_F(CheckCommand, VanishedContainerIsADifference) {
  options.containerBytes = 8192;
  const auto plant = [&](Files*) { fs::remove(dir / "store/containers/64"); };
  EXPECT_EQ(kExitDifference, Run(false, plant));
  EXPECT_THAT(err.str(),
              AllOf(StartsWith("difference in " + In("tree/one") + " at offset 0: extent ["),
                    HasSubstr("container " + In("store/containers/64") + " is gone\n")));
}

TEST_F(CheckCommand, SegmentSizeThatIsNoneIsStatusTwo) {
  options.segmentSize = 1000;
  EXPECT_EQ(kExitCannotRun, Run());
  EXPECT_EQ("zefs-host check: segment size 1000 is not a power of two from 512 to 1048576\n",
            err.str());
  EXPECT_FALSE(fs::exists(dir / "store"));
}

/// In a child, because the limit concerns the whole process. Without a limit on the child's own
/// handling the signal would end it.
int RunWithFileSizeLimit(const CheckOptions& options) {
  rlimit limit{};
  limit.rlim_cur = 20000;
  limit.rlim_max = 20000;
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
    return 90;
  }
  std::ostringstream out;
  std::ostringstream err;
  const int status = RunAndReport(options, false, out, err);
  const bool told = err.str().find("cannot write ") != std::string::npos &&
                    err.str().find("(EFBIG)") != std::string::npos && LinesOf(err.str()) == 1;
  return told ? status : 91;
}

TEST_F(CheckCommand, StoreWithoutRoomIsOneLineAndStatusTwo) {
  EXPECT_TRUE(test::EndedWell(
      test::RunInChild([&] { EXPECT_EQ(kExitCannotRun, RunWithFileSizeLimit(options)); })));
  EXPECT_FALSE(fs::exists(dir / "store"));
}

TEST_F(CheckCommand, InterruptRemovesTheStoreAndIsStatusTwo) {
  EXPECT_EQ(kExitCannotRun, Run(false, [](Files*) { std::raise(SIGINT); }));
  EXPECT_EQ("zefs-host check: interrupted\n", err.str());
  EXPECT_FALSE(fs::exists(dir / "store"));
}

TEST_F(CheckCommand, HangUpRemovesTheStoreToo) {
  EXPECT_EQ(kExitCannotRun, Run(false, [](Files*) { std::raise(SIGHUP); }));
  EXPECT_EQ("zefs-host check: interrupted\n", err.str());
  EXPECT_FALSE(fs::exists(dir / "store"));
}

TEST_F(CheckCommand, IgnoredHangUpDoesNotEndIt) {
  const auto before = std::signal(SIGHUP, SIG_IGN);
  EXPECT_EQ(kExitFine, Run(false, [](Files*) { std::raise(SIGHUP); }));
  std::signal(SIGHUP, before);
}

TEST_F(CheckCommand, InterruptedOneTellsWhereItsStoreIsKept) {
  options.keep = true;
  EXPECT_EQ(kExitCannotRun, Run(false, [](Files*) { std::raise(SIGTERM); }));
  EXPECT_EQ("zefs-host check: interrupted\nstore kept in " + In("store") + "\n", err.str());
  EXPECT_TRUE(fs::exists(dir / "store/copies"));
  err.str("");
  EXPECT_EQ(kExitCannotRun, Run()) << "the store is not empty";
  EXPECT_EQ(1, LinesOf(err.str())) << "no store was made";
}

TEST_F(CheckCommand, NamesThatLookLikeAListAreFiles) {
  const fs::path before = fs::current_path();
  fs::current_path(dir / "tree");
  const std::vector<std::string> names{"[d]", "[a,b]", "[]", "{}", "%%", "check", "two"};
  std::vector<std::string> arguments{"check", "--json", "--"};
  for (const std::string& name : names) {
    test::WriteFile(name, name);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(kExitFine, Parse({"check", name, "--json"})) << err.str();
    EXPECT_EQ(1, nlohmann::json::parse(::testing::internal::GetCapturedStdout()).at("files"));
    arguments.push_back(name);
  }
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(kExitFine, Parse(arguments));
  EXPECT_EQ(names.size(),
            nlohmann::json::parse(::testing::internal::GetCapturedStdout()).at("files"));
  fs::current_path(before);
}

TEST_F(CheckCommand, PathBehindAClosedDirectoryIsSkippedAndNotSaidToBeGone) {
  fs::create_directory(dir / "closed");
  test::WriteFile(dir / "closed/file", "x");
  fs::permissions(dir / "closed", fs::no_perms);
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  int status = 0;
  {
    const test::AsOrdinaryUser user;
    status = Parse({"check", In("closed/file"), In("tree")});
  }
  ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(kExitFine, status) << err.str();
  EXPECT_EQ("skipped " + In("closed/file") + ": Permission denied (EACCES)\n",
            ::testing::internal::GetCapturedStderr());
}

TEST_F(CheckCommand, HelpTellsTheRoomThatIsNeeded) {
  CLI::App app;
  int status = 0;
  AddCheckCommand(app, &status);
  EXPECT_THAT(app.get_subcommand("check")->help(),
              AllOf(HasSubstr("twice the bytes of the files"), HasSubstr("16 segments"),
                    HasSubstr("4096 bytes")));
}

TEST_F(CheckCommand, ArgumentsReachTheCheck) {
  ::testing::internal::CaptureStdout();
  const int status = Parse({"check", In("tree"), "--store", In("store"), "--keep", "--segment-size",
                            "4K", "--seed", "9", "--json"});
  const auto json = nlohmann::json::parse(::testing::internal::GetCapturedStdout());
  EXPECT_EQ(kExitFine, status);
  EXPECT_EQ(4096, json.at("segment_size"));
  EXPECT_EQ(9, json.at("seed"));
  EXPECT_EQ(In("store"), json.at("store"));
  EXPECT_EQ("persistent", json.at("tables"));
  EXPECT_TRUE(fs::exists(dir / "store/store/containers/64"));
}

TEST_F(CheckCommand, TheLargestSeedAndLeadingNoughtsAreTakenAsTheyStand) {
  for (const auto& [text, seed] : std::vector<std::pair<std::string, std::uint64_t>>{
           {"18446744073709551615", 18446744073709551615U}, {"010", 10}, {"0", 0}}) {
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(kExitFine, Parse({"check", In("tree"), "--seed", text, "--json"}));
    EXPECT_EQ(seed, nlohmann::json::parse(::testing::internal::GetCapturedStdout()).at("seed"));
  }
}

TEST_F(CheckCommand, BadArgumentsAreRefusedByName) {
  struct Case {
    std::vector<std::string> arguments;
    const char* text;
  };
  for (const Case& c : {
           Case{{"check"}, "PATH"},
           Case{{"check", In("gone")}, "gone"},
           Case{{"check", In("tree"), "--segment-size", "1000"},
                "segment size 1000 is not a power of two from 512 to 1048576"},
           Case{{"check", In("tree"), "--segment-size", "2M"},
                "segment size 2097152 is not a power of two"},
           Case{{"check", In("tree"), "--segment-size", "0"}, "segment size 0 is not"},
           Case{{"check", In("tree"), "--segment-size", "-512"}, "--segment-size"},
           Case{{"check", In("tree"), "--segment-size", "many"}, "many"},
           Case{{"check", In("tree"), "--segment-size", "99999999999999999999"}, "--segment-size"},
           Case{{"check", In("tree"), "--seed", "x"}, "--seed"},
           Case{{"check", In("tree"), "--seed", "-1"}, "seed '-1' is not a decimal number from 0"},
           Case{{"check", In("tree"), "--seed", "18446744073709551616"}, "18446744073709551616"},
           Case{{"check", In("tree"), "--seed", ""}, "seed '' is not"},
           Case{{"check", In("tree"), "--seed", "0x10"}, "seed '0x10' is not"},
           Case{{"check", In("tree"), "--seed", " 1"}, "seed ' 1' is not"},
           Case{{"check", In("tree"), "--store", ""}, "--store: "},
           Case{{"check", In("tree"), ""}, "'' does not exist"},
           Case{{"check", In("tree/two/x")}, "Not a directory (ENOTDIR)"},
           Case{{"check", In("tree"), "--nonsense"}, "--nonsense"},
       }) {
    SCOPED_TRACE(::testing::PrintToString(c.arguments));
    err.str("");
    EXPECT_EQ(-1, Parse(c.arguments));
    EXPECT_THAT(err.str(), HasSubstr(c.text));
    EXPECT_EQ(1, LinesOf(err.str()));
  }
}

}  // namespace
}  // namespace zefs::refhost
