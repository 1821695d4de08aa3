// One extent into a database: what becomes of the records it overlaps, and what is written beside.

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "persistent/transaction.h"
#include "tests/persistent/flush_fixture.h"
#include "tests/support/fault_injection.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using Aldenta::Qnd::Morene::Zefs::Transaction;
using testing::ElementsAre;

const DataCacheNode::ObjectID kOld = Oid(70, 5);
const DataCacheNode::ObjectID kNew = Oid(80, 9);

/// The extent that is stored in these tests: [40, 60) of kNew from 7 on.
constexpr long kStart = 40;
constexpr long kEnd = 60;
constexpr int kObjOff = 7;
constexpr int kDcOffset = -1;

class Insert2DBTest : public FlushTest {
 protected:
  /// Stores the extent in the small database and commits. Forgets the log lines before.
  int Store(long start = kStart, long end = kEnd, const ObjectID* oid = &kNew,
            long objOff = kObjOff, int dcOffset = kDcOffset) {
    log_.Take();
    Transaction transaction(peer().smallDb(), Transaction::kWrite, "");
    const int ret = peer().insert2DB(peer().smallDb(), transaction.txn(), transaction.cursor(),
                                     start, end, oid, objOff, dcOffset);
    return ret != 0 ? ret : transaction.Commit();
  }

  static PlainRecord Stored() { return WholeRecord(kStart, kEnd, kNew, kObjOff, kDcOffset); }

  /// The journal after these operations, all about the extent.
  static std::string Journal(const std::vector<std::uint32_t>& ops) {
    std::vector<JournalFields> records;
    for (const std::uint32_t op : ops) {
      records.push_back(JournalOf(op, kStart, kEnd, kNew, kObjOff));
    }
    return JournalBytes(records);
  }
  std::string JournalNow() {
    EXPECT_EQ(0, peer().journal()->Flush(false));
    return BytesOf(File("journal"));
  }

  /// The offset store's file after calls with these keys.
  static std::string Offsets(const std::vector<long>& keys) {
    std::string bytes;
    for (const long key : keys) {
      bytes += OffsetBytes(key, kNew, kDcOffset);
    }
    return bytes;
  }
  std::string OffsetsNow() { return BytesOf(File("dcoffset")); }

  void LoadTracked(const Records& small) {
    TrackOffsets();
    LoadOver(small, "GENERIC");
  }
};

TEST_F(Insert2DBTest, IntoAnEmptyDatabase) {
  LoadTracked({});
  EXPECT_EQ(0, Store());
  EXPECT_THAT(Small(), ElementsAre(Stored()));
  EXPECT_EQ(Journal({kOpAdd}), JournalNow());
  EXPECT_EQ(Offsets({kStart}), OffsetsNow());
}

TEST_F(Insert2DBTest, NeighboursThatTouchStay) {
  LoadTracked({WholeRecord(30, 40, kOld, 1, 2), WholeRecord(60, 90, kOld, 3, 4)});
  EXPECT_EQ(0, Store());
  EXPECT_EQ("0 current extent is SOff=60, EOff=90, no overlap with SOff=40, EOff=60",
            Lines().front());
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(30, 40, kOld, 1, 2), Stored(),
                                   WholeRecord(60, 90, kOld, 3, 4)));
  EXPECT_EQ(Journal({kOpAdd}), JournalNow());
  EXPECT_EQ(Offsets({kStart}), OffsetsNow());
}

TEST_F(Insert2DBTest, EqualToARecordTakesItsPlace) {
  LoadTracked({WholeRecord(40, 60, kOld, 1, 2)});
  EXPECT_EQ(0, Store());
  EXPECT_THAT(Small(), ElementsAre(Stored()));
  EXPECT_EQ(Journal({kOpDel, kOpAdd}), JournalNow());
  EXPECT_EQ(Offsets({kStart}), OffsetsNow());
}

TEST_F(Insert2DBTest, StrictlyInsideARecordLeavesBothEndsOfItWithTheirOldObject) {
  LoadTracked({WholeRecord(10, 100, kOld, 1, 2)});
  EXPECT_EQ(0, Store());
  EXPECT_THAT(Small(), ElementsAre(PieceRecord(10, 40, kOld, 1, 2), Stored(),
                                   PieceRecord(60, 100, kOld, 51, 2)));
  EXPECT_EQ(Journal({kOpDel, kOpAdd}), JournalNow()) << "the pieces have no record";
  EXPECT_EQ(Offsets({60, 10, 40}), OffsetsNow())
      << "tail, head, new; all under the new extent's object and offset";
}

