// Every call of load fails once.

#include <cerrno>
#include <iostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/lifecycle_faults.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using Aldenta::Qnd::Morene::Zefs::kErrIo;
using Aldenta::Qnd::Morene::Zefs::LMDBContext;
using Aldenta::Qnd::Morene::Zefs::SysException;
using testing::ElementsAre;

constexpr int kCode = -4711;

/// What each failing call of one kind does to a load, in the order of the calls; one word for each,
/// the first letters of which say how the load ends:
///   T: throws SysException with the code     R: returns the code
///   D: throws SysException(5)                F: throws filesystem_error
///   J: throws SysException(-1)               j: returns -1
///   K: throws SysException(-2)               k: returns -2
///   -: returns 0
/// then how many databases are open, and an x if the records of the journal are lost.
struct Row {
  Call call;
  const char* name;
  const char* outcomes;
};

class LoadFaultTest : public LoadFaultsTest {
 protected:
  static std::size_t OpenDescriptors() {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      count += entry.path().empty() ? 0U : 1U;
    }
    return count;
  }

  static int ErrorOf(Call call) { return call < Call::kMdbEnvCreate ? ENOSPC : kCode; }

  /// One of `letters` for 0, the injected error, -1, -2 and anything else.
  static std::string LetterOf(int code, Call call, const std::string& letters) {
    const std::size_t at = code == 0               ? 0
                           : code == ErrorOf(call) ? 1
                           : code == -1            ? 2
                           : code == -2            ? 3
                                                   : 4;
    return letters.substr(at, 1);
  }

  /// How a load of the directory ends whose `nth` `call` fails; nothing if there is no such call.
  std::string Attempt(Left left, Call call, int nth) {
    const std::size_t descriptors = OpenDescriptors();
    Make(TypeOf(left));
    log_.Take();
    Faults::OnlyBelow(dir_.path().string());
    Faults::FailNth(call, nth, ErrorOf(call));
    std::string outcome;
    bool returned = false;
    try {
      outcome = LetterOf(table().load(Directory().string(), false, ""), call, "-Rjk?");
      returned = true;
    } catch (const SysException& e) {
      outcome = e.code == kErrIo ? "D" : LetterOf(e.code, call, "?TJK?");
    } catch (const fs::filesystem_error&) {
      outcome = "F";
    }
    const bool fired = Faults::Fired();
    Faults::Reset();
    outcome += std::to_string(CountOpen(returned));
    Destroy();
    EXPECT_FALSE(fs::exists(File("lsml0.mdb-lock")));
    EXPECT_FALSE(fs::exists(File("data.mdb-lock")));
    if (left != Left::kTmpDatabase) {
      EXPECT_EQ(descriptors, OpenDescriptors()) << outcome;
    }
    return fired ? outcome : "";
  }

  /// The open databases, which are the first of small, full and tmp. A table whose load returned is
  /// set up, also if not with 0.
  int CountOpen(bool returned) {
    Peer p = peer();
    int count = 0;
    for (const LMDBContext* db : {&p.smallDb(), &p.fullDb(), &p.tmpDb()}) {
      EXPECT_TRUE(!db->opened || db->env != nullptr);
      count += db->opened ? 1 : 0;
    }
    EXPECT_TRUE(p.smallDb().opened || !p.fullDb().opened);
    EXPECT_TRUE(p.fullDb().opened || !p.tmpDb().opened);
    EXPECT_EQ(p.tmpDb().opened ? 3U : 2U, p.dbChain().size());
    EXPECT_EQ(returned, p.dcOffsetStore() != nullptr);
    if (returned) {
      EXPECT_EQ(Directory().string(), p.path());
      EXPECT_GE(table().size(), 0) << "and no transaction was left open, which it would wait for";
    }
    return count;
  }

  /// Fails every call of the kind in turn. Returns the outcomes.
  std::string Outcomes(Left left, Call call) {
    // A tmp database outlives its table, and what is left of an open transaction its environment:
    // such lives are not for this process.
    const bool isOwnProcess =
        left != Left::kTmpDatabase && call != Call::kMdbDbiOpen && call != Call::kMdbSetCompare;
    std::string outcomes;
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE("call " + std::to_string(nth));
      Prepare(left);
      const auto attempt = [&] { return Attempt(left, call, nth); };
      const std::string outcome = isOwnProcess ? attempt() : FromChild(attempt);
      if (outcome.empty()) {
        return outcomes;
      }
      ++points_;
      const bool journalIsLeft = fs::exists(File("journal")) && fs::file_size(File("journal")) > 0;
      const auto load = [&] { return Content(left); };
      const std::string content = isOwnProcess ? load() : FromChild(load);
      const bool isLost =
          left == Left::kJournal && !journalIsLeft && content == WithoutTheJournal();
      EXPECT_EQ(isLost ? WithoutTheJournal() : Expected(left), content);
      outcomes += (outcomes.empty() ? "" : " ") + outcome + (isLost ? "x" : "");
    }
  }

  void ExpectOutcomes(Left left, const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.name);
      EXPECT_EQ(row.outcomes, Outcomes(left, row.call));
    }
    std::cout << "calls of load that failed: " << points_ << '\n';
    RecordProperty("points", points_);
  }

  /// The lines from level 1 up of a first load whose `nth` `call` fails.
  std::vector<std::string> LinesOf(Call call, int nth) {
    Prepare(Left::kNothing);
    const std::string text = FromChild([&] {
      EXPECT_NE("", Attempt(Left::kNothing, call, nth));
      std::string lines;
      for (const std::string& line : Lines(1)) {
        lines += line + '\n';
      }
      return lines;
    });
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  int points_ = 0;
};

