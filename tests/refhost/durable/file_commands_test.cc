#include "refhost/cli/file_commands.h"

#include <cstdlib>
#include <string>

#include <CLI/CLI.hpp>
#include <gmock/gmock.h>
#include <sys/wait.h>

#include "refhost/cli/exit_status.h"
#include "refhost/cli/store_commands.h"
#include "tests/refhost/durable/commands_fixture.h"
#include "tests/support/file_bytes.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::Pattern;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class FileCommands : public test::CommandsTest {
 protected:
  FileCommands() {
    fs::create_directories(dir / "tree");
    test::WriteFile(dir / "tree/one", Pattern(1, 40000));
    test::WriteFile(dir / "tree/two", Pattern(2, 50000));
    put.store = store;
    put.paths = {In("tree")};
  }

  void Put() {
    ASSERT_EQ(kExitFine, PutAndReport(put, false, out, err)) << err.str();
    Forget();
  }
  void ExpectSound() {
    Forget();
    EXPECT_EQ(kExitFine, VerifyAndReport(store, false, out, err)) << err.str();
    Forget();
  }
  /// The file as get gives it back.
  std::string BytesOf(const std::string& name) {
    Forget();
    EXPECT_EQ(kExitFine, GetAndReport(store, name, In("back"), false, out, err)) << err.str();
    Forget();
    std::string bytes = test::BytesOf(In("back"));
    fs::remove(dir / "back");
    return bytes;
  }
  std::string Listed() {
    Forget();
    EXPECT_EQ(kExitFine, ListAndReport(store, true, out, err));
    const nlohmann::json files = Json().at("files");
    std::string names;
    for (const nlohmann::json& file : files) {
      names += file.at("name").get<std::string>() + " " + file.at("size").dump() + "\n";
    }
    Forget();
    return names;
  }

  const std::string store = In("store");
  const std::string one = In("tree/one");
  const std::string two = In("tree/two");
  PutOptions put;
};

TEST_F(FileCommands, TruncateCutsAndGrows) {
  Put();
  EXPECT_EQ(kExitFine, TruncateAndReport(store, one, 20000, true, out, err)) << err.str();
  EXPECT_EQ(one, Json().at("name"));
  EXPECT_EQ(40000, Json().at("bytes_before"));
  EXPECT_EQ(20000, Json().at("bytes"));
  EXPECT_EQ(Pattern(1, 20000), BytesOf(one));
  EXPECT_EQ(kExitFine, TruncateAndReport(store, one, 30000, false, out, err)) << err.str();
  EXPECT_THAT(out.str(), AllOf(StartsWith("cut:\n"), HasSubstr("bytes before")));
  EXPECT_EQ(Pattern(1, 20000) + std::string(10000, '\0'), BytesOf(one));
  ExpectSound();
  EXPECT_EQ(one + " 30000\n" + two + " 50000\n", Listed());
}

TEST_F(FileCommands, RemoveTakesAllOrNone) {
  Put();
  EXPECT_EQ(kExitCannotRun, RemoveAndReport(store, {one, "none"}, false, out, err));
  EXPECT_EQ("zefs-host rm: no file 'none' in the store " + store + "\n", err.str());
  EXPECT_EQ("", out.str());
  EXPECT_EQ(one + " 40000\n" + two + " 50000\n", Listed());
  EXPECT_EQ(kExitFine, RemoveAndReport(store, {one, two, one}, true, out, err)) << err.str();
  EXPECT_EQ(2, Json().at("files"));
  EXPECT_EQ(90000, Json().at("bytes"));
  EXPECT_EQ("", Listed());
  EXPECT_TRUE(fs::is_empty(dir / "store/tables"));
  ExpectSound();
}

