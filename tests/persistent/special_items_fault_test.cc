// Each call of LMDB that reads or stores a special item fails once.

#include <cerrno>
#include <ostream>

#include <gmock/gmock.h>

#include "tests/persistent/abort_trace.h"
#include "tests/persistent/codes_of_call.h"
#include "tests/persistent/open_databases_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using zefs::test::AbortTrace;
using zefs::test::Call;
using zefs::test::CodeOf;
using zefs::test::CodesOf;
using zefs::test::Faults;
using zefs::test::Held;
using zefs::test::kPlainCommitCounterKey;
using zefs::test::kPlainDoidKey;
using zefs::test::kPlainFileSizeKey;
using zefs::test::kPlainVersionKey;
using zefs::test::Oid;
using zefs::test::PlainDigest;
using zefs::test::PlainRecord;
using zefs::test::Records;
using zefs::test::SpecialBytes;
using zefs::test::Stored;
using zefs::test::WatchCalls;
using Peer = MappingLMDBTestPeer;

constexpr const char* kSmall = CMappingLMDB::LSML0DB;
constexpr const char* kFull = CMappingLMDB::FULLDB;

/// What the table knows of itself: "fileSize committedFileSize version changed dcid of the id".
constexpr const char* kMembers = "100 90 1.7 changed 70";

/// One operation on the special items of one database.
struct Operation {
  const char* name;
  const char* database;
  long (*run)(Peer);
  bool changed;         ///< dataChanged_ before
  bool readOnly;        ///< its transaction
  Records before;       ///< in the database, beside an extent
  Records after;        ///< the same once it succeeds
  const char* traced;   ///< what it logs before it begins its transaction; empty: nothing
  const char* members;  ///< what the table knows when it cannot begin
};

const Records kSmallItems{{kPlainCommitCounterKey, SpecialBytes(7)},
                          {kPlainDoidKey, SpecialBytes(99, Oid(99).fp)}};
const Records kFullItems{{kPlainVersionKey, SpecialBytes(1, 7)},
                         {kPlainFileSizeKey, SpecialBytes(90)}};
const PlainRecord kEmptyDoid{kPlainDoidKey, SpecialBytes(0, PlainDigest{})};

const Operation kGetFileSize{"GetFileSize",
                             kSmall,
                             [](Peer peer) { return peer.GetFileSize(&peer.smallDb()); },
                             true,
                             true,
                             {},
                             {},
                             "",
                             kMembers};
const Operation kGetCommitCounter{"GetCommitCounter",
                                  kSmall,
                                  [](Peer peer) { return peer.GetCommitCounter(&peer.smallDb()); },
                                  true,
                                  false,
                                  {},
                                  {{kPlainCommitCounterKey, SpecialBytes(0)}},
                                  "",
                                  kMembers};
const Operation kGetDoidUnlocked{
    "GetDOIDUnlocked",
    kSmall,
    [](Peer peer) -> long { return peer.GetDOIDUnlocked(&peer.smallDb(), &peer.doid()); },
    true,
    false,
    {},
    {kEmptyDoid},
    "",
    kMembers};
const Operation kSetDoidUnlocked{"SetDOIDUnlocked",
                                 kSmall,
                                 [](Peer peer) -> long {
                                   ObjectID oid = Oid(71);
                                   return peer.SetDOIDUnlocked(&peer.smallDb(), &oid);
                                 },
                                 true,
                                 false,
                                 kSmallItems,
                                 {kSmallItems[0], {kPlainDoidKey, SpecialBytes(71, Oid(71).fp)}},
                                 "",
                                 kMembers};
const Operation kSetDoid{"SetDOID",
                         kSmall,
                         [](Peer peer) -> long {
                           ObjectID oid = Oid(71);
                           return peer.table.SetDOID(&oid);
                         },
                         true,
                         false,
                         kSmallItems,
                         {kSmallItems[0], {kPlainDoidKey, SpecialBytes(71, Oid(71).fp)}},
                         "",
                         "100 90 1.7 changed 71"};
