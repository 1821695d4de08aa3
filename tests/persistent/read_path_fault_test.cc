// Look-ups over three databases of which one fails, at each of its calls; and how few calls a
// look-up makes.

#include <cerrno>
#include <ostream>

#include <gmock/gmock.h>

#include "tests/persistent/read_path_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::StrEq;
using zefs::test::Call;
using zefs::test::CodeOf;
using zefs::test::Cursors;
using zefs::test::Faults;
using zefs::test::Part;
using zefs::test::PartOf;

constexpr const char* kTmp = CMappingLMDB::TMPDB;
constexpr const char* kSmall = CMappingLMDB::LSML0DB;
constexpr const char* kFull = CMappingLMDB::FULLDB;

const Part kInFull{0, 100, 70};
const Part kInSmall{60, 70, 71};
const Part kInTmp{80, 90, 72};

// A look-up here goes down to the full database: both newer ones have an extent behind the offset,
// and step back from it.
constexpr long kAhead = 10;
const Part kAtAhead{0, 60, 70};
// And here too: neither has an extent behind the offset, and each looks at its last one.
constexpr long kBehind = 95;
const Part kAtBehind{90, 100, 70, 90};

class ReadPathFaultTest : public zefs::test::ReadPathTest {
 protected:
  void SetUp() override {
    LoadOver({kInFull}, {kInSmall}, {kInTmp});
    for (LMDBContext* db : peer().dbChain()) {
      ::mdb_env_set_flags(db->env, MDB_NOSYNC, 1);
    }
    Faults::OnlyBelow(Directory().string());
  }
  void TearDown() override { Faults::Reset(); }

  LMDBContext& DatabaseOf(const char* name) {
    return name == kTmp ? peer().tmpDb() : name == kSmall ? peer().smallDb() : peer().fullDb();
  }

  /// No transaction and no lock has stayed, none has kept its reader's slot, and all goes on.
  void ExpectNothingLeftOpen() {
    Faults::Disarm();
    EXPECT_TRUE(peer().rwLock().try_lock());
    peer().rwLock().unlock();
    EXPECT_TRUE(peer().tableLock().try_lock());
    peer().tableLock().unlock();
    for (LMDBContext* db : peer().dbChain()) {
      EXPECT_THAT(ReadersOf(*db), AnyOf(StrEq("(no readers)\n"), StrEq("(no active readers)\n")));
      MDB_envinfo info{};
      Check(::mdb_env_info(db->env, &info));
      EXPECT_LE(info.me_numreaders, 1U) << "one at a time has ever read";
    }
    EXPECT_THAT(At(kAhead), Optional(kAtAhead));
    EXPECT_THAT(At(kBehind), Optional(kAtBehind));
    Put(peer().tmpDb(), {RecordOf(kInTmp)});
    Put(peer().smallDb(), {RecordOf(kInSmall)});
    Put(peer().fullDb(), {RecordOf(kInFull)});
    EXPECT_EQ(0, table().setFileSize(table().getFileSize() + 1));
  }
};

// --- transactions of the look-up
// --------------------------------------------------------------------

struct Fault {
  const char* name;
  const char* database;
  Call call;
  int nth;
  long offset;
  const char* words;  // in the log, with %s for the table's path; null: none
};

void PrintTo(const Fault& fault, std::ostream* out) {
  *out << fault.name;
}

constexpr int kCode = MDB_CORRUPTED;
constexpr const char* kNoTransaction =
    "8 Failed to open transaction for db %s, return value is -30796";
constexpr const char* kNoCursor = "8 Failed to create a cursor, return value is -30796";
constexpr const char* kNoRead = "8 Failed to read for a cursor, return value is -30796";

class OwnTransactionFaultTest : public ReadPathFaultTest,
                                public testing::WithParamInterface<Fault> {
 protected:
  void Arm() {
    Faults::OnlyDatabase(GetParam().database);
    Faults::FailNth(GetParam().call, GetParam().nth, kCode);
    log_.Take();
  }
  void ExpectWords() {
    if (GetParam().words == nullptr) {
      EXPECT_THAT(Lines(1), IsEmpty());
      return;
    }
    std::string line = GetParam().words;
    const std::size_t at = line.find("%s");
    if (at != std::string::npos) {
      line.replace(at, 2, Directory().string());
    }
    EXPECT_THAT(Lines(1), ElementsAre(line));
  }
};

