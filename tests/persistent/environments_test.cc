// Opening and closing databases, the table's directory, words for codes, and the count of records.

#include <climits>
#include <cstring>
#include <unistd.h>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/persistent/abort_trace.h"
#include "tests/persistent/open_databases_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using zefs::test::AbortTrace;
using zefs::test::DigestOf;
using zefs::test::kPlainCommitCounterKey;
using zefs::test::kPlainDoidKey;
using zefs::test::kPlainFileSizeKey;
using zefs::test::kPlainVersionKey;
using zefs::test::Records;
using zefs::test::SpecialBytes;
using zefs::test::Stored;
using zefs::test::WriteBytes;

constexpr const char* kSmall = CMappingLMDB::LSML0DB;
constexpr const char* kFull = CMappingLMDB::FULLDB;
constexpr const char* kTmp = CMappingLMDB::TMPDB;
const std::string kCleared = "0 CMappingLMDB::ClearDBEnv()";

unsigned int ModeOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(0, ::stat(path.c_str(), &status));
  return status.st_mode & 07777U;
}

std::size_t MapSizeOf(const LMDBContext& db) {
  MDB_envinfo info{};
  EXPECT_EQ(0, ::mdb_env_info(db.env, &info));
  return info.me_mapsize;
}

/// The process's umask, for the life of this object.
class Umask {
 public:
  explicit Umask(mode_t mask) : before_(::umask(mask)) {}
  ~Umask() { ::umask(before_); }
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;

 private:
  mode_t before_;
};

/// The working directory of the process, for the life of this object.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const fs::path& path) : before_(fs::current_path()) {
    fs::current_path(path);
  }
  ~WorkingDirectory() {
    boost::system::error_code ignored;
    fs::current_path(before_, ignored);
  }
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;

 private:
  fs::path before_;
};

class EnvironmentsTest : public zefs::test::OpenDatabasesTest {
 protected:
  /// A table without a database, and its directory.
  void MakeClosed() {
    MakeDirectory();
    Make();
    log_.Take();
  }
  LMDBContext& small() { return peer().smallDb(); }
  std::string LockOf(const char* name) const { return Path(name) + "-lock"; }
};

TEST(FileNames, AreThoseOfStoredTables) {
  EXPECT_STREQ("lsml0.mdb", CMappingLMDB::LSML0DB);
  EXPECT_STREQ("data.mdb", CMappingLMDB::FULLDB);
  EXPECT_STREQ("tmp.mdb", CMappingLMDB::TMPDB);
  EXPECT_STREQ("mergedb", CMappingLMDB::MERGEDB);
  EXPECT_STREQ("-lock", CMappingLMDB::MDB_NO_SUBDIR_LOCK);
  EXPECT_STREQ("data.mdb", CMappingLMDB::MDB_DATANAME);
  EXPECT_STREQ("lock.mdb", CMappingLMDB::MDB_LOCKNAME);
  EXPECT_STREQ("bloom", CMappingLMDB::BLOOM_FILE);
  EXPECT_STREQ("bloom.tmp", CMappingLMDB::BLOOM_TMP_FILE);
  EXPECT_STREQ("bloom.merge", CMappingLMDB::BLOOM_MERGE_FILE);
  EXPECT_STREQ("dcoffset", CMappingLMDB::OFFSET_STORE_NAME);
  EXPECT_STREQ("journal", ExtentJournal::JOURNAL_FILENAME);
  EXPECT_STREQ(".rep", ExtentJournal::REPLAY_EXTENTION);
}

TEST(AnLmdbContext, StartsClosedAndClosesNothing) {
  const LMDBContext context;
  EXPECT_EQ(nullptr, context.env);
  EXPECT_EQ("", context.path);
  EXPECT_FALSE(context.opened);
  MDB_env* env = nullptr;
  ASSERT_EQ(0, ::mdb_env_create(&env));
  { [[maybe_unused]] const LMDBContext opened{env, 1, "somewhere", true}; }
  EXPECT_EQ(0, ::mdb_env_set_maxdbs(env, 1)) << "still there";
  ::mdb_env_close(env);
}

// --- SetupDBEnv ----------------------------------------------------------------------------------

