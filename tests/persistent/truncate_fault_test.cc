// A truncate each of whose calls fails once: what is told, what is cut by then, and that the table
// goes on.

#include <cerrno>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/abort_trace.h"
#include "tests/persistent/merge_fixture.h"
#include "tests/persistent/merge_model.h"
#include "tests/persistent/unsynced.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr long kSize = 150;
constexpr long kOldSize = 400;
constexpr const char* kSmall = "lsml0.mdb";
constexpr const char* kFull = "data.mdb";

/// What each failing call of one kind does to a truncate, in the order of the calls:
///   O it throws the code; nothing is cut, and the bloom file is there
///   T it throws the code; what comes before the database is cut, the database is as it was
///   R it returns the code, and otherwise the same
///   M it returns -1, and otherwise the same
///   H it returns -1; of the database, what begins behind the size is gone, but nothing is cut
struct Row {
  Call call;
  const char* name;
  std::vector<int> errors;
  const char* outcomes;
};

class TruncateFaultTest : public MergeTest {
 protected:
  /// Extents around the size in the full database, the small one, and the cache, and an object id
  /// that is to be forgotten.
  void Prepare() {
    if (table_ != nullptr) {
      Close();
    }
    nodes_.clear();
    if (files_.empty()) {
      LoadBoth(FullBefore(), SmallBefore());
      ObjectID oid = Oid(99, 9);
      EXPECT_EQ(0, table().SetDOID(&oid));
      EXPECT_EQ(0, table().setFileSize(kOldSize));
      Close();
      for (const char* name : {kSmall, kFull}) {
        files_[name] = BytesOf(File(name));
      }
    }
    for (const auto& [name, bytes] : files_) {
      WriteBytes(File(name), bytes);
    }
    Load();
    DoNotSync(peer().dbChain());
    WriteNode(140, 170, NotReady(), 7);
    WriteNode(380, 390, NotReady());
    WriteBytes(File("bloom"), "anything");
    peer().dataChanged() = false;
    shown_ = ShownBelowSize();
    log_.Take();
  }

  static Records SmallBefore() {
    return {Stored(40, 60, 80), Stored(120, 180, 81), Stored(350, 360, 82)};
  }
  static Records FullBefore() {
    return {Stored(0, 100, 70), Stored(100, 200, 71), Stored(300, 400, 72)};
  }
  /// A database: 'b' as before, 'c' cut, 'h' without what begins behind the size; else '?'.
  static char StateOf(const Records& found, const Records& before) {
    const Records half = {before[0], before[1]};
    const Records cut = {before[0], {kSize, before[1].value}};  // an extent's end is its key
    return found == before ? 'b' : found == cut ? 'c' : found == half ? 'h' : '?';
  }

  /// "cache small full": which is cut.
  std::string State() {
    const auto cached = Cached();
    const char cache = cached == std::vector<long>{170, 390} ? 'b'
                       : cached == std::vector<long>{150}    ? 'c'
                                                             : '?';
    return {cache, StateOf(Small(), SmallBefore()), StateOf(Full(), FullBefore())};
  }

  /// Where the objects of all bytes below the size lie.
  std::vector<std::string> ShownBelowSize() {
    std::vector<std::string> shown;
    for (auto at = table().begin(); at != table().end() && at->sOff < kSize; ++at) {
      at->eOff = std::min(at->eOff, std::int64_t{kSize});
      shown.push_back(Shown(*at));
    }
    return shown;
  }