TEST_P(OwnTransactionFaultTest, ThrowsTheCodeAndLeavesNothingOpen) {
  for (int round = 0; round < 3; ++round) {  // a slot that is lost shows in the next round
    Arm();
    EXPECT_EQ(kCode, CodeOf([&] { table().lower_bound(GetParam().offset, nullptr); }));
    EXPECT_TRUE(Faults::Fired());
    ExpectWords();
    ExpectNothingLeftOpen();
  }
}

TEST_P(OwnTransactionFaultTest, LeavesAnIteratorThatStepsWhereItWas) {
  ExtLMDB ext;
  ext.eOff = GetParam().offset;
  ext.objectID.dcid = 99;
  Peer::Iterator it(ext, &table());
  Arm();
  EXPECT_EQ(kCode, CodeOf([&] { ++it; }));
  ExpectWords();
  EXPECT_TRUE(it == Peer::Iterator(ext, &table()));
  EXPECT_EQ(PartOf(ext), PartOf(*it));
  ExpectNothingLeftOpen();
  ++it;
  EXPECT_EQ(GetParam().offset == kAhead ? kAtAhead : kAtBehind, PartOf(*it)) << "the next try";
}

INSTANTIATE_TEST_SUITE_P(
    EachCall, OwnTransactionFaultTest,
    testing::Values(
        Fault{"BeginOfTmp", kTmp, Call::kMdbTxnBegin, 1, kAhead, kNoTransaction},
        Fault{"BeginOfSmall", kSmall, Call::kMdbTxnBegin, 1, kAhead, kNoTransaction},
        Fault{"BeginOfFull", kFull, Call::kMdbTxnBegin, 1, kAhead, kNoTransaction},
        Fault{"CursorOfTmp", kTmp, Call::kMdbCursorOpen, 1, kAhead, kNoCursor},
        Fault{"CursorOfSmall", kSmall, Call::kMdbCursorOpen, 1, kAhead, kNoCursor},
        Fault{"CursorOfFull", kFull, Call::kMdbCursorOpen, 1, kAhead, kNoCursor},
        Fault{"SearchInTmp", kTmp, Call::kMdbCursorGet, 1, kAhead, kNoRead},
        Fault{"SearchInSmall", kSmall, Call::kMdbCursorGet, 1, kAhead, kNoRead},
        Fault{"SearchInFull", kFull, Call::kMdbCursorGet, 1, kAhead, kNoRead},
        Fault{"StepBackInTmp", kTmp, Call::kMdbCursorGet, 2, kAhead, nullptr},
        Fault{"StepBackInSmall", kSmall, Call::kMdbCursorGet, 2, kAhead, nullptr},
        Fault{"BeginOfSmallBehind", kSmall, Call::kMdbTxnBegin, 1, kBehind, kNoTransaction},
        Fault{"BeginOfFullBehind", kFull, Call::kMdbTxnBegin, 1, kBehind, kNoTransaction},
        Fault{"SearchInFullBehind", kFull, Call::kMdbCursorGet, 1, kBehind, kNoRead},
        Fault{"LastInTmp", kTmp, Call::kMdbCursorGet, 2, kBehind, nullptr},
        Fault{"LastInSmall", kSmall, Call::kMdbCursorGet, 2, kBehind, nullptr}),
    [](const auto& given) { return given.param.name; });

TEST_F(ReadPathFaultTest, ADatabaseThatIsNotOpenThrowsZeroAndSaysSoAtEachDepth) {
  LMDBContext closed;
  const std::string line =
      "8 Failed to open transaction for db " + Directory().string() + ", return value is 0";
  for (std::size_t depth = 0; depth < 3; ++depth) {
    std::list<LMDBContext*> chain = peer().dbChain();
    *std::next(chain.begin(), static_cast<std::ptrdiff_t>(depth)) = &closed;
    ExtLMDB out;
    bool thrown = false;
    log_.Take();
    try {
      peer().GetNextExtInDBChain(chain, chain.begin(), kAhead, &out);
    } catch (const SysException& e) {
      thrown = true;
      EXPECT_EQ(0, e.code);
    }
    EXPECT_TRUE(thrown) << "at depth " << depth;
    EXPECT_THAT(Lines(1), ElementsAre(line));
    EXPECT_EQ((Part{0, 0, 0, 0}), PartOf(out));
    ExpectNothingLeftOpen();
  }
}