TEST_F(FileCommands, MoveRenamesAndReplacesOnlyIfForced) {
  Put();
  EXPECT_EQ(kExitFine, MoveAndReport(store, one, "first", false, true, out, err)) << err.str();
  EXPECT_EQ("first", Json().at("new_name"));
  EXPECT_EQ("stays", Json().at("table"));
  EXPECT_FALSE(Json().at("replaced").get<bool>());
  Forget();
  EXPECT_EQ(kExitCannotRun, MoveAndReport(store, "first", two, false, false, out, err));
  EXPECT_EQ("zefs-host mv: there is a file '" + two + "' in the store " + store + " already\n",
            err.str());
  EXPECT_EQ(two + " 50000\nfirst 40000\n", Listed());
  EXPECT_EQ(kExitFine, MoveAndReport(store, "first", two, true, true, out, err)) << err.str();
  EXPECT_TRUE(Json().at("replaced").get<bool>());
  EXPECT_EQ(Pattern(1, 40000), BytesOf(two));
  EXPECT_EQ(two + " 40000\n", Listed());
  ExpectSound();
}

TEST_F(FileCommands, SnapshotIsAFileOfItsOwn) {
  Put();
  EXPECT_EQ(kExitFine, SnapshotAndReport(store, one, "snap", true, out, err)) << err.str();
  EXPECT_EQ("snap", Json().at("snapshot"));
  EXPECT_EQ(40000, Json().at("bytes"));
  Forget();
  EXPECT_EQ(kExitCannotRun, SnapshotAndReport(store, two, "snap", false, out, err));
  EXPECT_EQ("zefs-host snapshot: there is a file 'snap' in the store " + store + " already\n",
            err.str());
  ASSERT_EQ(kExitFine, TruncateAndReport(store, one, 10, false, out, err));
  EXPECT_EQ(Pattern(1, 40000), BytesOf("snap"));
  ASSERT_EQ(kExitFine, MoveAndReport(store, "snap", one, true, false, out, err));
  EXPECT_EQ(Pattern(1, 40000), BytesOf(one));
  ExpectSound();
}

TEST_F(FileCommands, StatTellsTheTablesOfEachVolume) {
  fs::create_directory(dir / "v1");
  fs::create_directory(dir / "v2");
  put.format.volumes = {In("v1"), In("v2")};
  for (int i = 0; i < 10; ++i) {
    test::WriteFile(dir / "tree" / std::to_string(i), "x");
  }
  Put();
  EXPECT_EQ(kExitFine, StatAndReport(store, true, out, err)) << err.str();
  const nlohmann::json volumes = Json().at("volumes");
  ASSERT_EQ(2U, volumes.size());
  EXPECT_EQ(fs::canonical(dir / "v1").string(), volumes.at(0).at("path"));
  EXPECT_EQ(12, volumes.at(0).at("tables").get<int>() + volumes.at(1).at("tables").get<int>());
  Forget();
  EXPECT_EQ(kExitFine, StatAndReport(store, false, out, err));
  EXPECT_THAT(out.str(), AllOf(HasSubstr("tables on volume 1"), HasSubstr("tables on volume 2")));
  ExpectSound();
}

TEST_F(FileCommands, StoreWithoutVolumesHasAnEmptyListOfThem) {
  Put();
  EXPECT_EQ(kExitFine, StatAndReport(store, true, out, err));
  EXPECT_EQ(nlohmann::json::array(), Json().at("volumes"));
}

TEST_F(FileCommands, NoCommandMakesAStore) {
  EXPECT_EQ(kExitCannotRun, TruncateAndReport(store, one, 0, false, out, err));
  EXPECT_EQ(kExitCannotRun, RemoveAndReport(store, {one}, false, out, err));
  EXPECT_EQ(kExitCannotRun, MoveAndReport(store, one, two, true, false, out, err));
  EXPECT_EQ(kExitCannotRun, SnapshotAndReport(store, one, two, false, out, err));
  const std::string reason =
      "cannot open the store " + store + ": No such file or directory (ENOENT)\n";
  EXPECT_EQ("zefs-host truncate: " + reason + "zefs-host rm: " + reason +
                "zefs-host mv: " + reason + "zefs-host snapshot: " + reason,
            err.str());
  EXPECT_EQ("", out.str());
  EXPECT_FALSE(fs::exists(store));
}

/// The options, through the parser: what the commands print goes to standard output here.
class FileCommandLine : public FileCommands {
 protected:
  int Parse(const std::vector<std::string>& words) {
    CLI::App app("", "zefs-host");
    int status = -1;
    AddStoreCommands(app, &status);
    AddFileCommands(app, &status);
    std::vector<std::string> reversed(words.rbegin(), words.rend());
    try {
      app.parse(reversed);
    } catch (const CLI::ParseError& error) {
      parseError = error.what();
    }
    return status;
  }
  std::string parseError;
};