TEST_F(LoadFaultTest, AFirstLoadAtEachOfItsCalls) {
  ExpectOutcomes(Left::kNothing, {
                                     {Call::kMdbEnvCreate, "env_create", "T0 T1"},
                                     {Call::kMdbEnvSetMapsize, "env_set_mapsize", "T0 T1"},
                                     {Call::kMdbEnvSetMaxdbs, "env_set_maxdbs", "T0 T1"},
                                     {Call::kMdbEnvOpen, "env_open", "T0 T1"},
                                     {Call::kMdbDbiOpen, "dbi_open", "T0 T1"},
                                     {Call::kMdbSetCompare, "set_compare", "T0 T1"},
                                     {Call::kMdbTxnBegin, "txn_begin", "T0 T1 T2 T2 T2 T2"},
                                     {Call::kMdbCursorOpen, "cursor_open", "T2 T2 T2 T2"},
                                     {Call::kMdbGet, "get", "T2 T2 T2 -2 -2"},
                                     {Call::kMdbPut, "put", "R2 T2 T2"},
                                     {Call::kMdbTxnCommit, "txn_commit", "T0 T1 R2 T2 T2"},
                                     {Call::kStat, "stat", "D0 -2 -2 D0 F1 F2"},
                                     {Call::kMkdir, "mkdir", "D0"},
                                     {Call::kOpen, "open", "-2 T0 T0 T0 -2 T1 T1 T1"},
                                     {Call::kRead, "read", ""},
                                     {Call::kWrite, "write", ""},
                                     {Call::kFsync, "fsync", ""},
                                     {Call::kUnlink, "unlink", ""},
                                     {Call::kClose, "close", ""},
                                 });
}

