#include "refhost/cli/store_commands.h"

#include <fcntl.h>
#include <string>

#include <gmock/gmock.h>

#include "refhost/cli/exit_status.h"
#include "tests/refhost/durable/commands_fixture.h"
#include "tests/support/ordinary_user.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::Pattern;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class StoreCommands : public test::CommandsTest {
 protected:
  StoreCommands() {
    fs::create_directories(dir / "tree/sub");
    test::WriteFile(dir / "tree/one", Pattern(1, 40000));
    test::WriteFile(dir / "tree/sub/copy", Pattern(1, 40000));
    test::WriteFile(dir / "tree/empty", "");
    fs::create_symlink(dir / "tree/one", dir / "tree/link");
    options.store = In("store");
    options.paths = {In("tree")};
  }

  int Put(bool json = false) {
    Forget();
    return PutAndReport(options, json, out, err);
  }
  int Verify(bool json = false) {
    Forget();
    return VerifyAndReport(In("store"), json, out, err);
  }
  std::string BytesOf(const std::string& path) const {
    const FileHandle file = FileHandle::Open(path, O_RDONLY);
    std::string bytes(static_cast<std::size_t>(file.Size()), '\0');
    file.ReadAt(0, bytes.data(), bytes.size());
    return bytes;
  }

  PutOptions options;
};

TEST_F(StoreCommands, PutTellsWhatItDid) {
  EXPECT_EQ(kExitFine, Put(true)) << err.str();
  const nlohmann::json json = Json();
  EXPECT_EQ(3, json.at("files"));
  EXPECT_EQ(1, json.at("not_regular"));
  EXPECT_EQ(80000, json.at("bytes"));
  EXPECT_EQ(40000, json.at("stored_bytes"));
  EXPECT_EQ(2.0, json.at("dedup_ratio"));
  EXPECT_EQ(6, json.at("nodes"));
  EXPECT_EQ(6, json.at("nodes_released"));
  EXPECT_EQ(2, json.at("flushes"));
  EXPECT_EQ("", err.str());
  EXPECT_EQ(kExitFine, Put());
  EXPECT_THAT(out.str(), AllOf(StartsWith("put:\n"), HasSubstr("dedup ratio")));
}

TEST_F(StoreCommands, EveryFileComesBackAsItWas) {
  ASSERT_EQ(kExitFine, Put());
  for (const char* const name : {"tree/one", "tree/sub/copy", "tree/empty"}) {
    Forget();
    EXPECT_EQ(kExitFine, GetAndReport(In("store"), In(name), In("back"), false, out, err));
    EXPECT_EQ(BytesOf(In(name)), BytesOf(In("back"))) << name;
    fs::remove(dir / "back");
  }
}

TEST_F(StoreCommands, PutAgainReplacesAndVerifyFindsAllSound) {
  ASSERT_EQ(kExitFine, Put());
  test::WriteFile(dir / "tree/one", Pattern(2, 30000));
  options.paths = {In("tree/one")};
  ASSERT_EQ(kExitFine, Put());
  EXPECT_EQ(kExitFine, GetAndReport(In("store"), In("tree/one"), In("back"), false, out, err));
  EXPECT_EQ(Pattern(2, 30000), BytesOf(In("back")));
  EXPECT_EQ(kExitFine, Verify(true)) << err.str();
  EXPECT_TRUE(Json().at("sound").get<bool>());
  EXPECT_EQ(3, Json().at("files"));
  EXPECT_EQ(70000, Json().at("bytes"));
  EXPECT_EQ(5, Json().at("extents"));
}

TEST_F(StoreCommands, ListAndStatTellWhatIsThere) {
  ASSERT_EQ(kExitFine, Put());
  Forget();
  EXPECT_EQ(kExitFine, ListAndReport(In("store"), false, out, err));
  EXPECT_EQ("               0   " + In("tree/empty") + "\n          40,000   " + In("tree/one") +
                "\n          40,000   " + In("tree/sub/copy") + "\n",
            out.str());
  Forget();
  EXPECT_EQ(kExitFine, ListAndReport(In("store"), true, out, err));
  EXPECT_EQ(In("tree/one"), Json().at("files").at(1).at("name"));
  EXPECT_EQ(40000, Json().at("files").at(1).at("size"));
  EXPECT_EQ(Json().at("files").at(1).at("sha256"), Json().at("files").at(2).at("sha256"));
  Forget();
  EXPECT_EQ(kExitFine, StatAndReport(In("store"), true, out, err));
  EXPECT_EQ(3, Json().at("files"));
  EXPECT_EQ(40000, Json().at("container_bytes"));
  EXPECT_EQ(6, Json().at("extents_small"));
  EXPECT_EQ(0, Json().at("extents_full"));
  EXPECT_EQ(16384, Json().at("segment_size"));
}

