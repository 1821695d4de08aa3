// Merges in which one call fails: the words and the outcome of each step, and, for any call at all,
// a table that still shows what it held and merges next time.

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/merge_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

constexpr const char* kFailed =
    "8 Failed to merge db, the performance is potentially impacted, return value is 0";
constexpr const char* kNotLaunched = "8 Failed to launch merge thread";

class MergeFaultTest : public MergeTest {
 protected:
  void SetUp() override {
    LoadBoth({Stored(0, 100, 70), Stored(100, 150, 71)}, {Stored(40, 60, 80)});
    before_ = Walk(table());
    Lines();
    Faults::OnlyBelow(dir_.path().string());
  }
  void TearDown() override { Faults::Reset(); }

  /// What a merge throws, 0 if nothing, while its `nth` such call on a database fails. It has a
  /// thread of its own: where a transaction was left open, that thread must not use LMDB again.
  int MergeWith(Call call, int nth, int error, const std::string& database = "") {
    if (!database.empty()) {
      Faults::OnlyDatabase(database);
    }
    Faults::FailNth(call, nth, error);
    int code = 0;
    std::thread([&] { code = CodeOf([this] { result_ = peer().MergeAndSwitch(); }); }).join();
    EXPECT_TRUE(Faults::Fired());
    Faults::OnlyBelow(dir_.path().string());
    return code;
  }

  /// A merge whose walk fails so: these lines come before the last.
  void ExpectFailedWalk(Call call, int nth, int error, const std::string& database,
                        std::vector<std::string> expected) {
    EXPECT_EQ(0, MergeWith(call, nth, error, database)) << "it ends in the log";
    EXPECT_EQ(0, result_);
    expected.emplace_back(kFailed);
    EXPECT_THAT(Lines(kLogRare), ElementsAreArray(expected));
    ExpectFailedMerge();
    ExpectRecovery();
  }

  /// Reads are right, and the next flush starts a merge, which succeeds.
  void ExpectRecovery() {
    EXPECT_EQ(before_, Walk(table()));
    Lines();
    WriteKnown(1000, 1010, Oid(99));
    Flush();
    peer().WaitingForMerge();
    EXPECT_THAT(Lines(kLogRecoverable), IsEmpty());
    ExpectNoMerge();
    before_.emplace_back("[1000, 1010) 99 0 -3");
    EXPECT_EQ(before_, Walk(table()));
    EXPECT_EQ(5U, Full().size() + Small().size());
  }

  std::string Transaction(int code) const {
    return "8 Failed to open transaction for db " + Directory().string() + ", return value is " +
           std::to_string(code);
  }
  std::vector<std::string> before_;
  int result_ = 0;  // of the last merge that threw nothing
};

// --- before the walk ---------------------------------------------------------------------------

struct Setup {
  const char* name;
  Call call;
  const char* text;  // of the step, up to the code
};
// The calls that open a database, in their order.
const std::vector<Setup> kSetups = {
    {"Create", Call::kMdbEnvCreate, "Failed to create db env, return value is "},
    {"SetMapsize", Call::kMdbEnvSetMapsize,
     "Failed to set memory map size for db env, return value is "},
    {"SetMaxdbs", Call::kMdbEnvSetMaxdbs, "Failed to set max dbs for db env, return value is "},
    {"Open", Call::kMdbEnvOpen, "Failed to open env for db PATH, return value is "},
    {"Begin", Call::kMdbTxnBegin, "Failed to open transaction for db PATH, return value is "},
    {"DbiOpen", Call::kMdbDbiOpen, "Failed to open db instance PATH, return value is "},
    {"SetCompare", Call::kMdbSetCompare,
     "Failed to set comparison function for db PATH, return value is "},
    {"Commit", Call::kMdbTxnCommit, "Failed to commit a transaction PTR. ret="}};

class MergeSetupFaultTest : public MergeFaultTest, public testing::WithParamInterface<Setup> {
 protected:
  std::string Text(const std::string& file, int code) const {
    std::string text = GetParam().text;
    const std::size_t at = text.find("PATH");
    if (at != std::string::npos) {
      text.replace(at, 4, Path(file));
    }
    return "8 " + text + std::to_string(code);
  }
  /// The nth database that a merge opens: tmp, mergedb, small, full.
  int MergeWithFailedSetup(int nth) {
    const bool counted =
        GetParam().call == Call::kMdbTxnBegin || GetParam().call == Call::kMdbTxnCommit;
    static const char* const kNames[] = {"tmp.mdb", "mergedb", "lsml0.mdb", "data.mdb"};
    // The full and the small database have seen a transaction of the walk by then.
    const int before = GetParam().call == Call::kMdbTxnBegin && nth > 2 ? 1 : 0;
    return counted ? MergeWith(GetParam().call, 1 + before, ENOMEM, kNames[nth - 1])
                   : MergeWith(GetParam().call, nth, ENOMEM);
  }
};