TEST_F(EnvironmentsTest, ADatabaseIsOneFileOfItsOwnerWithALockBesideIt) {
  MakeClosed();
  const Umask none(0);
  EXPECT_EQ(0, peer().SetupDBEnv(Path(kSmall), &small(), kMapSize));
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::SetupDBEnv, dbPath=" + Path(kSmall)));
  EXPECT_TRUE(small().opened);
  ASSERT_NE(nullptr, small().env);
  EXPECT_EQ(Path(kSmall), small().path);
  EXPECT_EQ((std::set<std::string>{"lsml0.mdb", "lsml0.mdb-lock"}), Files());
  EXPECT_EQ(0600U, ModeOf(Path(kSmall)));
  EXPECT_EQ(0600U, ModeOf(LockOf(kSmall)));
}

TEST_F(EnvironmentsTest, AnEnvironmentHasTheSizeAndFlagsAndRoomForOneDatabaseMore) {
  MakeClosed();
  ASSERT_EQ(0, peer().SetupDBEnv(Path(kSmall), &small(), 3UL << 20));
  EXPECT_EQ(3UL << 20, MapSizeOf(small()));
  unsigned int flags = 0;
  ASSERT_EQ(0, ::mdb_env_get_flags(small().env, &flags));
  EXPECT_EQ(static_cast<unsigned int>(MDB_NOSUBDIR | MDB_NOTLS), flags);
  MDB_txn* txn = nullptr;
  ASSERT_EQ(0, ::mdb_txn_begin(small().env, nullptr, 0, &txn));
  MDB_dbi unnamed = 0;
  EXPECT_EQ(0, ::mdb_dbi_open(txn, nullptr, 0, &unnamed));
  EXPECT_EQ(unnamed, small().dbi);
  ::mdb_txn_abort(txn);
  ASSERT_EQ(0, ::mdb_txn_begin(small().env, nullptr, 0, &txn));
  MDB_dbi named = 0;
  EXPECT_EQ(0, ::mdb_dbi_open(txn, "first one", MDB_CREATE, &named));
  EXPECT_EQ(MDB_DBS_FULL, ::mdb_dbi_open(txn, "second one", MDB_CREATE, &named));
  ::mdb_txn_abort(txn);
}

TEST_F(EnvironmentsTest, KeysSortAsSignedNumbersFromTheStart) {
  MakeClosed();
  ASSERT_EQ(0, peer().SetupDBEnv(Path(kSmall), &small(), kMapSize));
  MDB_txn* txn = nullptr;
  ASSERT_EQ(0, ::mdb_txn_begin(small().env, nullptr, 0, &txn));
  for (const std::int64_t number : {INT64_MAX, INT64_MIN, std::int64_t{256}, std::int64_t{-1}}) {
    RecordKey key(number);
    MDB_val keyVal = key.Val();
    MDB_val value{};
    EXPECT_EQ(0, ::mdb_put(txn, small().dbi, &keyVal, &value, 0));
  }
  MDB_cursor* cursor = nullptr;
  ASSERT_EQ(0, ::mdb_cursor_open(txn, small().dbi, &cursor));
  std::vector<std::int64_t> numbers;
  MDB_val key{};
  MDB_val value{};
  while (::mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0) {
    numbers.push_back(ReadKey(key));
  }
  ::mdb_txn_abort(txn);
  EXPECT_THAT(numbers, ElementsAre(INT64_MIN, -1, 256, INT64_MAX));
}

TEST_F(EnvironmentsTest, ADatabaseThatIsThereKeepsItsRecords) {
  const Records records{{kPlainFileSizeKey, SpecialBytes(10)}, Stored(0, 10, 70)};
  Write(kSmall, records);
  MakeClosed();
  EXPECT_EQ(0, peer().SetupDBEnv(Path(kSmall), &small(), kMapSize));
  EXPECT_EQ(records, RecordsAtTheEnd(kSmall));
}

TEST_F(EnvironmentsTest, NoContextIsRefused) {
  MakeClosed();
  EXPECT_EQ(-1, peer().SetupDBEnv(Path(kSmall), nullptr, kMapSize));
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::SetupDBEnv, dbPath=" + Path(kSmall)));
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(EnvironmentsTest, ADatabaseThatCannotBeOpenedLeavesNothingOpen) {
  MakeClosed();
  fs::create_directory(File("directory"));
  WriteBytes(File("garbage"), std::string(8192, 'x'));
  const auto setup = [this](const std::string& name) {
    log_.Take();
    const int code = peer().SetupDBEnv(Path(name), &small(), kMapSize);
    EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::SetupDBEnv, dbPath=" + Path(name),
                                     "8 Failed to open env for db " + Path(name) +
                                         ", return value is " + std::to_string(code)));
    EXPECT_EQ(nullptr, small().env);
    EXPECT_FALSE(small().opened);
    EXPECT_EQ(Path(name), small().path);
    return code;
  };
  EXPECT_EQ(ENOENT, setup("missing/lsml0.mdb"));
  EXPECT_EQ(EISDIR, setup("directory"));
  EXPECT_EQ(MDB_INVALID, setup("garbage"));
  EXPECT_EQ(0, peer().SetupDBEnv(Path(kSmall), &small(), kMapSize)) << "another file, and it works";
}

