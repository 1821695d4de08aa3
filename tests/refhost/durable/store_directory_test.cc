#include "refhost/durable/store_directory.h"

#include <set>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "refhost/store/store_error.h"
#include "tests/refhost/store/store_fixture.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using Missing = StoreDirectory::Missing;
using test::ThrownText;

class StoreDirectoryTest : public ::testing::Test {
 protected:
  std::string Path() const { return (dir / "store").string(); }
  std::string Refused(Missing missing, const WantedFormat& wanted = {}) const {
    return ThrownText<StoreError>([&] { StoreDirectory(Path(), missing, wanted); });
  }
  test::TempDir dir;
};

TEST_F(StoreDirectoryTest, FormatOfANewStoreHoldsForItsLife) {
  WantedFormat wanted;
  wanted.segmentSize = 4096;
  wanted.tableType = "INGEST";
  { const StoreDirectory made(Path(), Missing::kIsMade, wanted); }
  const StoreDirectory opened(Path(), Missing::kIsAnError);
  EXPECT_EQ(4096U, opened.format().segmentSize);
  EXPECT_EQ("INGEST", opened.format().tableType);
  EXPECT_TRUE(fs::is_directory(opened.containers()));
  EXPECT_TRUE(fs::is_directory(opened.tables()));
}

TEST_F(StoreDirectoryTest, OtherFormatThanWantedIsRefused) {
  { const StoreDirectory made(Path(), Missing::kIsMade); }
  WantedFormat size;
  size.segmentSize = 4096;
  EXPECT_EQ("the store " + Path() + " has segments of 16384; it cannot be opened with 4096",
            Refused(Missing::kIsMade, size));
  WantedFormat type;
  type.tableType = "GENERIC";
  EXPECT_EQ(
      "the store " + Path() + " has tables of type PROVISION; it cannot be opened with GENERIC",
      Refused(Missing::kIsAnError, type));
}

TEST_F(StoreDirectoryTest, FormatsThatThereAreNotAreRefused) {
  WantedFormat size;
  size.segmentSize = 1000;
  EXPECT_THROW(StoreDirectory(Path(), Missing::kIsMade, size), std::invalid_argument);
  WantedFormat type;
  type.tableType = "generic";
  EXPECT_EQ(
      "table type 'generic' is none of PROVISION, INGEST and GENERIC",
      ThrownText<std::invalid_argument>([&] { StoreDirectory(Path(), Missing::kIsMade, type); }));
  const StoreDirectory made(Path(), Missing::kIsMade);  // neither has left a store behind
  EXPECT_EQ(16384U, made.format().segmentSize);
}

TEST_F(StoreDirectoryTest, WhatIsNoStoreIsLeftAlone) {
  EXPECT_EQ("cannot open the store " + Path() + ": No such file or directory (ENOENT)",
            Refused(Missing::kIsAnError));
  fs::create_directory(Path());
  EXPECT_EQ(Path() + " is no store: it has no file 'format'", Refused(Missing::kIsAnError));
  test::WriteFile(Path() + "/mine", "x");
  EXPECT_EQ(Path() + " is no store: it has no file 'format'", Refused(Missing::kIsMade));
  EXPECT_FALSE(fs::exists(Path() + "/lock"));
  fs::remove_all(Path());
  test::WriteFile(Path(), "a file");
  EXPECT_EQ("cannot open the store " + Path() + ": Not a directory (ENOTDIR)",
            Refused(Missing::kIsMade));
}

TEST_F(StoreDirectoryTest, StoreWhoseMakingWasCutShortIsMadeAgain) {
  fs::create_directory(Path());
  test::WriteFile(Path() + "/format.new", "zefs-ho");
  test::WriteFile(Path() + "/lock", "");
  const StoreDirectory made(Path(), Missing::kIsMade);
  EXPECT_TRUE(fs::exists(Path() + "/format"));
}

TEST_F(StoreDirectoryTest, DamagedFormatIsRefused) {
  { const StoreDirectory made(Path(), Missing::kIsMade); }
  for (const char* const text :
       {"", "zefs-host store 2\nsegment_size 4096\ntable_type PROVISION\n",
        "zefs-host store 1\nsegment_size 1000\ntable_type PROVISION\n",
        "zefs-host store 1\nsegment_size 4096\ntable_type X\n", "zefs-host store 1\n",
        "zefs-host store 2\nsegment_size 4096\ntable_type PROVISION\nid 0123456789abcdef\n",
        "zefs-host store 2\nsegment_size 4096\ntable_type PROVISION\nid x\nvolume /tmp\n",
        "zefs-host store 2\nsegment_size 4096\ntable_type PROVISION\nvolume /tmp\n",
        "zefs-host store 2\nsegment_size 512\ntable_type INGEST\nid 00ff00ff00ff00ff\nx"}) {
    test::WriteFile(Path() + "/format", text);
    EXPECT_EQ(Path() + "/format is damaged, or of a store that this version does not know",
              Refused(Missing::kIsAnError))
        << text;
  }
}

TEST_F(StoreDirectoryTest, VolumesHaveADirectoryOfTheStore) {
  WantedFormat wanted;
  for (const char* const name : {"a volume", "v2"}) {
    fs::create_directory(dir / name);
    wanted.volumes.push_back((dir / name).string());
  }
  std::string first;
  {
    const StoreDirectory made(Path(), Missing::kIsMade, wanted);
    EXPECT_EQ(2U, made.volumes());
    first = made.tables(0);
    EXPECT_EQ(fs::canonical(dir / "a volume").string() + "/zefs-" + made.format().id, first);
    EXPECT_TRUE(fs::is_directory(first));
    EXPECT_TRUE(fs::is_directory(made.tables(1)));
    EXPECT_EQ(made.tables(1) + "/7", made.table(TableOn(1, 7)));
    EXPECT_EQ(1U, VolumeOf(TableOn(1, 7)));
    EXPECT_EQ(7U, NumberOf(TableOn(1, 7)));
  }
  const StoreDirectory opened(Path(), Missing::kIsAnError);
  EXPECT_EQ(first, opened.tables(0));
  std::set<std::size_t> chosen;
  for (int i = 0; i < 20; ++i) {
    chosen.insert(opened.VolumeFor(std::to_string(i)));
  }
  EXPECT_EQ((std::set<std::size_t>{0, 1}), chosen);
}

TEST_F(StoreDirectoryTest, StoreWithoutVolumesIsItsOwn) {
  const StoreDirectory made(Path(), Missing::kIsMade);
  EXPECT_EQ(1U, made.volumes());
  EXPECT_EQ(0U, made.VolumeFor("any"));
  EXPECT_EQ(Path() + "/tables/7", made.table(7));
}

TEST_F(StoreDirectoryTest, SecondOpenerIsRefusedWhileTheFirstIsThere) {
  {
    const StoreDirectory first(Path(), Missing::kIsMade);
    EXPECT_EQ("the store " + Path() + " is in use by another process",
              Refused(Missing::kIsAnError));
  }
  const StoreDirectory second(Path(), Missing::kIsAnError);
}

}  // namespace
}  // namespace zefs::refhost
