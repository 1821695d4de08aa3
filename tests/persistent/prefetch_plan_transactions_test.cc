// The locks and transactions of a plan: which are held while it walks, and that all of them are
// ended on every way out.

#include <ostream>

#include <gmock/gmock.h>

#include "tests/persistent/abort_trace.h"
#include "tests/persistent/millis_switch.h"
#include "tests/persistent/prefetch_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/support/held_lock.h"
#include "tests/table/code_of.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using zefs::test::AbortTrace;
using zefs::test::Call;
using zefs::test::CodeOf;
using zefs::test::Faults;
using zefs::test::Held;
using zefs::test::HowIsHeld;
using zefs::test::MillisSwitch;
using zefs::test::Part;
using zefs::test::RecordOf;

constexpr const char* kTmp = CMappingLMDB::TMPDB;
constexpr const char* kSmall = CMappingLMDB::LSML0DB;
constexpr const char* kFull = CMappingLMDB::FULLDB;
constexpr int kCode = MDB_CORRUPTED;

class PrefetchTransactionsTest : public zefs::test::PrefetchTest {
 protected:
  void SetUp() override {
    LoadOver({{0, 100, 70}}, {{60, 70, 71}}, {{80, 90, 72}});
    for (LMDBContext* db : peer().dbChain()) {
      ::mdb_env_set_flags(db->env, MDB_NOSYNC, 1);
    }
    Prefetch({500, 600, 99});
    Faults::OnlyBelow(Directory().string());
  }
  void TearDown() override { Faults::Reset(); }

  std::vector<Held> Locks() {
    return {HowIsHeld(peer().rwLock()), HowIsHeld(peer().tableLock()),
            HowIsHeld(peer().prefetchLock())};
  }

  static const std::vector<std::string>& WholePlan() {
    static const std::vector<std::string> plan = {
        "70 of 80 bytes: [0 +60) from 0, [70 +10) from 70, [90 +10) from 90",
        "71 of 10 bytes: [60 +10) from 0", "72 of 10 bytes: [80 +10) from 0"};
    return plan;
  }

  /// No lock is held, every database takes a writer, and the next plan is whole.
  void ExpectNothingLeftOpen() {
    Faults::Disarm();
    Faults::OnlyDatabase("");
    EXPECT_THAT(Locks(), Each(Held::kNot));
    Put(peer().tmpDb(), {RecordOf({80, 90, 72})});
    Put(peer().smallDb(), {RecordOf({60, 70, 71})});
    Put(peer().fullDb(), {RecordOf({0, 100, 70})});
    EXPECT_EQ(WholePlan(), ShownPlan(0, 100));
  }

  /// A plan that cannot begin: throws `code`, says `line`, and ends the transactions in `aborted`.
  void ExpectRefused(int code, const std::string& line, const std::vector<std::string>& aborted) {
    log_.Take();
    Plan plan(1);
    plan.front().dcid = 12;
    bool thrown = false;
    {
      AbortTrace aborts;
      try {
        table().GetDCInfoList({0, 100, kTag}, &plan);
      } catch (const SysException& e) {
        thrown = true;
        EXPECT_EQ(code, e.code);
      }
      EXPECT_EQ(aborted, aborts.Take());
    }
    EXPECT_TRUE(thrown);
    EXPECT_THAT(Lines(), ElementsAre(line));
    ASSERT_EQ(1U, plan.size());
    EXPECT_EQ(12U, plan.front().dcid);
    EXPECT_THAT(plan.front().extents, IsEmpty());
    EXPECT_THAT(Kept(), ElementsAre(Part{500, 600, 99}));
    ExpectNothingLeftOpen();
  }

  std::string NoTransactionLine(int code) const {
    return "8 Failed to open transaction for db " + Directory().string() + ", return value is " +
           std::to_string(code);
  }
};

// --- a plan that ends well -----------------------------------------------------------------------

