// Object ids of a range of offsets, listed and rewritten.

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "host/auto_log_cpu.h"
#include "support/cpu_counters.h"
#include "tests/persistent/abort_trace.h"
#include "tests/persistent/range_object_ids_fixture.h"
#include "tests/persistent/thread_switch.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// --- listing -------------------------------------------------------------------------------------

using ListingTest = RangeObjectIdsTest;

TEST_F(ListingTest, WhatEndsAtTheStartOfTheRangeIsListed) {
  LoadBoth({Stored(50, 99, 69), Stored(99, 100, 70), Stored(100, 150, 71)}, {});
  EXPECT_THAT(Listed(100, 200), ElementsAre("[99, 100) 70 70", "[100, 150) 71 71"));
  EXPECT_THAT(Listed(99, 100), ElementsAre("[50, 99) 69 69", "[99, 100) 70 70"));
}

TEST_F(ListingTest, WhatEndsBehindTheRangeIsNotListedAndWhatEndsWithItIs) {
  LoadBoth({Stored(100, 150, 70), Stored(150, 201, 71)}, {});
  EXPECT_THAT(Listed(100, 200), ElementsAre("[100, 150) 70 70"));
  EXPECT_THAT(Listed(100, 201), ElementsAre("[100, 150) 70 70", "[150, 201) 71 71"));
  EXPECT_THAT(Listed(151, 201), ElementsAre("[150, 201) 71 71")) << "whole, not cut to the range";
  EXPECT_THAT(Listed(151, 200), IsEmpty());
  EXPECT_THAT(Listed(150, 150), ElementsAre("[100, 150) 70 70"));
  EXPECT_THAT(Lines(kLogFailure), IsEmpty()) << "an end within the table is no failure";
}

TEST_F(ListingTest, ContainersFrom63OnAreListed) {
  LoadBoth({Stored(0, 10, 0), Stored(10, 20, 62), Stored(20, 30, 63), Stored(30, 40, 64),
            Stored(40, 50, 61), Stored(50, 60, UINT64_MAX)},
           {});
  EXPECT_THAT(Listed(1, 100),
              ElementsAre("[20, 30) 63 63", "[30, 40) 64 64", "[50, 60) 18446744073709551615 255"));
  EXPECT_THAT(Listed(1, 20), IsEmpty());
}

TEST_F(ListingTest, AttributesAreNotHandedOut) {
  LoadBoth({Attributed(0, 10, 70, 5)}, {});
  EXPECT_THAT(Listed(1, 10), ElementsAre("[0, 10) 70 5"));
}

TEST_F(ListingTest, FromTheBeginningItMergesFirst) {
  LoadBoth({Stored(0, 100, 70)}, {Stored(20, 30, 80), Stored(100, 110, 81)});
  EXPECT_THAT(Listed(0, 1000), ElementsAre("[0, 20) 70 70", "[20, 30) 80 80", "[30, 100) 70 70",
                                           "[100, 110) 81 81"));
  EXPECT_THAT(Small(), IsEmpty()) << "it has all gone over";
  EXPECT_EQ(4U, Full().size());
  ExpectNoMerge();
}

TEST_F(ListingTest, FromAnywhereElseItDoesNot) {
  const Records full = {Stored(0, 100, 70)};
  const Records small = {Stored(20, 30, 80)};
  LoadBoth(full, small);
  EXPECT_THAT(Listed(1, 1000), ElementsAre("[0, 100) 70 70"));
  EXPECT_EQ(full, Full());
  EXPECT_EQ(small, Small());
  EXPECT_THAT(Lines(), IsEmpty()) << "there was no merge";
}

TEST_F(ListingTest, WhatIsInTheCacheOnlyIsNotListed) {
  LoadBoth({Stored(0, 100, 70)}, {});
  WriteKnown(20, 30, Oid(80));
  EXPECT_THAT(Listed(0, 1000), ElementsAre("[0, 100) 70 70"));
  EXPECT_THAT(Cached(), ElementsAre(30));
}

TEST_F(ListingTest, SpecialItemsAreNotListed) {
  LoadBoth({}, {});
  EXPECT_THAT(Listed(0, LONG_MAX), IsEmpty());
  EXPECT_EQ(4U, All(peer().fullDb()).size()) << "file size, version, counter, id";
  EXPECT_THAT(Listed(1, LONG_MAX), IsEmpty());
  EXPECT_THAT(Lines(kLogRare), IsEmpty());
}