// The first change is noted before the id is stored, so that a second try has nothing to do.
const Operation kResetDoid{
    "ResetDOID", kSmall, [](Peer peer) -> long { return peer.ResetDOID(true); },
    false,       false,  kSmallItems,
    kSmallItems, "",     "100 90 1.7 changed 0"};
const Operation kFirstSetFileSize{"FirstSetFileSize",
                                  kSmall,
                                  [](Peer peer) -> long { return peer.table.setFileSize(200); },
                                  false,
                                  false,
                                  kSmallItems,
                                  kSmallItems,
                                  "",
                                  "100 90 1.7 changed 0"};
const Operation kSetFileSize{"SetFileSize",
                             kFull,
                             [](Peer peer) -> long { return peer.table.setFileSize(200); },
                             true,
                             false,
                             kFullItems,
                             {kFullItems[0], {kPlainFileSizeKey, SpecialBytes(200)}},
                             "0 CMappingLMDB::setFileSize(), fileSize=200",
                             kMembers};
const Operation kSetVersion{"SetExtMapVersion",
                            kFull,
                            [](Peer peer) -> long {
                              return peer.table.setExtMapVersion({3, 1});
                            },
                            true,
                            false,
                            kFullItems,
                            {{kPlainVersionKey, SpecialBytes(3, 1)}, kFullItems[1]},
                            "",
                            kMembers};
const Operation kCheckAndLoad{
    "CheckAndLoadSpecialItems",
    kFull,
    [](Peer peer) -> long { return peer.CheckAndLoadSpecialItems(&peer.fullDb(), 50); },
    true,
    false,
    {},
    {{kPlainVersionKey, SpecialBytes(2, 0)}},
    "",
    kMembers};

/// One call of an operation that fails. CODE and DIR stand for what they say in the lines.
struct Step {
  const Operation* operation;
  const char* name;
  Call call;
  int nth;
  enum { kThrows, kReturnsCode, kReturnsZero } outcome;
  std::vector<std::string> lines;
  const char* members;
};

void PrintTo(const Step& step, std::ostream* out) {
  *out << step.operation->name << ' ' << step.name;
}

std::vector<Step> BeginAndCursorSteps() {
  std::vector<Step> steps;
  for (const Operation* operation :
       {&kGetFileSize, &kGetCommitCounter, &kGetDoidUnlocked, &kSetDoidUnlocked, &kSetDoid,
        &kResetDoid, &kFirstSetFileSize, &kSetFileSize, &kSetVersion, &kCheckAndLoad}) {
    Step begin{operation, "Begin", Call::kMdbTxnBegin, 1, Step::kThrows, {}, operation->members};
    if (*operation->traced != '\0') {
      begin.lines.emplace_back(operation->traced);
    }
    Step cursor = begin;
    cursor.name = "CursorOpen";
    cursor.call = Call::kMdbCursorOpen;
    begin.lines.emplace_back("8 Failed to open transaction for db DIR, return value is CODE");
    cursor.lines.emplace_back("8 Failed to create a cursor, return value is CODE");
    steps.push_back(begin);
    steps.push_back(cursor);
  }
  return steps;
}

std::vector<Step> DoidSteps() {
  const std::string empty(64, '0');
  const std::string other = "01" + std::string(62, '0');
  const std::string submit = "8 Failed to submit txn to put do id, ret:CODE";
  std::vector<Step> steps{{&kGetDoidUnlocked,
                           "Get",
                           Call::kMdbGet,
                           1,
                           Step::kReturnsZero,
                           {"0 GetDOIDUnlocked, dcid:0, fp:" + empty},
                           "100 90 1.7 changed 0"}};
  for (const Operation* operation :
       {&kGetDoidUnlocked, &kSetDoidUnlocked, &kSetDoid, &kResetDoid, &kFirstSetFileSize}) {
    const bool stores = operation == &kSetDoidUnlocked || operation == &kSetDoid;
    const std::string id = stores ? other + ", dcid 71" : empty + ", dcid 0";
    steps.push_back({operation,
                     "Put",
                     Call::kMdbPut,
                     1,
                     Step::kThrows,
                     {"8 Failed to put do id fp " + id + ", ret:CODE"},
                     operation->members});
    steps.push_back(
        {operation, "Commit", Call::kMdbTxnCommit, 1, Step::kThrows, {submit}, operation->members});
  }
  return steps;
}