TEST_F(LoadFaultTest, ALoadThatTakesOverAMergeAndReplaysAJournalAtEachOfItsCalls) {
  ExpectOutcomes(Left::kJournal, {
                                     {Call::kMdbEnvCreate, "env_create", "T0 T1"},
                                     {Call::kMdbEnvSetMapsize, "env_set_mapsize", "T0 T1"},
                                     {Call::kMdbEnvSetMaxdbs, "env_set_maxdbs", "T0 T1"},
                                     {Call::kMdbEnvOpen, "env_open", "T0 T1"},
                                     {Call::kMdbDbiOpen, "dbi_open", "T0 T1"},
                                     {Call::kMdbSetCompare, "set_compare", "T0 T1"},
                                     {Call::kMdbTxnBegin, "txn_begin", "T0 T1 T2 T2 T2 T2 T2x"},
                                     {Call::kMdbCursorOpen, "cursor_open", "T2 T2 T2 T2 T2x"},
                                     {Call::kMdbGet, "get", "T2 T2 T2 -2 -2"},
                                     {Call::kMdbPut, "put", "T2x"},
                                     {Call::kMdbDel, "del", "T2x"},
                                     {Call::kMdbTxnCommit, "txn_commit", "T0 T1 T2x"},
                                     {Call::kStat, "stat", "D0 F1 F1 F2 F2 K2 F2 F2x k2x"},
                                     {Call::kOpen, "open", "-2 T0 T0 T0 -2 T1 T1 T1 J2 j2x j2x"},
                                     {Call::kRename, "rename", "F1 j2"},
                                     {Call::kRead, "read", "-2x -2x -2"},
                                     {Call::kWrite, "write", ""},
                                     {Call::kFsync, "fsync", "j2"},
                                     {Call::kUnlink, "unlink", "F2x"},
                                     {Call::kClose, "close", "-2 -2 -2 -2"},
                                 });
}

TEST_F(LoadFaultTest, ALoadWithATmpDatabaseAtEachOfItsCalls) {
  ExpectOutcomes(Left::kTmpDatabase,
                 {
                     {Call::kMdbEnvCreate, "env_create", "T0 T1 T2"},
                     {Call::kMdbEnvSetMapsize, "env_set_mapsize", "T0 T1 T2"},
                     {Call::kMdbEnvSetMaxdbs, "env_set_maxdbs", "T0 T1 T2"},
                     {Call::kMdbEnvOpen, "env_open", "T0 T1 T2"},
                     {Call::kMdbDbiOpen, "dbi_open", "T0 T1 T2"},
                     {Call::kMdbSetCompare, "set_compare", "T0 T1 T2"},
                     {Call::kMdbTxnBegin, "txn_begin", "T0 T1 T2 T3 T3 T3 T3 T3"},
                     {Call::kMdbCursorOpen, "cursor_open", "T3 T3 T3 T3 T3"},
                     {Call::kMdbGet, "get", "T3 T3 T3 T3 -3 -3"},
                     {Call::kMdbTxnCommit, "txn_commit", "T0 T1 T2"},
                     {Call::kStat, "stat", "D0 F1 F2"},
                     {Call::kOpen, "open", "-3 T0 T0 T0 -3 T1 T1 T1 -3 T2 T2 T2"},
                 });
}

TEST_F(LoadFaultTest, EachFailureOfAnEnvironmentHasItsLineAndThatOfLoad) {
  const auto lines = [](const std::string& what) {
    return ElementsAre("8 " + what + "-4711", "8 Failed to setup env, return value is -4711");
  };
  const std::string path = Path("lsml0.mdb");
  EXPECT_THAT(LinesOf(Call::kMdbEnvCreate, 1), lines("Failed to create db env, return value is "));
  EXPECT_THAT(LinesOf(Call::kMdbEnvSetMapsize, 1),
              lines("Failed to set memory map size for db env, return value is "));
  EXPECT_THAT(LinesOf(Call::kMdbEnvSetMaxdbs, 1),
              lines("Failed to set max dbs for db env, return value is "));
  EXPECT_THAT(LinesOf(Call::kMdbEnvOpen, 1),
              lines("Failed to open env for db " + path + ", return value is "));
  EXPECT_THAT(LinesOf(Call::kMdbTxnBegin, 1),
              lines("Failed to open transaction for db " + path + ", return value is "));
  EXPECT_THAT(LinesOf(Call::kMdbDbiOpen, 1),
              lines("Failed to open db instance " + path + ", return value is "));
  EXPECT_THAT(LinesOf(Call::kMdbSetCompare, 1),
              lines("Failed to set comparison function for db " + path + ", return value is "));
  EXPECT_THAT(LinesOf(Call::kMdbTxnCommit, 1),
              ElementsAre(testing::MatchesRegex(
                              "8 Failed to commit a transaction 0x[0-9a-f]+\\. ret=-4711"),
                          "8 Failed to setup env, return value is -4711"));
}