TEST_F(Insert2DBTest, OverTheBackOfARecord) {
  LoadTracked({WholeRecord(10, 50, kOld, 1, 2)});
  EXPECT_EQ(0, Store());
  EXPECT_THAT(Small(), ElementsAre(PieceRecord(10, 40, kOld, 1, 2), Stored()));
  EXPECT_EQ(Journal({kOpDel, kOpAdd}), JournalNow());
  EXPECT_EQ(Offsets({10, 40}), OffsetsNow());
}

TEST_F(Insert2DBTest, OverTheBackOfARecordWithTheSameEnd) {
  LoadTracked({WholeRecord(10, 60, kOld, 1, 2)});
  EXPECT_EQ(0, Store());
  EXPECT_THAT(Small(), ElementsAre(PieceRecord(10, 40, kOld, 1, 2), Stored()));
  EXPECT_EQ(Offsets({10, 40}), OffsetsNow());
}

TEST_F(Insert2DBTest, OverTheFrontOfARecord) {
  LoadTracked({WholeRecord(50, 100, kOld, 1, 2)});
  EXPECT_EQ(0, Store());
  EXPECT_THAT(Small(), ElementsAre(Stored(), PieceRecord(60, 100, kOld, 11, 2)));
  EXPECT_EQ(Journal({kOpDel, kOpAdd}), JournalNow());
  EXPECT_EQ(Offsets({60, 40}), OffsetsNow());
}

TEST_F(Insert2DBTest, OverTheFrontOfARecordWithTheSameStart) {
  LoadTracked({WholeRecord(40, 100, kOld, 1, 2)});
  EXPECT_EQ(0, Store());
  EXPECT_THAT(Small(), ElementsAre(Stored(), PieceRecord(60, 100, kOld, 21, 2)));
  EXPECT_EQ(Offsets({60, 40}), OffsetsNow());
}

TEST_F(Insert2DBTest, OverThreeRecordsAddsThreeLikeRecordsToTheJournalAndThenItsOwn) {
  LoadTracked({WholeRecord(30, 45, kOld, 1, 2), WholeRecord(45, 50, kOld, 3, 4),
               WholeRecord(55, 70, kOld, 5, 6), WholeRecord(80, 90, kOld, 7, 8)});
  EXPECT_EQ(0, Store());
  EXPECT_THAT(Small(),
              ElementsAre(PieceRecord(30, 40, kOld, 1, 2), Stored(),
                          PieceRecord(60, 70, kOld, 10, 6), WholeRecord(80, 90, kOld, 7, 8)));
  EXPECT_EQ(Journal({kOpDel, kOpDel, kOpDel, kOpAdd}), JournalNow());
  EXPECT_EQ(Offsets({30, 60, 40}), OffsetsNow());
}

TEST_F(Insert2DBTest, TheLinesOfOneOverlapInTheirOrder) {
  Set(&Config::dcOffsetTrackingEnabled, false);
  LoadOver({WholeRecord(10, 100, kOld, 1, 2)}, "GENERIC");
  EXPECT_EQ(0, Store());
  const std::string offsets =
      "0 CheckAndStore store dc offset with path_=" + Path("dcoffset") + ", dcoff=-1";
  EXPECT_THAT(Lines(), ElementsAre("1 extent journal start, path=" + Path("journal"),
                                   "0 Del, path_=" + Path("journal"), offsets, offsets,
                                   "0 Add, path_=" + Path("journal"), offsets));
}

TEST_F(Insert2DBTest, WithoutAJournalTheRecordsAreTheSame) {
  LoadOver({WholeRecord(10, 100, kOld, 1, 2)});
  EXPECT_EQ(0, Store());
  EXPECT_THAT(Small(), ElementsAre(PieceRecord(10, 40, kOld, 1, 2), Stored(),
                                   PieceRecord(60, 100, kOld, 51, 2)));
  EXPECT_FALSE(fs::exists(File("journal")));
}