std::vector<Step> OtherSteps() {
  const std::string noSize = "0 Not found file size, set to 0";
  const std::string noVersion = "0 Not found lmdb version, set to default: 1.0";
  const std::string commit = "8 Failed to commit a transaction PTR. ret=CODE";
  return {
      {&kGetFileSize,
       "Get",
       Call::kMdbGet,
       1,
       Step::kThrows,
       {"8 Failed to get file size, ret:CODE"},
       kMembers},
      {&kGetCommitCounter, "Get", Call::kMdbGet, 1, Step::kReturnsZero, {}, kMembers},
      {&kGetCommitCounter,
       "Put",
       Call::kMdbPut,
       1,
       Step::kThrows,
       {"8 Failed to update table commit counter 0, ret:CODE"},
       kMembers},
      {&kGetCommitCounter,
       "Commit",
       Call::kMdbTxnCommit,
       1,
       Step::kThrows,
       {"8 Failed to submit txn to update table commit counter, ret:CODE"},
       kMembers},
      {&kSetFileSize,
       "Put",
       Call::kMdbPut,
       1,
       Step::kReturnsCode,
       {kSetFileSize.traced, "8 Failed to update file size 100, ret:CODE"},
       kMembers},
      {&kSetFileSize,
       "Commit",
       Call::kMdbTxnCommit,
       1,
       Step::kReturnsCode,
       {kSetFileSize.traced, commit},
       kMembers},
      {&kSetVersion,
       "Put",
       Call::kMdbPut,
       1,
       Step::kReturnsCode,
       {"8 Failed to update lmdb version 3.1, ret:CODE"},
       kMembers},
      {&kSetVersion, "Commit", Call::kMdbTxnCommit, 1, Step::kReturnsCode, {commit}, kMembers},
      {&kCheckAndLoad,
       "GetFileSize",
       Call::kMdbGet,
       1,
       Step::kThrows,
       {"8 Failed to get file size, ret:CODE"},
       kMembers},
      {&kCheckAndLoad,
       "GetVersion",
       Call::kMdbGet,
       2,
       Step::kThrows,
       {noSize, "8 Failed to get lmdb version, ret:CODE"},
       "50 50 1.7 changed 70"},
      {&kCheckAndLoad,
       "Put",
       Call::kMdbPut,
       1,
       Step::kReturnsCode,
       {noSize, noVersion, "8 Failed to update lmdb version 2.0, ret:CODE"},
       "50 50 2.0 changed 70"},
      {&kCheckAndLoad,
       "Commit",
       Call::kMdbTxnCommit,
       1,
       Step::kReturnsCode,
       {noSize, noVersion},
       "50 50 2.0 changed 70"},
  };
}