TEST_F(ListingTest, EndsAreComparedAsSignedNumbers) {
  LoadBoth({Stored(0, 10, 70), Stored(10, LONG_MAX, 71)}, {});
  EXPECT_THAT(Listed(1, LONG_MAX), ElementsAre("[0, 10) 70 70", "[10, 9223372036854775807) 71 71"));
  EXPECT_THAT(Listed(1, LONG_MAX - 1), ElementsAre("[0, 10) 70 70"));
  EXPECT_THAT(Listed(1, ULONG_MAX), IsEmpty()) << "-1 lies below every extent";
  EXPECT_THAT(Listed(0, ULONG_MAX), IsEmpty());
  EXPECT_THAT(Listed(LONG_MAX, LONG_MAX), ElementsAre("[10, 9223372036854775807) 71 71"));
  EXPECT_THAT(Listed(1, 0), IsEmpty());
}

TEST_F(ListingTest, ReadsInAWriteTransactionThatStoresNothing) {
  const Records full = {Stored(0, 10, 70)};
  LoadBoth(full, {});
  AbortTrace aborts;
  const WatchCalls watch(dir_.path().string());
  Held held = Held::kNot;
  aborts.AtNext([&] { held = TableLock(); });
  Listed(1, 100);
  EXPECT_EQ(Held::kShared, held) << "until the transaction has ended";
  EXPECT_EQ(Held::kNot, TableLock());
  EXPECT_THAT(aborts.Take(), ElementsAre("write data.mdb"));
  EXPECT_EQ(1, Faults::Count(Call::kMdbTxnBegin));
  EXPECT_EQ(1, Faults::Count(Call::kMdbCursorOpen));
  EXPECT_EQ(0, Faults::Count(Call::kMdbDbiOpen));
  EXPECT_EQ(0, Faults::Count(Call::kMdbSetCompare));
  EXPECT_EQ(0, Faults::Count(Call::kMdbTxnCommit));
  EXPECT_EQ(full, Full());
}

TEST_F(ListingTest, RunsOverTheReplacementOfLmdb) {
  LoadBoth({Stored(0, 10, 70), Stored(10, 300, 71)}, {});
  ReplaceLmdb();
  EXPECT_THAT(Listed(1, 299), ElementsAre("[0, 10) 70 70"));
  EXPECT_THAT(script_.Take(),
              ElementsAre("txn_begin write", "dbi_open unnamed create", "set_compare by number",
                          "cursor_open", "cursor_get range", "cursor_get next empty",
                          "cursor_close", "txn_abort"));
  EXPECT_EQ((std::vector<std::string>{"[0, 10) 70 70000 700", "[10, 300) 71 71000 710"}),
            Walk(table()))
      << "look-ups find their way by number";
}

TEST_F(ListingTest, AFailedReadGivesWhatWasFoundByThen) {
  LoadBoth({Stored(0, 10, 70), Stored(10, 20, 71), Stored(20, 30, 72)}, {});
  ReplaceLmdb();
  const std::vector<std::string> all = {"[0, 10) 70 70", "[10, 20) 71 71", "[20, 30) 72 72"};
  for (const int code : {EINVAL, EIO, MDB_CORRUPTED, MDB_PAGE_NOTFOUND, MDB_BAD_TXN}) {
    for (int nth = 1; nth <= 4; ++nth) {
      script_.Fail("cursor_get", nth, code);
      EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + nth - 1), Listed(5, 99));
      EXPECT_THAT(
          Lines(),
          ElementsAre(ToldWithCode(nth == 1 ? "Failed to find the virtual offset 5"
                                            : "Failed to get the next item with the current cursor",
                                   code),
                      Told("Could not get all object ids and offsets for the range [5,99)", code)));
      EXPECT_EQ(0, script_.openTransactions);
      EXPECT_EQ(Held::kNot, TableLock());
    }
  }
  EXPECT_EQ(all, Listed(5, 99));
}

