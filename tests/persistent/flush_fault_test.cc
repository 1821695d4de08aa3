// A flush each of whose calls fails once: what is told, what is stored, what stays in the cache.

#include <cerrno>
#include <iostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/flush_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/support/held_lock.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using Aldenta::Qnd::Morene::Zefs::SysException;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::StartsWith;
using testing::UnorderedElementsAre;

/// What each failing call of one kind does to a flush, in the order of the calls:
///   - nothing that the caller sees
///   T it throws the code; nothing is stored, and the cache is as it was
///   A it throws -1, and otherwise the same
///   L it throws the code; nothing is stored, and the extents are gone from the cache
///   C it throws the code, of a flush that is stored
///   S it throws -1, and otherwise the same
///   F it throws a filesystem_error, and otherwise the same
struct Row {
  Call call;
  const char* name;
  const char* outcomes;
};

const DataCacheNode::ObjectID kOld = Oid(70, 5);

class FlushFaultTest : public FlushTest {
 protected:
  /// A table over one record, with three extents in its cache: two cut the record, one of these
  /// wants a container offset.
  void Prepare(const std::string& type) {
    Destroy();
    nodes_.clear();
    fs::remove_all(Directory());
    TrackOffsets();
    LoadOver({WholeRecord(0, 100, kOld, 1, 2)}, type);
    WriteNode(10, 20, Ready(Oid(71, 1), -1));
    WriteKnown(40, 50, Oid(72, 2), 3);
    WriteNode(200, 210, Ready(Oid(73, 3), 5));
    peer().dataChanged() = false;
    log_.Take();
  }

  static Records Before() { return {WholeRecord(0, 100, kOld, 1, 2)}; }
  static Records After() {
    return {PieceRecord(0, 10, kOld, 1, 2),    WholeRecord(10, 20, Oid(71, 1), 0, -1),
            PieceRecord(20, 40, kOld, 21, 2),  WholeRecord(40, 50, Oid(72, 2), 3, -3),
            PieceRecord(50, 100, kOld, 51, 2), WholeRecord(200, 210, Oid(73, 3), 0, 5)};
  }

  /// Flushes with the `nth` `call` failing; the letter of what came of it.
  std::string Attempt(Call call, int nth, int error) {
    const auto shown = Walk(table());
    const auto special = Special(peer().smallDb());
    int thrown = 0;
    bool byFilesystem = false;
    Faults::FailNth(call, nth, error);
    try {
      thrown = CodeOf([&] { Flush(); });
    } catch (const fs::filesystem_error&) {
      byFilesystem = true;
    }
    Faults::Disarm();
    EXPECT_EQ(1, peer().commitCounter()) << "counted, whatever came of it";
    EXPECT_THAT(Pending(), IsEmpty());
    EXPECT_THAT(KeysWithNode(), IsEmpty());
    EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
    EXPECT_EQ(Held::kNot, HowIsHeld(peer().tableLock()));

    if (Small() == After()) {
      EXPECT_THAT(Cached(), IsEmpty());
      EXPECT_EQ(210, peer().committedFileSize());
      EXPECT_EQ(SpecialBytes(std::int64_t{1}), Special(peer().smallDb())[kPlainCommitCounterKey]);
      return byFilesystem      ? "F"
             : thrown == 0     ? "-"
             : thrown == -1    ? "S"
             : thrown == error ? "C"
                               : "?";
    }
    EXPECT_EQ(Before(), Small());
    EXPECT_EQ(special, Special(peer().smallDb()));
    EXPECT_EQ(0, peer().committedFileSize());
    EXPECT_EQ(210, peer().fileSize());
    if (Cached().empty()) {
      return thrown == error ? "L" : "?";
    }
    EXPECT_THAT(Cached(), ElementsAre(20, 50, 210));
    EXPECT_EQ(shown, Walk(table())) << "everything can still be read";
    return thrown == -1 ? "A" : thrown == error ? "T" : "?";
  }

  /// What a table that has seen a failure takes and shows.
  void ExpectToGoOn() {
    const std::vector<long> left = Cached();
    WriteKnown(300, 310, Oid(90));
    Flush();
    EXPECT_EQ(left, Cached()) << "no way back to a flush";
    EXPECT_EQ(WholeRecord(300, 310, Oid(90), 0, -3), Small().back());
    EXPECT_EQ("[300, 310) 90 0 -3", Walk(table()).back());
  }

