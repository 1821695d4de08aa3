// The owner of one write transaction and one cursor: its calls in their order, their failures, and
// that it leaves nothing open.

#include "persistent/lmdb_write_extent_txn.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/persistent/merge_fixture.h"
#include "tests/persistent/open_databases_fixture.h"
#include "tests/persistent/scripted_lmdb.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

using Aldenta::Qnd::Morene::Zefs::CMappingLMDB;
using Aldenta::Qnd::Morene::Zefs::ExtLMDBEntry;
using Aldenta::Qnd::Morene::Zefs::LmdbWriteExtentTxn;
using Aldenta::Qnd::Morene::Zefs::SysException;
using storage::utils::LmdbCApiWrapper;
using testing::ElementsAre;
using testing::IsEmpty;

using Calls = std::vector<std::string>;

constexpr const char* kFull = CMappingLMDB::FULLDB;

const Calls kOpened = {"txn_begin write", "dbi_open unnamed create", "set_compare by number",
                       "cursor_open"};

/// A replacement that is none but by its type.
struct OtherType final : LmdbCApiWrapper {};

/// Says that it has opened what it has not.
struct Hollow final : LmdbCApiWrapper {
  explicit Hollow(bool withTransaction) : withTransaction_(withTransaction) {}
  int txn_begin(MDB_env* env, MDB_txn* parent, unsigned int flags, MDB_txn** txn) const override {
    return withTransaction_ ? LmdbCApiWrapper::txn_begin(env, parent, flags, txn) : 0;
  }
  int dbi_open(MDB_txn* /*txn*/, const char* /*name*/, unsigned int /*flags*/,
               unsigned int* /*dbi*/) const override {
    return 0;
  }
  int set_compare(MDB_txn* /*txn*/, unsigned int /*dbi*/,
                  int (* /*compare*/)(const MDB_val*, const MDB_val*)) const override {
    return 0;
  }
  int cursor_open(MDB_txn* /*txn*/, unsigned int /*dbi*/, MDB_cursor** /*cursor*/) const override {
    return 0;
  }
  const bool withTransaction_;
};

class LmdbWriteExtentTxnTest : public OpenDatabasesTest {
 protected:
  /// A full database of these records.
  void OpenOver(const Records& records) {
    Write(kFull, records);
    Open();
  }

  void Begin(LmdbCApiWrapper* api) { txn_.emplace(peer().fullDb().env, &peer().fullDb().dbi, api); }
  /// Begins over the script, and forgets the calls of it.
  LmdbWriteExtentTxn& Begin() {
    Begin(&scripted_);
    EXPECT_EQ(kOpened, script_.Take());
    return *txn_;
  }

  /// The database takes another write transaction. Asked only where none is open, as the thread
  /// would wait for itself.
  void ExpectFree() {
    ASSERT_EQ(0, script_.openTransactions);
    EXPECT_EQ(0, script_.openCursors);
    EXPECT_EQ(0, table().setExtMapVersion({2, 0}));
    Lines();
  }

  /// "words; message (errno code)" at the level of failures.
  static std::string Line(const std::string& words, int code) {
    return "8 " + words + "; " + CMappingLMDB::LMDBErrorMessage(code) + " (errno " +
           std::to_string(code) + ')';
  }

  static ExtLMDBEntry EntryOf(std::int64_t start, std::uint64_t dcid) {
    ExtLMDBEntry entry;
    const std::string bytes = EntryBytes(FieldsOf(start, dcid));
    std::memcpy(static_cast<void*>(&entry), bytes.data(), sizeof(entry));
    return entry;
  }
  static std::string BytesOf(const ExtLMDBEntry& entry) {
    return {reinterpret_cast<const char*>(&entry), sizeof(entry)};
  }

  /// All operations, each on the transaction as it is.
  std::vector<std::function<void()>> Operations() {
    return {[this] { txn_->findWithCursor(&key_, &raw_); },
            [this] { txn_->findWithCursor(&key_, &entry_); },
            [this] { txn_->getWithCursor(&key_, &raw_, MDB_NEXT); },
            [this] { txn_->getWithCursor(&key_, &entry_, MDB_NEXT); },
            [this] { txn_->put(key_, &entry_); },
            [this] { txn_->commit(); }};
  }
  void ExpectAllRefused(const std::string& line) {
    for (const auto& operation : Operations()) {
      EXPECT_EQ(EINVAL, CodeOf(operation));
      EXPECT_THAT(Lines(), ElementsAre(line));
    }
    EXPECT_THAT(script_.Take(), IsEmpty());
  }