TEST_P(MergeSetupFaultTest, ATmpDatabaseThatCannotBeOpenedLeavesTheTableAsItWas) {
  EXPECT_EQ(5, MergeWithFailedSetup(1));
  EXPECT_THAT(Named(kLogRare),
              ElementsAre(Text("tmp.mdb", ENOMEM),
                          "2 Failed to setup tmpdb env for tempdb " + Path("tmp.mdb")));
  EXPECT_FALSE(peer().merging());
  EXPECT_FALSE(peer().tmpDb().opened);
  EXPECT_EQ("small full ", Chain());
  EXPECT_EQ(Held::kNot, TableLock());
  EXPECT_EQ(before_, Walk(table()));
  WriteKnown(500, 510, Oid(98));
  Flush();
  EXPECT_EQ(2U, Small().size()) << "flushes still go to the small database";
  before_.emplace_back("[500, 510) 98 0 -3");
  EXPECT_EQ(0, peer().MergeAndSwitch());
  ExpectNoMerge();
  EXPECT_EQ(before_, Walk(table()));
}

TEST_P(MergeSetupFaultTest, AMergeDatabaseThatCannotBeOpenedIsTriedAgainByTheNextFlush) {
  EXPECT_EQ(ENOMEM, MergeWithFailedSetup(2));
  EXPECT_THAT(Named(kLogRare),
              ElementsAre(Text("mergedb", ENOMEM),
                          "8 Failed to setup env for merge db, return value is 12"));
  ExpectFailedMerge();
  ExpectRecovery();
}

TEST_P(MergeSetupFaultTest, ADatabaseThatCannotBeReopenedIsLostUntilTheTableIsLoadedAgain) {
  for (const int nth : {3, 4}) {
    SCOPED_TRACE(nth);
    EXPECT_EQ(0, MergeWithFailedSetup(nth)) << "nothing is thrown";
    EXPECT_EQ(ENOMEM, result_);
    EXPECT_FALSE(peer().merging());
    Close();
    Load();
    EXPECT_EQ(before_, Walk(table()));
    Lines();
  }
}

TEST_P(MergeSetupFaultTest, ReadsAndFlushesFailWhereADatabaseCouldNotBeReopened) {
  Close();
  Faults::Reset();
  for (const int nth : {3, 4}) {
    SCOPED_TRACE(nth);
    InChild([&] {
      using Aldenta::Qnd::Morene::Zefs::SysException;
      SetUp();
      MergeWithFailedSetup(nth);
      EXPECT_THROW(table().lower_bound(110, nullptr), SysException);
      WriteKnown(0, 10, Oid(98));
      if (nth == 3) {
        EXPECT_THROW(Flush(), SysException);
      }
      Close();
    });
  }
}

