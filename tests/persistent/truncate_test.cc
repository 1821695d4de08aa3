// A truncate as a whole: its steps in their order, what it throws away with the extents, and what
// it leaves alone.

#include <cerrno>
#include <cstdio>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "support/cpu_counters.h"
#include "tests/persistent/extent_cache_fixture.h"
#include "tests/persistent/merge_fixture.h"
#include "tests/persistent/unsynced.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

class TruncateTest : public MergeTest {
 protected:
  TruncateTest() { Set(&Config::prefetchSpanBytes, 1U << 20); }
  ~TruncateTest() override { Set(&Config::prefetchSpanBytes, span_); }

  /// Extents around 150 in every place: the full database, the small one, and the cache.
  void LoadAll() {
    LoadBoth({Stored(0, 100, 70), Stored(100, 200, 71), Stored(300, 400, 72)},
             {Stored(40, 60, 80), Stored(120, 180, 81), Stored(350, 360, 82)});
    DoNotSync(peer().dbChain());
    WriteNode(140, 170, NotReady(), 7);
    WriteNode(380, 390, NotReady());
    log_.Take();
  }

  void Truncate(long size) { EXPECT_EQ(0, table().truncate(size, nullptr)); }

  /// Gives the table an object id of its own that nothing has outdated so far.
  void TakeReferences() {
    ObjectID oid = Oid(99, 9);
    EXPECT_EQ(0, table().SetDOID(&oid));
    peer().dataChanged() = false;
    log_.Take();
  }
  std::string StoredDoid(const LMDBContext& db) { return Special(db)[kPlainDoidKey]; }

  void FillPrefetched() {
    Set(&Config::prefetchEnabled, 1);
    std::list<CMappingLMDB::DCInfo> plan;
    table().GetDCInfoList({0, 1000, 0}, &plan);
    EXPECT_FALSE(peer().prefetchExts().empty());
    log_.Take();
  }

  std::string DbLine(const char* name, long size) const {
    return "0 CMappingLMDB::truncateDB(), dbpath=" + Path(name) +
           ", offset=" + std::to_string(size);
  }

 private:
  const std::uint32_t span_ = Config::GetInstance().Get(&Config::prefetchSpanBytes);
};

TEST_F(TruncateTest, CutsTheCacheThenTheSmallThenTheFullDatabase) {
  LoadAll();
  TakeReferences();
  WriteBytes(File("bloom"), "anything");
  Truncate(150);
  EXPECT_THAT(Named(), ElementsAre("0 CMappingLMDB::truncate() to 150",
                                   "0 update do id fp " + std::string(64, '0') + ", dcid 0, ret:0",
                                   MatchesRegex("1 remove file " + Path("bloom") +
                                                ", return is 0; errno is .+"),
                                   "0 CMappingLMDB::truncateCache()",
                                   "0 Point Op: add to be released point node 2 for offset 390",
                                   "0 erase cache extent endOff=390, startOff=380",
                                   "0 modify cache extent endOff=170 to new endOff=150",
                                   DbLine("lsml0.mdb", 150), DbLine("data.mdb", 150)));
  EXPECT_THAT(Cached(), ElementsAre(150));
  EXPECT_THAT(Pending(), ElementsAre(170, 390, 150));
  EXPECT_THAT(KeysWithNode(), ElementsAre(150));
  EXPECT_THAT(peer().toBeReleased(), ElementsAre(nodes_[1]));
  EXPECT_THAT(Small(), ElementsAre(Stored(40, 60, 80), CutOf(120, 120, 150, 81)));
  EXPECT_THAT(Full(), ElementsAre(Stored(0, 100, 70), CutOf(100, 100, 150, 71)));
  EXPECT_EQ(150, peer().fileSize());
  EXPECT_EQ(150, peer().committedFileSize());
  EXPECT_THAT(Walk(table()), ElementsAre("[0, 40) 70 70000 700", "[40, 60) 80 80000 800",
                                         "[60, 100) 70 70060 700", "[100, 120) 71 71000 710",
                                         "[120, 140) 81 81000 810", "[140, 150) 0 7 -1"));
}

TEST_F(TruncateTest, TheNextFlushStoresTheCutExtentAndHandsTheNodesBack) {
  LoadAll();
  Truncate(150);
  cache_.MakeReady(nodes_[0], Oid(90, 9), 5);
  EXPECT_THAT(Flush(), UnorderedElementsAre(nodes_[0], nodes_[1]));
  EXPECT_THAT(Pending(), IsEmpty()) << "the keys of what is gone are dropped";
  EXPECT_THAT(Cached(), IsEmpty());
  EXPECT_THAT(Small(), ElementsAre(Stored(40, 60, 80), CutOf(120, 120, 140, 81),
                                   WholeRecord(140, 150, Oid(90, 9), 7, 5)));
  EXPECT_EQ(150, table().getFileSize());
}

