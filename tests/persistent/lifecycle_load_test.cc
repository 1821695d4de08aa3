// What load finds, makes and says.

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "host/auto_log_cpu.h"
#include "support/cpu_counters.h"
#include "table/sys_exception.h"
#include "tests/persistent/is_zxfs_switch.h"
#include "tests/persistent/lifecycle_fixture.h"
#include "tests/sidefiles/nommap_recorder.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using Aldenta::Qnd::Morene::Zefs::LMDBContext;
using Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

class LoadTest : public LifecycleTest {
 protected:
  ~LoadTest() override {
    AnswerIsZxfs(false);
    TakeIsZxfsPaths();
    TakeNommapCalls();
  }

  static unsigned int ModeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(0, ::stat(path.c_str(), &status));
    return status.st_mode & 07777U;
  }

  std::string LineOfLoad(const std::string& prefix, int noMmap) {
    std::ostringstream line;
    line << "0 CMappingLMDB::load(), extentPath=" << Directory().string() << ", prefix=" << prefix
         << ", zxfsNoMmap=" << noMmap << ", obj=" << static_cast<void*>(table_.get());
    return line.str();
  }
};

// --- a new directory ---------------------------------------------------------------------------

TEST_F(LoadTest, ANewDirectoryGetsASmallAndAFullDatabaseAndNothingElse) {
  CMappingLMDB& table = Load("GENERIC");
  EXPECT_THAT(Files(),
              UnorderedElementsAre("lsml0.mdb", "lsml0.mdb-lock", "data.mdb", "data.mdb-lock"));
  EXPECT_TRUE(peer().smallDb().opened);
  EXPECT_TRUE(peer().fullDb().opened);
  EXPECT_FALSE(peer().tmpDb().opened);
  EXPECT_THAT(peer().dbChain(), ElementsAre(&peer().smallDb(), &peer().fullDb()));
  EXPECT_EQ(Path("lsml0.mdb"), peer().smallDb().path);
  EXPECT_EQ(Path("data.mdb"), peer().fullDb().path);
  EXPECT_EQ(Directory().string(), peer().path());
  EXPECT_EQ(0, table.size());
  EXPECT_EQ(table.end(), table.begin());
  EXPECT_EQ(0, table.getFileSize());
  EXPECT_EQ(2, table.getExtMapVersion().major);
  Destroy();

  EXPECT_THAT(Files(), UnorderedElementsAre("lsml0.mdb", "data.mdb"));
  const PlainRecord version = {kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)};
  EXPECT_THAT(ReadPlainDatabase(File("data.mdb")), ElementsAre(version));
  const PlainRecord counter = {kPlainCommitCounterKey, SpecialBytes(std::int64_t{0})};
  const PlainRecord doid = {kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})};
  EXPECT_THAT(ReadPlainDatabase(File("lsml0.mdb")), ElementsAre(counter, doid));
}

TEST_F(LoadTest, ANewDirectoryHasItsParentsTooAndIsItsOwnersAlone) {
  const mode_t before = ::umask(0);
  Make();
  EXPECT_EQ(0, table().load((Directory() / "a" / "b").string(), false, ""));
  ::umask(before);
  EXPECT_EQ(0700U, ModeOf(Directory() / "a" / "b"));
  EXPECT_EQ(0600U, ModeOf(Directory() / "a" / "b" / "lsml0.mdb"));
  EXPECT_EQ(0600U, ModeOf(Directory() / "a" / "b" / "data.mdb"));
}

TEST_F(LoadTest, ADirectoryThatExistsKeepsItsModeAndStrangers) {
  MakeDirectory();
  fs::permissions(Directory(), static_cast<fs::perms>(0755));
  WriteBytes(File("stranger"), "bytes");
  Load();
  EXPECT_EQ(0755U, ModeOf(Directory()));
  EXPECT_EQ("bytes", BytesOf(File("stranger")));
}

