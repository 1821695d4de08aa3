// Pipes and directories in place of the files of a table: whatever is there is told, and nothing
// waits.

#include <cerrno>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/support/figures.h"
#include "tests/system/files/file_life_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

class OddFilesTest : public FileLifeTest {
 protected:
  /// Runs `life` in a process that is killed if it waits for good.
  void InTime(const std::function<void()>& life) {
    constexpr unsigned int kFarTooLong = 300;
    InChild([&] {
      ::alarm(kFarTooLong);
      life();
    });
  }

  void PutPipe(const std::string& name) {
    MakeDirectory();
    fs::remove(File(name));
    ASSERT_EQ(0, ::mkfifo(File(name).c_str(), 0600));
  }
  void PutDirectory(const std::string& name) {
    MakeDirectory();
    fs::remove(File(name));
    fs::create_directory(File(name));
    WriteBytes(File(name) / "file", "bytes");
  }
  std::string LoadThrows(const std::string& type = "GENERIC") {
    Make(type);
    log_.Take();
    return Thrown([&] { table().load(Directory().string(), false, ""); });
  }
};

// --- pipes ---------------------------------------------------------------------------------------

TEST_F(OddFilesTest, PipeInPlaceOfAJournalFailsTheLoad) {
  InTime([&] {
    PutPipe("journal");
    EXPECT_EQ("-1", LoadThrows());
    EXPECT_THAT(Lines(kLogFailure),
                ElementsAre("8 failed to open journal file: " + LifecycleTest::Path("journal") +
                                ", errno: 6, err: No such device or address",
                            "8 Failed to start extent journal, return value is -1"));
    Close();
  });
}

TEST_F(OddFilesTest, PipeInPlaceOfAJournalFailsTheFlush) {
  InTime([&] {
    LoadFrom(Directory().string());
    PutPipe("journal");
    log_.Take();
    EXPECT_EQ("-1", Thrown([&] { Store(0, false); }));
    EXPECT_THAT(Lines(kLogFailure),
                Contains("8 failed to open journal file: " + LifecycleTest::Path("journal") +
                         ", errno: 6, err: No such device or address"));
    Close();
  });
}

TEST_F(OddFilesTest, PipeInPlaceOfTheOffsetStoreFailsItsCalls) {
  InTime([&] {
    LoadFrom(Directory().string());
    PutPipe("dcoffset");
    log_.Take();
    EXPECT_EQ(ENXIO, table().AppendToRefreshDcOffsetList(0, 70, DigestOf(1)));
    EXPECT_THAT(Lines(kLogFailure), Contains("8 failed to open dc offset file: " +
                                             LifecycleTest::Path("dcoffset") + ", errno:6"));
    std::vector<DCOffset> wanted;
    EXPECT_EQ(-1, table().GetEmptyDcOffsetList(&wanted));
    EXPECT_TRUE(wanted.empty());
    EXPECT_THAT(
        Lines(kLogFailure),
        Contains("8 failed to open dcoffset, path=" + LifecycleTest::Path("dcoffset") + ", ret=0"));
    fs::remove(File("dcoffset"));
    EXPECT_EQ(0, table().AppendToRefreshDcOffsetList(1, 70, DigestOf(1)));
    EXPECT_EQ(0, table().GetEmptyDcOffsetList(&wanted));
    EXPECT_EQ(2U, wanted.size()) << "nothing was lost";
    Close();
  });
}

TEST_F(OddFilesTest, PipeInPlaceOfABloomFileCountsAsNone) {
  InTime([&] {
    LoadFrom(Directory().string());
    Store(0, true);
    PutPipe("bloom");
    std::vector<std::pair<unsigned long, unsigned long>> dcids;
    std::unique_ptr<BloomFilter> filter;
    table().GetDCIDAndBloomFilter(&dcids, &filter);
    EXPECT_EQ(5U, dcids.size());
    PutPipe("bloom.merge");
    EXPECT_EQ(0, peer().MergeAndSwitch());
    EXPECT_TRUE(fs::is_regular_file(File("bloom"))) << "a merge puts its own in the place of both";
    Close();
  });
}

TEST_F(OddFilesTest, PipeInPlaceOfADatabaseFailsTheLoad) {
  for (const std::string name : {"lsml0.mdb", "lsml0.mdb-lock", "data.mdb", "data.mdb-lock"}) {
    SCOPED_TRACE(name);
    InTime([&] {
      PutPipe(name);
      const std::string thrown = LoadThrows();
      EXPECT_NE("-", thrown);
      const std::string database = name.substr(0, name.find("-lock"));
      EXPECT_THAT(Lines(kLogFailure),
                  ElementsAre("8 Failed to open env for db " + LifecycleTest::Path(database) +
                                  ", return value is " + thrown,
                              "8 Failed to setup env, return value is " + thrown));
      Close();
    });
    fs::remove(File(name));
  }
}