  void ExpectOutcomes(const std::string& type, const std::vector<int>& ofLmdb,
                      const std::vector<int>& ofSystem, const std::vector<Row>& rows) {
    int points = 0;
    for (const Row& row : rows) {
      for (const int error : row.call >= Call::kMdbEnvCreate ? ofLmdb : ofSystem) {
        SCOPED_TRACE(std::string(row.name) + ", error " + std::to_string(error));
        std::string outcomes;
        std::string letter;
        const WatchCalls watch(dir_.path().string());
        points += Faults::UntilNoneFires([&](int nth) {
          outcomes += letter;  // of a run in which the fault did fire
          Prepare(type);
          letter = Attempt(row.call, nth, error);
          ExpectToGoOn();
        });
        EXPECT_EQ("-", letter) << "without a fault";
        EXPECT_EQ(row.outcomes, outcomes);
      }
    }
    std::cout << "calls of a flush that failed: " << points << '\n';
    RecordProperty("points", points);
  }
};

TEST_F(FlushFaultTest, AForcedFlushOfAGenericTableAtEachOfItsCalls) {
  ExpectOutcomes("GENERIC", {MDB_MAP_FULL, MDB_CORRUPTED, ENOSPC, EIO}, {ENOSPC, EIO, EACCES},
                 {
                     {Call::kMdbTxnBegin, "txn_begin", "TC"},
                     {Call::kMdbCursorOpen, "cursor_open", "TC"},
                     {Call::kMdbCursorGet, "cursor_get", "AAAAA"},
                     {Call::kMdbCursorDel, "cursor_del", "AA"},
                     {Call::kMdbCursorPut, "cursor_put", "AAAAAAA"},
                     {Call::kMdbPut, "put", "AAA"},
                     {Call::kMdbTxnCommit, "txn_commit", "L"},
                     {Call::kMdbStat, "stat", "S"},
                     {Call::kMdbGet, "get", ""},
                     {Call::kOpen, "open", "-A-"},
                     {Call::kWrite, "write", "AAA-"},
                     {Call::kFsync, "fsync", "AAA--"},
                     {Call::kUnlink, "unlink", "-"},
                     {Call::kStat, "stat", "-FF"},
                     {Call::kClose, "close", "--"},
                     {Call::kRename, "rename", ""},
                 });
}

TEST_F(FlushFaultTest, AForcedFlushOfATableWithoutAJournalAtEachOfItsCalls) {
  ExpectOutcomes("PROVISION", {MDB_MAP_FULL}, {EIO},
                 {
                     {Call::kMdbTxnBegin, "txn_begin", "TC"},
                     {Call::kMdbCursorOpen, "cursor_open", "TC"},
                     {Call::kMdbCursorGet, "cursor_get", "AAAAA"},
                     {Call::kMdbCursorDel, "cursor_del", "AA"},
                     {Call::kMdbCursorPut, "cursor_put", "AAAAAAA"},
                     {Call::kMdbPut, "put", "AAA"},
                     {Call::kMdbTxnCommit, "txn_commit", "L"},
                     {Call::kMdbStat, "stat", "S"},
                     {Call::kOpen, "open", "A"},
                     {Call::kWrite, "write", "AAA"},
                     {Call::kFsync, "fsync", "AAA"},
                     {Call::kUnlink, "unlink", ""},
                     {Call::kStat, "stat", ""},
                     {Call::kClose, "close", ""},
                 });
}

// --- one by one --------------------------------------------------------------------------------

/// The lines and the code of single failures.
class FlushFailureTest : public FlushFaultTest {
 protected:
  static constexpr int kCode = -4711;

  /// The code thrown when this call fails; the failures told are in lines_.
  int CodeOfFailed(Call call, int nth, int error = kCode) {
    Prepare("PROVISION");
    const WatchCalls watch(dir_.path().string());
    Faults::FailNth(call, nth, error);
    const int code = CodeOf([&] { Flush(); });
    EXPECT_TRUE(Faults::Fired());
    lines_ = Named();
    return code;
  }
  std::vector<std::string> Failures() const {
    std::vector<std::string> failures;
    std::copy_if(lines_.begin(), lines_.end(), std::back_inserter(failures),
                 [](const std::string& line) { return line[0] == '8'; });
    return failures;
  }

  std::vector<std::string> lines_;
};

TEST_F(FlushFailureTest, NoTransactionOrCursor) {
  for (const int nth : {1, 2}) {
    EXPECT_EQ(kCode, CodeOfFailed(Call::kMdbTxnBegin, nth));
    EXPECT_THAT(Failures(), ElementsAre("8 Failed to open transaction for db " +
                                        Directory().string() + ", return value is -4711"));
    EXPECT_EQ(kCode, CodeOfFailed(Call::kMdbCursorOpen, nth));
    EXPECT_THAT(Failures(), ElementsAre("8 Failed to create a cursor, return value is -4711"));
  }
}