  LmdbScript script_;
  ScriptedLmdb scripted_{&script_};
  LmdbCApiWrapper lmdb_;
  long key_ = 0;
  ExtLMDBEntry* raw_ = nullptr;
  ExtLMDBEntry entry_;
  std::optional<LmdbWriteExtentTxn> txn_;
};

// --- beginning and ending ------------------------------------------------------------------------

TEST_F(LmdbWriteExtentTxnTest, OpensInOrderAndDiscardsCursorFirst) {
  OpenOver({});
  Begin(&scripted_);
  EXPECT_EQ(kOpened, script_.Take());
  EXPECT_EQ(1, script_.openTransactions);
  txn_.reset();
  EXPECT_THAT(script_.Take(), ElementsAre("cursor_close", "txn_abort"));
  EXPECT_THAT(Lines(), IsEmpty());
  ExpectFree();
}

TEST_F(LmdbWriteExtentTxnTest, ACommitIsSyncedAndLeavesNothingToDiscard) {
  OpenOver({});
  Begin().commit();
  EXPECT_THAT(script_.Take(), ElementsAre("txn_commit", "env_sync always"));
  txn_.reset();
  EXPECT_THAT(script_.Take(), IsEmpty());
  EXPECT_THAT(Lines(), IsEmpty());
  ExpectFree();
}

TEST_F(LmdbWriteExtentTxnTest, AReplacementOpensTheDatabaseAndOrdersIt) {
  OpenOver({});
  unsigned int dbi = 77;
  {
    const LmdbWriteExtentTxn txn(peer().fullDb().env, &dbi, &scripted_);
    EXPECT_EQ(peer().fullDb().dbi, dbi);
  }
  const WatchCalls watch(dir_.path().string());
  const OtherType other;
  dbi = 77;
  { const LmdbWriteExtentTxn txn(peer().fullDb().env, &dbi, const_cast<OtherType*>(&other)); }
  EXPECT_EQ(peer().fullDb().dbi, dbi);
  EXPECT_EQ(1, Faults::Count(Call::kMdbDbiOpen));
  EXPECT_EQ(1, Faults::Count(Call::kMdbSetCompare));
}

TEST_F(LmdbWriteExtentTxnTest, LmdbItselfIsNotAskedToOpenADatabaseThatIsOpen) {
  OpenOver({});
  const WatchCalls watch(dir_.path().string());
  const unsigned int dbi = peer().fullDb().dbi;
  Begin(&lmdb_);
  EXPECT_EQ(1, Faults::Count(Call::kMdbTxnBegin));
  EXPECT_EQ(0, Faults::Count(Call::kMdbDbiOpen));
  EXPECT_EQ(0, Faults::Count(Call::kMdbSetCompare));
  EXPECT_EQ(1, Faults::Count(Call::kMdbCursorOpen));
  EXPECT_EQ(dbi, peer().fullDb().dbi);
}

TEST_F(LmdbWriteExtentTxnTest, AReaderKeepsTheOrderOfKeysByNumber) {
  // By their bytes these keys would stand in another order.
  OpenOver({Stored(0, 1, 70), Stored(1, 255, 71), Stored(255, 256, 72), Stored(256, 65536, 73)});
  for (LmdbCApiWrapper* api : {&lmdb_, static_cast<LmdbCApiWrapper*>(&scripted_)}) {
    const Aldenta::Qnd::Morene::Zefs::LMDBContext& db = peer().fullDb();
    MDB_txn* reader = nullptr;
    MDB_cursor* cursor = nullptr;
    ASSERT_EQ(0, ::mdb_txn_begin(db.env, nullptr, MDB_RDONLY, &reader));
    ASSERT_EQ(0, ::mdb_cursor_open(reader, db.dbi, &cursor));
    Begin(api);
    entry_ = EntryOf(65536, 74);
    EXPECT_EQ(0, txn_->put(65537, &entry_));
    std::vector<std::int64_t> found;
    for (std::int64_t wanted : {2, 256, 257}) {
      MDB_val key{sizeof(wanted), &wanted};
      MDB_val value{};
      ASSERT_EQ(0, ::mdb_cursor_get(cursor, &key, &value, MDB_SET_RANGE));
      found.push_back(Aldenta::Qnd::Morene::Zefs::ReadKey(key));
    }
    EXPECT_THAT(found, ElementsAre(255, 256, 65536));
    ::mdb_cursor_close(cursor);
    ::mdb_txn_abort(reader);
    txn_.reset();
  }
}