TEST_F(LoadTest, EachStepOfAFirstLoadIsInTheLog) {
  CMappingLMDB& table = Make();
  Set(&FileSystemDaemonConfig::bigTableMapSizeGiB, 7U);  // read by the constructor, so too late
  EXPECT_EQ(0, table.load(Directory().string(), true, "p-"));
  const auto threshold =
      FileSystemDaemonConfig::GetInstance().Get(&FileSystemDaemonConfig::batchUpdateThreshold);
  EXPECT_THAT(
      Lines(),
      ElementsAre(LineOfLoad("p-", 1), "0 Batch update threshold " + std::to_string(threshold),
                  "0 CMappingLMDB::CheckAndCreateDir()", "0 Removed file " + Directory().string(),
                  "0 CMappingLMDB::SetupDBEnv, dbPath=" + Path("p-lsml0.mdb"),
                  "0 CMappingLMDB::SetupDBEnv, dbPath=" + Path("p-data.mdb"),
                  "0 memory map size for big table is 1073741824",
                  "0 Not found file size, set to 0",
                  "0 Not found lmdb version, set to default: 1.0",
                  "0 update table commit counter 0, ret:0"));
}

TEST_F(LoadTest, EachStepOfALaterLoadIsInTheLog) {
  Load("GENERIC").setFileSize(4096);
  ObjectID oid = Oid(65);
  table().SetDOID(&oid);
  Destroy();
  log_.Take();
  Load("GENERIC");
  const auto threshold =
      FileSystemDaemonConfig::GetInstance().Get(&FileSystemDaemonConfig::batchUpdateThreshold);
  const std::string fp = "01" + std::string(62, '0');
  EXPECT_THAT(Lines(), ElementsAre(LineOfLoad("", 0),
                                   "0 Batch update threshold " + std::to_string(threshold),
                                   "0 CMappingLMDB::CheckAndCreateDir()",
                                   "0 CMappingLMDB::SetupDBEnv, dbPath=" + Path("lsml0.mdb"),
                                   "0 CMappingLMDB::SetupDBEnv, dbPath=" + Path("data.mdb"),
                                   "0 memory map size for big table is 1073741824",
                                   "0 Get file size 4096", "0 Get lmdb version: 2.0",
                                   "0 Get table commit counter 0, db=" + Path("lsml0.mdb"),
                                   "0 Get do fp " + fp + ", dcid 65, db=" + Path("lsml0.mdb"),
                                   "0 GetDOIDUnlocked, dcid:65, fp:" + fp));
  EXPECT_EQ(4096, table().getFileSize());
  ObjectID read;
  EXPECT_EQ(0, table().GetDOID(&read));
  EXPECT_EQ(oid.fp, read.fp);
}

TEST_F(LoadTest, LoadIsAccountedUnderItsName) {
  const bool enabled = AutoLogCpu::enabled_;
  const bool initialized = AutoLogCpu::initialized_;
  EXPECT_EQ(0U, mapping_lmdb_cpu_counters.count("load"));
  AutoLogCpu::enabled_ = true;
  AutoLogCpu::initialized_ = true;
  Load();
  AutoLogCpu::enabled_ = enabled;
  AutoLogCpu::initialized_ = initialized;
  EXPECT_EQ(1U, mapping_lmdb_cpu_counters.count("load"));
}

TEST_F(LoadTest, ThePrefixStandsBeforeEveryFileName) {
  MakeDirectory();
  WriteBytes(File("t1-journal"), JournalBytes({{kOpDel, 0, 10, 70}}));
  WriteBytes(File("journal"), JournalBytes({{kOpDel, 0, 20, 71}}));
  Write("mergedb", {Stored(0, 30, 72)});
  CMappingLMDB& table = Load("GENERIC", "t1-");
  EXPECT_EQ("t1-", peer().prefix());
  EXPECT_THAT(Walk(table), ElementsAre("[0, 10) 70 0 -1"));
  Set(&FileSystemDaemonConfig::dcOffsetStoreThreshold, 1U);
  EXPECT_EQ(0, peer().dcOffsetStore()->CheckAndStore(5, 70, DigestOf(1), -1));
  EXPECT_THAT(Files(), UnorderedElementsAre("t1-lsml0.mdb", "t1-lsml0.mdb-lock", "t1-data.mdb",
                                            "t1-data.mdb-lock", "t1-journal", "t1-dcoffset",
                                            "journal", "mergedb"));
}

// --- what stands in the way of the directory -----------------------------------------------------