TEST_F(EnvironmentsTest, LoadGivesEachDatabaseItsMapSize) {
  Write(kTmp, {});
  Set(&FileSystemDaemonConfig::bigTableMapSizeGiB, 5U);
  Load();
  EXPECT_EQ(0x100000000UL, MapSizeOf(peer().smallDb()));
  EXPECT_EQ(0x100000000UL, MapSizeOf(peer().tmpDb()));
  EXPECT_EQ(5UL << 30, MapSizeOf(peer().fullDb())) << "wider than 32 bits";
  EXPECT_THAT(peer().dbChain(), ElementsAre(&peer().tmpDb(), &peer().smallDb(), &peer().fullDb()));
  EXPECT_EQ(Path(kTmp), peer().tmpDb().path);
  EXPECT_EQ(Path(kSmall), peer().smallDb().path);
  EXPECT_EQ(Path(kFull), peer().fullDb().path);
}

// --- ClearDBEnv ----------------------------------------------------------------------------------

TEST_F(EnvironmentsTest, ClosingRemovesTheLockAndMayBeDoneTwice) {
  MakeClosed();
  ASSERT_EQ(0, peer().SetupDBEnv(Path(kSmall), &small(), kMapSize));
  log_.Take();
  EXPECT_EQ(0, peer().ClearDBEnv(&small()));
  EXPECT_THAT(Lines(), ElementsAre(kCleared));
  EXPECT_EQ(nullptr, small().env);
  EXPECT_FALSE(small().opened);
  EXPECT_EQ(Path(kSmall), small().path);
  EXPECT_THAT(Files(), ElementsAre("lsml0.mdb"));
  EXPECT_EQ(0, peer().ClearDBEnv(&small()));
  EXPECT_THAT(Lines(), ElementsAre(kCleared));
  EXPECT_THAT(Files(), ElementsAre("lsml0.mdb"));
  EXPECT_EQ(0, peer().SetupDBEnv(Path(kSmall), &small(), kMapSize)) << "and may be opened again";
}

TEST_F(EnvironmentsTest, ClosingNothingIsNoFailure) {
  MakeClosed();
  EXPECT_EQ(0, peer().ClearDBEnv(nullptr));
  EXPECT_THAT(Lines(), ElementsAre(kCleared));
}

TEST_F(EnvironmentsTest, ClosingAContextWithoutAPathTouchesNoFile) {
  MakeClosed();
  WriteBytes(File("-lock"), "not ours");
  const WorkingDirectory inside(Directory());
  EXPECT_EQ(0, peer().ClearDBEnv(&small()));
  EXPECT_THAT(Lines(), ElementsAre(kCleared));
  EXPECT_THAT(Files(), ElementsAre("-lock"));
}

TEST_F(EnvironmentsTest, ALockThatIsMissingAtTheCloseIsNoFailure) {
  MakeClosed();
  ASSERT_EQ(0, peer().SetupDBEnv(Path(kSmall), &small(), kMapSize));
  fs::remove(LockOf(kSmall));
  log_.Take();
  EXPECT_EQ(0, peer().ClearDBEnv(&small()));
  EXPECT_THAT(Lines(), ElementsAre(kCleared));
  EXPECT_EQ(nullptr, small().env);
}