TEST_F(ReadPathFaultTest, AFailureInsideALookUpReleasesTheLockThatTheCallerWouldHaveGot) {
  Faults::OnlyDatabase(kFull);
  Faults::FailNth(Call::kMdbTxnBegin, 1, kCode);
  CMappingTable::SharedLock lock;
  EXPECT_EQ(kCode, CodeOf([&] { table().lower_bound(kAhead, &lock); }));
  EXPECT_FALSE(lock.owns_lock());
  ExpectNothingLeftOpen();
}

// --- cursors of the caller -------------------------------------------------------------------

struct GivenFault {
  const char* name;
  const char* database;
  int nth;  // search, or the second step
  long offset;
  int result;
  Part found;  // if the result is 0
};

void PrintTo(const GivenFault& fault, std::ostream* out) {
  *out << fault.name;
}

class GivenCursorFaultTest : public ReadPathFaultTest,
                             public testing::WithParamInterface<GivenFault> {};

// A newer database does not learn why an older one found nothing: it answers with what it has.
TEST_P(GivenCursorFaultTest, EndsTheWalkThereAndThrowsNothing) {
  const GivenFault& fault = GetParam();
  for (int round = 0; round < 3; ++round) {
    {
      Cursors cursors(peer().dbChain());
      const auto begins = Faults::Count(Call::kMdbTxnBegin);
      const auto opens = Faults::Count(Call::kMdbCursorOpen);
      Faults::OnlyDatabase(fault.database);
      Faults::FailNth(Call::kMdbCursorGet, 1 + fault.nth, kCode);  // behind where it asks its place
      log_.Take();
      ExtLMDB out;
      EXPECT_EQ(fault.result, peer().GetNextExtInDBChain(peer().dbChain(), peer().dbChain().begin(),
                                                         cursors.begin(), fault.offset, &out));
      EXPECT_TRUE(Faults::Fired());
      EXPECT_EQ(fault.result == 0 ? fault.found : (Part{0, 0, 0, 0}), PartOf(out));
      if (fault.nth == 1) {
        EXPECT_THAT(Lines(1), ElementsAre(kNoRead));
      } else {
        EXPECT_THAT(Lines(1), IsEmpty());
      }
      Faults::OnlyDatabase("");
      EXPECT_EQ(begins, Faults::Count(Call::kMdbTxnBegin)) << "it opens nothing";
      EXPECT_EQ(opens, Faults::Count(Call::kMdbCursorOpen));
      Faults::Disarm();
      EXPECT_EQ(0, peer().GetNextExtInDBChain(peer().dbChain(), peer().dbChain().begin(),
                                              cursors.begin(), fault.offset, &out))
          << "and closes nothing";
      EXPECT_EQ(fault.offset == kAhead ? kAtAhead : kAtBehind, PartOf(out));
    }
    ExpectNothingLeftOpen();
  }
}

// A cursor that stands in front of what is wanted steps on instead of searching.
TEST_F(ReadPathFaultTest, AFailingStepOfAGivenCursorEndsTheWalkAsASearchDoes) {
  Cursors cursors(peer().dbChain());
  const auto next = [&](ExtLMDB* out) {
    return peer().GetNextExtInDBChain(peer().dbChain(), peer().dbChain().begin(), cursors.begin(),
                                      kAhead, out);
  };
  ExtLMDB out;
  ASSERT_EQ(0, next(&out));
  constexpr int kPlaceThenStep = 2;
  Faults::OnlyDatabase(kTmp);
  Faults::FailNth(Call::kMdbCursorGet, kPlaceThenStep, kCode);
  log_.Take();
  EXPECT_EQ(-1, next(&out));
  EXPECT_TRUE(Faults::Fired());
  EXPECT_THAT(Lines(1), ElementsAre(kNoRead));
  Faults::FailNth(Call::kMdbCursorGet, 1, kCode);
  EXPECT_EQ(0, next(&out)) << "a cursor that cannot tell its place searches";
  EXPECT_TRUE(Faults::Fired());
  EXPECT_EQ(kAtAhead, PartOf(out));
}

