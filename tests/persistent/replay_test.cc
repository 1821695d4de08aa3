// What load makes of a journal that an earlier life left.

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "table/sys_exception.h"
#include "tests/persistent/lifecycle_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using Aldenta::Qnd::Morene::Zefs::LMDBContext;
using Aldenta::Qnd::Morene::Zefs::SysException;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr int kCode = -4711;

using Journal = std::vector<JournalFields>;

/// What the small database holds of its own after every load.
const Records kSpecial = {{kPlainCommitCounterKey, SpecialBytes(std::int64_t{0})},
                          {kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})}};

Records WithSpecial(Records records) {
  records.insert(records.begin(), kSpecial.begin(), kSpecial.end());
  return records;
}

/// The replay of `journal` on a database, newest record first.
Records ReplayedOn(const Records& records, const Journal& journal) {
  std::map<std::int64_t, std::string> database;
  for (const PlainRecord& record : records) {
    database[record.key] = record.value;
  }
  for (auto at = journal.rbegin(); at != journal.rend(); ++at) {
    if (at->end == 0 || at->start > at->end) {
      continue;  // such a record counts as absent
    }
    if (at->op == kOpDel) {
      database[at->end] = Replayed(*at).value;
    } else if (at->op == kOpAdd) {
      database.erase(at->end);
    }
  }
  Records result;
  for (const auto& [key, value] : database) {
    result.push_back({key, value});
  }
  return result;
}

class ReplayTest : public LifecycleTest {
 protected:
  void Leave(const Journal& journal) {
    MakeDirectory();
    WriteBytes(File("journal"), JournalBytes(journal));
  }

  /// The small database after a life of the table with this journal, which begins with `records`.
  Records SmallAfter(const Records& records, const Journal& journal) {
    fs::remove_all(Directory());
    Write("lsml0.mdb", WithSpecial(records));
    Leave(journal);
    Load("GENERIC");
    EXPECT_EQ("", BytesOf(File("journal"))) << "a new one has begun";
    EXPECT_FALSE(fs::exists(File("journal.rep")));
    Destroy();
    return ReadPlainDatabase(File("lsml0.mdb"));
  }

  /// Fails the `nth` `call` on the small database inside a load of a table with one extent,
  /// [0, 10), and a journal that would put [20, 30) in its place. Returns the thrown code; the
  /// lines of the replay are left in the log.
  int CodeOfFailed(Call call, int nth) {
    fs::remove_all(Directory());
    Write("lsml0.mdb", WithSpecial({Stored(0, 10, 70)}));
    Leave(kMove);
    Make("GENERIC");
    log_.Take();
    const WatchCalls watch(dir_.path().string());
    Faults::OnlyDatabase("lsml0.mdb");
    Faults::FailNth(call, nth, kCode);
    const int code = CodeOf([&] { table().load(Directory().string(), false, ""); });
    EXPECT_TRUE(Faults::Fired());
    return code;
  }

  /// The lines from the beginning of the replay on.
  std::vector<std::string> LinesOfReplay() {
    std::vector<std::string> lines = Lines(2);
    EXPECT_EQ("2 replay extent count:2, path_=" + Path("journal"), lines.at(0));
    EXPECT_EQ("2 replaying extent journal for " + Directory().string() + ", extent count:2",
              lines.at(1));
    lines.erase(lines.begin(), lines.begin() + 2);
    return lines;
  }

  void ExpectNothingChanged() {
    EXPECT_TRUE(peer().smallDb().opened);
    EXPECT_EQ(nullptr, peer().dcOffsetStore()) << "was not reached";
    Destroy();
    EXPECT_EQ(WithSpecial({Stored(0, 10, 70)}), ReadPlainDatabase(File("lsml0.mdb")));
    EXPECT_THAT(Files(), UnorderedElementsAre("lsml0.mdb", "data.mdb", "journal"));
    EXPECT_EQ("", BytesOf(File("journal"))) << "its records are spent";
  }

  const Journal kMove = {{kOpAdd, 0, 10, 70}, {kOpDel, 20, 30, 71, 3, {'A', 'B', 0, 'C'}}};
};