TEST_F(EnvironmentsTest, ALockOfADatabaseThatWasNeverOpenedIsRemoved) {
  MakeClosed();
  small().path = Path(kSmall);
  WriteBytes(LockOf(kSmall), "left over");
  EXPECT_EQ(0, peer().ClearDBEnv(&small()));
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(EnvironmentsTest, ALockThatStaysIsAFailureOfAClosedDatabase) {
  MakeClosed();
  ASSERT_EQ(0, peer().SetupDBEnv(Path(kSmall), &small(), kMapSize));
  fs::remove(LockOf(kSmall));
  fs::create_directories(LockOf(kSmall) + "/full");
  log_.Take();
  EXPECT_EQ(-1, peer().ClearDBEnv(&small()));
  EXPECT_THAT(Lines(), ElementsAre(kCleared, "8 Failed to remove lock " + LockOf(kSmall)));
  EXPECT_EQ(nullptr, small().env);
  EXPECT_FALSE(small().opened);
}

// --- CheckAndCreateDir ---------------------------------------------------------------------------

class CheckAndCreateDirTest : public EnvironmentsTest {
 protected:
  CheckAndCreateDirTest() {
    Make();
    log_.Take();
  }
  std::vector<std::string> CreationLines() const {
    return {kEntered, "0 Removed file " + DirectoryName()};
  }
  const std::string kEntered = "0 CMappingLMDB::CheckAndCreateDir()";
};

TEST_F(CheckAndCreateDirTest, MakesAMissingDirectoryWithItsParentsWhateverTheUmask) {
  const Umask all(0277);
  const std::string path = (dir_ / "a").string();
  EXPECT_TRUE(peer().CheckAndCreateDir(path));
  EXPECT_THAT(Lines(), ElementsAre(kEntered, "0 Removed file " + path));
  EXPECT_EQ(0700U, ModeOf(path));
  {
    const Umask none(0);
    EXPECT_TRUE(peer().CheckAndCreateDir(path + "/b/c"));
  }
  EXPECT_EQ(0700U, ModeOf(path + "/b/c"));
  EXPECT_EQ(0777U, ModeOf(path + "/b")) << "parents get no mode of their own";
}

TEST_F(CheckAndCreateDirTest, ReplacesAFile) {
  WriteBytes(Directory(), "in the way");
  EXPECT_TRUE(peer().CheckAndCreateDir(DirectoryName()));
  EXPECT_EQ(CreationLines(), Lines());
  EXPECT_TRUE(fs::is_directory(Directory()));
  EXPECT_EQ(0700U, ModeOf(Directory()));
  EXPECT_TRUE(fs::is_empty(Directory()));
}

TEST_F(CheckAndCreateDirTest, ReplacesALinkThatLeadsNowhere) {
  fs::create_symlink(dir_ / "nowhere", Directory());
  EXPECT_TRUE(peer().CheckAndCreateDir(DirectoryName()));
  EXPECT_EQ(CreationLines(), Lines());
  EXPECT_FALSE(fs::is_symlink(Directory()));
  EXPECT_EQ(0700U, ModeOf(Directory()));
  EXPECT_FALSE(fs::exists(dir_ / "nowhere"));
}

TEST_F(CheckAndCreateDirTest, LeavesADirectoryAsItIs) {
  MakeDirectory();
  WriteBytes(File("kept"), "kept");
  ASSERT_EQ(0, ::chmod(Directory().c_str(), 0755));
  EXPECT_TRUE(peer().CheckAndCreateDir(DirectoryName()));
  EXPECT_THAT(Lines(), ElementsAre(kEntered));
  EXPECT_EQ(0755U, ModeOf(Directory()));
  EXPECT_THAT(Files(), ElementsAre("kept"));
  fs::create_directory_symlink(Directory(), dir_ / "link");
  EXPECT_TRUE(peer().CheckAndCreateDir((dir_ / "link").string()));
  EXPECT_TRUE(fs::is_symlink(dir_ / "link")) << "a link to one as well";
}

TEST_F(CheckAndCreateDirTest, SaysSoWhenAComponentIsAFile) {
  WriteBytes(dir_ / "file", "a file");
  const std::string path = (dir_ / "file" / "table").string();
  EXPECT_FALSE(peer().CheckAndCreateDir(path));
  const std::vector<std::string> lines = Lines();
  EXPECT_EQ(kEntered, lines.front());
  EXPECT_EQ("8 Failed to create directories " + path + ", try to see if it can continue",
            lines.back());
  EXPECT_EQ("a file", zefs::test::BytesOf(dir_ / "file"));
}

TEST_F(CheckAndCreateDirTest, SaysSoWhenThereIsNoPath) {
  EXPECT_FALSE(peer().CheckAndCreateDir(""));
  EXPECT_EQ("8 Failed to create directories , try to see if it can continue", Lines().back());
}

// --- LMDBErrorMessage ----------------------------------------------------------------------------

TEST(LmdbErrorMessage, SevenCodesHaveWordsOfTheirOwnAndTheOthersThoseOfTheSystem) {
  const std::vector<std::pair<int, std::string>> words{
      {-30799, "The key exists"},
      {-30798, "The key was not found"},
      {-30796, "lmdb corrupted"},
      {-30795, "lmdb panic"},
      {-30794, "lmdb version mismatch"},
      {-30792, "lmdb map is full -- increase max lmdb file size?"},
      {-30780, "bad lmdb dbi"},
      {2, "No such file or directory"},
      {0, std::strerror(0)},
      {-1, std::strerror(-1)},
      {MDB_PAGE_NOTFOUND, std::strerror(MDB_PAGE_NOTFOUND)}};
  for (const auto& [code, text] : words) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(text, CMappingLMDB::LMDBErrorMessage(code));
    EXPECT_EQ("returning: " + text + '\n', testing::internal::GetCapturedStdout());
  }
  EXPECT_EQ(7U, MappingLMDBTestPeer::mdb_errno_to_string().size());
}