TEST_F(StoreCommands, ReadingAheadIsCountedAndStatTellsItOfAllRuns) {
  test::WriteFile(dir / "tree/long", Pattern(3, std::size_t{2} << 20));
  options.paths = {In("tree/long")};
  ASSERT_EQ(kExitFine, Put());
  const auto expectFigures = [&](std::uint64_t plans, std::uint64_t fetched, std::uint64_t hits,
                                 std::uint64_t misses) {
    EXPECT_EQ(plans, Json().at("prefetch_plans"));
    EXPECT_EQ(plans, Json().at("prefetch_containers"));
    EXPECT_EQ(fetched, Json().at("prefetch_fetched_bytes"));
    EXPECT_EQ(hits, Json().at("prefetch_hits"));
    EXPECT_EQ(misses, Json().at("prefetch_misses"));
  };
  const auto expectStat = [&](std::uint64_t runs) {
    Forget();
    ASSERT_EQ(kExitFine, StatAndReport(In("store"), true, out, err));
    expectFigures(runs, runs * (2U << 20), runs * 64, runs * 64);
  };
  expectStat(0);
  Forget();
  ASSERT_EQ(kExitFine, GetAndReport(In("store"), In("tree/long"), In("back"), true, out, err));
  expectFigures(1, 2U << 20, 64, 64);
  expectStat(1);
  EXPECT_EQ(kExitFine, Verify(true));
  expectFigures(1, 2U << 20, 64, 64);
  expectStat(2);
  ReadAheadOptions none;
  none.windowBytes = 0;
  Forget();
  ASSERT_EQ(kExitFine, VerifyAndReport(In("store"), true, out, err, none));
  expectFigures(0, 0, 0, 0);
  expectStat(2);
  Forget();
  ASSERT_EQ(kExitFine, StatAndReport(In("store"), false, out, err));
  EXPECT_THAT(out.str(), ::testing::ContainsRegex("from what was fetched ahead +128\n"));
}

TEST_F(StoreCommands, DamageIsStatusOneAndNamed) {
  ASSERT_EQ(kExitFine, Put());
  FileHandle::Open(In("store/containers/64"), O_RDWR).WriteAt(100, "damage");
  EXPECT_EQ(kExitDifference, Verify(true));
  EXPECT_THAT(err.str(), StartsWith("damage in " + In("tree/one") + ": extent ["));
  EXPECT_FALSE(Json().at("sound").get<bool>());
  EXPECT_EQ(2, Json().at("damaged"));
  Forget();
  EXPECT_EQ(kExitDifference,
            GetAndReport(In("store"), In("tree/one"), In("back"), false, out, err));
  EXPECT_THAT(err.str(), HasSubstr("its digest differs"));
  EXPECT_FALSE(fs::exists(dir / "back"));
}

TEST_F(StoreCommands, WhatCannotBeDoneIsStatusTwoAndOneLine) {
  EXPECT_EQ(kExitCannotRun, Verify());
  EXPECT_EQ("zefs-host verify: cannot open the store " + In("store") +
                ": No such file or directory (ENOENT)\n",
            err.str());
  ASSERT_EQ(kExitFine, Put());
  Forget();
  EXPECT_EQ(kExitCannotRun, GetAndReport(In("store"), "none", In("back"), false, out, err));
  EXPECT_EQ("zefs-host get: no file 'none' in the store " + In("store") + "\n", err.str());
  EXPECT_FALSE(fs::exists(dir / "back"));
  Forget();
  EXPECT_EQ(kExitCannotRun,
            GetAndReport(In("store"), In("tree/one"), In("tree/empty"), false, out, err));
  EXPECT_EQ("zefs-host get: cannot create " + In("tree/empty") + ": File exists (EEXIST)\n",
            err.str());
  EXPECT_TRUE(fs::exists(dir / "tree/empty")) << "what was there stays";
  EXPECT_EQ("", out.str());
}

TEST_F(StoreCommands, WhereNoFileCanBeReadEachIsNamedBeforeThat) {
  fs::permissions(dir / "tree/one", fs::no_perms);
  fs::permissions(dir.path(), fs::all_all);
  options.paths = {In("tree/one")};
  const test::AsOrdinaryUser user;
  EXPECT_EQ(kExitCannotRun, Put());
  EXPECT_EQ("skipped " + In("tree/one") +
                ": Permission denied (EACCES)\nzefs-host put: no readable file was found, 1 "
                "skipped, 0 passed over as not regular\n",
            err.str());
  EXPECT_EQ("", out.str());
}

TEST_F(StoreCommands, UnreadableFilesAreSkippedAndNamed) {
  fs::permissions(dir / "tree/one", fs::no_perms);
  fs::create_directory(dir / "place");
  fs::permissions(dir / "place", fs::all_all);
  options.store = In("place/store");
  const test::AsOrdinaryUser user;
  EXPECT_EQ(kExitFine, Put(true)) << err.str();
  EXPECT_EQ("skipped " + In("tree/one") + ": Permission denied (EACCES)\n", err.str());
  EXPECT_EQ(2, Json().at("files"));
}

}  // namespace
}  // namespace zefs::refhost