// --- what is applied -----------------------------------------------------------------------------

TEST_F(ReplayTest, AnAddedExtentIsRemovedWhateverLiesUnderItsKey) {
  EXPECT_EQ(WithSpecial({Stored(20, 30, 72)}),
            SmallAfter({Stored(0, 10, 70), Stored(20, 30, 72)}, {{kOpAdd, 5, 10, 71}}));
}

TEST_F(ReplayTest, ARecordOfAnOverlapPutsItsOwnExtentBackWithoutAContainerOffset) {
  const JournalFields del = {kOpDel, 5, 10, 71, 0x1122334455667788, DigestOf(9), 99};
  EntryFields fields;
  fields.startOffset = 5;
  fields.dcid = 71;
  fields.fp = DigestOf(9);
  fields.objectOffset = 0x55667788;
  fields.dcOffset = -1;
  EXPECT_EQ(WithSpecial({{10, EntryBytes(fields)}}), SmallAfter({Stored(0, 10, 70)}, {del}));
}

TEST_F(ReplayTest, RecordsAreAppliedFromTheLastToTheFirst) {
  const JournalFields add = {kOpAdd, 0, 10, 71};
  const JournalFields del = {kOpDel, 0, 10, 71};
  EXPECT_EQ(WithSpecial({Replayed(del)}), SmallAfter({}, {del, add}))
      << "what overwrote something stays";
  EXPECT_EQ(kSpecial, SmallAfter({}, {add, del}));
}

TEST_F(ReplayTest, OtherOperationsAndAbsentRecordsDoNothing) {
  const Records before = WithSpecial({Stored(0, 10, 70)});
  EXPECT_EQ(before, SmallAfter({Stored(0, 10, 70)}, {{2, 0, 10, 71},
                                                     {0xffffffff, 0, 10, 71},
                                                     {kOpDel, 0, 0, 71},
                                                     {kOpDel, -5, 0, 71},
                                                     {kOpDel, 11, 10, 71},
                                                     {kOpAdd, 11, 10, 71}}));
}

TEST_F(ReplayTest, AnExtentThatIsNotThereIsNoFailure) {
  EXPECT_EQ(kSpecial, SmallAfter({}, {{kOpAdd, 0, 10, 71}, {kOpAdd, 0, 10, 71}}));
}

