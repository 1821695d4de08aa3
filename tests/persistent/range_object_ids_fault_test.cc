// Each call of LMDB in a listing and in an update fails once.

#include <cerrno>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/abort_trace.h"
#include "tests/persistent/codes_of_call.h"
#include "tests/persistent/range_object_ids_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Call kCallsOfBoth[] = {Call::kMdbTxnBegin, Call::kMdbCursorOpen, Call::kMdbCursorGet,
                                 Call::kMdbPut, Call::kMdbTxnCommit};

class RangeObjectIdsFaultTest : public RangeObjectIdsTest {
 protected:
  const Records full_ = {Attributed(0, 10, 70, 5), Attributed(10, 20, 71, 6),
                         Attributed(20, 30, 72, 5)};
  const ObjectIDs ids_ = {Element(10, 90, 5), Element(30, 91, 5)};

  /// Fails each call of `run` in turn with each code, on the table as it was before; `check` is
  /// told the call, its number and the code. Returns the number of calls and codes.
  int FailEach(const std::function<void()>& run,
               const std::function<void(Call, int nth, int code)>& check) {
    int points = 0;
    const WatchCalls watch(dir_.path().string());
    Faults::OnlyDatabase("data.mdb");
    for (const Call call : kCallsOfBoth) {
      for (const int code : CodesOf(call)) {
        points += Faults::UntilNoneFires([&](int nth) {
          SCOPED_TRACE("kind " + std::to_string(static_cast<int>(call)) + ", call " +
                       std::to_string(nth) + ", code " + std::to_string(code));
          Restore();
          Lines();
          AbortTrace aborts;
          Held held = Held::kShared;
          aborts.AtNext([&] { held = TableLock(); });
          Faults::FailNth(call, nth, code);
          thrown_ = CodeOf(run);
          Faults::Disarm();
          EXPECT_EQ(Held::kShared, held) << "when the transaction ended";
          EXPECT_EQ(Held::kNot, TableLock());
          if (Faults::Fired()) {
            EXPECT_EQ(call == Call::kMdbTxnBegin ? 0U : 1U, aborts.Take().size()) << "ended once";
            check(call, nth, code);
          }
        });
      }
    }
    std::cout << "calls and codes that failed: " << points << '\n';
    RecordProperty("points", points);
    return points;
  }

  /// Puts the records back as they were.
  void Restore() {
    const LMDBContext& db = peer().fullDb();
    MDB_txn* txn = nullptr;
    ASSERT_EQ(0, ::mdb_txn_begin(db.env, nullptr, 0, &txn));
    for (PlainRecord record : full_) {
      MDB_val key{sizeof(record.key), &record.key};
      MDB_val value{record.value.size(), record.value.data()};
      EXPECT_EQ(0, ::mdb_put(txn, db.dbi, &key, &value, 0));
    }
    ASSERT_EQ(0, ::mdb_txn_commit(txn));
  }

  static std::string BeginWords(Call call) {
    return call == Call::kMdbTxnBegin ? "Failed to create a write transaction"
                                      : "Failed to create an lmdb cursor";
  }
  static std::string ReadWords(int nth) {
    return nth == 1 ? "Failed to find the virtual offset 1"
                    : "Failed to get the next item with the current cursor";
  }

  int thrown_ = 0;
};

TEST_F(RangeObjectIdsFaultTest, AListingTellsAndEndsEarly) {
  LoadBoth(full_, {});
  std::vector<std::string> listed;
  const std::vector<std::string> all = {"[0, 10) 70 5", "[10, 20) 71 6", "[20, 30) 72 5"};
  const int points = FailEach(
      [&] {
        listed.clear();
        listed = Listed(1, 99);
      },
      [&](Call call, int nth, int code) {
        if (call == Call::kMdbCursorGet) {
          EXPECT_EQ(0, thrown_);
          EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + nth - 1), listed);
          EXPECT_THAT(
              Lines(),
              ElementsAre(
                  ToldWithCode(ReadWords(nth), code),
                  Told("Could not get all object ids and offsets for the range [1,99)", code)));
        } else {
          EXPECT_EQ(code, thrown_);
          EXPECT_THAT(Lines(), ElementsAre(ToldWithCode(BeginWords(call), code)));
        }
        EXPECT_EQ(all, Listed(1, 99)) << "the next one is whole";
      });
  EXPECT_EQ(5 + 3 + 4 * 5, points);
  EXPECT_EQ(full_, Full());
}