// --- failures to begin and to commit -------------------------------------------------------------

struct Failing {
  const char* call;
  const char* words;
  Calls before;  ///< calls up to it
  Calls after;   ///< calls behind it
};

void PrintTo(const Failing& failing, std::ostream* out) {
  *out << failing.call;
}

class LmdbWriteExtentTxnFailureTest : public LmdbWriteExtentTxnTest,
                                      public testing::WithParamInterface<Failing> {};

constexpr int kCodes[] = {ENOMEM,       EIO,          ENOSPC,        MDB_PANIC,
                          MDB_MAP_FULL, MDB_NOTFOUND, MDB_CORRUPTED, MDB_BAD_TXN};

TEST_P(LmdbWriteExtentTxnFailureTest, ToBeginIsThrownAndLeavesNothingOpen) {
  const Failing& failing = GetParam();
  OpenOver({});
  Calls expected = failing.before;
  expected.insert(expected.end(), failing.after.begin(), failing.after.end());
  for (const int code : kCodes) {
    script_.Fail(failing.call, 1, code);
    EXPECT_EQ(code, CodeOf([this] { Begin(&scripted_); }));
    EXPECT_EQ(expected, script_.Take());
    EXPECT_THAT(Lines(), ElementsAre(Line(failing.words, code)));
    ExpectFree();
    ASSERT_FALSE(HasFatalFailure());
  }
  Begin().commit();
}

INSTANTIATE_TEST_SUITE_P(
    Each, LmdbWriteExtentTxnFailureTest,
    testing::Values(
        Failing{"txn_begin", "Failed to create a write transaction", {"txn_begin write"}, {}},
        Failing{"dbi_open",
                "Failed to open a dbi for a write transaction",
                {"txn_begin write", "dbi_open unnamed create"},
                {"txn_abort"}},
        Failing{"set_compare",
                "Failed to set the key compare for a write transaction",
                {"txn_begin write", "dbi_open unnamed create", "set_compare by number"},
                {"txn_abort"}},
        Failing{"cursor_open", "Failed to create an lmdb cursor", kOpened, {"txn_abort"}}),
    [](const auto& test) { return std::string(test.param.call); });

TEST_F(LmdbWriteExtentTxnTest, OverLmdbAFailureToBeginLeavesNothingOpenEither) {
  OpenOver({});
  const WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kMdbTxnBegin, 1, MDB_READERS_FULL);
  EXPECT_EQ(MDB_READERS_FULL, CodeOf([this] { Begin(&lmdb_); }));
  Faults::FailNth(Call::kMdbCursorOpen, 1, ENOMEM);
  EXPECT_EQ(ENOMEM, CodeOf([this] { Begin(&lmdb_); }));
  EXPECT_THAT(Lines(), ElementsAre(Line("Failed to create a write transaction", MDB_READERS_FULL),
                                   Line("Failed to create an lmdb cursor", ENOMEM)));
  Begin(&lmdb_);
  txn_->commit();
}

TEST_F(LmdbWriteExtentTxnTest, AClosedDatabaseIsToldByCodeZero) {
  OpenOver({});
  int code = -1;
  try {
    const LmdbWriteExtentTxn txn(nullptr, &peer().fullDb().dbi, &scripted_);
  } catch (const SysException& e) {
    code = e.code;
  }
  EXPECT_EQ(0, code);
  EXPECT_THAT(Lines(), ElementsAre("8 Failed to create a write transaction; Success (errno 0)"));
  EXPECT_THAT(script_.Take(), IsEmpty()) << "no transaction is tried";
}