TEST_F(ListingTest, WhatCannotBeBegunIsThrown) {
  LoadBoth({Stored(0, 10, 70)}, {});
  ReplaceLmdb();
  for (const char* call : {"txn_begin", "dbi_open", "set_compare", "cursor_open"}) {
    script_.Fail(call, 1, ENOMEM);
    EXPECT_EQ(ENOMEM, CodeOf([this] { Listed(1, 99); })) << call;
    EXPECT_EQ(0, script_.openTransactions);
    EXPECT_EQ(Held::kNot, TableLock());
  }
  EXPECT_EQ(4U, Lines().size());
  EXPECT_THAT(Listed(1, 99), ElementsAre("[0, 10) 70 70"));
}

TEST_F(ListingTest, WithoutAThreadForTheMergeThereIsNoList) {
  LoadBoth({Stored(0, 10, 70)}, {Stored(10, 20, 80)});
  FailNextThread(EAGAIN);
  EXPECT_EQ(EAGAIN, CodeOf([this] { Listed(0, 99); }));
  EXPECT_THAT(Lines(), ElementsAre("8 Failed to create a thread for merge, return is " +
                                   std::to_string(EAGAIN)));
  EXPECT_EQ(Held::kNot, TableLock());
  EXPECT_THAT(Listed(0, 99), ElementsAre("[0, 10) 70 70", "[10, 20) 80 80")) << "the next time";
}

TEST_F(ListingTest, AfterAFailedMergeTheFullDatabaseIsListedAsItStands) {
  LoadBoth({Stored(0, 10, 70)}, {Stored(10, 20, 80)});
  const WatchCalls watch(dir_.path().string());
  Faults::OnlyDatabase("mergedb");
  Faults::FailNth(Call::kMdbTxnCommit, 1, ENOSPC);
  EXPECT_THAT(Listed(0, 99), ElementsAre("[0, 10) 70 70"));
  EXPECT_TRUE(Faults::Fired());
  ExpectFailedMerge();
  EXPECT_THAT(Listed(0, 99), ElementsAre("[0, 10) 70 70", "[10, 20) 80 80"));
}

TEST_F(ListingTest, IsMeasuredAndSoIsTheUpdate) {
  using Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu;
  LoadBoth({}, {});
  AutoLogCpu::initialized_ = true;
  AutoLogCpu::enabled_ = true;
  Listed(1, 10);
  table().UpdateObjectIdsByRange(0, 0, {});
  AutoLogCpu::enabled_ = false;
  AutoLogCpu::initialized_ = false;
  EXPECT_EQ(1U, mapping_lmdb_cpu_counters.count("GetObjectIdsAndOffsets"));
  EXPECT_EQ(1U, mapping_lmdb_cpu_counters.count("UpdateObjectIdsByRange"));
}

// --- rewriting -----------------------------------------------------------------------------------

using RewritingTest = RangeObjectIdsTest;

TEST_F(RewritingTest, AnExtentGetsTheContainerAndLosesItsAttributesButTheWord) {
  const PlainRecord record = Attributed(0, 10, 70, 5);
  LoadBoth({record}, {});
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(1, 10, {Element(10, 99, 5)}));
  EXPECT_EQ((Records{Moved(record, 99)}), Full());
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_EQ(99U, table().lower_bound(0, nullptr)->objectID.dcid) << "look-ups show it";
}

TEST_F(RewritingTest, AnotherFingerprintLeavesTheExtentAsItIs) {
  // The last byte of the fingerprint counts as the first does.
  EntryFields fields = FieldsOf(10, 71);
  fields.fp = DigestOf(5);
  fields.fp.back() = 6;
  const Records full = {Attributed(0, 10, 70, 4), {20, EntryBytes(fields)}};
  LoadBoth(full, {});
  ReplaceLmdb();
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(1, 20, {Element(20, 99, 5)}));
  EXPECT_EQ(full, Full());
  EXPECT_THAT(script_.Take(),
              ElementsAre("txn_begin write", "dbi_open unnamed create", "set_compare by number",
                          "cursor_open", "cursor_get range", "cursor_get next empty",
                          "cursor_get next empty", "txn_commit", "env_sync always"))
      << "the walk passes over all of them, and an empty transaction is committed";
}

TEST_F(RewritingTest, ARecordIsComparedWithOneElementOnly) {
  const Records full = {Attributed(0, 10, 70, 5), Attributed(10, 20, 70, 6),
                        Attributed(20, 30, 70, 6)};
  LoadBoth(full, {});
  // [10, 20) belongs to the first element, which wants another fingerprint.
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(1, 30, {Element(20, 90, 5), Element(30, 91, 6)}));
  EXPECT_EQ((Records{Moved(full[0], 90), full[1], Moved(full[2], 91)}), Full());
}