TEST_F(RangeObjectIdsFaultTest, AnUpdateIsDoneWholeOrNotAtAll) {
  int result = 0;
  const Records expected = {Moved(full_[0], 90), full_[1], Moved(full_[2], 91)};
  LoadBoth(full_, {});
  const int points = FailEach(
      [&] {
        result = -77;
        result = table().UpdateObjectIdsByRange(1, 99, ids_);
      },
      [&](Call call, int nth, int code) {
        const auto lines = Lines();
        if (call == Call::kMdbCursorGet) {
          EXPECT_EQ(0, thrown_);
          EXPECT_EQ(0, result) << "only the log tells";
          EXPECT_THAT(lines, ElementsAre(ToldWithCode(ReadWords(nth), code),
                                         Told("Could not get the next element", code),
                                         "8 Could not commit the transaction"));
        } else if (call == Call::kMdbPut) {
          EXPECT_EQ(0, thrown_);
          EXPECT_EQ(code, result);
          const std::string key = nth == 1 ? "10" : "30";
          EXPECT_THAT(lines,
                      ElementsAre(ToldWithCode("Failed to put the virtual offset " + key, code),
                                  Told("Could not update the dcid for the (end) offset " + key +
                                           " for the range 1 99",
                                       code)));
        } else {
          EXPECT_EQ(code, thrown_);
          EXPECT_THAT(lines, ElementsAre(ToldWithCode(call == Call::kMdbTxnCommit
                                                          ? "Could not commit a write transaction"
                                                          : BeginWords(call),
                                                      code)));
        }
        EXPECT_EQ(full_, Full()) << "nothing is changed";
        EXPECT_EQ(0, table().UpdateObjectIdsByRange(1, 99, ids_));
        EXPECT_EQ(expected, Full()) << "the next one goes through";
      });
  EXPECT_EQ(5 + 3 + 4 * 5 + 2 * 5 + 4, points);
}

TEST_F(RangeObjectIdsFaultTest, AnUpdateWhoseSyncFailsIsThrownAndDoneNevertheless) {
  LoadBoth(full_, {});
  ReplaceLmdb();
  script_.Fail("env_sync", 1, EIO);
  EXPECT_EQ(EIO, CodeOf([this] { table().UpdateObjectIdsByRange(1, 99, ids_); }));
  EXPECT_THAT(Lines(), ElementsAre(ToldWithCode("Failed to sync a write transaction", EIO)));
  EXPECT_EQ((Records{Moved(full_[0], 90), full_[1], Moved(full_[2], 91)}), Full());
  EXPECT_EQ(0, script_.openTransactions);
  EXPECT_EQ(0, table().setFileSize(1000)) << "another writer does not wait";
}

TEST_F(RangeObjectIdsFaultTest, APrefetchedRunIsDroppedEvenIfTheUpdateFails) {
  LoadBoth(full_, {});
  Set(&Config::prefetchEnabled, 1);
  peer().prefetchExts().resize(2);
  ReplaceLmdb();
  script_.Fail("put", 1, MDB_MAP_FULL);
  EXPECT_EQ(MDB_MAP_FULL, table().UpdateObjectIdsByRange(1, 99, ids_));
  EXPECT_THAT(peer().prefetchExts(), IsEmpty());
}

TEST_F(RangeObjectIdsFaultTest, AClosedDatabaseIsToldByCodeZero) {
  Make();
  const auto codeOf = [](const std::function<void()>& call) {
    try {
      call();
    } catch (const Aldenta::Qnd::Morene::Zefs::SysException& e) {
      return e.code;
    }
    return -1;
  };
  EXPECT_EQ(0, codeOf([this] { Listed(1, 99); }));
  EXPECT_EQ(0, codeOf([this] { table().UpdateObjectIdsByRange(1, 99, ids_); }));
  const std::string line = "8 Failed to create a write transaction; Success (errno 0)";
  EXPECT_THAT(Lines(), ElementsAre(line, line));
  EXPECT_EQ(Held::kNot, TableLock());
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(1, 99, {})) << "nothing is looked at";
}

// --- a listing from the beginning ----------------------------------------------------------------

TEST_F(RangeObjectIdsFaultTest, AListingThatMergesGivesOneStateOfTheTableOrTheOther) {
  const std::vector<std::string> before = {"[0, 10) 70 5"};
  const std::vector<std::string> after = {"[0, 10) 70 5", "[10, 20) 71 6"};
  int points = 0;
  for (const Call call :
       {Call::kMdbTxnBegin, Call::kMdbTxnCommit, Call::kMdbEnvOpen, Call::kRename}) {
    const WatchCalls watch(dir_.path().string());
    points += Faults::UntilNoneFires([&](int nth) {
      SCOPED_TRACE("kind " + std::to_string(static_cast<int>(call)) + ", call " +
                   std::to_string(nth));
      if (table_ != nullptr) {
        Close();
      }
      boost::filesystem::remove_all(Directory());
      LoadBoth({Attributed(0, 10, 70, 5)}, {Attributed(10, 20, 71, 6)});
      Faults::FailNth(call, nth, ENOMEM);
      std::vector<std::string> listed;
      const int thrown = CodeOf([&] { listed = Listed(0, 99); });
      Faults::Disarm();
      EXPECT_TRUE(thrown != 0 || listed == before || listed == after ||
                  Lines(kLogFailure).size() >= 2)
          << testing::PrintToString(listed);
      EXPECT_EQ(Held::kNot, TableLock());
      if (!peer().fullDb().opened || !peer().smallDb().opened) {
        Close();
        Load();
      }
      EXPECT_EQ(after, Listed(0, 99)) << "the next one is whole";
    });
  }
  std::cout << "calls of a listing that merges: " << points << '\n';
  EXPECT_GE(points, 12);
}

}  // namespace
}  // namespace zefs::test