TEST_F(LmdbWriteExtentTxnTest, AFailedCommitEndsTheTransactionAndStoresNothing) {
  OpenOver({Stored(0, 10, 70)});
  for (const int code : kCodes) {
    LmdbWriteExtentTxn& txn = Begin();
    entry_ = EntryOf(10, 71);
    EXPECT_EQ(0, txn.put(20, &entry_));
    script_.Take();
    script_.Fail("txn_commit", 1, code);
    EXPECT_EQ(code, CodeOf([&] { txn.commit(); }));
    EXPECT_THAT(Lines(), ElementsAre(Line("Could not commit a write transaction", code)));
    EXPECT_THAT(script_.Take(), ElementsAre("txn_commit")) << "there is nothing to sync";
    ExpectAllRefused("8 Tried to commit an empty (nullptr) transaction");
    txn_.reset();
    EXPECT_THAT(script_.Take(), IsEmpty()) << "it has ended";
    ExpectFree();
    ASSERT_FALSE(HasFatalFailure());
  }
  Records records = RecordsAtTheEnd(kFull);
  records.erase(records.begin());  // the version
  EXPECT_EQ((Records{Stored(0, 10, 70)}), records);
}

TEST_F(LmdbWriteExtentTxnTest, ACommitWhoseSyncFailsIsCommitted) {
  OpenOver({Stored(0, 10, 70)});
  LmdbWriteExtentTxn& txn = Begin();
  entry_ = EntryOf(10, 71);
  EXPECT_EQ(0, txn.put(20, &entry_));
  script_.Take();
  script_.Fail("env_sync", 1, EIO);
  EXPECT_EQ(EIO, CodeOf([&] { txn.commit(); }));
  EXPECT_THAT(Lines(), ElementsAre(Line("Failed to sync a write transaction", EIO)));
  EXPECT_THAT(script_.Take(), ElementsAre("txn_commit", "env_sync always"));
  ExpectAllRefused("8 Tried to commit an empty (nullptr) transaction");
  txn_.reset();
  EXPECT_THAT(script_.Take(), IsEmpty());
  EXPECT_EQ((Records{Stored(0, 10, 70), Stored(10, 20, 71)}), RecordsAtTheEnd(kFull));
}

// --- use of what is not open ---------------------------------------------------------------------

TEST_F(LmdbWriteExtentTxnTest, AfterTheCommitEverythingIsRefused) {
  OpenOver({Stored(0, 10, 70)});
  Begin().commit();
  script_.Take();
  ExpectAllRefused("8 Tried to commit an empty (nullptr) transaction");
  EXPECT_EQ(0, key_);
  EXPECT_EQ(nullptr, raw_);
}

TEST_F(LmdbWriteExtentTxnTest, WithoutATransactionEverythingIsRefused) {
  OpenOver({Stored(0, 10, 70)});
  Hollow hollow(false);
  Begin(&hollow);
  ExpectAllRefused("8 Tried to commit an empty (nullptr) transaction");
  txn_.reset();
  ExpectFree();
}

TEST_F(LmdbWriteExtentTxnTest, WithoutACursorEverythingIsRefusedAndTheTransactionIsDiscarded) {
  OpenOver({Stored(0, 10, 70)});
  Hollow hollow(true);
  Begin(&hollow);
  ExpectAllRefused("8 Tried to commit an transaction with an invalid cursor (nullptr)");
  txn_.reset();
  ExpectFree();
}

// --- finding, stepping, storing ------------------------------------------------------------------

TEST_F(LmdbWriteExtentTxnTest, FindsTheFirstKeyThatIsNotBelow) {
  OpenOver({Stored(0, 10, 70), Stored(10, 300, 71)});
  LmdbWriteExtentTxn& txn = Begin();
  key_ = 10;
  EXPECT_EQ(0, txn.findWithCursor(&key_, &entry_));
  EXPECT_EQ(10, key_) << "the key itself";
  EXPECT_EQ(EntryBytes(FieldsOf(0, 70)), BytesOf(entry_));
  key_ = 11;
  EXPECT_EQ(0, txn.findWithCursor(&key_, &raw_));
  EXPECT_EQ(300, key_);
  EXPECT_EQ(71U, raw_->dcid);
  EXPECT_THAT(script_.Take(), ElementsAre("cursor_get range", "cursor_get range"));
  raw_ = nullptr;
  key_ = 301;
  entry_.dcid = 5;
  EXPECT_EQ(MDB_NOTFOUND, txn.findWithCursor(&key_, &raw_));
  EXPECT_EQ(MDB_NOTFOUND, txn.findWithCursor(&key_, &entry_));
  EXPECT_EQ(301, key_) << "left as it was";
  EXPECT_EQ(nullptr, raw_);
  EXPECT_EQ(5U, entry_.dcid);
  EXPECT_THAT(Lines(), IsEmpty()) << "told to nobody";
}