TEST_F(RewritingTest, AnElementThatEndsBeforeTheOneAheadOfItChangesNothing) {
  const Records full = {Attributed(0, 10, 70, 5), Attributed(10, 20, 70, 6),
                        Attributed(20, 30, 70, 5)};
  LoadBoth(full, {});
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(
                   1, 30, {Element(20, 90, 5), Element(10, 91, 5), Element(20, 92, 6)}));
  EXPECT_EQ((Records{Moved(full[0], 90), full[1], full[2]}), Full());
}

TEST_F(RewritingTest, OneElementRewritesAllExtentsOfItsFingerprint) {
  Records full;
  Records expected;
  for (int i = 0; i < 1000; ++i) {
    full.push_back(Attributed(10L * i, 10L * i + 10, 70, static_cast<unsigned char>(i % 3)));
    expected.push_back(i % 3 == 1 ? Moved(full.back(), 90) : full.back());
  }
  LoadBoth(full, {});
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(1, 10000, {Element(10000, 90, 1)}));
  EXPECT_EQ(expected, Full());
}

TEST_F(RewritingTest, TheWalkBeginsWithWhatEndsAtTheStart) {
  const Records full = {Attributed(0, 9, 70, 5), Attributed(9, 10, 70, 5),
                        Attributed(10, 20, 70, 5), Attributed(20, 21, 70, 5)};
  LoadBoth(full, {});
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(10, 3, {Element(20, 90, 5)}))
      << "the end of the range does not count";
  EXPECT_EQ((Records{full[0], Moved(full[1], 90), Moved(full[2], 90), full[3]}), Full());
}

TEST_F(RewritingTest, ContainersBelow63AreRewrittenToo) {
  const PlainRecord record = Attributed(0, 10, 3, 5);
  LoadBoth({record}, {});
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(0, 10, {Element(10, 4, 5)}));
  EXPECT_EQ((Records{Moved(record, 4)}), Full());
}

TEST_F(RewritingTest, OtherDatabasesAndTheCacheAreNotRewritten) {
  const Records full = {Attributed(0, 10, 70, 5)};
  const Records small = {Attributed(10, 20, 70, 5)};
  const Records tmp = {Attributed(20, 30, 70, 5)};
  LoadBoth(full, small, tmp);
  WriteKnown(30, 40, Element(0, 70, 5).objectID);
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(0, 99, {Element(99, 90, 5)}));
  EXPECT_EQ((Records{Moved(full[0], 90)}), Full());
  EXPECT_EQ(small, Small());
  EXPECT_EQ(tmp, Tmp());
  EXPECT_EQ(70U, peer().extCache().at(40).dcid);
}

TEST_F(RewritingTest, AfterAListingFromTheBeginningTheSmallDatabaseIsIncluded) {
  LoadBoth({Attributed(0, 10, 70, 5)}, {Attributed(10, 20, 71, 5)});
  ObjectIDs ids = table().GetObjectIdsAndOffsets(0, 20);
  for (auto& id : ids) {
    id.objectID.dcid += 20;
  }
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(0, 20, ids));
  EXPECT_THAT(Listed(1, 20), ElementsAre("[0, 10) 90 5", "[10, 20) 91 5"));
}

TEST_F(RewritingTest, EndsOfElementsAreComparedAsSignedNumbers) {
  const Records full = {Attributed(0, 10, 70, 5), Attributed(10, LONG_MAX, 70, 5)};
  LoadBoth(full, {});
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(0, 99, {Element(-1, 80, 5)}));
  EXPECT_EQ(full, Full());
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(0, 99, {Element(LONG_MAX, 90, 5)}));
  EXPECT_EQ((Records{Moved(full[0], 90), Moved(full[1], 90)}), Full());
}

TEST_F(RewritingTest, AnEmptyListDoesNothing) {
  LoadBoth({Attributed(0, 10, 70, 5)}, {});
  Set(&Config::prefetchEnabled, 1);
  peer().prefetchExts().resize(2);
  ReplaceLmdb();
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(0, 99, {}));
  EXPECT_THAT(script_.Take(), IsEmpty());
  EXPECT_EQ(2U, peer().prefetchExts().size());
}