TEST_F(TruncateTest, ANodeThatPiecesOnBothSidesOfTheCutShareComesBackWithTheFlushOfEach) {
  LoadBoth({}, {});
  DataCacheNode* const node = Ready(Oid(90, 9), 5);
  WriteNode(0, 100, node);
  WriteKnown(40, 60, Oid(91, 8));
  Truncate(80);
  EXPECT_THAT(Flush(false), ElementsAre(node));
  EXPECT_THAT(Cached(), ElementsAre(80)) << "which the node still backs";
  EXPECT_THAT(KeysWithNode(), ElementsAre(80));
  EXPECT_THAT(Flush(), ElementsAre(node));
  EXPECT_THAT(Small(), ElementsAre(WholeRecord(0, 40, Oid(90, 9), 0, 5),
                                   WholeRecord(40, 60, Oid(91, 8), 0, -3),
                                   WholeRecord(60, 80, Oid(90, 9), 60, 5)));
}

TEST_F(TruncateTest, ASizeBehindEverythingChangesTheSizesAlone) {
  LoadAll();
  const auto before = Walk(table());
  Truncate(1000);
  EXPECT_EQ(before, Walk(table()));
  EXPECT_EQ(1000, table().getFileSize());
  EXPECT_EQ(1000, peer().committedFileSize());
  for (const LMDBContext* db : {&peer().smallDb(), &peer().fullDb()}) {
    EXPECT_EQ(SpecialBytes(std::int64_t{1000}), Special(*db)[kPlainFileSizeKey]);
  }
  EXPECT_THAT(Cached(), ElementsAre(170, 390));
  EXPECT_THAT(Pending(), ElementsAre(170, 390));
}

TEST_F(TruncateTest, ToNothingLeavesATableThatTakesWrites) {
  LoadAll();
  Truncate(0);
  EXPECT_THAT(Walk(table()), IsEmpty());
  EXPECT_EQ(0, table().getFileSize());
  WriteKnown(5, 10, Oid(95));
  Flush();
  EXPECT_THAT(Walk(table()), ElementsAre("[5, 10) 95 0 -3"));
  EXPECT_EQ(10, table().getFileSize());
}

TEST_F(TruncateTest, TheTraceFileIsLeftAlone) {
  LoadAll();
  FILE* const trace = std::tmpfile();
  ASSERT_NE(nullptr, trace);
  EXPECT_EQ(0, table().truncate(150, trace));
  EXPECT_EQ(0, std::ftell(trace));
  std::fclose(trace);
}

TEST_F(TruncateTest, IsAccountedUnderItsName) {
  using Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu;
  LoadBoth({}, {});
  const bool enabled = std::exchange(AutoLogCpu::enabled_, true);
  const bool initialized = std::exchange(AutoLogCpu::initialized_, true);
  Truncate(10);
  AutoLogCpu::enabled_ = enabled;
  AutoLogCpu::initialized_ = initialized;
  EXPECT_EQ(1U, mapping_lmdb_cpu_counters.count("truncate"));
}

// --- bloom file
// ----------------------------------------------------------------------------------

TEST_F(TruncateTest, TheBloomFileGoesAlsoWhenNothingIsCut) {
  LoadAll();
  WriteBytes(File("bloom"), "anything");
  WriteBytes(File("bloom.merge"), "of a merge that has failed");
  Truncate(1000);
  EXPECT_FALSE(fs::exists(File("bloom")));
  EXPECT_TRUE(fs::exists(File("bloom.merge")));
}

TEST_F(TruncateTest, WithoutABloomFileThereIsNothingToFail) {
  LoadBoth({}, {});
  Truncate(0);
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::truncate() to 0",
                                   "1 remove file " + Path("bloom") + ", return is -1; errno is " +
                                       std::to_string(ENOENT),
                                   "0 CMappingLMDB::truncateCache()", DbLine("lsml0.mdb", 0),
                                   DbLine("data.mdb", 0)));
}

TEST_F(TruncateTest, ABloomFileThatCannotBeRemovedIsToldAndFailsNothing) {
  LoadAll();
  fs::create_directory(File("bloom"));
  Truncate(150);
  EXPECT_THAT(Lines(1), ElementsAre(MatchesRegex("1 remove file " + Path("bloom") +
                                                 ", return is -1; errno is [0-9]+")));
  EXPECT_EQ(150, peer().committedFileSize());
}