TEST_F(LmdbWriteExtentTxnTest, StepsBothWaysUpToTheEnds) {
  OpenOver({Stored(0, 10, 70), Stored(10, 300, 71)});
  LmdbWriteExtentTxn& txn = Begin();
  key_ = -5;
  EXPECT_EQ(0, txn.findWithCursor(&key_, &raw_));
  EXPECT_EQ(10, key_);
  raw_ = nullptr;
  EXPECT_EQ(0, txn.getWithCursor(&key_, &raw_, MDB_NEXT));
  EXPECT_EQ(300, key_);
  ASSERT_NE(nullptr, raw_);
  EXPECT_EQ(71U, raw_->dcid);
  EXPECT_EQ(MDB_NOTFOUND, txn.getWithCursor(&key_, &entry_, MDB_NEXT));
  EXPECT_EQ(300, key_);
  EXPECT_EQ(0, txn.getWithCursor(&key_, &entry_, MDB_PREV));
  EXPECT_EQ(10, key_);
  EXPECT_EQ(EntryBytes(FieldsOf(0, 70)), BytesOf(entry_));
  EXPECT_EQ(MDB_NOTFOUND, txn.getWithCursor(&key_, &raw_, MDB_PREV));
  EXPECT_THAT(script_.Take(),
              ElementsAre("cursor_get range", "cursor_get next empty", "cursor_get next empty",
                          "cursor_get prev empty", "cursor_get prev empty"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(LmdbWriteExtentTxnTest, AFailedReadIsToldAndReturnedAndChangesNothing) {
  OpenOver({Stored(0, 10, 70)});
  LmdbWriteExtentTxn& txn = Begin();
  const auto fail = [&](int code, const std::string& words, const std::function<int()>& read) {
    key_ = -17;
    raw_ = nullptr;
    entry_.dcid = 5;
    script_.Fail("cursor_get", 1, code);
    EXPECT_EQ(code, read());
    EXPECT_THAT(Lines(), ElementsAre(Line(words, code)));
    EXPECT_EQ(-17, key_);
    EXPECT_EQ(nullptr, raw_);
    EXPECT_EQ(5U, entry_.dcid);
  };
  for (const int code : {EINVAL, MDB_CORRUPTED, MDB_PAGE_NOTFOUND, MDB_BAD_TXN, MDB_KEYEXIST}) {
    const std::string find = "Failed to find the virtual offset -17";
    const std::string next = "Failed to get the next item with the current cursor";
    const std::string prev = "Failed to get the prev item with the current cursor";
    fail(code, find, [&] { return txn.findWithCursor(&key_, &raw_); });
    fail(code, find, [&] { return txn.findWithCursor(&key_, &entry_); });
    fail(code, next, [&] { return txn.getWithCursor(&key_, &raw_, MDB_NEXT); });
    fail(code, next, [&] { return txn.getWithCursor(&key_, &entry_, MDB_NEXT); });
    fail(code, prev, [&] { return txn.getWithCursor(&key_, &raw_, MDB_PREV); });
    fail(code, prev, [&] { return txn.getWithCursor(&key_, &entry_, MDB_PREV); });
    fail(code, prev, [&] { return txn.getWithCursor(&key_, &entry_, MDB_LAST); });
  }
  EXPECT_EQ(0, txn.findWithCursor(&key_, &entry_)) << "the transaction goes on";
}

TEST_F(LmdbWriteExtentTxnTest, StoresInPlaceOfWhatWasThereAndStepsOn) {
  OpenOver({Stored(0, 10, 70), Shortened(Stored(10, 20, 71), 20), Stored(20, 30, 72)});
  LmdbWriteExtentTxn& txn = Begin();
  key_ = 20;
  EXPECT_EQ(0, txn.findWithCursor(&key_, &entry_));
  entry_ = EntryOf(10, 81);
  EXPECT_EQ(0, txn.put(20, &entry_));
  EXPECT_EQ(0, txn.getWithCursor(&key_, &entry_, MDB_NEXT));
  EXPECT_EQ(30, key_);
  entry_ = EntryOf(30, 83);
  EXPECT_EQ(0, txn.put(40, &entry_));
  EXPECT_THAT(script_.Take(), ElementsAre("cursor_get range", "put 72 bytes",
                                          "cursor_get next empty", "put 72 bytes"));
  txn.commit();
  txn_.reset();
  EXPECT_EQ(
      (Records{Stored(0, 10, 70), Stored(10, 20, 81), Stored(20, 30, 72), Stored(30, 40, 83)}),
      RecordsAtTheEnd(kFull));
}

TEST_F(LmdbWriteExtentTxnTest, WhatIsNotCommittedIsNotStored) {
  OpenOver({Stored(0, 10, 70)});
  for (LmdbCApiWrapper* api : {&lmdb_, static_cast<LmdbCApiWrapper*>(&scripted_)}) {
    Begin(api);
    entry_ = EntryOf(0, 80);
    EXPECT_EQ(0, txn_->put(10, &entry_));
    EXPECT_EQ(0, txn_->put(20, &entry_));
    txn_.reset();
  }
  EXPECT_EQ((Records{Stored(0, 10, 70)}), RecordsAtTheEnd(kFull));
}

TEST_F(LmdbWriteExtentTxnTest, AFailedPutIsToldAndReturned) {
  OpenOver({});
  LmdbWriteExtentTxn& txn = Begin();
  entry_ = EntryOf(0, 70);
  for (const int code : {MDB_MAP_FULL, MDB_TXN_FULL, ENOMEM, EACCES, MDB_NOTFOUND}) {
    script_.Fail("put", 1, code);
    EXPECT_EQ(code, txn.put(-10, &entry_));
    EXPECT_THAT(Lines(), ElementsAre(Line("Failed to put the virtual offset -10", code)));
  }
  EXPECT_EQ(0, txn.put(10, &entry_)) << "the transaction goes on";
  txn.commit();
  txn_.reset();
  EXPECT_EQ((Records{Stored(0, 10, 70)}), RecordsAtTheEnd(kFull));
}

TEST_F(LmdbWriteExtentTxnTest, AShortValueIsReadWholeOrWhereItLies) {
  for (const std::size_t bytes : {72U, 71U, 57U, 40U, 16U, 8U, 1U}) {
    SCOPED_TRACE(bytes);
    const PlainRecord record = Shortened(Stored(3, 10, 70), bytes);
    std::string whole = record.value;
    whole.resize(72, '\0');
    OpenOver({record});
    LmdbWriteExtentTxn& txn = Begin();
    std::memset(static_cast<void*>(&entry_), 0x77, sizeof(entry_));
    EXPECT_EQ(0, txn.findWithCursor(&key_, &entry_));
    EXPECT_EQ(whole, BytesOf(entry_));
    EXPECT_EQ(0, txn.findWithCursor(&key_, &raw_));
    EXPECT_EQ(record.value, std::string(reinterpret_cast<const char*>(raw_), bytes));
    std::memset(static_cast<void*>(&entry_), 0x77, sizeof(entry_));
    EXPECT_EQ(0, txn.getWithCursor(&key_, &entry_, MDB_LAST));
    EXPECT_EQ(whole, BytesOf(entry_));
    txn_.reset();
    Destroy();
    key_ = 0;
    boost::filesystem::remove(File(kFull));
    script_.Take();
  }
}

// --- the words -----------------------------------------------------------------------------------

TEST_F(LmdbWriteExtentTxnTest, AnErrorIsToldByItsWordsAndItsCode) {
  LmdbWriteExtentTxn::LogError("What failed", MDB_MAP_FULL);
  EXPECT_THAT(Lines(), ElementsAre("8 What failed; lmdb map is full -- increase max lmdb file "
                                   "size? (errno -30792)"));
  EXPECT_EQ(ENOSPC, CodeOf([] { LmdbWriteExtentTxn::LogErrorAndDie("100% of it", ENOSPC); }));
  EXPECT_THAT(Lines(), ElementsAre("8 100% of it; No space left on device (errno 28)"));
}

}  // namespace
}  // namespace zefs::test