TEST_F(LoadTest, APlainFileInPlaceOfTheDirectoryIsReplaced) {
  WriteBytes(Directory(), "a file");
  Load();
  EXPECT_TRUE(fs::is_directory(Directory()));
  EXPECT_EQ(0700U, ModeOf(Directory()));
  EXPECT_THAT(Lines(), testing::Contains("0 Removed file " + Directory().string()));
}

TEST_F(LoadTest, ADirectoryThatCannotBeMadeIsThrownAsCode5) {
  WriteBytes(Directory(), "a file");
  const std::string below = (Directory() / "below").string();
  Make();
  EXPECT_EQ(5, CodeOf([&] { table().load(below, false, ""); }));
  EXPECT_THAT(Lines(1), ElementsAre("8 Failed to create directories " + below +
                                        ", try to see if it can continue",
                                    "2 Failed to check and create dir for " + below));
  EXPECT_EQ("a file", BytesOf(Directory()));
  EXPECT_EQ(nullptr, peer().smallDb().env);
  EXPECT_EQ("", peer().path());
}

TEST_F(LoadTest, ADatabaseFileThatIsNoneIsThrownWithLMDBsCodeAndLeftAlone) {
  MakeDirectory();
  WriteBytes(File("data.mdb"), std::string(10000, 'x'));
  Make();
  EXPECT_EQ(MDB_INVALID, CodeOf([&] { table().load(Directory().string(), false, ""); }));
  const std::string code = std::to_string(MDB_INVALID);
  EXPECT_THAT(Lines(1), ElementsAre("8 Failed to open env for db " + Path("data.mdb") +
                                        ", return value is " + code,
                                    "8 Failed to setup env, return value is " + code));
  EXPECT_TRUE(peer().smallDb().opened) << "stays open";
  EXPECT_FALSE(peer().fullDb().opened);
  EXPECT_EQ("", peer().path());
  Destroy();
  EXPECT_THAT(Files(), UnorderedElementsAre("lsml0.mdb", "data.mdb")) << "no lock file is left";
  EXPECT_EQ(std::string(10000, 'x'), BytesOf(File("data.mdb")));
}

// --- a merge that an earlier life did not end ----------------------------------------------------

TEST_F(LoadTest, AMergedDatabaseTakesTheMissingFullOnesPlace) {
  Write("mergedb", {Stored(0, 10, 70),
                    {kPlainFileSizeKey, SpecialBytes(std::int64_t{123})},
                    {kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)}});
  CMappingLMDB& table = Load();
  EXPECT_THAT(Lines(1), ElementsAre("2 Find a merged db " + Path("mergedb") +
                                    " not rename to fulldb " + Path("data.mdb")));
  EXPECT_FALSE(fs::exists(File("mergedb")));
  EXPECT_THAT(Walk(table), ElementsAre("[0, 10) 70 70000 700"));
  EXPECT_EQ(123, table.getFileSize());
}

TEST_F(LoadTest, AMergedDatabaseBesideAFullOneStaysUntouched) {
  Write("mergedb", {Stored(0, 10, 70)});
  Write("data.mdb", {Stored(0, 10, 71)});
  const std::string merged = BytesOf(File("mergedb"));
  CMappingLMDB& table = Load();
  EXPECT_THAT(Lines(1), IsEmpty());
  EXPECT_THAT(Walk(table), ElementsAre("[0, 10) 71 71000 710"));
  Destroy();
  EXPECT_EQ(merged, BytesOf(File("mergedb")));
  EXPECT_FALSE(fs::exists(File("mergedb-lock")));
}