TEST_F(FlushFailureTest, ADatabaseThatIsClosedIsToldByCodeZero) {
  Prepare("PROVISION");
  MDB_env* const env = peer().smallDb().env;
  peer().smallDb().env = nullptr;
  EXPECT_THROW(Flush(), SysException);
  EXPECT_THAT(Lines(8), ElementsAre("8 Failed to open transaction for db " + Directory().string() +
                                    ", return value is 0"));
  peer().smallDb().env = env;
}

TEST_F(FlushFailureTest, AnExtentThatCannotBeStored) {
  EXPECT_EQ(-1, CodeOfFailed(Call::kMdbCursorPut, 3, MDB_MAP_FULL));
  EXPECT_THAT(Failures(), ElementsAre("8 Failed to add new entry 20, ret:-30792",
                                      "8 Failed to update extent map, return value is -1",
                                      "8 fail to update object id, ret -1"));
  EXPECT_FALSE(peer().dataChanged()) << "the special items were not reached";
}

TEST_F(FlushFailureTest, AnUnlockedFlushThatCannotStoreAnExtentThrowsItsCode) {
  Prepare("PROVISION");
  const WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kMdbCursorPut, 1, MDB_MAP_FULL);
  EXPECT_EQ(-1, CodeOf([&] { table().checkAndBackfillObjectIDUnlock(false); }));
  Faults::Disarm();
  EXPECT_THAT(Lines(8), ElementsAre(StartsWith("8 Failed to add new entry"),
                                    "8 Failed to update extent map, return value is -1",
                                    "8 fail to update object id, ret -1"));
  EXPECT_THAT(Cached(), ElementsAre(20, 50, 210));
}

TEST_F(FlushFailureTest, EachSpecialItemThatCannotBeStored) {
  const std::string noFp(64, '0');
  const std::vector<std::string> toldAt0 = {
      "0 update file size 210, ret:-4711",
      "0 update do id fp " + noFp + ", dcid 0, ret:-4711",
      "0 update table commit counter 1, ret:-4711",
  };
  for (int item = 0; item < 3; ++item) {
    EXPECT_EQ(-1, CodeOfFailed(Call::kMdbPut, 1 + item));
    EXPECT_THAT(lines_, Contains(toldAt0[static_cast<std::size_t>(item)]));
    EXPECT_THAT(Failures(), ElementsAre("8 Failed to update extent map, return value is -1",
                                        "8 fail to update object id, ret -1"));
    EXPECT_EQ(item > 0, peer().dataChanged());
    EXPECT_THAT(Cached(), ElementsAre(20, 50, 210));
  }
}

TEST_F(FlushFailureTest, AFailedCommitLosesTheExtents) {
  EXPECT_EQ(ENOSPC, CodeOfFailed(Call::kMdbTxnCommit, 1, ENOSPC));
  EXPECT_THAT(Failures(), ElementsAre("8 Failed to commit a transaction PTR. ret=28",
                                      "8 Failed to update extent map, return value is 28",
                                      "8 fail to update object id, ret 28"));
  EXPECT_THAT(lines_, IsSupersetOf({"0 remove key from in memory cache key 20",
                                    "0 remove key from in memory cache key 50",
                                    "0 remove key from in memory cache key 210"}))
      << "before the commit";
  EXPECT_THAT(Cached(), IsEmpty());
  EXPECT_THAT(Walk(table()), ElementsAre("[0, 100) 70 1 2"));
}

TEST_F(FlushFailureTest, ACountThatFailsComesAfterTheCommitAndNoMergeIsDecided) {
  Set(&Config::mergeCommitCountThreshold, 0U);
  EXPECT_EQ(-1, CodeOfFailed(Call::kMdbStat, 1));
  EXPECT_THAT(Failures(), ElementsAre("8 Failed to read mdb status, return value is -4711",
                                      "8 fail to update object id, ret -1"));
  EXPECT_EQ(After(), Small());
  EXPECT_THAT(peer().mergeThreads(), IsEmpty());
  EXPECT_EQ(1, peer().commitCounter());
  EXPECT_EQ(0, peer().UpdateObjectID(ReadyExtents{}, true)) << "the next one decides";
  EXPECT_EQ(0, peer().commitCounter());
}