TEST_F(LoadFaultTest, EachFailureOfASpecialItemHasItsLine) {
  const std::string begin =
      "8 Failed to open transaction for db " + Directory().string() + ", return value is -4711";
  for (const int nth : {3, 4, 5, 6}) {
    EXPECT_THAT(LinesOf(Call::kMdbTxnBegin, nth), ElementsAre(begin)) << nth;
  }
  for (const int nth : {1, 2, 3, 4}) {
    EXPECT_THAT(LinesOf(Call::kMdbCursorOpen, nth),
                ElementsAre("8 Failed to create a cursor, return value is -4711"));
  }
  const std::string emptyFp(64, '0');
  EXPECT_THAT(LinesOf(Call::kMdbGet, 1), ElementsAre("8 Failed to get file size, ret:-4711"));
  EXPECT_THAT(LinesOf(Call::kMdbGet, 2), ElementsAre("8 Failed to get file size, ret:-4711"));
  EXPECT_THAT(LinesOf(Call::kMdbGet, 3), ElementsAre("8 Failed to get lmdb version, ret:-4711"));
  EXPECT_THAT(LinesOf(Call::kMdbGet, 4), ElementsAre()) << "the counter is then 0";
  EXPECT_THAT(LinesOf(Call::kMdbGet, 5), ElementsAre()) << "the do id is then empty";
  EXPECT_THAT(LinesOf(Call::kMdbPut, 1),
              ElementsAre("8 Failed to update lmdb version 2.0, ret:-4711"));
  EXPECT_THAT(LinesOf(Call::kMdbPut, 2),
              ElementsAre("8 Failed to update table commit counter 0, ret:-4711"));
  EXPECT_THAT(LinesOf(Call::kMdbPut, 3),
              ElementsAre("8 Failed to put do id fp " + emptyFp + ", dcid 0, ret:-4711"));
  EXPECT_THAT(LinesOf(Call::kMdbTxnCommit, 3), ElementsAre()) << "returned, and not told";
  EXPECT_THAT(LinesOf(Call::kMdbTxnCommit, 4),
              ElementsAre("8 Failed to submit txn to update table commit counter, ret:-4711"));
  EXPECT_THAT(LinesOf(Call::kMdbTxnCommit, 5),
              ElementsAre("8 Failed to submit txn to put do id, ret:-4711"));
}

TEST_F(LoadFaultTest, UntilPathIsSetMessagesPrintItEmptyAndFromThenOnNot) {
  Prepare(Left::kNothing);
  Attempt(Left::kNothing, Call::kMdbTxnBegin, 3);
  EXPECT_EQ(
      "8 Failed to open transaction for db " + Directory().string() + ", return value is -4711",
      Lines(8).back());
}

TEST_F(LoadFaultTest, ALoadThatFailedHalfWayMayBeTriedAgainWithTheSameObject) {
  for (const Call call : {Call::kMdbTxnBegin, Call::kMdbTxnCommit}) {
    for (const int nth : {1, 2}) {
      Prepare(Left::kNothing);
      const std::size_t descriptors = OpenDescriptors();
      Make();
      {
        const WatchCalls watch(dir_.path().string());
        Faults::FailNth(call, nth, kCode);
        EXPECT_THROW(table().load(Directory().string(), false, ""), SysException);
      }
      EXPECT_EQ(0, table().load(Directory().string(), false, ""));
      EXPECT_EQ(0, table().size());
      Destroy();
      EXPECT_EQ(descriptors, OpenDescriptors()) << "the first attempt was closed";
    }
  }
}

}  // namespace
}  // namespace zefs::test