std::string NameOf(const testing::TestParamInfo<Setup>& info) {
  return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(At, MergeSetupFaultTest, testing::ValuesIn(kSetups), NameOf);

TEST_F(MergeFaultTest, FailuresBeforeTheWalkEndInTheThreadsLog) {
  Faults::FailNth(Call::kMdbEnvCreate, 1, ENOMEM);
  peer().StartMergeThread();
  peer().WaitingForMerge();
  EXPECT_THAT(
      Lines(kLogRare),
      ElementsAre("8 Failed to create db env, return value is 12",
                  "2 Failed to setup tmpdb env for tempdb " + Path("tmp.mdb"), kNotLaunched));
  Faults::FailNth(Call::kMdbEnvCreate, 2, ENOMEM);
  peer().StartMergeThread();
  peer().WaitingForMerge();
  EXPECT_THAT(Lines(kLogRare),
              ElementsAre("8 Failed to create db env, return value is 12",
                          "8 Failed to setup env for merge db, return value is 12", kNotLaunched));
  ExpectFailedMerge();
  ExpectRecovery();
}

TEST_F(MergeFaultTest, ADirectoryThatCannotBeMadeEndsTheMerge) {
  EXPECT_EQ(5, MergeWith(Call::kMkdir, 1, ENOSPC));
  EXPECT_THAT(Lines(kLogRare),
              ElementsAre("8 Failed to create directories " + Path("mergedb") +
                              ", try to see if it can continue",
                          "2 Failed to check and create dir for " + Path("mergedb")));
  ExpectFailedMerge();
  ExpectRecovery();
}

// --- the walk ----------------------------------------------------------------------------------

TEST_F(MergeFaultTest, TransactionsOfTheWalk) {
  ExpectFailedWalk(Call::kMdbTxnBegin, 1, ENOMEM, "data.mdb", {Transaction(ENOMEM)});
}
TEST_F(MergeFaultTest, TransactionOfTheSmallDatabase) {
  ExpectFailedWalk(Call::kMdbTxnBegin, 1, MDB_READERS_FULL, "lsml0.mdb",
                   {Transaction(MDB_READERS_FULL)});
}
TEST_F(MergeFaultTest, TransactionOfTheMergeDatabase) {
  ExpectFailedWalk(Call::kMdbTxnBegin, 2, EAGAIN, "mergedb", {Transaction(EAGAIN)});
}
TEST_F(MergeFaultTest, TransactionOfTheNextBatch) {
  Set(&Config::mergeCommitBatchSize, 1U);
  ExpectFailedWalk(Call::kMdbTxnBegin, 3, ENOMEM, "mergedb", {Transaction(ENOMEM)});
}
TEST_F(MergeFaultTest, CursorsOfTheWalk) {
  for (const char* database : {"data.mdb", "lsml0.mdb", "mergedb"}) {
    EXPECT_EQ(0, MergeWith(Call::kMdbCursorOpen, 1, ENOMEM, database));
    EXPECT_THAT(Lines(kLogRare),
                ElementsAre("8 Failed to create a cursor, return value is 12", kFailed));
    ExpectFailedMerge();
  }
  ExpectRecovery();
}
TEST_F(MergeFaultTest, FirstReadOfTheFullDatabase) {
  ExpectFailedWalk(Call::kMdbCursorGet, 1, MDB_CORRUPTED, "data.mdb",
                   {"8 Failed to get cursor for merge db, return value is -30796 and 0"});
}
TEST_F(MergeFaultTest, LastReadOfTheFullDatabase) {
  ExpectFailedWalk(Call::kMdbCursorGet, 3, EIO, "data.mdb",
                   {"8 Failed to get cursor for merge db, return value is 5 and -30798"});
}
TEST_F(MergeFaultTest, LastReadOfTheSmallDatabase) {
  ExpectFailedWalk(Call::kMdbCursorGet, 2, EIO, "lsml0.mdb",
                   {"8 Failed to get cursor for merge db, return value is 0 and 5"});
}
TEST_F(MergeFaultTest, PutOfAFullRecordBeforeAnother) {
  ExpectFailedWalk(Call::kMdbCursorPut, 1, MDB_MAP_FULL, "mergedb",
                   {"8 Failed to put cursor for merge db, return value is -30792"});
}
TEST_F(MergeFaultTest, PutOfAnIncrementalRecordBesideAnother) {
  ExpectFailedWalk(Call::kMdbCursorPut, 2, ENOSPC, "mergedb",
                   {"8 Failed to put cursor for merge db for extent from incremental db, return "
                    "value is 28"});
}
TEST_F(MergeFaultTest, PutOfAFullRecordThatIsLeft) {
  ExpectFailedWalk(Call::kMdbCursorPut, 3, ENOSPC, "mergedb",
                   {"8 Failed to put cursor for merge db for extents only from full db, return "
                    "value is 28"});
}
TEST_F(MergeFaultTest, PutOfAnIncrementalRecordThatIsLeft) {
  Close();
  Faults::Reset();
  LoadBoth({}, {Stored(200, 210, 81)});
  Faults::OnlyBelow(dir_.path().string());
  before_ = Walk(table());
  EXPECT_EQ(0, MergeWith(Call::kMdbCursorPut, 5, ENOSPC, "mergedb"));
  EXPECT_THAT(Lines(kLogRare),
              ElementsAre("8 Failed to put cursor for merge db for extents only from incremental "
                          "db, return value is 28",
                          kFailed));
  ExpectFailedMerge();
}
TEST_F(MergeFaultTest, CommitOfABatch) {
  Set(&Config::mergeCommitBatchSize, 1U);
  ExpectFailedWalk(Call::kMdbTxnCommit, 2, ENOSPC, "mergedb",
                   {"8 Failed to put cursor for merge db, return value is 28"});
}

// --- the special items -------------------------------------------------------------------------

TEST_F(MergeFaultTest, PutOfTheFileSize) {
  ExpectFailedWalk(Call::kMdbPut, 1, ENOSPC, "mergedb",
                   {"8 Failed to put filesize for merge db, return value is 28"});
}
TEST_F(MergeFaultTest, PutOfTheCommitCounter) {
  ExpectFailedWalk(Call::kMdbPut, 2, ENOSPC, "mergedb",
                   {"8 Failed to put table commit counter for merge db, return value is 28"});
}
TEST_F(MergeFaultTest, PutOfTheObjectId) {
  ExpectFailedWalk(Call::kMdbPut, 3, ENOSPC, "mergedb",
                   {"8 Failed to put do ID for merge db, return value is 28"});
}
TEST_F(MergeFaultTest, PutOfTheVersionHasTheWordsOfTheFileSize) {
  ExpectFailedWalk(Call::kMdbPut, 4, ENOSPC, "mergedb",
                   {"8 Failed to put filesize for merge db, return value is 28"});
}
TEST_F(MergeFaultTest, TheLastCommitHasNoWordsOfItsOwn) {
  ExpectFailedWalk(Call::kMdbTxnCommit, 2, ENOSPC, "mergedb", {});
}

TEST_F(MergeFaultTest, FailedMergesLeaveNoMapBehind) {
  Set(&Config::mergeCommitBatchSize, 1U);
  for (int i = 0; i < 5; ++i) {
    MergeWith(Call::kMdbTxnCommit, 3, EIO, "mergedb");
    EXPECT_EQ(0, MapsOf("mergedb"));
  }
  Set(&Config::mergeCommitBatchSize, 1000U);
  ExpectFailedMerge();
  ExpectRecovery();
}

// --- the switch --------------------------------------------------------------------------------

TEST_F(MergeFaultTest, ARenameOfTheSwitchThatFailsEndsItAndNothingIsLost) {
  for (const int nth : {1, 2}) {
    SCOPED_TRACE(nth);
    EXPECT_EQ(0, MergeWith(Call::kRename, nth, EIO));
    EXPECT_EQ(0, result_);
    EXPECT_THAT(Lines(kLogRare), ElementsAre(kFailed));
    EXPECT_FALSE(peer().merging());
    EXPECT_EQ(Held::kNot, TableLock());
    EXPECT_EQ(nth == 1 ? "tmp small full " : "small full ", Chain());
    EXPECT_EQ(nth == 1, peer().tmpDb().opened);
    EXPECT_EQ(0, CodeOf([this] { table().lower_bound(0, nullptr); }));
    EXPECT_THROW(table().lower_bound(0, nullptr), Aldenta::Qnd::Morene::Zefs::SysException);
    Close();
    Load();
    EXPECT_EQ(before_, Walk(table()));
    ExpectFailedMerge();  // the tmp database that was left is open
    Lines();
  }
  ExpectRecovery();
}

TEST_F(MergeFaultTest, ADatabaseThatCannotBeReopenedIsNamedByTheCode) {
  Faults::FailNth(Call::kMdbEnvOpen, 3, EMFILE);
  EXPECT_EQ(0, CodeOf([this] { EXPECT_EQ(EMFILE, peer().MergeAndSwitch()); }));
  EXPECT_THAT(
      Lines(kLogRare),
      ElementsAre("8 Failed to open env for db " + Path("lsml0.mdb") + ", return value is 24",
                  "8 Failed to setup env, return value is 24",
                  "8 Failed to merge db, the performance is potentially impacted, return "
                  "value is 24"));
  EXPECT_EQ(nullptr, peer().smallDb().env);
  EXPECT_EQ(nullptr, peer().fullDb().env);
  EXPECT_FALSE(peer().merging());
  EXPECT_EQ(Held::kNot, TableLock());
  EXPECT_EQ("small full ", Chain());
  EXPECT_EQ(0, CodeOf([this] { table().lower_bound(0, nullptr); }));
  EXPECT_THROW(table().lower_bound(0, nullptr), Aldenta::Qnd::Morene::Zefs::SysException);
  WriteKnown(0, 10, Oid(98));
  EXPECT_THROW(Flush(), Aldenta::Qnd::Morene::Zefs::SysException);
}

TEST_F(MergeFaultTest, AFullDatabaseThatCannotBeReopenedLeavesTheSmallOneOpen) {
  Faults::FailNth(Call::kMdbEnvOpen, 4, EMFILE);
  EXPECT_EQ(0, CodeOf([this] { EXPECT_EQ(EMFILE, peer().MergeAndSwitch()); }));
  EXPECT_TRUE(peer().smallDb().opened);
  EXPECT_NE(nullptr, peer().smallDb().env);
  EXPECT_FALSE(peer().fullDb().opened);
  EXPECT_EQ(nullptr, peer().fullDb().env);
  WriteKnown(0, 10, Oid(98));
  EXPECT_EQ(0, CodeOf([this] { Flush(); })) << "writes need the small database only";
}

}  // namespace
}  // namespace zefs::test
