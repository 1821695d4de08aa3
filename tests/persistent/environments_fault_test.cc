// Each call that opens, closes or counts a database fails once.

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <ostream>

#include <gmock/gmock.h>

#include "tests/persistent/abort_trace.h"
#include "tests/persistent/open_databases_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using zefs::test::AbortTrace;
using zefs::test::Call;
using zefs::test::CodeOf;
using zefs::test::Faults;
using zefs::test::Held;
using zefs::test::Records;
using zefs::test::Stored;
using zefs::test::WatchCalls;

constexpr const char* kSmall = CMappingLMDB::LSML0DB;
constexpr const char* kFull = CMappingLMDB::FULLDB;
constexpr const char* kTmp = CMappingLMDB::TMPDB;
const std::string kCleared = "0 CMappingLMDB::ClearDBEnv()";

// --- SetupDBEnv ----------------------------------------------------------------------------------

/// How far SetupDBEnv has come when a call of it fails.
enum class Left {
  kNothing,      ///< no environment, no file
  kEnvironment,  ///< an open environment and its files
  kTransaction,  ///< a write transaction besides
};

struct Step {
  const char* name;
  Call call;
  std::vector<int> codes;
  std::string line;  ///< PATH and CODE stand for what they say
  Left left;
};

void PrintTo(const Step& step, std::ostream* out) {
  *out << step.name;
}

class SetupFaultTest : public zefs::test::OpenDatabasesTest,
                       public testing::WithParamInterface<Step> {
 protected:
  LMDBContext& small() { return peer().smallDb(); }

  std::string LineOf(const Step& step, int code) const {
    const std::string line = Replaced(step.line, "PATH", Path(kSmall));
    return "8 " + Replaced(line, "CODE", std::to_string(code));
  }

  /// `files`, unless the step comes before there are any.
  static std::set<std::string> FilesOf(const Step& step, const std::set<std::string>& files) {
    return step.left == Left::kNothing ? std::set<std::string>{} : files;
  }

  /// Lets the call of the step fail with `code`, and looks at what SetupDBEnv leaves.
  void Fail(const Step& step, int code) {
    log_.Take();
    AbortTrace aborts;
    const WatchCalls watch(dir_.path().string());
    Faults::FailNth(step.call, 1, code);
    EXPECT_EQ(code, peer().SetupDBEnv(Path(kSmall), &small(), kMapSize));
    EXPECT_TRUE(Faults::Fired());
    EXPECT_THAT(
        LinesWithoutAddresses(),
        ElementsAre("0 CMappingLMDB::SetupDBEnv, dbPath=" + Path(kSmall), LineOf(step, code)));
    EXPECT_FALSE(small().opened);
    EXPECT_EQ(Path(kSmall), small().path);
    EXPECT_EQ(step.left == Left::kNothing, small().env == nullptr);
    EXPECT_EQ(FilesOf(step, {"lsml0.mdb", "lsml0.mdb-lock"}), Files());
    if (step.call == Call::kMdbTxnCommit) {
      EXPECT_THAT(aborts.Take(), ElementsAre("write lsml0.mdb")) << "by the commit, and once";
    } else {
      EXPECT_THAT(aborts.Take(), IsEmpty());
    }
  }

  /// What ClearDBEnv makes of it.
  void Clear(const Step& step) {
    log_.Take();
    EXPECT_EQ(0, peer().ClearDBEnv(&small()));
    EXPECT_THAT(Lines(), ElementsAre(kCleared));
    EXPECT_EQ(nullptr, small().env);
    EXPECT_FALSE(small().opened);
    EXPECT_EQ(
        step.left == Left::kNothing ? std::set<std::string>{} : std::set<std::string>{"lsml0.mdb"},
        Files())
        << "no lock file";
    fs::remove(File(kSmall));
  }
};