  /// Truncates with the `nth` `call` on one database failing; the letter of what came of it.
  char Attempt(const std::string& database, Call call, int nth, int error) {
    const bool inSmall = database == kSmall;
    const LMDBContext& failing = inSmall ? peer().smallDb() : peer().fullDb();
    const auto special = Special(failing);
    const std::string size = Special(failing)[kPlainFileSizeKey];
    const auto pending = Pending();
    AbortTrace aborts;
    Faults::OnlyBelow(dir_.path().string());
    Faults::OnlyDatabase(database);
    Faults::FailNth(call, nth, error);
    int returned = 0;
    const int thrown = CodeOf([&] { returned = table().truncate(kSize, nullptr); });
    const bool fired = Faults::Fired();
    Faults::Disarm();
    const auto aborted = aborts.Take();
    failures_ = Lines(8);
    const std::string state = State();
    EXPECT_EQ(Held::kNot, TableLock());
    EXPECT_EQ(shown_, ShownBelowSize()) << "nothing is lost";
    if (!fired) {
      EXPECT_EQ(0, returned + thrown);
      EXPECT_EQ("ccc", state);
      return '-';
    }
    EXPECT_EQ(1U, failures_.size());
    const bool half = state == (inSmall ? "chb" : "cch");
    EXPECT_EQ(call == Call::kMdbTxnBegin || half ? 0U : 1U, aborted.size());
    EXPECT_EQ(half ? SpecialBytes(std::int64_t{kSize}) : size, Special(failing)[kPlainFileSizeKey]);
    EXPECT_TRUE(peer().dataChanged());
    EXPECT_EQ(0U, peer().doid().dcid);
    if (state == "bbb") {
      EXPECT_TRUE(fs::exists(File("bloom")));
      EXPECT_EQ(kOldSize, peer().fileSize());
      EXPECT_EQ(kOldSize, peer().committedFileSize());
      EXPECT_EQ(pending, Pending());
      EXPECT_EQ(special, Special(failing));
      return thrown == error && returned == 0 ? 'O' : '?';
    }
    EXPECT_FALSE(fs::exists(File("bloom")));
    EXPECT_EQ(kSize, peer().fileSize());
    EXPECT_EQ(inSmall && !half ? kOldSize : kSize, peer().committedFileSize());
    if (half) {
      return thrown == 0 && returned == -1 ? 'H' : '?';
    }
    EXPECT_EQ(inSmall ? "cbb" : "ccb", state);
    return thrown == error                    ? 'T'
           : returned == error && thrown == 0 ? 'R'
           : returned == -1 && thrown == 0    ? 'M'
                                              : '?';
  }

  /// After any failure a second attempt does the rest, and the table takes flushes.
  void ExpectToGoOn() {
    EXPECT_EQ(0, table().truncate(kSize, nullptr));
    EXPECT_EQ("ccc", State());
    EXPECT_EQ(kSize, table().getFileSize());
    EXPECT_EQ(shown_, Walk(table()));
    cache_.MakeReady(nodes_[0], Oid(90, 9), 5);
    WriteKnown(300, 310, Oid(91));
    Flush();
    EXPECT_THAT(Cached(), IsEmpty());
    EXPECT_EQ("[300, 310) 91 0 -3", Walk(table()).back());
    EXPECT_EQ(310, table().getFileSize());
  }

  void ExpectOutcomes(const std::string& database, const std::vector<Row>& rows) {
    int points = 0;
    for (const Row& row : rows) {
      for (const int error : row.errors) {
        SCOPED_TRACE(std::string(row.name) + ", error " + std::to_string(error));
        std::string outcomes;
        for (int nth = 1;; ++nth) {
          Prepare();
          const char outcome = Attempt(database, row.call, nth, error);
          ExpectToGoOn();
          Faults::Reset();
          if (outcome == '-') {
            break;
          }
          outcomes += outcome;
          ++points;
        }
        EXPECT_EQ(row.outcomes, outcomes);
      }
    }
    std::cout << "calls of a truncate on " << database << " that failed: " << points << '\n';
    RecordProperty("points", points);
  }

  /// One attempt from the start, for its lines.
  char Fail(const std::string& database, Call call, int nth, int error) {
    Prepare();
    const char outcome = Attempt(database, call, nth, error);
    Faults::Reset();
    return outcome;
  }

  std::map<std::string, std::string> files_;  // of the table before
  std::vector<std::string> shown_;
  std::vector<std::string> failures_;  // of the last attempt
};

TEST_F(TruncateFaultTest, EachCallOnTheSmallDatabase) {
  ExpectOutcomes(kSmall, {
                             {Call::kMdbTxnBegin, "begin", {ENOMEM, MDB_PANIC}, "OT"},
                             {Call::kMdbCursorOpen, "cursor_open", {ENOMEM, MDB_BAD_TXN}, "OT"},
                             {Call::kMdbPut, "put", {MDB_MAP_FULL, MDB_TXN_FULL, ENOMEM}, "ORR"},
                             {Call::kMdbCursorGet, "get", {MDB_CORRUPTED, ENOMEM}, "MMMH"},
                             {Call::kMdbCursorDel, "del", {MDB_MAP_FULL, MDB_CORRUPTED}, "MM"},
                             {Call::kMdbTxnCommit, "commit", {ENOSPC, EIO, MDB_MAP_FULL}, "OR"},
                             {Call::kMdbGet, "mdb_get", {ENOMEM}, ""},
                             {Call::kMdbDel, "mdb_del", {ENOMEM}, ""},
                             {Call::kMdbCursorPut, "cursor_put", {ENOMEM}, ""},
                             {Call::kMdbStat, "stat", {ENOMEM}, ""},
                         });
}