// --- TraceLog ------------------------------------------------------------------------------------

TEST_F(EnvironmentsTest, TraceLogSaysNothing) {
  const auto before = Lines();
  CMappingLMDB::TraceLog("%s %d", "text", 1);
  EXPECT_EQ(before, Lines());
}

// --- DbSizeUnlocked ------------------------------------------------------------------------------

class DbSizeTest : public EnvironmentsTest {
 protected:
  static Records Extents(int count) {
    Records records;
    for (int i = 0; i < count; ++i) {
      records.push_back(Stored(i * 10, i * 10 + 10, 70));
    }
    return records;
  }
};

TEST_F(DbSizeTest, AFreshTableHoldsNoExtents) {
  Load();
  AbortTrace aborts;
  log_.Take();
  EXPECT_EQ(0, peer().DbSizeUnlocked());
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_THAT(aborts.Take(), ElementsAre("write lsml0.mdb", "read data.mdb"));
  EXPECT_EQ(0, table().size());
}

TEST_F(DbSizeTest, FourRecordsAreTakenOffHoweverManySpecialItemsThereAre) {
  const Records special{{kPlainVersionKey, SpecialBytes(2, 0)},
                        {kPlainFileSizeKey, SpecialBytes(10)},
                        {kPlainCommitCounterKey, SpecialBytes(0)},
                        {kPlainDoidKey, SpecialBytes(0, DigestOf(0))}};
  for (std::size_t items = 0; items <= special.size(); ++items) {
    Write(kFull, Records(special.begin(), special.begin() + static_cast<long>(items)));
    Open();
    EXPECT_EQ(0, peer().DbSizeUnlocked()) << items << " special items";
    Destroy();
  }
  Write(kSmall, Extents(3));
  Open();
  EXPECT_EQ(3, peer().DbSizeUnlocked());
  Destroy();
  Write(kSmall, {special[1]});
  Open();
  EXPECT_EQ(4, peer().DbSizeUnlocked()) << "a fifth special item counts";
}

TEST_F(DbSizeTest, TheSumOfExtentsAloneIsFourShort) {
  Write(kSmall, Extents(3));
  Open();
  EXPECT_EQ(0, peer().DbSizeUnlocked());
  Destroy();
  Write(kFull, Extents(2));
  Open();
  EXPECT_EQ(1, peer().DbSizeUnlocked());
}

TEST_F(DbSizeTest, RecordsOfAllThreeDatabasesCountTheSameRangeThreeTimes) {
  for (const char* name : {kSmall, kFull, kTmp}) {
    Write(name, Extents(5));
  }
  Open();
  EXPECT_EQ(6, peer().DbSizeUnlocked()) << "a tmp database that is not open does not count";
  OpenTmp();
  AbortTrace aborts;
  EXPECT_EQ(11, peer().DbSizeUnlocked());
  EXPECT_THAT(aborts.Take(), ElementsAre("write lsml0.mdb", "read data.mdb", "read tmp.mdb"));
  EXPECT_EQ(11, table().size());
  long extents = -1;
  long keys = -1;
  EXPECT_EQ(11, table().getTableSize(&extents, &keys));
  EXPECT_EQ(0, extents);
  EXPECT_EQ(0, keys);
  peer().tmpDb().opened = false;
  EXPECT_EQ(6, peer().DbSizeUnlocked());
}

}  // namespace