TEST_F(PrefetchTransactionsTest, APlanHasOneWriteTransactionADatabaseAndAbortsThemInChainOrder) {
  AbortTrace aborts;
  EXPECT_EQ(WholePlan(), ShownPlan(0, 100));
  EXPECT_THAT(aborts.Take(), ElementsAre("write tmp.mdb", "write lsml0.mdb", "write data.mdb"));
  EXPECT_EQ(3, Faults::Count(Call::kMdbTxnBegin)) << "for any number of steps";
  EXPECT_EQ(3, Faults::Count(Call::kMdbCursorOpen));
  EXPECT_EQ(0, Faults::Count(Call::kMdbTxnCommit));
  ExpectNothingLeftOpen();
}

TEST_F(PrefetchTransactionsTest, TransactionsBeginInChainOrder) {
  for (const auto& [database, nth] : {std::pair{kTmp, 1}, {kSmall, 2}, {kFull, 3}}) {
    Faults::OnlyBelow(Directory().string());
    Faults::FailNth(Call::kMdbTxnBegin, nth, kCode);
    EXPECT_EQ(kCode, CodeOf([&] { PlanOf(0, 100); }));
    Faults::Disarm();
    Faults::OnlyBelow(Directory().string());
    Faults::OnlyDatabase(database);
    Faults::FailNth(Call::kMdbTxnBegin, 1, kCode);
    AbortTrace aborts;
    EXPECT_EQ(kCode, CodeOf([&] { PlanOf(0, 100); }));
    EXPECT_EQ(static_cast<std::size_t>(nth) - 1, aborts.Take().size()) << database;
  }
}

TEST_F(PrefetchTransactionsTest, APlanOfAnEmptyTableEndsItsTransactionsToo) {
  for (LMDBContext* db : peer().dbChain()) {
    Clear(*db);
  }
  AbortTrace aborts;
  EXPECT_THAT(ShownPlan(0, 100), IsEmpty());
  EXPECT_THAT(aborts.Take(), ElementsAre("write tmp.mdb", "write lsml0.mdb", "write data.mdb"));
  EXPECT_THAT(Kept(), ElementsAre(Part{500, 600, 99}));
  ExpectNothingLeftOpen();
}

TEST_F(PrefetchTransactionsTest, WhileItWalksCacheAndDatabasesAreHeldSharedAndTheKeptOnesNot) {
  std::vector<std::vector<Held>> seen;
  const std::vector<Held> walking = {Held::kShared, Held::kShared, Held::kNot};
  {
    const MillisSwitch millis(1, [&] { seen.push_back(Locks()); });
    PlanOf(0, 100);
  }
  EXPECT_THAT(seen, ElementsAre(walking, walking, walking, walking, walking));
  EXPECT_THAT(Locks(), Each(Held::kNot));
}

TEST_F(PrefetchTransactionsTest, TheTransactionsEndBeforeTheRunIsKeptUnderTheSameLocks) {
  std::vector<Held> locks;
  std::vector<Part> kept;
  {
    AbortTrace aborts;
    aborts.AtNext([&] {
      locks = Locks();
      kept = Kept();
    });
    PlanOf(0, 100);
  }
  EXPECT_THAT(locks, ElementsAre(Held::kShared, Held::kShared, Held::kNot));
  EXPECT_THAT(kept, ElementsAre(Part{500, 600, 99}));
  EXPECT_THAT(Kept(), testing::SizeIs(5));
}

TEST_F(PrefetchTransactionsTest, ARangeWithoutBytesReleasesBothLocks) {
  EXPECT_THAT(ShownPlan(5, 5), IsEmpty());
  EXPECT_THAT(Locks(), Each(Held::kNot));
}