TEST_F(TruncateFaultTest, EachCallOnTheFullDatabase) {
  ExpectOutcomes(kFull, {
                            {Call::kMdbTxnBegin, "begin", {ENOMEM, MDB_PANIC}, "T"},
                            {Call::kMdbCursorOpen, "cursor_open", {ENOMEM, MDB_BAD_TXN}, "T"},
                            {Call::kMdbPut, "put", {MDB_MAP_FULL, MDB_TXN_FULL, ENOMEM}, "RR"},
                            {Call::kMdbCursorGet, "get", {MDB_CORRUPTED, ENOMEM}, "MMMH"},
                            {Call::kMdbCursorDel, "del", {MDB_MAP_FULL, MDB_CORRUPTED}, "MM"},
                            {Call::kMdbTxnCommit, "commit", {ENOSPC, EIO, MDB_MAP_FULL}, "R"},
                            {Call::kMdbGet, "mdb_get", {ENOMEM}, ""},
                            {Call::kMdbDel, "mdb_del", {ENOMEM}, ""},
                            {Call::kMdbCursorPut, "cursor_put", {ENOMEM}, ""},
                            {Call::kMdbStat, "stat", {ENOMEM}, ""},
                        });
}

// --- what is told
// --------------------------------------------------------------------------------

TEST_F(TruncateFaultTest, ATransactionThatCannotBeOpened) {
  const std::string line =
      "8 Failed to open transaction for db " + Directory().string() + ", return value is 12";
  EXPECT_EQ('T', Fail(kSmall, Call::kMdbTxnBegin, 2, ENOMEM));
  EXPECT_THAT(failures_, ElementsAre(line));
  EXPECT_EQ('T', Fail(kFull, Call::kMdbTxnBegin, 1, ENOMEM));
  EXPECT_THAT(failures_, ElementsAre(line));
}

TEST_F(TruncateFaultTest, ACursorThatCannotBeOpened) {
  EXPECT_EQ('T', Fail(kFull, Call::kMdbCursorOpen, 1, ENOMEM));
  EXPECT_THAT(failures_, ElementsAre("8 Failed to create a cursor, return value is 12"));
}

TEST_F(TruncateFaultTest, AFileSizeThatCannotBePut) {
  EXPECT_EQ('R', Fail(kSmall, Call::kMdbPut, 2, MDB_MAP_FULL));
  EXPECT_THAT(failures_, ElementsAre("8 Failed to update file size 150, ret:-30792"));
}

TEST_F(TruncateFaultTest, AFileSizeThatCannotBePutIsToldAsTheTableKnowsIt) {
  Prepare();
  const WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kMdbPut, 1, MDB_MAP_FULL);
  EXPECT_EQ(MDB_MAP_FULL, peer().truncateDB(&peer().fullDb(), kSize));
  EXPECT_THAT(Lines(8), ElementsAre("8 Failed to update file size 400, ret:-30792"));
}

TEST_F(TruncateFaultTest, ACutRecordThatCannotBePut) {
  EXPECT_EQ('R', Fail(kFull, Call::kMdbPut, 2, MDB_MAP_FULL));
  EXPECT_THAT(failures_, ElementsAre("8 Failed to update entry 150, ret is -30792"));
}

TEST_F(TruncateFaultTest, ARecordThatCannotBeDeletedBehindTheSizeOrToBeCut) {
  for (const int nth : {1, 2}) {
    EXPECT_EQ('M', Fail(kSmall, Call::kMdbCursorDel, nth, MDB_CORRUPTED));
    EXPECT_THAT(failures_, ElementsAre("8 Failed to delete a cursor, return value is -30796"));
  }
}

TEST_F(TruncateFaultTest, AReadThatFails) {
  for (const int nth : {1, 2, 3, 4}) {
    EXPECT_EQ(nth == 4 ? 'H' : 'M', Fail(kSmall, Call::kMdbCursorGet, nth, MDB_CORRUPTED));
    EXPECT_THAT(failures_, ElementsAre("8 Failed to read for a cursor, return value is -30796"));
  }
}