TEST_F(LoadTest, ATmpDatabaseThatWasLeftIsTheNewestAgain) {
  Write("tmp.mdb", {Stored(0, 10, 70)});
  Write("lsml0.mdb", {Stored(0, 20, 71), {kPlainCommitCounterKey, SpecialBytes(std::int64_t{9})}});
  Write("data.mdb", {Stored(0, 30, 72)});
  InChild([&] {
    CMappingLMDB& table = Load();
    Peer p = peer();
    EXPECT_THAT(p.dbChain(), ElementsAre(&p.tmpDb(), &p.smallDb(), &p.fullDb()));
    EXPECT_TRUE(p.tmpDb().opened);
    EXPECT_EQ(Path("tmp.mdb"), p.tmpDb().path);
    EXPECT_THAT(Walk(table), ElementsAre("[0, 10) 70 70000 700", "[10, 20) 71 71010 710",
                                         "[20, 30) 72 72020 720"));
    EXPECT_EQ(9, p.commitCounter()) << "of the small database";
    // Three extents, and of the special items the version, a counter and a do id.
    EXPECT_EQ(3 + 3 - 4, table.size());
    LMDBContext tmp = p.tmpDb();
    Destroy();
    MDB_stat stat;
    EXPECT_EQ(0, ::mdb_env_stat(tmp.env, &stat)) << "outlives the table";
    EXPECT_EQ(1U, stat.ms_entries);
    EXPECT_THAT(Files(), UnorderedElementsAre("lsml0.mdb", "data.mdb", "tmp.mdb", "tmp.mdb-lock"));
  });
  EXPECT_THAT(Files(), UnorderedElementsAre("lsml0.mdb", "data.mdb", "tmp.mdb", "tmp.mdb-lock"));
  InChild([&] { EXPECT_EQ(3U, Walk(Load()).size()) << "and the next life finds it"; });
}

TEST_F(LoadTest, EachDatabaseHasItsMapSize) {
  Write("tmp.mdb", {});
  Set(&FileSystemDaemonConfig::bigTableMapSizeGiB, 3U);
  InChild([&] {
    Load();
    const auto mapSizeOf = [](const LMDBContext& db) {
      MDB_envinfo info;
      EXPECT_EQ(0, ::mdb_env_info(db.env, &info));
      return info.me_mapsize;
    };
    EXPECT_EQ(0x100000000U, mapSizeOf(peer().smallDb()));
    EXPECT_EQ(0x100000000U, mapSizeOf(peer().tmpDb()));
    EXPECT_EQ(3ULL << 30, mapSizeOf(peer().fullDb()));
  });
}

// --- sizes ---------------------------------------------------------------------------------------

/// File sizes stored in the three databases, -1: none, and what load makes of them.
struct Sizes {
  std::int64_t tmp;
  std::int64_t small;
  std::int64_t full;
  std::int64_t expected;
};

TEST_F(LoadTest, TheFileSizeIsTheLargestOfTheDatabases) {
  for (const Sizes& sizes :
       {Sizes{-1, -1, -1, 0}, Sizes{-1, -1, 5, 5}, Sizes{-1, 7, -1, 7}, Sizes{-1, 7, 5, 7},
        Sizes{-1, 5, 7, 7}, Sizes{9, -1, -1, 9}, Sizes{9, 7, 5, 9}, Sizes{5, 9, 7, 9},
        Sizes{5, 7, 9, 9}, Sizes{5, 7, -1, 7}}) {
    SCOPED_TRACE(std::to_string(sizes.tmp) + ' ' + std::to_string(sizes.small) + ' ' +
                 std::to_string(sizes.full));
    fs::remove_all(Directory());
    const auto write = [&](const char* name, std::int64_t size) {
      if (size >= 0) {
        Write(name, {{kPlainFileSizeKey, SpecialBytes(size)}});
      }
    };
    write("tmp.mdb", sizes.tmp);
    write("lsml0.mdb", sizes.small);
    write("data.mdb", sizes.full);
    InChild([&] {
      Load();
      EXPECT_EQ(sizes.expected, peer().fileSize());
      EXPECT_EQ(sizes.expected, peer().committedFileSize());
      EXPECT_EQ(sizes.expected, table().getFileSize());
    });
  }
}

// --- side files ----------------------------------------------------------------------------------

TEST_F(LoadTest, OnlyAGenericTableHasAJournalAndOthersIgnoreOneThatWasLeft) {
  const std::string left = JournalBytes({{kOpDel, 0, 10, 70}});
  for (const std::string type : {"PROVISION", "INGEST", "generic", ""}) {
    MakeDirectory();
    WriteBytes(File("journal"), left);
    CMappingLMDB& table = Load(type);
    EXPECT_EQ(nullptr, peer().journal());
    EXPECT_THAT(Walk(table), IsEmpty());
    Destroy();
    EXPECT_EQ(left, BytesOf(File("journal"))) << type;
  }
  CMappingLMDB& table = Load("GENERIC");
  EXPECT_NE(nullptr, peer().journal());
  EXPECT_THAT(Walk(table), ElementsAre("[0, 10) 70 0 -1"));
}