TEST_F(TruncateTest, TheFilesOfAPrefixAreThatTables) {
  Load("PROVISION", "a.");
  WriteBytes(File("bloom"), "of another table");
  WriteBytes(File("a.bloom"), "of this one");
  Truncate(10);
  EXPECT_TRUE(fs::exists(File("bloom")));
  EXPECT_FALSE(fs::exists(File("a.bloom")));
}

// --- object id of the table
// ----------------------------------------------------------------------

TEST_F(TruncateTest, TheFirstChangeEmptiesTheObjectIdInTheSmallDatabase) {
  LoadAll();
  TakeReferences();
  const std::string inFull = StoredDoid(peer().fullDb());
  Truncate(1000);
  EXPECT_TRUE(peer().dataChanged());
  EXPECT_EQ(0U, peer().doid().dcid);
  EXPECT_EQ(PlainDigest{}, peer().doid().fp);
  EXPECT_EQ(SpecialBytes(std::uint64_t{0}, PlainDigest{}), StoredDoid(peer().smallDb()));
  EXPECT_EQ(inFull, StoredDoid(peer().fullDb()));
}

TEST_F(TruncateTest, ALaterChangeLeavesTheObjectIdAlone) {
  LoadAll();
  TakeReferences();
  peer().dataChanged() = true;
  const std::string stored = StoredDoid(peer().smallDb());
  Truncate(150);
  EXPECT_EQ(99U, peer().doid().dcid);
  EXPECT_EQ(stored, StoredDoid(peer().smallDb()));
}

// --- prefetched extents
// --------------------------------------------------------------------------

TEST_F(TruncateTest, AllPrefetchedExtentsGoWhereverTheyLie) {
  LoadAll();
  FillPrefetched();
  Truncate(1000);
  EXPECT_THAT(peer().prefetchExts(), IsEmpty());
}

TEST_F(TruncateTest, WithPrefetchingOffTheListStays) {
  LoadAll();
  FillPrefetched();
  Set(&Config::prefetchEnabled, 0);
  const std::size_t count = peer().prefetchExts().size();
  Truncate(0);
  EXPECT_EQ(count, peer().prefetchExts().size());
}

// --- what it leaves alone
// ------------------------------------------------------------------------

TEST_F(TruncateTest, ATmpDatabaseThatAFailedMergeHasLeftKeepsWhatItHolds) {
  const Records newest = {{kPlainFileSizeKey, SpecialBytes(std::int64_t{500})},
                          Stored(140, 160, 90),
                          Stored(480, 500, 91)};
  LoadBoth({Stored(0, 200, 70)}, {Stored(100, 150, 80)}, newest);
  const Records before = All(peer().tmpDb());
  Truncate(120);
  EXPECT_EQ(before, All(peer().tmpDb()));
  EXPECT_EQ(120, table().getFileSize());
  EXPECT_THAT(Walk(table()), ElementsAre("[0, 100) 70 70000 700", "[100, 120) 80 80000 800",
                                         "[140, 160) 90 90000 900", "[480, 500) 91 91000 910"));
}

TEST_F(TruncateTest, JournalAndOffsetStoreAreNeitherWrittenNorEmptied) {
  TrackOffsets();
  LoadOver({}, "GENERIC");
  Set(&Config::objIdReadyThreshold, 0U);
  WriteNode(0, 100, Ready(Oid(70), -1));
  WriteNode(200, 300, Ready(Oid(71), -1));
  Flush(false);
  const std::string journal = BytesOf(File("journal"));
  const std::string offsets = BytesOf(File("dcoffset"));
  EXPECT_NE("", journal);
  EXPECT_NE("", offsets);
  Truncate(50);
  EXPECT_EQ(journal, BytesOf(File("journal")));
  EXPECT_EQ(offsets, BytesOf(File("dcoffset")));
}

TEST_F(TruncateTest, NeitherTheCachesLockNorTheTablesIsTaken) {
  LoadAll();
  const UniqueLock cache(peer().rwLock());
  const UniqueLock databases(peer().tableLock());
  Truncate(150);
  Set(&Config::prefetchEnabled, 1);
  Truncate(100);
  EXPECT_EQ(100, peer().committedFileSize());
}

TEST_F(TruncateTest, WithPrefetchingOffNoLockAtAllIsTaken) {
  LoadAll();
  const UniqueLock prefetched(peer().prefetchLock());
  const UniqueLock cache(peer().rwLock());
  const UniqueLock databases(peer().tableLock());
  Truncate(150);
  EXPECT_EQ(150, peer().committedFileSize());
}

}  // namespace
}  // namespace zefs::test