TEST_F(PrefetchTransactionsTest, ContextsStandInChainOrderBehindThoseThatAreThere) {
  std::list<CMappingLMDB::MDBTXNCONTEXT> contexts(1);
  peer().CreateMDBTxnContext(peer().dbChain(), &contexts);
  ASSERT_EQ(4U, contexts.size());
  EXPECT_EQ(nullptr, contexts.front().txn);
  contexts.pop_front();
  auto context = contexts.begin();
  for (const LMDBContext* db : peer().dbChain()) {
    EXPECT_EQ(db->env, ::mdb_txn_env(context->txn));
    EXPECT_EQ(context->txn, ::mdb_cursor_txn(context->cursor));
    EXPECT_EQ(db->dbi, ::mdb_cursor_dbi(context->cursor));
    MDB_envinfo info{};
    Check(::mdb_env_info(db->env, &info));
    EXPECT_EQ(info.me_last_txnid + 1, ::mdb_txn_id(context->txn)) << "one that could write";
    ++context;
  }
  AbortTrace aborts;
  Peer::AbortMDBTxnContext(&contexts);
  EXPECT_EQ(3U, contexts.size());
  EXPECT_THAT(aborts.Take(), ElementsAre("write tmp.mdb", "write lsml0.mdb", "write data.mdb"));
  ExpectNothingLeftOpen();
}

TEST_F(PrefetchTransactionsTest, OfAChainWithoutDatabasesThereIsNoContext) {
  std::list<CMappingLMDB::MDBTXNCONTEXT> contexts;
  peer().CreateMDBTxnContext({}, &contexts);
  EXPECT_THAT(contexts, IsEmpty());
  Peer::AbortMDBTxnContext(&contexts);
}

// --- a plan that cannot begin --------------------------------------------------------------------

TEST_F(PrefetchTransactionsTest, WithADatabaseThatIsNotOpenItThrowsZeroAndEndsWhatItBegan) {
  const std::list<LMDBContext*> whole = peer().dbChain();
  const std::vector<std::string> opened = {"write tmp.mdb", "write lsml0.mdb", "write data.mdb"};
  LMDBContext closed;
  for (std::ptrdiff_t depth = 0; depth < 3; ++depth) {
    SCOPED_TRACE(depth);
    *std::next(peer().dbChain().begin(), depth) = &closed;
    bool thrown = false;
    {
      AbortTrace aborts;
      Plan plan;
      log_.Take();
      try {
        table().GetDCInfoList({0, 100, kTag}, &plan);
      } catch (const SysException& e) {
        thrown = true;
        EXPECT_EQ(0, e.code);
      }
      EXPECT_THAT(plan, IsEmpty());
      EXPECT_EQ(std::vector<std::string>(opened.begin(), opened.begin() + depth), aborts.Take());
    }
    EXPECT_TRUE(thrown);
    EXPECT_THAT(Lines(), ElementsAre(NoTransactionLine(0)));
    EXPECT_THAT(Kept(), ElementsAre(Part{500, 600, 99}));
    peer().dbChain() = whole;
    ExpectNothingLeftOpen();
    peer().prefetchExts().clear();
    Prefetch({500, 600, 99});
  }
}

struct Refusal {
  const char* name;
  const char* database;
  Call call;
  std::vector<std::string> aborted;
};

void PrintTo(const Refusal& refusal, std::ostream* out) {
  *out << refusal.name;
}

class PrefetchRefusalTest : public PrefetchTransactionsTest,
                            public testing::WithParamInterface<Refusal> {};

TEST_P(PrefetchRefusalTest, ThrowsTheCodeSaysSoAndEndsWhatItBegan) {
  Faults::OnlyDatabase(GetParam().database);
  Faults::FailNth(GetParam().call, 1, kCode);
  ExpectRefused(kCode,
                GetParam().call == Call::kMdbTxnBegin
                    ? NoTransactionLine(kCode)
                    : "8 Failed to create a cursor, return value is -30796",
                GetParam().aborted);
}