TEST_F(Insert2DBTest, ObjectOffsetsAre32BitsWideAndPiecesWrapAround) {
  LoadOver({WholeRecord(10, 100, kOld, INT32_MAX, 2)});
  EXPECT_EQ(0, Store(kStart, kEnd, &kNew, 0x7'8000'0001));
  EXPECT_THAT(Small(), ElementsAre(PieceRecord(10, 40, kOld, INT32_MAX, 2),
                                   WholeRecord(kStart, kEnd, kNew, INT32_MIN + 1, kDcOffset),
                                   PieceRecord(60, 100, kOld, INT32_MIN + 49, 2)));
}

TEST_F(Insert2DBTest, TheJournalKeepsTheWholeObjectOffset) {
  LoadOver({}, "GENERIC");
  EXPECT_EQ(0, Store(kStart, kEnd, &kNew, 0x7'8000'0001));
  EXPECT_EQ(JournalBytes({JournalOf(kOpAdd, kStart, kEnd, kNew, 0x7'8000'0001)}), JournalNow());
}

TEST_F(Insert2DBTest, WithoutAnObjectTheRecordHoldsZeros) {
  LoadTracked({});
  EXPECT_EQ(0, Store(kStart, kEnd, nullptr, kObjOff, -2));
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(kStart, kEnd, {}, kObjOff, -2)));
  EXPECT_EQ(OffsetBytes(kStart, {}, -2), OffsetsNow());
}

TEST_F(Insert2DBTest, ShortValuesOfAnOldTableReadAsIfZerosFollowed) {
  for (const std::int32_t major : {1, 2}) {
    PlainRecord brief = WholeRecord(10, 100, kOld, 1, 2);
    brief.value.resize(48);  // no offsets, no attributes
    LoadOver({brief});
    peer().extMapVersion() = {major, 0};
    EXPECT_EQ(0, Store());
    DataCacheNode::ObjectID plain = kOld;
    plain.attrWord = 0;
    EXPECT_THAT(Small(), ElementsAre(PieceRecord(10, 40, plain, 0, 0), Stored(),
                                     PieceRecord(60, 100, plain, 50, 0)))
        << "version " << major;
    Destroy();
    fs::remove_all(Directory());
  }
}

TEST_F(Insert2DBTest, SpecialItemsAreNeverTakenForExtents) {
  LoadOver();
  const auto before = Special(peer().smallDb());
  EXPECT_EQ(0, Store(0, LONG_MAX));
  EXPECT_EQ(before, Special(peer().smallDb()));
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, LONG_MAX, kNew, kObjOff, kDcOffset)));
}

TEST_F(Insert2DBTest, ARecordThatEndsAtTheLargestOffsetIsTheLast) {
  LoadOver({WholeRecord(50, LONG_MAX, kOld, 1, 2)});
  EXPECT_EQ(0, Store());
  EXPECT_THAT(Small(), ElementsAre(Stored(), PieceRecord(60, LONG_MAX, kOld, 11, 2)));
}

TEST_F(Insert2DBTest, OffsetsThatAreKnownOrNeverTrackedAreNotStored) {
  LoadTracked({WholeRecord(10, 100, kOld, 1, -1)});
  EXPECT_EQ(0, Store(kStart, kEnd, &kNew, kObjOff, 0));
  EXPECT_EQ(0, Store(kStart, kEnd, &kNew, kObjOff, -3));
  EXPECT_FALSE(fs::exists(File("dcoffset"))) << "not even the pieces, whose own is not known";
}

// --- failures ----------------------------------------------------------------------------------

/// Fails calls of one extent over [30, 45) and inside [45, 100).
class Insert2DBFaultTest : public Insert2DBTest {
 protected:
  static constexpr int kCode = -4711;

  /// What Store returns if this call fails, and the failures it tells. Nothing is stored then.
  int CodeOfFailed(Call call, int nth, int error = kCode, const std::string& type = "PROVISION") {
    const Records before = {WholeRecord(30, 45, kOld, 1, 2), WholeRecord(45, 100, kOld, 3, 4)};
    fs::remove_all(Directory());
    TrackOffsets();
    LoadOver(before, type);
    int code = 0;
    {
      const WatchCalls watch(dir_.path().string());
      Faults::FailNth(call, nth, error);
      code = Store();
      EXPECT_TRUE(Faults::Fired());
    }
    failures_ = Lines(8);
    EXPECT_EQ(before, Small());
    Destroy();
    return code;
  }