TEST_F(ReplayTest, AnyJournalLeavesWhatItsRecordsSay) {
  const char* const given = std::getenv("ZEFS_TEST_SEED");
  const unsigned int first = given == nullptr ? 1 : static_cast<unsigned int>(std::atoi(given));
  const unsigned int last = given == nullptr ? 60 : first;
  for (unsigned int seed = first; seed <= last; ++seed) {
    SCOPED_TRACE("ZEFS_TEST_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](int bound) { return static_cast<int>(random() % 1000) % bound; };
    const auto dcid = [&] { return std::uint64_t{64} + static_cast<std::uint64_t>(below(10)); };
    Records records;
    for (const std::int64_t end : {10, 20, 30}) {
      if (below(2) == 0) {
        records.push_back(Stored(end - 10, end, dcid()));
      }
    }
    Journal journal;
    for (int count = below(20); count > 0; --count) {
      JournalFields record;
      record.op = static_cast<std::uint32_t>(below(8) == 0 ? 2 + below(3) : below(2));
      record.end =
          std::vector<std::int64_t>{10, 20, 30, 40, 0, -7}.at(static_cast<std::size_t>(below(6)));
      record.start = record.end + 2 - below(14);
      record.dcid = dcid();
      record.offset = std::int64_t{below(1000)} << below(40);
      journal.push_back(record);
    }
    EXPECT_EQ(ReplayedOn(WithSpecial(records), journal), SmallAfter(records, journal));
  }
}

TEST_F(ReplayTest, ItGoesIntoTheSmallDatabaseAlsoWhileATmpDatabaseIsOpen) {
  Write("lsml0.mdb", WithSpecial({Stored(0, 10, 70)}));
  Write("tmp.mdb", {Stored(0, 10, 72), Stored(10, 20, 73)});
  Leave({{kOpAdd, 0, 10, 70}, {kOpDel, 20, 30, 71}});
  InChild([&] { Load("GENERIC"); });
  EXPECT_EQ(WithSpecial({Replayed({kOpDel, 20, 30, 71})}), ReadPlainDatabase(File("lsml0.mdb")));
  EXPECT_THAT(ReadPlainDatabase(File("tmp.mdb")),
              ElementsAre(Stored(0, 10, 72), Stored(10, 20, 73)));
}

// --- files and lines -----------------------------------------------------------------------------

TEST_F(ReplayTest, EachStepIsInTheLogAndTheJournalRunsOn) {
  Write("lsml0.mdb", WithSpecial({Stored(0, 10, 70)}));
  Leave(kMove);
  Load("GENERIC");
  const std::string journal = Path("journal");
  EXPECT_THAT(
      Lines(1),
      ElementsAre(
          "1 extent journal start, path=" + journal, "1 Get", "1 Flush, path_=" + journal,
          "1 Write, path_=" + journal + ", ext=0", "1 extent journal stop, path=" + journal,
          "1 Total extent in journal:32768", "2 replay extent count:2, path_=" + journal,
          "1 extent journal start, path=" + journal,
          "2 replaying extent journal for " + Directory().string() + ", extent count:2",
          "2 replay extent journal for " + Directory().string() + ", extent count:2, done!"));
  EXPECT_EQ(0, peer().journal()->Add(0, 10, 0, 70, DigestOf(1), 0)) << "it accepts records";
  Destroy();
  EXPECT_EQ(80U, BytesOf(File("journal")).size());
}

TEST_F(ReplayTest, AnEmptyJournalIsStartedAndLeavesTheDatabasesAlone) {
  Leave({});
  Load("GENERIC");
  const std::vector<std::string> lines = Lines(2);
  EXPECT_THAT(lines, ElementsAre("2 replay extent count:0, path_=" + Path("journal")));
  Destroy();
  EXPECT_EQ(kSpecial, ReadPlainDatabase(File("lsml0.mdb")));
  EXPECT_TRUE(fs::exists(File("journal")));
}

TEST_F(ReplayTest, ASecondLoadFindsNothingLeftToReplay) {
  Write("lsml0.mdb", WithSpecial({}));
  Leave({{kOpDel, 20, 30, 71}});
  Load("GENERIC");
  Destroy();
  WritePlainDatabase(File("lsml0.mdb"), {Stored(20, 30, 75)});
  EXPECT_THAT(Walk(Load("GENERIC")), ElementsAre("[20, 30) 75 75000 750"));
}

TEST_F(ReplayTest, AReplayFileThatWasLeftIsNotReadAgain) {
  Write("lsml0.mdb", WithSpecial({}));
  MakeDirectory();
  WriteBytes(File("journal.rep"), JournalBytes({{kOpDel, 20, 30, 71}}));
  Load("GENERIC");
  EXPECT_THAT(Lines(1), IsEmpty());
  Destroy();
  EXPECT_EQ(kSpecial, ReadPlainDatabase(File("lsml0.mdb")));
  Leave({{kOpDel, 0, 10, 72}});
  EXPECT_THAT(Walk(Load("GENERIC")), ElementsAre("[0, 10) 72 0 -1"));
  EXPECT_FALSE(fs::exists(File("journal.rep"))) << "replaced, and gone with the next";
}

// --- results and failures ------------------------------------------------------------------------

TEST_F(ReplayTest, ItsResultReplacesThatOfTheSpecialItems) {
  const auto loadWithoutVersion = [&](const std::string& type) {
    fs::remove_all(Directory());
    Write("lsml0.mdb", kSpecial);
    Leave({{kOpDel, 20, 30, 71}});
    Make(type);
    const WatchCalls watch(dir_.path().string());
    Faults::OnlyDatabase("data.mdb");
    Faults::FailNth(Call::kMdbPut, 1, kCode);
    const int result = table().load(Directory().string(), false, "");
    EXPECT_TRUE(Faults::Fired());
    return result;
  };
  EXPECT_EQ(kCode, loadWithoutVersion("PROVISION"));
  Destroy();
  EXPECT_EQ(0, loadWithoutVersion("GENERIC"));
}

TEST_F(ReplayTest, AJournalThatCannotBeReadIsTheResultOfLoadAndTheTableIsSetUp) {
  Write("lsml0.mdb", WithSpecial({Stored(0, 10, 70)}));
  Leave(kMove);
  Make("GENERIC");
  {
    const WatchCalls watch(dir_.path().string());
    Faults::FailNth(Call::kRename, 1, EIO);
    EXPECT_EQ(-1, table().load(Directory().string(), false, ""));
  }
  EXPECT_EQ("8 Failed to replay extent journal for " + Directory().string() + ", err=-1",
            Lines(8).back());
  EXPECT_NE(nullptr, peer().dcOffsetStore());
  EXPECT_THAT(Walk(table()), ElementsAre("[0, 10) 70 70000 700"));
  Destroy();
  EXPECT_EQ(JournalBytes(kMove), BytesOf(File("journal"))) << "for the next life";
  EXPECT_THAT(Walk(Load("GENERIC")), ElementsAre("[20, 30) 71 3 -1"));
}

TEST_F(ReplayTest, ATransactionThatCannotBeginIsThrown) {
  EXPECT_EQ(kCode, CodeOfFailed(Call::kMdbTxnBegin, 5));
  EXPECT_THAT(LinesOfReplay(), ElementsAre("8 Failed to open transaction for db " +
                                           Directory().string() + ", return value is -4711"));
  ExpectNothingChanged();
}

TEST_F(ReplayTest, ACursorThatCannotOpenIsThrown) {
  EXPECT_EQ(kCode, CodeOfFailed(Call::kMdbCursorOpen, 4));
  EXPECT_THAT(LinesOfReplay(), ElementsAre("8 Failed to create a cursor, return value is -4711"));
  ExpectNothingChanged();
}

TEST_F(ReplayTest, ARecordThatCannotBePutIsThrownWithItsRawFingerprintInTheLog) {
  EXPECT_EQ(kCode, CodeOfFailed(Call::kMdbPut, 1));
  EXPECT_THAT(LinesOfReplay(),
              ElementsAre("8 Failed to recover extent eoff:30, fp:AB, dcid 71, ret:-4711"));
  ExpectNothingChanged();
}

TEST_F(ReplayTest, ARecordThatCannotBeDeletedIsThrownAndThoseBeforeItAreTakenBack) {
  EXPECT_EQ(kCode, CodeOfFailed(Call::kMdbDel, 1));
  EXPECT_THAT(LinesOfReplay(), ElementsAre("8 Failed to recover extent eoff:10, fp:" +
                                           std::string(32, 'F') + ", dcid 70, ret:-4711"));
  ExpectNothingChanged();
}

TEST_F(ReplayTest, AFailedCommitIsThrown) {
  EXPECT_EQ(kCode, CodeOfFailed(Call::kMdbTxnCommit, 2));
  EXPECT_THAT(LinesOfReplay(), ElementsAre("8 Failed to submit txn to recover extent for file: " +
                                           Directory().string() + ", ret:-4711"));
  ExpectNothingChanged();
}

TEST_F(ReplayTest, AClosedDatabaseIsThrownAsCode0) {
  Load("GENERIC");
  EXPECT_EQ(0, peer().journal()->Start());
  EXPECT_EQ(0, peer().journal()->Del(20, 30, 0, 71, DigestOf(1), 0));
  log_.Take();
  LMDBContext closed;
  try {
    peer().ReplayExtentJournal(&closed);
    ADD_FAILURE() << "nothing was thrown";
  } catch (const SysException& e) {
    EXPECT_EQ(0, e.code);
  }
  EXPECT_EQ("8 Failed to open transaction for db " + Directory().string() + ", return value is 0",
            Lines(8).back());
}

}  // namespace
}  // namespace zefs::test