std::vector<Step> Steps(const std::vector<Left>& wanted) {
  const std::vector<Step> all{
      {"Create",
       Call::kMdbEnvCreate,
       {ENOMEM, MDB_PANIC},
       "Failed to create db env, return value is CODE",
       Left::kNothing},
      {"MapSize",
       Call::kMdbEnvSetMapsize,
       {EINVAL, ENOMEM},
       "Failed to set memory map size for db env, return value is CODE",
       Left::kNothing},
      {"MaxDbs",
       Call::kMdbEnvSetMaxdbs,
       {EINVAL},
       "Failed to set max dbs for db env, return value is CODE",
       Left::kNothing},
      {"Open",
       Call::kMdbEnvOpen,
       {EACCES, EAGAIN, ENOENT, MDB_INVALID, MDB_VERSION_MISMATCH},
       "Failed to open env for db PATH, return value is CODE",
       Left::kNothing},
      {"Begin",
       Call::kMdbTxnBegin,
       {ENOMEM, MDB_PANIC, MDB_MAP_RESIZED},
       "Failed to open transaction for db PATH, return value is CODE",
       Left::kEnvironment},
      {"DbiOpen",
       Call::kMdbDbiOpen,
       {MDB_DBS_FULL, MDB_INCOMPATIBLE, ENOMEM},
       "Failed to open db instance PATH, return value is CODE",
       Left::kTransaction},
      {"SetCompare",
       Call::kMdbSetCompare,
       {EINVAL, MDB_BAD_DBI},
       "Failed to set comparison function for db PATH, return value is CODE",
       Left::kTransaction},
      {"Commit",
       Call::kMdbTxnCommit,
       {ENOSPC, EIO, MDB_MAP_FULL, MDB_PANIC},
       "Failed to commit a transaction PTR. ret=CODE",
       Left::kEnvironment}};
  std::vector<Step> steps;
  std::copy_if(all.begin(), all.end(), std::back_inserter(steps), [&](const Step& step) {
    return std::find(wanted.begin(), wanted.end(), step.left) != wanted.end();
  });
  return steps;
}

TEST_P(SetupFaultTest, IsToldAndLeavesADatabaseThatCanBeClosedAndOpened) {
  const Step& step = GetParam();
  MakeDirectory();
  Make();
  for (const int code : step.codes) {
    SCOPED_TRACE(code);
    Fail(step, code);
    Clear(step);
  }
  EXPECT_EQ(0, peer().SetupDBEnv(Path(kSmall), &small(), kMapSize));
  EXPECT_TRUE(small().opened);
  ObjectID oid = zefs::test::Oid(70);
  EXPECT_EQ(0, peer().SetDOIDUnlocked(&small(), &oid));
  EXPECT_EQ(1U, RecordsAtTheEnd(kSmall).size());
}

INSTANTIATE_TEST_SUITE_P(AFailure, SetupFaultTest,
                         testing::ValuesIn(Steps({Left::kNothing, Left::kEnvironment})),
                         [](const auto& test) { return std::string(test.param.name); });

using SetupFaultInATransactionTest = SetupFaultTest;

// The write transaction stays open on purpose. Closing the environment under it leaves its lock on
// the thread's list of locks, in memory that is gone: what the thread does with another database
// afterwards is undefined, so that a process of its own ends right behind.
TEST_P(SetupFaultInATransactionTest, IsToldAndLeavesADatabaseThatCanBeClosed) {
  const Step& step = GetParam();
  MakeDirectory();
  for (const int code : step.codes) {
    SCOPED_TRACE(code);
    InChild([&] {
      Make();
      Fail(step, code);
      Clear(step);
    });
  }
}

INSTANTIATE_TEST_SUITE_P(AFailure, SetupFaultInATransactionTest,
                         testing::ValuesIn(Steps({Left::kTransaction})),
                         [](const auto& test) { return std::string(test.param.name); });

// --- ClearDBEnv ----------------------------------------------------------------------------------

class EnvironmentsFaultTest : public zefs::test::OpenDatabasesTest {
 protected:
  LMDBContext& small() { return peer().smallDb(); }
};

TEST_F(EnvironmentsFaultTest, ALockThatCannotBeRemovedIsTold) {
  Open();
  const std::string lock = Path(kSmall) + "-lock";
  const WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kUnlink, 1, EACCES);
  EXPECT_EQ(-1, peer().ClearDBEnv(&small()));
  EXPECT_TRUE(Faults::Fired());
  EXPECT_THAT(Lines(), ElementsAre(kCleared, "8 Failed to remove lock " + lock));
  EXPECT_EQ(nullptr, small().env);
  EXPECT_TRUE(fs::exists(lock));
  EXPECT_EQ(0, peer().ClearDBEnv(&small())) << "another try";
  EXPECT_FALSE(fs::exists(lock));
}