INSTANTIATE_TEST_SUITE_P(
    EachCall, GivenCursorFaultTest,
    testing::Values(GivenFault{"SearchInTmp", kTmp, 1, kAhead, -1, {}},
                    GivenFault{"SearchInSmall", kSmall, 1, kAhead, 0, kInTmp},
                    GivenFault{"SearchInFull", kFull, 1, kAhead, 0, kInSmall},
                    GivenFault{"StepBackInTmp", kTmp, 2, kAhead, -1, {}},
                    GivenFault{"StepBackInSmall", kSmall, 2, kAhead, 0, kInTmp},
                    GivenFault{"SearchInTmpBehind", kTmp, 1, kBehind, -1, {}},
                    GivenFault{"SearchInSmallBehind", kSmall, 1, kBehind, -1, {}},
                    GivenFault{"SearchInFullBehind", kFull, 1, kBehind, -1, {}},
                    GivenFault{"LastInTmp", kTmp, 2, kBehind, -1, {}},
                    GivenFault{"LastInSmall", kSmall, 2, kBehind, -1, {}}),
    [](const auto& given) { return given.param.name; });

// --- cost
// -------------------------------------------------------------------------------------------

class ReadPathCostTest : public ReadPathFaultTest {
 protected:
  /// Read transactions on tmp, small and full database that `lookUp` begins, and all its reads.
  struct Cost {
    int tmp, small, full, reads;
    bool operator==(const Cost& other) const {
      return std::tie(tmp, small, full, reads) ==
             std::tie(other.tmp, other.small, other.full, other.reads);
    }
  };
  friend void PrintTo(const Cost& cost, std::ostream* out) {
    *out << cost.tmp << ", " << cost.small << ", " << cost.full << " begins, " << cost.reads
         << " reads";
  }

  template <typename LookUp>
  Cost CostOf(LookUp lookUp) {
    int begins[3];
    int reads = 0;
    int cursors = 0;
    for (std::size_t i = 0; i < 3; ++i) {
      Faults::OnlyBelow(Directory().string());
      Faults::OnlyDatabase(std::vector<const char*>{kTmp, kSmall, kFull}[i]);
      lookUp();
      begins[i] = Faults::Count(Call::kMdbTxnBegin);
      cursors += Faults::Count(Call::kMdbCursorOpen);
      reads += Faults::Count(Call::kMdbCursorGet) + Faults::Count(Call::kMdbGet) +
               Faults::Count(Call::kMdbStat);
    }
    EXPECT_EQ(begins[0] + begins[1] + begins[2], cursors);
    return {begins[0], begins[1], begins[2], reads};
  }
};

TEST_F(ReadPathCostTest, AHitInTheCacheMakesNoCallOfLMDB) {
  Cache({20, 30, 73});
  EXPECT_EQ((Cost{0, 0, 0, 0}), CostOf([&] { table().lower_bound(25, nullptr); }));
  EXPECT_EQ((Cost{0, 0, 0, 0}), CostOf([&] { peer().lower_bound_unlocked(20); }));
}

TEST_F(ReadPathCostTest, ALookUpInTheCacheMakesNoCallOfLMDBHitOrMiss) {
  EXPECT_EQ((Cost{0, 0, 0, 0}), CostOf([&] { table().lower_bound_in_cache(0, nullptr); }));
  Cache({20, 30, 73});
  EXPECT_EQ((Cost{0, 0, 0, 0}), CostOf([&] { table().lower_bound_in_cache(0, nullptr); }));
}

TEST_F(ReadPathCostTest, AHitAmongThePrefetchedExtentsMakesNoCallOfLMDB) {
  Set(&FileSystemDaemonConfig::prefetchEnabled, 1);
  Prefetch({20, 30, 73});
  EXPECT_EQ((Cost{0, 0, 0, 0}), CostOf([&] { table().lower_bound(25, nullptr); }));
}

TEST_F(ReadPathCostTest, AnyOtherLookUpTakesAtMostOneTransactionADatabase) {
  EXPECT_EQ((Cost{1, 0, 0, 1}), CostOf([&] { table().lower_bound(85, nullptr); }))
      << "nothing older than the database that holds the offset is asked";
  EXPECT_EQ((Cost{1, 1, 0, 3}), CostOf([&] { table().lower_bound(65, nullptr); }));
  EXPECT_EQ((Cost{1, 1, 1, 5}), CostOf([&] { table().lower_bound(kAhead, nullptr); }));
  EXPECT_EQ((Cost{1, 1, 1, 5}), CostOf([&] { table().lower_bound(kBehind, nullptr); }));
  EXPECT_EQ((Cost{1, 1, 1, 3}), CostOf([&] { table().lower_bound(100, nullptr); }));
  EXPECT_EQ((Cost{1, 1, 1, 5}), CostOf([&] { table().begin(); }));
  EXPECT_EQ((Cost{0, 0, 0, 0}), CostOf([&] { table().end(); }));
}

}  // namespace