TEST_F(OddFilesTest, PipesInPlaceOfWhatAMergeMakesAreRemoved) {
  for (const std::string name : {"mergedb", "mergedb-lock", "bloom.merge"}) {
    SCOPED_TRACE(name);
    InTime([&] {
      LoadFrom(Directory().string());
      Store(0, true);
      PutPipe(name);
      EXPECT_EQ(0, peer().MergeAndSwitch());
      ExpectContent();
      Close();
    });
    fs::remove_all(Directory());
  }
}

// --- directories ---------------------------------------------------------------------------------

TEST_F(OddFilesTest, DirectoryInPlaceOfADatabaseFailsTheLoadAndStays) {
  for (const std::string name : {"lsml0.mdb", "lsml0.mdb-lock", "data.mdb", "tmp.mdb"}) {
    SCOPED_TRACE(name);
    InTime([&] {
      PutDirectory(name);
      EXPECT_EQ(std::to_string(EISDIR), LoadThrows());
      EXPECT_THAT(Lines(kLogFailure),
                  Contains("8 Failed to setup env, return value is " + std::to_string(EISDIR)));
      Close();
    });
    if (name != "lsml0.mdb-lock") {
      EXPECT_EQ("bytes", BytesOf(File(name) / "file"));
    }
    fs::remove_all(Directory());
  }
}

TEST_F(OddFilesTest, DirectoryInPlaceOfASideFileIsTold) {
  InTime([&] {
    PutDirectory("journal");
    EXPECT_EQ("-1", LoadThrows());
    EXPECT_THAT(Lines(kLogFailure),
                ElementsAre("8 failed to open journal file: " + LifecycleTest::Path("journal") +
                                ", errno: 21, err: Is a directory",
                            "8 Failed to start extent journal, return value is -1"));
    Close();
  });
  fs::remove_all(File("journal"));
  InTime([&] {
    LoadFrom(Directory().string());
    PutDirectory("dcoffset");
    log_.Take();
    EXPECT_EQ(EISDIR, table().AppendToRefreshDcOffsetList(0, 70, DigestOf(1)));
    EXPECT_THAT(Lines(kLogFailure), Contains("8 failed to open dc offset file: " +
                                             LifecycleTest::Path("dcoffset") + ", errno:21"));
    Close();
  });
  EXPECT_EQ("bytes", BytesOf(File("dcoffset") / "file"));
}

TEST_F(OddFilesTest, DirectoryInPlaceOfACompanionIsTold) {
  InTime([&] {
    InChild([&] {
      LoadFrom(Directory().string());
      Store(0, false);
      Close();
    });
    PutDirectory("journal.rep");
    PutDirectory("dcoffset.tmp");
    Make("GENERIC");
    EXPECT_EQ(-1, table().load(Directory().string(), false, ""));
    EXPECT_THAT(Lines(kLogFailure),
                Contains("8 failed to rename file, from=" + LifecycleTest::Path("journal") +
                         ", to=" + LifecycleTest::Path("journal.rep") + ", ret=-1"));
    std::vector<DCOffset> wanted;
    EXPECT_EQ(-1, table().GetEmptyDcOffsetList(&wanted));
    EXPECT_FALSE(wanted.empty()) << "what is wanted is told all the same";
    EXPECT_THAT(Lines(kLogFailure),
                Contains(StartsWith("8 failed to rename file " + LifecycleTest::Path("dcoffset"))));
    Close();
  });
}

TEST_F(OddFilesTest, DirectoryInPlaceOfABloomFileIsNoneAndAMergeStandsWithoutOne) {
  InTime([&] {
    LoadFrom(Directory().string());
    Store(0, true);
    PutDirectory("bloom");
    PutDirectory("bloom.merge");
    std::vector<std::pair<unsigned long, unsigned long>> dcids;
    std::unique_ptr<BloomFilter> filter;
    table().GetDCIDAndBloomFilter(&dcids, &filter);
    EXPECT_EQ(5U, dcids.size());
    log_.Take();
    peer().MergeAndSwitch();
    EXPECT_THAT(Lines(kLogFailure), Contains("8 Failed to store the bloom in file " +
                                             LifecycleTest::Path("bloom.merge")));
    EXPECT_EQ("small full ", Chain());
    ExpectContent();
    Close();
  });
}

TEST_F(OddFilesTest, DirectoryInPlaceOfTheMergeDatabaseFailsTheMergeAlone) {
  InTime([&] {
    LoadFrom(Directory().string());
    Store(0, true);
    PutDirectory("mergedb");
    log_.Take();
    EXPECT_EQ(std::to_string(EIO), Thrown([&] { peer().MergeAndSwitch(); }));
    EXPECT_THAT(Lines(2), ElementsAre("2 Failed to remove old merge db for " +
                                      LifecycleTest::Path("mergedb")));
    EXPECT_EQ("bytes", BytesOf(File("mergedb") / "file"));
    fs::remove_all(File("mergedb"));
    EXPECT_EQ(0, peer().MergeAndSwitch());
    ExpectContent();
    Close();
  });
}

}  // namespace
}  // namespace zefs::test