TEST_F(TruncateFaultTest, AnObjectIdThatCannotBeStoredComesBeforeEverything) {
  EXPECT_EQ('O', Fail(kSmall, Call::kMdbPut, 1, MDB_MAP_FULL));
  EXPECT_THAT(failures_, ElementsAre("8 Failed to put do id fp " + std::string(64, '0') +
                                     ", dcid 0, ret:-30792"));
  EXPECT_EQ('O', Fail(kSmall, Call::kMdbTxnCommit, 1, ENOSPC));
  EXPECT_THAT(failures_, ElementsAre("8 Failed to submit txn to put do id, ret:28"));
}

// --- commits and the sizes
// -----------------------------------------------------------------------

class TruncateCommitTest : public TruncateFaultTest {
 protected:
  /// What truncateDB of the small database returns with these calls failing, for the size `size`.
  int TruncateSmall(long size, const std::vector<std::pair<Call, int>>& failing, int error) {
    Prepare();
    const WatchCalls watch(dir_.path().string());
    for (const auto& [call, nth] : failing) {
      Faults::FailNth(call, nth, error);
    }
    const int result = peer().truncateDB(&peer().smallDb(), size);
    EXPECT_TRUE(Faults::Fired());
    failures_ = Named(8);
    return result;
  }

  void ExpectSizes(long size) {
    EXPECT_EQ(size, peer().fileSize());
    EXPECT_EQ(size, peer().committedFileSize());
  }
  std::string StoredSize() { return Special(peer().smallDb())[kPlainFileSizeKey]; }

  static constexpr const char* kCommitLine = "8 Failed to commit a transaction PTR. ret=28";
};

TEST_F(TruncateCommitTest, WithACutRecordAFailureLeavesTheSizes) {
  EXPECT_EQ(ENOSPC, TruncateSmall(kSize, {{Call::kMdbTxnCommit, 1}}, ENOSPC));
  EXPECT_THAT(failures_, ElementsAre(kCommitLine));
  ExpectSizes(kOldSize);
  EXPECT_EQ(SmallBefore(), Small());
}

TEST_F(TruncateCommitTest, WithNothingToCutTheSizesAreSetRegardless) {
  for (const long size : {200L, 1000L}) {  // with and without records behind it
    EXPECT_EQ(ENOSPC, TruncateSmall(size, {{Call::kMdbTxnCommit, 1}}, ENOSPC));
    EXPECT_THAT(failures_, ElementsAre(kCommitLine));
    ExpectSizes(size);
    EXPECT_EQ(SmallBefore(), Small());
    EXPECT_EQ("", StoredSize());
  }
}

TEST_F(TruncateCommitTest, ADatabaseThatSaysItIsEmptyIsCommitted) {
  EXPECT_EQ(0, TruncateSmall(200, {{Call::kMdbCursorGet, 3}}, MDB_NOTFOUND));
  EXPECT_THAT(failures_, IsEmpty());
  ExpectSizes(200);
  EXPECT_EQ(SpecialBytes(std::int64_t{200}), StoredSize());
  EXPECT_EQ(2U, Small().size());
}

TEST_F(TruncateCommitTest, OfADatabaseThatSaysItIsEmptyAFailedCommitIsReturned) {
  Prepare();
  const WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kMdbCursorGet, 3, MDB_NOTFOUND);
  Faults::FailNth(Call::kMdbTxnCommit, 1, ENOSPC);
  EXPECT_EQ(ENOSPC, peer().truncateDB(&peer().smallDb(), 200));
  EXPECT_THAT(Named(8), ElementsAre(kCommitLine));
  ExpectSizes(200);
  EXPECT_EQ(SmallBefore(), Small());
}

TEST_F(TruncateCommitTest, AFailedLastReadCommitsWhatIsDeletedAndAnswersMinusOne) {
  EXPECT_EQ(-1, TruncateSmall(200, {{Call::kMdbCursorGet, 3}}, MDB_CORRUPTED));
  EXPECT_THAT(failures_, ElementsAre("8 Failed to read for a cursor, return value is -30796"));
  ExpectSizes(200);
  EXPECT_EQ(2U, Small().size());
  EXPECT_EQ(SpecialBytes(std::int64_t{200}), StoredSize());
}

TEST_F(TruncateCommitTest, AFailedCommitBehindAFailedLastReadIsToldToo) {
  EXPECT_EQ(-1, TruncateSmall(200, {{Call::kMdbCursorGet, 3}, {Call::kMdbTxnCommit, 1}}, ENOSPC));
  EXPECT_THAT(failures_,
              ElementsAre("8 Failed to read for a cursor, return value is 28", kCommitLine));
  ExpectSizes(200);
  EXPECT_EQ(SmallBefore(), Small());
}

}  // namespace
}  // namespace zefs::test