TEST_F(FlushFailureTest, TheNodesOfAFailedFlushAreToldAndTheLockIsNotHandedOver) {
  Prepare("PROVISION");
  const WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kMdbTxnCommit, 1, ENOSPC);
  std::set<void*> released;
  UniqueLock lock;
  EXPECT_EQ(ENOSPC, CodeOf([&] {
              table().checkAndBackfillObjectID(&released, true, "", "", nullptr, &lock);
            }));
  EXPECT_THAT(released, UnorderedElementsAre(nodes_[0], nodes_[1]));
  EXPECT_FALSE(lock.owns_lock());
  EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
}

// --- side files --------------------------------------------------------------------------------

TEST_F(FlushFailureTest, JournalRecordsOfAFailedFlushStayAndGoOutWithTheNext) {
  Prepare("GENERIC");
  {
    const WatchCalls watch(dir_.path().string());
    Faults::FailNth(Call::kMdbCursorPut, 3, MDB_MAP_FULL);  // the first extent itself
    Set(&Config::objIdReadyThreshold, 0U);
    EXPECT_EQ(-1, CodeOf([&] { Flush(); }));
  }
  EXPECT_EQ("", BytesOf(File("journal"))) << "a flush that fails does not end the journal either";
  WriteKnown(300, 310, Oid(90));
  WriteKnown(320, 330, Oid(91));
  Flush(false);
  EXPECT_EQ(JournalBytes({JournalOf(kOpDel, 10, 20, Oid(71, 1), 0),
                          JournalOf(kOpAdd, 300, 310, Oid(90), 0)}),
            BytesOf(File("journal")));
}

TEST_F(FlushFailureTest, AJournalThatCannotBeWrittenAfterTheCommitIsTriedAgainWithTheNext) {
  LoadOver({}, "GENERIC");
  WriteKnown(0, 10, Oid(70));
  WriteKnown(10, 20, Oid(71));
  Set(&Config::objIdReadyThreshold, 0U);
  log_.Take();
  {
    const WatchCalls watch(dir_.path().string());
    Faults::FailNth(Call::kFsync, 1, EIO);
    Flush(false);
  }
  EXPECT_THAT(
      Lines(8),
      ElementsAre("8 failed to sync extent journal with path_=" + Path("journal") + ", return=-1",
                  "8 failed to sync extent journal path_=" + Path("journal") + ", return=-1"));
  EXPECT_EQ(1U, Small().size());
  WriteKnown(20, 30, Oid(72));
  Flush(false);
  const JournalFields first = JournalOf(kOpAdd, 0, 10, Oid(70), 0);
  EXPECT_EQ(JournalBytes({first, first, JournalOf(kOpAdd, 10, 20, Oid(71), 0)}),
            BytesOf(File("journal")))
      << "what was written but not synced stands there twice";
}

TEST_F(FlushFailureTest, AJournalThatCannotBeStartedFailsTheFirstExtentOnly) {
  Prepare("GENERIC");
  {
    const WatchCalls watch(dir_.path().string());
    Faults::FailNth(Call::kOpen, 1, EACCES);
    Faults::FailNth(Call::kOpen, 2, EACCES);
    EXPECT_EQ(-1, CodeOf([&] { Flush(); }));
  }
  EXPECT_THAT(Lines(8), IsSupersetOf({"8 Failed to start extent journal, ret=-1",
                                      "8 Failed to update extent map, return value is -1",
                                      "8 fail to update object id, ret -1"}));
  EXPECT_EQ(Before(), Small());
  ExpectToGoOn();
}

TEST_F(FlushFailureTest, SideFilesThatCannotBeFinishedByAForcedFlushFailNothing) {
  LoadOver({}, "GENERIC");
  Set(&Config::dcOffsetTrackingEnabled, true);
  Set(&Config::dcOffsetStoreThreshold, 100U);
  WriteNode(0, 10, Ready(Oid(70, 1), -1));
  log_.Take();
  {
    const WatchCalls watch(dir_.path().string());
    Faults::FailNth(Call::kUnlink, 1, EACCES);
    Faults::FailNth(Call::kWrite, 2, ENOSPC);  // behind the journal's
    EXPECT_EQ(1U, Flush().size());
  }
  const auto failures = Lines(8);
  EXPECT_THAT(failures, Contains("8 failed to unlink extent journal with path_=" + Path("journal") +
                                 ", return=-1"));
  EXPECT_THAT(failures, Contains("8 failed to flush dc offset with path_=" + Path("dcoffset") +
                                 ", return=-1"));
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 10, Oid(70, 1), 0, -1)));
  Flush();
  EXPECT_FALSE(fs::exists(File("journal")));
  EXPECT_EQ(OffsetBytes(0, Oid(70, 1), -1), BytesOf(File("dcoffset"))) << "at the second attempt";
}

}  // namespace
}  // namespace zefs::test