TEST_F(LoadTest, WithoutAJournalFileNoneIsStartedOrMade) {
  Load("GENERIC");
  ASSERT_NE(nullptr, peer().journal());
  EXPECT_FALSE(peer().journal()->HasJournal());
  EXPECT_THAT(Lines(1), IsEmpty());
  EXPECT_EQ(-1, peer().journal()->Add({}, Aldenta::Qnd::Morene::Zefs::ADD, 0)) << "not running";
}

TEST_F(LoadTest, AJournalThatCannotBeOpenedIsThrown) {
  fs::create_directories(File("journal"));
  Make("GENERIC");
  EXPECT_EQ(-1, CodeOf([&] { table().load(Directory().string(), false, ""); }));
  EXPECT_THAT(Lines(1), ElementsAre(StartsWith("8 failed to open journal file: " + Path("journal")),
                                    "8 Failed to start extent journal, return value is -1"));
  EXPECT_TRUE(peer().smallDb().opened);
  EXPECT_TRUE(peer().fullDb().opened);
  EXPECT_EQ(nullptr, peer().dcOffsetStore()) << "was not reached";
  Destroy();
  EXPECT_THAT(Files(), UnorderedElementsAre("lsml0.mdb", "data.mdb", "journal"));
}

TEST_F(LoadTest, EveryTypeHasAnOffsetStore) {
  for (const std::string type : {"GENERIC", "PROVISION", "INGEST"}) {
    Load(type);
    ASSERT_NE(nullptr, peer().dcOffsetStore());
    Set(&FileSystemDaemonConfig::dcOffsetStoreThreshold, 100U);
    EXPECT_EQ(0, peer().dcOffsetStore()->CheckAndStore(5, 70, DigestOf(1), -1));
    EXPECT_FALSE(fs::exists(File("dcoffset")));
    Destroy();
    EXPECT_EQ(56U, BytesOf(File("dcoffset")).size());
    fs::remove(File("dcoffset"));
  }
}

TEST_F(LoadTest, SideFilesAvoidMappingsOnlyIfAskedForAndOnlyOnThatFileSystem) {
  for (const bool asked : {false, true}) {
    for (const bool isZxfs : {false, true}) {
      SCOPED_TRACE(std::to_string(int{asked}) + std::to_string(int{isZxfs}));
      fs::remove_all(Directory());
      MakeDirectory();
      WriteBytes(File("journal"), "");
      AnswerIsZxfs(isZxfs);
      TakeIsZxfsPaths();
      TakeNommapCalls();
      Make("GENERIC");
      EXPECT_EQ(0, table().load(Directory().string(), asked, ""));
      EXPECT_EQ(asked && isZxfs, peer().noMmap());
      EXPECT_THAT(TakeIsZxfsPaths(), ElementsAre(Directory().string()));
      EXPECT_EQ(0, peer().dcOffsetStore()->CheckAndStore(5, 70, DigestOf(1), -1));
      EXPECT_EQ(0, peer().dcOffsetStore()->Flush());
      std::set<std::string> paths;
      for (const auto& [path, fd] : TakeNommapCalls()) {
        paths.insert(path);
      }
      if (asked && isZxfs) {
        EXPECT_THAT(paths,
                    UnorderedElementsAre(Path("journal"), Path("journal.rep"), Path("dcoffset")));
      } else {
        EXPECT_THAT(paths, IsEmpty());
      }
      Destroy();
    }
  }
}

// --- loading twice -------------------------------------------------------------------------------

TEST_F(LoadTest, AFailedLoadMayBeTriedAgain) {
  MakeDirectory();
  WriteBytes(File("data.mdb"), std::string(10000, 'x'));
  Make();
  EXPECT_EQ(MDB_INVALID, CodeOf([&] { table().load(Directory().string(), false, ""); }));
  fs::remove(File("data.mdb"));
  EXPECT_EQ(0, table().load(Directory().string(), false, ""));
  EXPECT_THAT(peer().dbChain(), ElementsAre(&peer().smallDb(), &peer().fullDb()));
  EXPECT_EQ(0, table().size());
}

}  // namespace
}  // namespace zefs::test