TEST_F(EnvironmentsFaultTest, ALockOfWhichNothingCanBeToldIsLeft) {
  Open();
  const WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kStat, 1, EACCES);
  EXPECT_EQ(0, peer().ClearDBEnv(&small()));
  EXPECT_TRUE(Faults::Fired());
  EXPECT_THAT(Lines(), ElementsAre(kCleared));
  EXPECT_EQ(0, Faults::Count(Call::kUnlink));
  EXPECT_EQ(nullptr, small().env);
  EXPECT_TRUE(fs::exists(Path(kSmall) + "-lock"));
}

TEST_F(EnvironmentsFaultTest, TheDestructorThrowsNothingWhenNoLockCanBeRemoved) {
  Open();
  const WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kUnlink, 1, EACCES, true);
  Destroy();
  EXPECT_EQ(2, Faults::Count(Call::kUnlink));
  EXPECT_THAT(Lines(8), ElementsAre("8 Failed to remove lock " + Path(kSmall) + "-lock",
                                    "8 Failed to remove lock " + Path(kFull) + "-lock"));
}

// --- CheckAndCreateDir ---------------------------------------------------------------------------

TEST_F(EnvironmentsFaultTest, ADirectoryThatCannotBeMadeIsTold) {
  Make();
  const WatchCalls watch(dir_.path().string());
  const std::string told =
      "8 Failed to create directories " + DirectoryName() + ", try to see if it can continue";
  const auto expectTold = [&](Call call, const std::vector<std::string>& lines) {
    zefs::test::WriteBytes(Directory(), "in the way");
    log_.Take();
    Faults::FailNth(call, 1, EACCES);
    EXPECT_FALSE(peer().CheckAndCreateDir(DirectoryName()));
    EXPECT_TRUE(Faults::Fired());
    EXPECT_EQ(lines, Lines());
    EXPECT_FALSE(fs::is_directory(Directory()));
    Faults::Disarm();
  };
  const std::string entered = "0 CMappingLMDB::CheckAndCreateDir()";
  const std::string removed = "0 Removed file " + DirectoryName();
  expectTold(Call::kStat, {entered, told});
  EXPECT_TRUE(fs::exists(Directory())) << "untouched";
  expectTold(Call::kUnlink, {entered, told});
  EXPECT_TRUE(fs::exists(Directory())) << "untouched";
  expectTold(Call::kMkdir, {entered, removed, told});
  EXPECT_FALSE(fs::exists(Directory())) << "removed before";
  EXPECT_TRUE(peer().CheckAndCreateDir(DirectoryName())) << "another try";
}

// --- DbSizeUnlocked ------------------------------------------------------------------------------

/// One database of a count, the calls of whose transaction fail.
struct Counted {
  const char* database;
  const char* ended;                     ///< its transaction
  std::vector<std::string> endedBefore;  ///< those of the databases counted before it
};

void PrintTo(const Counted& counted, std::ostream* out) {
  *out << counted.database;
}

class DbSizeFaultTest : public zefs::test::OpenDatabasesTest,
                        public testing::WithParamInterface<Counted> {
 protected:
  DbSizeFaultTest() {
    // More in any two of them than the special items, which do not count.
    Write(kSmall, {Stored(0, 10, 70), Stored(10, 20, 70), Stored(20, 30, 70)});
    Write(kFull, {Stored(0, 10, 70), Stored(10, 20, 70), Stored(20, 30, 70)});
    Write(kTmp, {Stored(0, 10, 70), Stored(10, 20, 70), Stored(20, 30, 70)});
    Open();
    OpenTmp();
  }

  void ExpectThatItCountsAgain() {
    Faults::Disarm();
    EXPECT_EQ(5, peer().DbSizeUnlocked());
    EXPECT_EQ(5, table().size());
    EXPECT_EQ(0, table().setExtMapVersion({2, 0})) << "and a writer can begin";
    EXPECT_EQ(6, table().size()) << "with one more record";
  }

  std::vector<std::string> Ended(bool withThis) const {
    std::vector<std::string> ended = GetParam().endedBefore;
    if (withThis) {
      ended.emplace_back(GetParam().ended);
    }
    return ended;
  }
};