class SpecialItemsFaultTest : public zefs::test::OpenDatabasesTest,
                              public testing::WithParamInterface<Step> {
 protected:
  static Records WithExtent(Records items) {
    items.push_back(Stored(0, 10, 70));
    return items;
  }

  /// A table whose database of this step holds what the operation expects.
  void OpenFor(const Operation& operation) {
    Write(operation.database, WithExtent(operation.before));
    Open();
    Faults::OnlyDatabase(operation.database);
  }

  void SetMembers(const Operation& operation) {
    peer().fileSize() = 100;
    peer().committedFileSize() = 90;
    peer().extMapVersion() = {1, 7};
    peer().dataChanged() = operation.changed;
    peer().doid() = Oid(70);
  }

  std::string Members() {
    const ExtMapVersion version = peer().extMapVersion();
    return std::to_string(peer().fileSize()) + ' ' + std::to_string(peer().committedFileSize()) +
           ' ' + std::to_string(version.major) + '.' + std::to_string(version.minor) +
           (peer().dataChanged() ? " changed " : " unchanged ") +
           std::to_string(peer().doid().dcid);
  }

  std::vector<std::string> Expected(const Step& step, int code) const {
    std::vector<std::string> lines = step.lines;
    for (std::string& line : lines) {
      line = Replaced(Replaced(line, "CODE", std::to_string(code)), "DIR", DirectoryName());
    }
    return lines;
  }

  /// Fails the call of the step with `code`, and checks what the operation makes of it.
  void Fail(const Step& step, int code) {
    const Operation& operation = *step.operation;
    SetMembers(operation);
    AbortTrace aborts;
    Faults::FailNth(step.call, step.nth, code);
    long result = 0;
    const int thrown = CodeOf([&] { result = operation.run(peer()); });
    Faults::Disarm();
    EXPECT_EQ(step.outcome == Step::kThrows ? code : 0, thrown);
    EXPECT_EQ(step.outcome == Step::kReturnsCode ? code : 0, result);
    EXPECT_EQ(Expected(step, code), LinesWithoutAddresses());
    EXPECT_EQ(step.members, Members());
    EXPECT_EQ(Held::kNot, TableLock());
    const std::string ended = std::string(operation.readOnly ? "read " : "write ");
    if (step.call == Call::kMdbTxnBegin) {
      EXPECT_THAT(aborts.Take(), IsEmpty());
    } else {
      EXPECT_THAT(aborts.Take(), ElementsAre(ended + operation.database)) << "ended once";
    }
  }

  const WatchCalls watch_{dir_.path().string()};
};

TEST_P(SpecialItemsFaultTest, IsToldAndLeavesTheDatabaseAsItWas) {
  const Step& step = GetParam();
  OpenFor(*step.operation);
  for (const int code : CodesOf(step.call)) {
    SCOPED_TRACE(code);
    Fail(step, code);
  }
  EXPECT_EQ(WithExtent(step.operation->before), RecordsAtTheEnd(step.operation->database));
  EXPECT_EQ((std::set<std::string>{kFull, kSmall}), Files()) << "no lock file is left";
}

TEST_P(SpecialItemsFaultTest, LeavesATableThatCanDoTheSameAgain) {
  const Step& step = GetParam();
  OpenFor(*step.operation);
  Fail(step, CodesOf(step.call).front());
  EXPECT_EQ(0, CodeOf([&] { EXPECT_EQ(0, step.operation->run(peer())); }));
  EXPECT_THAT(Lines(8), IsEmpty());
  ObjectID doid = Oid(80);
  if (step.operation->database == std::string(kSmall)) {
    EXPECT_EQ(0, peer().GetFileSize(&peer().smallDb()));
  } else {
    EXPECT_EQ(0, table().SetDOID(&doid)) << "the other database works as well";
  }
  EXPECT_EQ(WithExtent(step.operation->after), RecordsAtTheEnd(step.operation->database));
}

std::string NameOf(const testing::TestParamInfo<Step>& test) {
  return std::string(test.param.operation->name) + test.param.name;
}

INSTANTIATE_TEST_SUITE_P(AFailureToBegin, SpecialItemsFaultTest,
                         testing::ValuesIn(BeginAndCursorSteps()), NameOf);
INSTANTIATE_TEST_SUITE_P(AFailureOfTheObjectId, SpecialItemsFaultTest,
                         testing::ValuesIn(DoidSteps()), NameOf);
INSTANTIATE_TEST_SUITE_P(AFailure, SpecialItemsFaultTest, testing::ValuesIn(OtherSteps()), NameOf);

