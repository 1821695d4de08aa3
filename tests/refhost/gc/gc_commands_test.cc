#include "refhost/cli/gc_commands.h"

#include <fcntl.h>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "refhost/cli/exit_status.h"
#include "refhost/cli/store_commands.h"
#include "tests/refhost/gc/gc_fixture.h"

namespace zefs::refhost {
namespace {

using test::GcTest;
using test::kSegment;
using test::Segments;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class GcCommands : public GcTest {
 protected:
  void SetUp() override {
    PutInterleaved(
        {{"gone", Segments(1, 24)}, {"too", Segments(2, 24)}, {"stays", Segments(3, 24)}});
    store().Sync();
    Put("dead", Segments(4, 32));
    store().Sync();
    for (const char* const name : {"gone", "too", "dead"}) {
      Remove(name);
    }
    store().Sync();
    store().CloseFiles();
    Close();
  }

  nlohmann::json Json() {
    const std::string text = out_.str();
    out_.str("");
    return nlohmann::json::parse(text);
  }

  std::ostringstream out_;
  std::ostringstream err_;
};

TEST_F(GcCommands, GcAndCompactTellWhatTheyDid) {
  EXPECT_EQ(kExitFine, GcAndReport(Path(), true, out_, err_)) << err_.str();
  nlohmann::json json = Json();
  EXPECT_EQ(1, json.at("tables_asked"));
  EXPECT_EQ(0, json.at("tables_skipped"));
  EXPECT_GE(json.at("entries_dropped"), 72);
  EXPECT_EQ(2, json.at("containers_removed")) << "the rest of the dead file shares one";
  EXPECT_EQ(12288, json.at("bytes_reclaimed"));
  EXPECT_EQ(5, json.at("containers_kept"));

  EXPECT_EQ(kExitFine, CompactAndReport(Path(), 50, true, out_, err_)) << err_.str();
  json = Json();
  EXPECT_EQ(5, json.at("containers_sparse"));
  EXPECT_EQ(24, json.at("objects_moved"));
  EXPECT_EQ(24 * kSegment, json.at("bytes_moved"));
  EXPECT_EQ(1, json.at("containers_written"));
  EXPECT_EQ(1, json.at("tables_rewritten"));
  EXPECT_EQ(24, json.at("extents_rewritten"));
  EXPECT_EQ(50, json.at("below"));
  EXPECT_TRUE(json.at("damaged").empty());

  EXPECT_EQ(kExitFine, GcAndReport(Path(), false, out_, err_));
  EXPECT_THAT(out_.str(), AllOf(StartsWith("collected:\n"), HasSubstr("containers removed"),
                                HasSubstr("40.0 KiB")));
  out_.str("");
  EXPECT_EQ(kExitFine, VerifyAndReport(Path(), true, out_, err_)) << err_.str();
  EXPECT_EQ(24, Json().at("objects"));
  EXPECT_EQ("", err_.str());
}

TEST_F(GcCommands, DamageIsStatusOneAndNamed) {
  FileHandle::Open(Path() + "/containers/64", O_RDWR).WriteAt(0, std::string(8192, 'x'));
  EXPECT_EQ(kExitDifference, CompactAndReport(Path(), 50, true, out_, err_));
  EXPECT_THAT(err_.str(), StartsWith("damage, left where it is: object "));
  EXPECT_FALSE(Json().at("damaged").empty());
}

TEST_F(GcCommands, WhatCannotBeDoneIsStatusTwoAndOneLine) {
  const std::string none = Path() + "/none";
  EXPECT_EQ(kExitCannotRun, GcAndReport(none, false, out_, err_));
  EXPECT_EQ(kExitCannotRun, CompactAndReport(none, 50, false, out_, err_));
  const std::string reason =
      ": cannot open the store " + none + ": No such file or directory (ENOENT)\n";
  EXPECT_EQ("zefs-host gc" + reason + "zefs-host compact" + reason, err_.str());
  EXPECT_EQ("", out_.str());
}

TEST_F(GcCommands, PerCentsAreFromOneToAHundred) {
  for (const char* const below : {"0", "101", "-1", "half"}) {
    int status = kExitFine;
    CLI::App app;
    AddGcCommands(app, &status);
    EXPECT_THROW(app.parse("compact " + Path() + " --below " + below), CLI::ParseError) << below;
  }
}

}  // namespace
}  // namespace zefs::refhost
