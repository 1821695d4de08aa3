// Every call of LMDB that a plan makes, failing once and failing for good, with every code that it
// may have: the plan is refused or ends, shows nothing that is not there, and leaves nothing open.

#include <algorithm>
#include <cerrno>
#include <iostream>

#include <gmock/gmock.h>

#include "tests/persistent/abort_trace.h"
#include "tests/persistent/prefetch_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/support/held_lock.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using zefs::test::AbortTrace;
using zefs::test::Call;
using zefs::test::Faults;
using zefs::test::Held;
using zefs::test::HowIsHeld;
using zefs::test::Part;

const std::vector<int> kBeginCodes = {ENOMEM,           EIO,
                                      EACCES,           MDB_PANIC,
                                      MDB_CORRUPTED,    MDB_MAP_RESIZED,
                                      MDB_READERS_FULL, MDB_VERSION_MISMATCH};
const std::vector<int> kCursorCodes = {ENOMEM, EINVAL, MDB_BAD_TXN, MDB_BAD_DBI};
const std::vector<int> kReadCodes = {EIO,          EINVAL,         MDB_CORRUPTED,
                                     MDB_PANIC,    MDB_BAD_TXN,    MDB_PAGE_NOTFOUND,
                                     MDB_NOTFOUND, MDB_CURSOR_FULL};

class PrefetchFaultTest : public zefs::test::PrefetchTest {
 protected:
  void SetUp() override {
    LoadOver({{0, 100, 70}, {100, 150, 71}, {200, 300, 70}}, {{20, 40, 72}, {140, 220, 73}},
             {{30, 60, 74}, {260, 270, 63}});
    for (LMDBContext* db : peer().dbChain()) {
      ::mdb_env_set_flags(db->env, MDB_NOSYNC, 1);
    }
    Cache({10, 15, 75});
    Cache({50, 55, 76});
    Cache({400, 410, 77});
    Prefetch({900, 910, 99});
    visible_ = Whole();
    Faults::OnlyBelow(Directory().string());
  }
  void TearDown() override { Faults::Reset(); }

  /// The extents that a plan of everything finds.
  std::vector<Part> Whole() {
    const std::vector<Part> before = Kept();
    peer().prefetchExts().clear();
    PlanOf(0, 500);
    std::vector<Part> kept = Kept();
    peer().prefetchExts().clear();
    for (const Part& part : before) {
      Prefetch(part);
    }
    return kept;
  }

  /// One of the extents that are visible, or a part of one. The cached extent that a database
  /// extent is cut at is known whatever fails, and so is what a newer database has.
  bool IsVisible(const Part& part) const {
    return std::any_of(visible_.begin(), visible_.end(), [&](const Part& whole) {
      return whole.dcid == part.dcid && whole.sOff <= part.sOff && part.eOff <= whole.eOff &&
             part.objOff - part.sOff == whole.objOff - whole.sOff;
    });
  }

  void ExpectNothingLeftOpen() {
    Faults::Disarm();
    EXPECT_EQ(Held::kNot, HowIsHeld(peer().rwLock()));
    EXPECT_EQ(Held::kNot, HowIsHeld(peer().tableLock()));
    EXPECT_EQ(Held::kNot, HowIsHeld(peer().prefetchLock()));
    for (LMDBContext* db : peer().dbChain()) {
      Put(*db, {{zefs::test::kPlainCommitCounterKey, zefs::test::SpecialBytes(1)}});
    }
  }

  /// A plan with the `nth` call failing. True if it was made to the end.
  bool PlanWith(Call call, int nth, int code, bool forGood) {
    Faults::OnlyBelow(Directory().string());
    Faults::FailNth(call, nth, code, forGood);
    log_.Take();
    Plan plan;
    bool ended = false;
    std::vector<std::string> aborted;
    {
      AbortTrace aborts;
      try {
        table().GetDCInfoList({0, 500, kTag}, &plan);
        ended = true;
      } catch (const SysException& e) {
        EXPECT_EQ(code, e.code);
        EXPECT_TRUE(plan.empty());
        EXPECT_THAT(Kept(), ElementsAre(Part{900, 910, 99}));
        EXPECT_THAT(Lines(1), testing::SizeIs(1));
      }
      aborted = aborts.Take();
    }
    const int begun = Faults::Count(Call::kMdbTxnBegin) - (call == Call::kMdbTxnBegin && !ended);
    EXPECT_EQ(static_cast<std::size_t>(begun), aborted.size()) << "each is ended, once";
    for (const std::string& each : aborted) {
      EXPECT_THAT(each, testing::StartsWith("write "));
    }
    return ended;
  }

  /// Fails each call of a kind with each code; the number of calls times codes.
  int FailEach(Call call, const std::vector<int>& codes, bool ends) {
    int points = 0;
    for (const bool forGood : {false, true}) {
      for (const int code : codes) {
        points += Faults::UntilNoneFires([&](int nth) {
          SCOPED_TRACE("call " + std::to_string(nth) + ", code " + std::to_string(code));
          const bool ended = PlanWith(call, nth, code, forGood);
          EXPECT_EQ(ends || !Faults::Fired(), ended);
          if (Faults::Fired() && ended && code != MDB_NOTFOUND) {
            CheckKept();
          }
          peer().prefetchExts().clear();
          Prefetch({900, 910, 99});
          ExpectNothingLeftOpen();
        });
      }
    }
    EXPECT_EQ(visible_, Whole());
    return points;
  }

  /// What a plan that could not read everything has found is there, in order.
  void CheckKept() {
    long offset = 0;
    for (const Part& part : Kept()) {
      if (part.dcid != 99) {
        EXPECT_TRUE(IsVisible(part)) << testing::PrintToString(part);
        EXPECT_GE(part.sOff, offset);
        offset = part.eOff;
      }
    }
  }

  std::vector<Part> visible_;
};

TEST_F(PrefetchFaultTest, EveryTransactionThatCannotBegin) {
  const int points = FailEach(Call::kMdbTxnBegin, kBeginCodes, false);
  std::cout << "failed begins: " << points << '\n';
  EXPECT_EQ(2 * 3 * 8, points);
}

TEST_F(PrefetchFaultTest, EveryCursorThatCannotBeOpened) {
  const int points = FailEach(Call::kMdbCursorOpen, kCursorCodes, false);
  std::cout << "failed cursors: " << points << '\n';
  EXPECT_EQ(2 * 3 * 4, points);
}

TEST_F(PrefetchFaultTest, EveryReadThatFails) {
  const int points = FailEach(Call::kMdbCursorGet, kReadCodes, true);
  std::cout << "failed reads: " << points << '\n';
  EXPECT_GT(points, 2 * 8 * 30);
}

TEST_F(PrefetchFaultTest, OfWhatAPlanNeedsNoOtherCallOfLMDBIsMade) {
  PlanOf(0, 500);
  for (const Call call : {Call::kMdbTxnCommit, Call::kMdbGet, Call::kMdbPut, Call::kMdbDel,
                          Call::kMdbCursorPut, Call::kMdbCursorDel, Call::kMdbStat,
                          Call::kMdbDbiOpen, Call::kMdbSetCompare, Call::kMdbEnvOpen}) {
    EXPECT_EQ(0, Faults::Count(call)) << static_cast<int>(call);
  }
}

}  // namespace