TEST_F(FileCommandLine, CommandsTakeTheirArguments) {
  fs::create_directory(dir / "v[1,2]");
  fs::create_directory(dir / "v2");
  testing::internal::CaptureStdout();
  EXPECT_EQ(kExitFine,
            Parse({"put", store, one, two, "--volume", In("v[1,2]"), "--volume", In("v2")}));
  EXPECT_EQ(kExitFine, Parse({"snapshot", store, one, "[a,b]"}));
  EXPECT_EQ(kExitFine, Parse({"truncate", store, one, "1K"}));
  EXPECT_EQ(kExitFine, Parse({"mv", store, one, two, "--force", "--json"}));
  EXPECT_EQ(kExitFine, Parse({"rm", store, "[a,b]"}));
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(two + " 1024\n", Listed());
}

TEST_F(FileCommandLine, BadSizesAreRefused) {
  Put();
  for (const char* const size : {"x", "1.5", "99999999999999999999", "-1"}) {
    parseError.clear();
    EXPECT_EQ(-1, Parse({"truncate", store, one, "--", size})) << size;
    EXPECT_NE("", parseError) << size;
  }
}

/// The real command, a process for each step.
class HostProcess : public FileCommands {
 protected:
  int Run(const std::string& arguments) {
    const std::string command = std::string("'") + ZEFS_HOST + "' " + arguments + " >'" +
                                In("stdout") + "' 2>'" + In("stderr") + "'";
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::string Told(const char* where) const { return test::BytesOf(In(where)); }
};

TEST_F(HostProcess, FilesLiveThroughAllCommands) {
  fs::create_directory(dir / "v1");
  fs::create_directory(dir / "v2");
  const std::string s = " '" + store + "' ";
  ASSERT_EQ(0, Run("put" + s + In("tree") + " --volume " + In("v1") + " --volume " + In("v2")));
  EXPECT_EQ(0, Run("snapshot" + s + one + " snap")) << Told("stderr");
  EXPECT_EQ(0, Run("truncate" + s + one + " 10000 --json")) << Told("stderr");
  EXPECT_EQ(10000, nlohmann::json::parse(Told("stdout")).at("bytes"));
  for (int i = 0; i < 8; ++i) {  // back and forth over the volumes
    const std::string now = "name " + std::to_string(i);
    const std::string former = i == 0 ? one : "'name " + std::to_string(i - 1) + "'";
    std::string arguments = "mv" + s;
    arguments.append(former).append(" '").append(now).append("'");
    EXPECT_EQ(0, Run(arguments)) << Told("stderr");
  }
  EXPECT_EQ(2, Run("mv" + s + "snap " + two));
  EXPECT_EQ("zefs-host mv: there is a file '" + two + "' in the store " + store + " already\n",
            Told("stderr"));
  EXPECT_EQ("", Told("stdout"));
  EXPECT_EQ(0, Run("mv" + s + "--force snap " + two)) << Told("stderr");
  EXPECT_EQ(0, Run("verify" + s)) << Told("stderr");
  EXPECT_EQ(0, Run("get" + s + two + " " + In("back")));
  EXPECT_EQ(Pattern(1, 40000), test::BytesOf(In("back")));
  EXPECT_EQ(0, Run("get" + s + "'name 7' " + In("cut")));
  EXPECT_EQ(Pattern(1, 10000), test::BytesOf(In("cut")));
  EXPECT_EQ(0, Run("rm" + s + two + " 'name 7'")) << Told("stderr");
  EXPECT_EQ(0, Run("ls" + s));
  EXPECT_EQ("", Told("stdout"));
}

TEST_F(HostProcess, WrongCommandLinesAreStatusTwo) {
  for (const char* const arguments :
       {"truncate", "truncate s n", "truncate s n -5", "rm s", "mv s a", "snapshot s a",
        "put s . --volume /no/such/directory"}) {
    EXPECT_EQ(2, Run(arguments)) << arguments;
    EXPECT_THAT(Told("stderr"), StartsWith("zefs-host: ")) << arguments;
    EXPECT_EQ("", Told("stdout"));
  }
}

}  // namespace
}  // namespace zefs::refhost