TEST_P(DbSizeFaultTest, AFailureToBeginIsThrown) {
  const WatchCalls watch(dir_.path().string());
  Faults::OnlyDatabase(GetParam().database);
  for (const int code : {ENOMEM, MDB_READERS_FULL, MDB_PANIC}) {
    AbortTrace aborts;
    Faults::FailNth(Call::kMdbTxnBegin, 1, code);
    EXPECT_EQ(code, CodeOf([this] { peer().DbSizeUnlocked(); }));
    EXPECT_THAT(Lines(), ElementsAre("8 Failed to open transaction for db " + DirectoryName() +
                                     ", return value is " + std::to_string(code)));
    EXPECT_EQ(Ended(false), aborts.Take());
    Faults::FailNth(Call::kMdbTxnBegin, 1, code);
    EXPECT_EQ(code, CodeOf([this] { table().size(); }));
    EXPECT_EQ(Held::kNot, TableLock());
    log_.Take();
  }
  ExpectThatItCountsAgain();
}

TEST_P(DbSizeFaultTest, AFailedCursorIsThrown) {
  AbortTrace aborts;
  const WatchCalls watch(dir_.path().string());
  Faults::OnlyDatabase(GetParam().database);
  Faults::FailNth(Call::kMdbCursorOpen, 1, ENOMEM);
  EXPECT_EQ(ENOMEM, CodeOf([this] { peer().DbSizeUnlocked(); }));
  EXPECT_THAT(Lines(), ElementsAre("8 Failed to create a cursor, return value is " +
                                   std::to_string(ENOMEM)));
  EXPECT_EQ(Ended(true), aborts.Take());
  EXPECT_EQ(0, Faults::Count(Call::kMdbStat));
  ExpectThatItCountsAgain();
}

TEST_P(DbSizeFaultTest, AFailedCountGivesZeroAndAsksNoFurther) {
  AbortTrace aborts;
  const WatchCalls watch(dir_.path().string());
  Faults::OnlyDatabase(GetParam().database);
  Faults::FailNth(Call::kMdbStat, 1, MDB_BAD_TXN);
  EXPECT_EQ(0, peer().DbSizeUnlocked());
  EXPECT_THAT(Lines(), ElementsAre("8 Failed to read mdb status, return value is " +
                                   std::to_string(MDB_BAD_TXN)));
  EXPECT_EQ(Ended(true), aborts.Take());
  ExpectThatItCountsAgain();
}

TEST_P(DbSizeFaultTest, AClosedDatabaseIsToldByCodeZero) {
  LMDBContext& db = GetParam().database == std::string(kSmall)  ? peer().smallDb()
                    : GetParam().database == std::string(kFull) ? peer().fullDb()
                                                                : peer().tmpDb();
  peer().ClearDBEnv(&db);
  db.opened = true;  // the tmp database is asked only then
  log_.Take();
  AbortTrace aborts;
  int code = -1;
  try {
    peer().DbSizeUnlocked();
  } catch (const SysException& e) {
    code = e.code;
  }
  EXPECT_EQ(0, code);
  EXPECT_THAT(Lines(), ElementsAre("8 Failed to open transaction for db " + DirectoryName() +
                                   ", return value is 0"));
  EXPECT_EQ(Ended(false), aborts.Take());
}

INSTANTIATE_TEST_SUITE_P(
    OfThe, DbSizeFaultTest,
    testing::Values(Counted{kSmall, "write lsml0.mdb", {}},
                    Counted{kFull, "read data.mdb", {"write lsml0.mdb"}},
                    Counted{kTmp, "read tmp.mdb", {"write lsml0.mdb", "read data.mdb"}}),
    [](const auto& test) {
      const std::string name(test.param.database);
      return std::string(name == kSmall ? "Small" : name == kFull ? "Full" : "Tmp") + "Database";
    });

}  // namespace