// --- around the failures -------------------------------------------------------------------------

using SpecialItemsCallsTest = zefs::test::OpenDatabasesTest;

TEST_F(SpecialItemsCallsTest, AReadingOperationCommitsNothingAndASetterReadsNothing) {
  Write(kSmall, kSmallItems);
  Write(kFull, kFullItems);
  Open();
  const WatchCalls watch(dir_.path().string());
  AbortTrace aborts;
  peer().GetFileSize(&peer().smallDb());
  peer().GetCommitCounter(&peer().smallDb());
  ObjectID oid;
  peer().GetDOIDUnlocked(&peer().smallDb(), &oid);
  peer().CheckAndLoadSpecialItems(&peer().fullDb(), 0);
  EXPECT_THAT(aborts.Take(), ElementsAre("read lsml0.mdb", "write lsml0.mdb", "write lsml0.mdb",
                                         "write data.mdb"));
  EXPECT_EQ(0, Faults::Count(Call::kMdbPut));
  EXPECT_EQ(0, Faults::Count(Call::kMdbTxnCommit));
  const int got = Faults::Count(Call::kMdbGet);
  table().setFileSize(1000);
  table().setExtMapVersion({2, 1});
  oid = Oid(70);
  table().SetDOID(&oid);
  EXPECT_THAT(aborts.Take(), IsEmpty());
  EXPECT_EQ(3, Faults::Count(Call::kMdbPut));
  EXPECT_EQ(3, Faults::Count(Call::kMdbTxnCommit));
  EXPECT_EQ(got, Faults::Count(Call::kMdbGet));
  EXPECT_EQ(7, Faults::Count(Call::kMdbTxnBegin)) << "one transaction each";
  EXPECT_EQ(7, Faults::Count(Call::kMdbCursorOpen)) << "one cursor each";
}

TEST_F(SpecialItemsCallsTest, AClosedDatabaseIsToldByCodeZero) {
  Make();
  const WatchCalls watch(dir_.path().string());
  peer().path() = "/some/table";
  peer().dataChanged() = false;
  ObjectID oid = Oid(70);
  const auto expectThrown = [&](const char* name, const std::function<void()>& call) {
    SCOPED_TRACE(name);
    int code = -1;
    try {
      call();
    } catch (const SysException& e) {
      code = e.code;
    }
    EXPECT_EQ(0, code);
    EXPECT_THAT(Lines(8), ElementsAre("8 Failed to open transaction for db /some/table, return "
                                      "value is 0"));
    EXPECT_EQ(Held::kNot, TableLock());
  };
  expectThrown("ResetDOID", [&] { peer().ResetDOID(true); });
  peer().dataChanged() = false;
  expectThrown("first setFileSize", [&] { table().setFileSize(1); });
  expectThrown("setFileSize", [&] { table().setFileSize(1); });
  expectThrown("setExtMapVersion", [&] { table().setExtMapVersion({1, 1}); });
  expectThrown("SetDOID", [&] { table().SetDOID(&oid); });
  expectThrown("GetFileSize", [&] { peer().GetFileSize(&peer().tmpDb()); });
  expectThrown("CheckAndLoad", [&] { peer().CheckAndLoadSpecialItems(&peer().fullDb(), 9); });
  expectThrown("GetCommitCounter", [&] { peer().GetCommitCounter(&peer().smallDb()); });
  expectThrown("GetDOIDUnlocked", [&] { peer().GetDOIDUnlocked(&peer().smallDb(), &oid); });
  expectThrown("SetDOIDUnlocked", [&] { peer().SetDOIDUnlocked(&peer().smallDb(), &oid); });
  EXPECT_EQ(-1, peer().fileSize());
  EXPECT_EQ(2, peer().extMapVersion().major);
  EXPECT_EQ(0, Faults::Count(Call::kMdbTxnBegin)) << "no transaction is tried";
}

}  // namespace