TEST_F(RewritingTest, AnEmptyDatabaseIsCommittedAsItIs) {
  LoadBoth({}, {});
  ReplaceLmdb();
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(0, 99, {Element(99, 90, 5)}));
  EXPECT_THAT(script_.Take(),
              ElementsAre("txn_begin write", "dbi_open unnamed create", "set_compare by number",
                          "cursor_open", "cursor_get range", "txn_commit", "env_sync always"));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(RewritingTest, PrefetchedExtentsAreDroppedWherePrefetchingIsOn) {
  LoadBoth({Attributed(0, 10, 70, 5)}, {});
  peer().prefetchExts().resize(2);
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(0, 99, {Element(99, 90, 5)}));
  EXPECT_EQ(2U, peer().prefetchExts().size());
  Set(&Config::prefetchEnabled, 1);
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(0, 99, {Element(99, 91, 5)}));
  EXPECT_THAT(peer().prefetchExts(), IsEmpty());
}

TEST_F(RewritingTest, IsOneTransactionAndOneSync) {
  LoadBoth({Attributed(0, 10, 70, 5), Attributed(10, 20, 70, 6)}, {});
  ReplaceLmdb();
  EXPECT_EQ(0, table().UpdateObjectIdsByRange(1, 20, {Element(10, 90, 5), Element(20, 91, 6)}));
  EXPECT_THAT(
      script_.Take(),
      ElementsAre("txn_begin write", "dbi_open unnamed create", "set_compare by number",
                  "cursor_open", "cursor_get range", "put 72 bytes", "cursor_get next empty",
                  "put 72 bytes", "cursor_get next empty", "txn_commit", "env_sync always"));
}

// --- short values --------------------------------------------------------------------------------

/// Records of a table of the first version, each shorter than the one before, fingerprints and
/// attributes included.
Records ShortRecords(std::size_t count) {
  Records records;
  for (std::size_t i = 0; i < count; ++i) {
    const auto at = static_cast<std::int64_t>(10 * i);
    records.push_back(Shortened(Stored(at, at + 10, 70 + i % 3), 72 - i % 57));
  }
  return records;
}

TEST_F(ListingTest, ShortValuesReadAsIfZerosFollowed) {
  Records full = ShortRecords(57);
  full.insert(full.begin(), {kPlainVersionKey, SpecialBytes(1, 0)});
  LoadBoth(full, {});
  EXPECT_EQ(1, table().getExtMapVersion().major);
  ReplaceLmdb();
  const ObjectIDs ids = table().GetObjectIdsAndOffsets(1, 10000);
  ASSERT_EQ(57U, ids.size());
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const std::size_t bytes = 72 - i;
    std::string digest(32, static_cast<char>(70 + i % 3));
    const std::size_t there = bytes < 48 ? bytes - 16 : 32;
    std::fill(digest.begin() + static_cast<std::ptrdiff_t>(there), digest.end(), '\0');
    EXPECT_EQ(digest, std::string(ids[i].objectID.fp.begin(), ids[i].objectID.fp.end())) << bytes;
    EXPECT_EQ(70 + i % 3, ids[i].objectID.dcid);
    EXPECT_EQ(static_cast<std::int64_t>(10 * i), ids[i].startOffset);
  }
}

TEST_F(RewritingTest, ShortValuesAreStoredWholeAndTheOthersStayShort) {
  const Records records = ShortRecords(2000);
  Records full = records;
  full.insert(full.begin(), {kPlainVersionKey, SpecialBytes(1, 0)});
  for (const bool replaced : {false, true}) {
    SCOPED_TRACE(replaced);
    boost::filesystem::remove_all(Directory());
    LoadBoth(full, {});
    if (replaced) {
      ReplaceLmdb();
    }
    EXPECT_EQ(0, table().UpdateObjectIdsByRange(1, 20000, {Element(20000, 99, 71)}));
    Records expected;
    for (const PlainRecord& record : records) {
      std::string whole = record.value;
      whole.resize(72, '\0');
      const bool moves = whole.substr(16, 32) == std::string(32, 71);
      expected.push_back(moves ? Moved(record, 99) : record);
    }
    EXPECT_EQ(expected, Full()) << "the pages of the database have been split on the way";
    EXPECT_EQ(1, table().getExtMapVersion().major);
    Destroy();
  }
}

}  // namespace
}  // namespace zefs::test