TEST_P(PrefetchRefusalTest, AlsoAsAnOperationOfItsOwnAndLeavesTheListAsItWas) {
  Faults::OnlyDatabase(GetParam().database);
  Faults::FailNth(GetParam().call, 1, kCode);
  std::list<CMappingLMDB::MDBTXNCONTEXT> contexts(1);
  EXPECT_EQ(kCode, CodeOf([&] { peer().CreateMDBTxnContext(peer().dbChain(), &contexts); }));
  EXPECT_EQ(1U, contexts.size());
  EXPECT_EQ(nullptr, contexts.front().txn);
  ExpectNothingLeftOpen();
}

INSTANTIATE_TEST_SUITE_P(
    EachCall, PrefetchRefusalTest,
    testing::Values(
        Refusal{"BeginOfTmp", kTmp, Call::kMdbTxnBegin, {}},
        Refusal{"BeginOfSmall", kSmall, Call::kMdbTxnBegin, {"write tmp.mdb"}},
        Refusal{"BeginOfFull", kFull, Call::kMdbTxnBegin, {"write tmp.mdb", "write lsml0.mdb"}},
        Refusal{"CursorOfTmp", kTmp, Call::kMdbCursorOpen, {"write tmp.mdb"}},
        Refusal{
            "CursorOfSmall", kSmall, Call::kMdbCursorOpen, {"write lsml0.mdb", "write tmp.mdb"}},
        Refusal{"CursorOfFull",
                kFull,
                Call::kMdbCursorOpen,
                {"write data.mdb", "write tmp.mdb", "write lsml0.mdb"}}),
    [](const auto& given) { return given.param.name; });

// --- a plan that cannot read on ------------------------------------------------------------------

TEST_F(PrefetchTransactionsTest, AReadThatFailsInTheNewestDatabaseEndsThePlanWithWhatWasFound) {
  Faults::OnlyDatabase(kTmp);
  {
    const MillisSwitch millis(1, [] { Faults::FailNth(Call::kMdbCursorGet, 1, kCode, true); });
    log_.Take();
    EXPECT_THAT(ShownPlan(0, 100), ElementsAre("70 of 60 bytes: [0 +60) from 0"));
  }
  EXPECT_THAT(Lines(1), ElementsAre("8 Failed to read for a cursor, return value is -30796"));
  EXPECT_THAT(Kept(), ElementsAre(Part{0, 60, 70})) << "it lies apart from the old run";
  ExpectNothingLeftOpen();
}

TEST_F(PrefetchTransactionsTest, AFirstReadThatFailsGivesAnEmptyPlanAndKeepsWhatWasKept) {
  Faults::OnlyDatabase(kTmp);
  Faults::FailNth(Call::kMdbCursorGet, 1, kCode, true);
  log_.Take();
  EXPECT_THAT(ShownPlan(0, 100), IsEmpty());
  EXPECT_THAT(Lines(1), ElementsAre("8 Failed to read for a cursor, return value is -30796"));
  EXPECT_THAT(Kept(), ElementsAre(Part{500, 600, 99}));
  ExpectNothingLeftOpen();
}

TEST_F(PrefetchTransactionsTest, AReadThatFailsInAnOlderDatabaseLeavesThePlanToTheNewerOnes) {
  Faults::OnlyDatabase(kFull);
  Faults::FailNth(Call::kMdbCursorGet, 1, kCode, true);
  log_.Take();
  EXPECT_THAT(ShownPlan(0, 100),
              ElementsAre("71 of 10 bytes: [60 +10) from 0", "72 of 10 bytes: [80 +10) from 0"));
  EXPECT_THAT(Lines(1), testing::SizeIs(3)) << "a step that finds nothing more is one of them";
  ExpectNothingLeftOpen();
}

TEST_F(PrefetchTransactionsTest, AReadThatFailsBeforeACachedExtentLeavesThatOneToThePlan) {
  Cache({110, 120, 73});
  Faults::FailNth(Call::kMdbCursorGet, 1, kCode, true);
  EXPECT_THAT(ShownPlan(0, 200), ElementsAre("73 of 10 bytes: [110 +10) from 0"));
  Faults::Disarm();
  EXPECT_THAT(Locks(), Each(Held::kNot));
}

}  // namespace