  std::vector<std::string> failures_;
};

TEST_F(Insert2DBFaultTest, AFailedSearchGivesMinusOne) {
  EXPECT_EQ(-1, CodeOfFailed(Call::kMdbCursorGet, 1));
  EXPECT_THAT(failures_, ElementsAre("8 Failed to read for a cursor, return value is -4711"));
}

TEST_F(Insert2DBFaultTest, AFailedStepToTheNextRecordGivesItsCode) {
  for (const int nth : {2, 3}) {
    EXPECT_EQ(kCode, CodeOfFailed(Call::kMdbCursorGet, nth));
    EXPECT_THAT(failures_,
                ElementsAre("8 Failed to prepare to insert new entry SOff=40 EOff=60, ret:-4711"));
  }
}

TEST_F(Insert2DBFaultTest, AFailedDeletionNamesTheRecord) {
  EXPECT_EQ(kCode, CodeOfFailed(Call::kMdbCursorDel, 1));
  EXPECT_THAT(failures_, ElementsAre("8 Failed to delete entry 45"));
  EXPECT_EQ(kCode, CodeOfFailed(Call::kMdbCursorDel, 2));
  EXPECT_THAT(failures_, ElementsAre("8 Failed to delete entry 100"));
}

TEST_F(Insert2DBFaultTest, AFailedPutNamesTheRecordOfAPieceAndTheEndOfTheExtent) {
  const char* const lines[] = {"8 Failed to add new entry 45, ret:-4711",   // head of the first
                               "8 Failed to add new entry 100, ret:-4711",  // tail of the second
                               "8 Failed to add new entry 60, ret:-4711"};  // the extent
  for (int nth = 1; nth <= 3; ++nth) {
    EXPECT_EQ(kCode, CodeOfFailed(Call::kMdbCursorPut, nth));
    EXPECT_THAT(failures_, ElementsAre(lines[nth - 1]));
  }
}

TEST_F(Insert2DBFaultTest, AFailedOffsetStoreNamesTheStartOfAPieceAndTheEndOfTheExtent) {
  const char* const named[] = {"30", "60", "60"};
  for (int nth = 1; nth <= 3; ++nth) {
    EXPECT_EQ(-1, CodeOfFailed(Call::kWrite, nth, ENOSPC));
    ASSERT_EQ(3U, failures_.size());
    EXPECT_EQ(std::string("8 Failed to store dc offset ") + named[nth - 1] + ", ret:-1",
              failures_.back());
  }
  EXPECT_EQ(EACCES, CodeOfFailed(Call::kOpen, 1, EACCES)) << "the code of the store";
  EXPECT_EQ("8 Failed to store dc offset 30, ret:13", failures_.back());
}

TEST_F(Insert2DBFaultTest, AJournalThatCannotBeStartedFailsWhatIsToBeRecorded) {
  EXPECT_EQ(-1, CodeOfFailed(Call::kOpen, 1, EACCES, "GENERIC"));
  EXPECT_THAT(failures_, ElementsAre("8 failed to open journal file: " + Path("journal") +
                                         ", errno: 13, err: Permission denied",
                                     "8 Failed to start extent journal, ret=-1"));
}

TEST_F(Insert2DBFaultTest, AJournalThatCannotTakeARecordFailsTheExtent) {
  LoadOver({WholeRecord(30, 45, kOld, 1, 2)}, "GENERIC");
  ASSERT_EQ(0, peer().journal()->Start());
  // One record short of a full buffer: the next one writes it.
  const auto fill = [&] {
    peer().journal()->Reset();
    for (int i = 1; i < 16384; ++i) {
      peer().journal()->Add(0, 1, 0, 70, kOld.fp, 0);
    }
  };
  fill();
  const WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kWrite, 1, ENOSPC);
  EXPECT_EQ(-1, Store());
  EXPECT_EQ("8 Failed to write extent journal for del, ret=-1", Lines(8).back());
  fill();
  Faults::FailNth(Call::kWrite, 1, ENOSPC);
  EXPECT_EQ(-1, Store(50, 60));
  EXPECT_EQ("8 Failed to write extent journal for add, ret=-1", Lines(8).back());
  peer().journal()->Reset();
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(30, 45, kOld, 1, 2)));
}

}  // namespace
}  // namespace zefs::test
