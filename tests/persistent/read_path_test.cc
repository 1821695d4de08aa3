// What a look-up finds in the cache and in the databases, what it clips, and what it says.

#include <climits>
#include <memory>

#include <gmock/gmock.h>

#include "host/auto_log_cpu.h"
#include "support/cpu_counters.h"
#include "tests/persistent/read_path_fixture.h"
#include "tests/table/code_of.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;
using testing::StartsWith;
using zefs::test::CodeOf;
using zefs::test::Cursors;
using zefs::test::EntryFields;
using zefs::test::Part;
using zefs::test::PartOf;
using zefs::test::PlainRecord;
using zefs::test::RecordOf;
using zefs::test::WritePlainDatabase;

const std::optional<Part> kNothing;

std::string FillLine(const Part& part) {
  return "0 CMappingLMDB::ExtLMDBEntry::FillExtLMDB(), start=" + std::to_string(part.sOff) +
         ", end=" + std::to_string(part.eOff) + ", dcid=" + std::to_string(part.dcid) +
         ", offset=" + std::to_string(part.objOff) + ", data=(nil)";
}

class ReadPathTest : public zefs::test::ReadPathTest {
 protected:
  std::string StepLine(long offset, const char* database) const {
    return "0 CMappingLMDB::GetNextExtInDBChain(), off=" + std::to_string(offset) +
           ", db=" + File(database).string();
  }
};

// --- finders -------------------------------------------------------------------------------------

TEST_F(ReadPathTest, AnEmptyTableGivesTheEndToEveryFinder) {
  CMappingLMDB& table = Load();
  for (const long offset : {0L, -1L, 100L, LONG_MAX}) {
    EXPECT_EQ(table.end(), table.lower_bound(offset, nullptr));
    EXPECT_EQ(table.end(), table.find(offset, nullptr));
    EXPECT_EQ(table.end(), table.lower_bound_in_cache(offset, nullptr));
    EXPECT_EQ(table.end(), peer().lower_bound_unlocked(offset));
  }
  EXPECT_EQ(table.end(), table.begin());
  EXPECT_EQ((Part{0, 0, 0, 0}), PartOf(*table.lower_bound(0, nullptr))) << "a default extent";
  EXPECT_EQ(-1, table.lower_bound(0, nullptr)->dcOffset);
}

TEST_F(ReadPathTest, AnEmptyTableIsSearchedThroughSaysTheLog) {
  CMappingLMDB& table = Load();
  log_.Take();
  table.lower_bound(7, nullptr);
  EXPECT_THAT(Lines(),
              ElementsAre("0 CMappingLMDB::lower_bound(), vOffset=7",
                          "0 CMappingLMDB::GetNextExtent(), vOffset=7",
                          "0 CMappingLMDB::lowerBoundDB(), off=7",
                          StepLine(7, CMappingLMDB::LSML0DB), StepLine(7, CMappingLMDB::FULLDB)));
}

TEST_F(ReadPathTest, BeginFindAndEndSayTheirNamesAndTheFirstTwoAreLowerBound) {
  const Part part{10, 20, 70, 3};
  CMappingLMDB& table = LoadOver({});
  Cache(part);
  EXPECT_EQ(part, PartOf(*table.begin()));
  EXPECT_THAT(
      Lines(),
      ElementsAre("0 CMappingLMDB::begin()", "0 CMappingLMDB::lower_bound(), vOffset=0",
                  "0 CMappingLMDB::GetNextExtent(), vOffset=0",
                  "0 CMappingLMDB::lowerBoundDB(), off=0", StepLine(0, CMappingLMDB::LSML0DB),
                  StepLine(0, CMappingLMDB::FULLDB), FillLine(part)));
  EXPECT_EQ(part, PartOf(*table.find(15, nullptr)));
  EXPECT_THAT(Lines(),
              ElementsAre("0 CMappingLMDB::find()", "0 CMappingLMDB::lower_bound(), vOffset=15",
                          "0 CMappingLMDB::GetNextExtent(), vOffset=15", FillLine(part)));
  table.end();
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::end()"));
}

TEST_F(ReadPathTest, TheUnlockedFinderSaysTheSameAndRunsUnderTheCallersExclusiveLock) {
  const Part part{10, 20, 70, 3};
  LoadOver({});
  Cache(part);
  const CMappingTable::UniqueLock writer(peer().rwLock());
  EXPECT_EQ(part, PartOf(*peer().lower_bound_unlocked(10)));
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::lower_bound(), vOffset=10",
                                   "0 CMappingLMDB::GetNextExtent(), vOffset=10", FillLine(part)));
}

TEST_F(ReadPathTest, EachFinderIsAccountedUnderItsOwnName) {
  using Aldenta::Qnd::Tarvenda::Utils::AutoLogCpu;
  CMappingLMDB& table = LoadOver({});
  AutoLogCpu::initialized_ = true;
  AutoLogCpu::enabled_ = true;
  table.begin();
  table.lower_bound_in_cache(0, nullptr);
  peer().lower_bound_unlocked(0);
  AutoLogCpu::enabled_ = false;
  AutoLogCpu::initialized_ = false;
  for (const char* name :
       {"begin", "lower_bound", "lower_bound_in_cache", "lower_bound_unlocked"}) {
    EXPECT_EQ(1U, mapping_lmdb_cpu_counters.count(name)) << name;
  }
}

TEST_F(ReadPathTest, AnOffsetEqualToAnEndFindsTheNextExtent) {
  const Part inFull{10, 20, 70};
  const Part behind{20, 30, 71};
  const Part cached{40, 50, 72};
  const Part last{50, 60, 73};
  LoadOver({inFull, behind});
  Cache(cached);
  Cache(last);
  EXPECT_THAT(At(19), Optional(inFull));
  EXPECT_THAT(At(20), Optional(behind));
  EXPECT_THAT(At(49), Optional(cached));
  EXPECT_THAT(At(50), Optional(last));
  EXPECT_EQ(kNothing, At(60));
}

TEST_F(ReadPathTest, AHoleGivesTheExtentBehindIt) {
  const Part first{10, 20, 70};
  const Part second{30, 40, 71};
  LoadOver({first}, {second});
  EXPECT_THAT(At(0), Optional(first));
  EXPECT_THAT(At(25), Optional(second));
}

TEST_F(ReadPathTest, ANegativeOffsetFindsTheFirstExtent) {
  const Part first{0, 20, 70};
  LoadOver({first}, {{30, 40, 71}}, {{50, 60, 72}});
  EXPECT_THAT(At(-1), Optional(first));
  EXPECT_THAT(At(-1000), Optional(first));
  EXPECT_EQ(kNothing, InCacheAt(-1));
  Cache({5, 8, 73});
  EXPECT_THAT(At(-1), Optional(Part{0, 5, 70})) << "the cache entry is ahead";
  EXPECT_THAT(InCacheAt(-1), Optional(Part{5, 8, 73}));
}

TEST_F(ReadPathTest, TheLargestOffsetFindsNothingAndTheOneBeforeTheLastByte) {
  const Part stored{10, LONG_MAX, 70};
  LoadOver({stored}, {stored}, {stored});
  EXPECT_THAT(At(LONG_MAX - 1), Optional(stored));
  EXPECT_EQ(kNothing, At(LONG_MAX));
  ExtLMDB out;
  EXPECT_EQ(-1, peer().lowerBoundDB(LONG_MAX, &out));
  Cursors cursors(peer().dbChain());
  EXPECT_EQ(-1, peer().GetNextExtInDBChain(peer().dbChain(), peer().dbChain().begin(),
                                           cursors.begin(), LONG_MAX, &out));
  Cache({20, LONG_MAX, 71});
  EXPECT_THAT(At(LONG_MAX - 1), Optional(Part{20, LONG_MAX, 71}));
  EXPECT_EQ(kNothing, At(LONG_MAX));
  EXPECT_EQ(kNothing, InCacheAt(LONG_MAX));
  auto at = table().lower_bound(LONG_MAX - 1, nullptr);
  ++at;
  EXPECT_EQ(table().end(), at);
}

// --- the databases -------------------------------------------------------------------------------

TEST_F(ReadPathTest, ASmallExtentInsideAFullOneIsSeenBetweenItsFrontAndItsBack) {
  const Part hidden{0, 100, 70, 1000};
  const Part newer{40, 60, 71, 5};
  LoadOver({hidden}, {newer});

  const Part front{0, 40, 70, 1000};
  EXPECT_THAT(At(10), Optional(front));
  EXPECT_THAT(Lines(),
              ElementsAre("0 CMappingLMDB::lower_bound(), vOffset=10",
                          "0 CMappingLMDB::GetNextExtent(), vOffset=10",
                          "0 CMappingLMDB::lowerBoundDB(), off=10",
                          StepLine(10, CMappingLMDB::LSML0DB), StepLine(10, CMappingLMDB::FULLDB),
                          FillLine(hidden), "0 modify end 100 to 40", "0 CMappingLMDB::end()"));

  const Part back{60, 100, 70, 1060};
  EXPECT_THAT(At(70), Optional(back));
  EXPECT_THAT(
      Lines(),
      ElementsAre("0 CMappingLMDB::lower_bound(), vOffset=70",
                  "0 CMappingLMDB::GetNextExtent(), vOffset=70",
                  "0 CMappingLMDB::lowerBoundDB(), off=70", StepLine(70, CMappingLMDB::LSML0DB),
                  StepLine(70, CMappingLMDB::FULLDB), FillLine(hidden),
                  "0 modify start 0 to 60, add objOffset 60", "0 CMappingLMDB::end()"));

  EXPECT_THAT(At(50), Optional(newer));
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::lower_bound(), vOffset=50",
                                   "0 CMappingLMDB::GetNextExtent(), vOffset=50",
                                   "0 CMappingLMDB::lowerBoundDB(), off=50",
                                   StepLine(50, CMappingLMDB::LSML0DB), FillLine(newer),
                                   "0 CMappingLMDB::end()"))
      << "the full database is not asked";
}

TEST_F(ReadPathTest, TheThreeDatabasesHideEachOtherNewestFirst) {
  LoadOver({{0, 100, 70}}, {{20, 80, 71}}, {{40, 60, 72}});
  EXPECT_THAT(At(0), Optional(Part{0, 20, 70, 0}));
  EXPECT_THAT(At(20), Optional(Part{20, 40, 71, 0}));
  EXPECT_THAT(At(40), Optional(Part{40, 60, 72, 0}));
  EXPECT_THAT(At(60), Optional(Part{60, 80, 71, 40}));
  EXPECT_THAT(At(80), Optional(Part{80, 100, 70, 80}));
  EXPECT_EQ(kNothing, At(100));
}

TEST_F(ReadPathTest, BothEndsOfAnOlderExtentAreClippedAtOneLookUp) {
  LoadOver({{0, 100, 70, 7}}, {{10, 20, 71}, {60, 70, 72}}, {{25, 30, 73}, {50, 55, 74}});
  EXPECT_THAT(At(40), Optional(Part{30, 50, 70, 37}));
  EXPECT_THAT(Lines(), testing::AllOf(Contains("0 modify end 100 to 60"),
                                      Contains("0 modify start 0 to 20, add objOffset 20"),
                                      Contains("0 modify end 60 to 50"),
                                      Contains("0 modify start 20 to 30, add objOffset 10")));
}

TEST_F(ReadPathTest, ANewerExtentThatBeginsWithTheOlderOneWinsOutright) {
  const Part newer{10, 12, 71};
  LoadOver({{10, 100, 70}}, {newer});
  EXPECT_THAT(At(10), Optional(newer));
  EXPECT_THAT(At(5), Optional(newer)) << "from the hole before both too";
  EXPECT_THAT(Lines(), Not(Contains(StartsWith("0 modify"))));
}

TEST_F(ReadPathTest, NeighboursThatTouchClipNothing) {
  const Part middle{20, 40, 70, 9};
  LoadOver({middle}, {{10, 20, 71}, {40, 50, 72}});
  EXPECT_THAT(At(20), Optional(middle));
  EXPECT_THAT(Lines(), Not(Contains(StartsWith("0 modify"))));
}

TEST_F(ReadPathTest, SpecialItemsClipNothing) {
  // The step back from the newer extent, and the step to the last record, land on them.
  const PlainRecord size{zefs::test::kPlainFileSizeKey, zefs::test::SpecialBytes(100)};
  const Part older{0, 30, 70, 4};
  LoadRecords({size, RecordOf(older)}, {size, RecordOf({50, 60, 71})}, {{size}});
  EXPECT_THAT(At(10), Optional(older));
  EXPECT_THAT(At(0), Optional(older));
  EXPECT_THAT(Lines(), Not(Contains(StartsWith("0 modify"))));
}

TEST_F(ReadPathTest, ADatabaseWithoutAnyRecordClipsNothing) {
  const Part older{0, 30, 70, 4};
  LoadOver({older}, {{50, 60, 71}}, {});
  Clear(peer().tmpDb());
  EXPECT_THAT(At(10), Optional(older));
  Clear(peer().smallDb());
  EXPECT_THAT(At(10), Optional(older));
  Clear(peer().fullDb());
  EXPECT_EQ(kNothing, At(10));
}

TEST_F(ReadPathTest, AnExtentOfADatabaseHasNoNodeAndNoChecksumAndTheTableAsItsOwner) {
  Part part{10, 20, 70, -3};  // below zero: the sign survives the 32 bits of the record
  LoadRecords({RecordOf(part, 1234)});
  cache_.MakeReady(cache_.NewNode(), zefs::test::Oid(99), 1);
  int node = 0;
  peer().extDataPointers()[20] = &node;  // of a cached extent, were there one with this key
  auto found = table().lower_bound(10, nullptr);
  EXPECT_EQ(part, PartOf(*found));
  EXPECT_EQ(nullptr, found->data);
  EXPECT_EQ(0, found->objCksum);
  EXPECT_EQ(1234, found->dcOffset);
  const ObjectID oid = zefs::test::OidOf(part);
  EXPECT_EQ(oid.fp, found->objectID.fp);
  EXPECT_EQ(oid.attrByte, found->objectID.attrByte);
  EXPECT_EQ(oid.attrWord, found->objectID.attrWord);
  EXPECT_EQ(oid.attrFlag, found->objectID.attrFlag);
  EXPECT_EQ(&table(), dynamic_cast<ExtLMDB&>(*found).owner_);
}

/// Notes which fields were set through the virtual operations, in their order.
struct RecordingExt : ExtLMDB {
  void setObjectID(const ObjectID& oid) override {
    Note("objectID");
    ExtLMDB::setObjectID(oid);
  }
  void setData(void* node) override {
    Note("data");
    ExtLMDB::setData(node);
  }
  void setObjCksum(long checksum) override {
    Note("cksum");
    ExtLMDB::setObjCksum(checksum);
  }
  void setObjOff(long offset) override {
    Note("objOff");
    ExtLMDB::setObjOff(offset);
  }
  void setSOff(long offset) override {
    Note("sOff");
    ExtLMDB::setSOff(offset);
  }
  void setEOff(long offset) override {
    Note("eOff");
    ExtLMDB::setEOff(offset);
  }
  void setDCOffset(int offset) override {
    Note("dcOffset");
    ExtLMDB::setDCOffset(offset);
  }
  void Note(const char* field) { set.emplace_back(field); }

  std::vector<std::string> set;
};

TEST_F(ReadPathTest, AnExtentIsFilledInThroughItsVirtualOperations) {
  LoadOver({}, {{10, 20, 70}});
  RecordingExt fromDatabase;
  EXPECT_EQ(0, peer().lowerBoundDB(10, &fromDatabase));
  EXPECT_THAT(fromDatabase.set,
              ElementsAre("objectID", "objOff", "sOff", "data", "cksum", "eOff", "dcOffset"));
  Cache({30, 40, 71});
  RecordingExt fromCache;
  long nextEnd = 0;
  EXPECT_EQ(0, peer().GetNextExtentInCache(30, &nextEnd, &fromCache));
  EXPECT_EQ(40, nextEnd);
  EXPECT_THAT(fromCache.set,
              ElementsAre("objectID", "objOff", "sOff", "data", "cksum", "eOff", "dcOffset"));
  RecordingExt copied;
  EXPECT_EQ(0, peer().GetNextExtent(10, &nextEnd, &copied));
  EXPECT_EQ(20, nextEnd);
  EXPECT_THAT(copied.set, ElementsAre("data")) << "an extent that may be clipped is copied";
}

TEST_F(ReadPathTest, NothingFoundLeavesTheExtentAlone) {
  LoadOver({{10, 20, 70}});
  RecordingExt out;
  long nextEnd = 0;
  EXPECT_EQ(0, peer().GetNextExtent(20, &nextEnd, &out));
  EXPECT_EQ(-1, nextEnd);
  nextEnd = 0;
  EXPECT_EQ(0, peer().GetNextExtentInCache(0, &nextEnd, &out));
  EXPECT_EQ(-1, nextEnd);
  EXPECT_EQ(-1, peer().lowerBoundDB(20, &out));
  EXPECT_THAT(out.set, IsEmpty());
}

TEST_F(ReadPathTest, BehindTheLastDatabaseThereIsNothingAndNothingToSay) {
  LoadOver({{10, 20, 70}});
  ExtLMDB out;
  const auto& chain = peer().dbChain();
  EXPECT_EQ(-1, peer().GetNextExtInDBChain(chain, peer().dbChain().end(), 0, &out));
  Cursors none({});
  EXPECT_EQ(-1, peer().GetNextExtInDBChain(chain, peer().dbChain().end(), none.begin(), 0, &out));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ReadPathTest, AWalkOnCursorsOfTheCallerFindsAndSaysTheSame) {
  LoadOver({{0, 100, 70}, {120, 130, 75}}, {{20, 80, 71}}, {{40, 60, 72}});
  Cursors cursors(peer().dbChain());
  for (long offset = -1; offset <= 131; ++offset) {
    ExtLMDB own;
    ExtLMDB given;
    log_.Take();
    const auto first = peer().dbChain().begin();
    const int ret = peer().GetNextExtInDBChain(peer().dbChain(), first, offset, &own);
    const auto lines = Lines();
    EXPECT_EQ(ret,
              peer().GetNextExtInDBChain(peer().dbChain(), first, cursors.begin(), offset, &given));
    EXPECT_EQ(lines, Lines());
    EXPECT_EQ(PartOf(own), PartOf(given)) << "at " << offset;
    EXPECT_EQ(own.owner_, given.owner_);
  }
}

TEST_F(ReadPathTest, AWalkMayStartAtAnOlderDatabase) {
  LoadOver({{0, 100, 70}}, {{40, 60, 71}});
  ExtLMDB out;
  EXPECT_EQ(0, peer().GetNextExtInDBChain(peer().dbChain(), std::next(peer().dbChain().begin()), 50,
                                          &out));
  EXPECT_EQ((Part{0, 100, 70}), PartOf(out));
}

// --- short values --------------------------------------------------------------------------------

struct ShortValueTest : ReadPathTest, testing::WithParamInterface<std::size_t> {
  /// A value of the parameter's length, and what it reads as.
  static PlainRecord Short() {
    PlainRecord record = RecordOf({10, 20, 70, 33}, 44);
    record.value.resize(GetParam());
    return record;
  }
  static void ExpectZeroPadded(const ExtLMDB& ext) {
    std::string padded = Short().value;
    padded.resize(72, '\0');
    EntryFields fields;
    fields.startOffset = ext.sOff;
    fields.dcid = ext.objectID.dcid;
    fields.fp = ext.objectID.fp;
    fields.objectOffset = static_cast<std::int32_t>(ext.objOff);
    fields.dcOffset = ext.dcOffset;
    fields.attrByte = ext.objectID.attrByte;
    fields.attrWord = ext.objectID.attrWord;
    fields.attrFlag = ext.objectID.attrFlag;
    EXPECT_EQ((PlainRecord{20, padded}), (PlainRecord{ext.eOff, EntryBytes(fields)}));
  }
};

TEST_P(ShortValueTest, ReadsAsIfZerosFollowedWhateverTheVersion) {
  for (const int major : {1, 2}) {
    const PlainRecord version{zefs::test::kPlainVersionKey, zefs::test::SpecialBytes(major, 0)};
    for (const char* name : {CMappingLMDB::FULLDB, CMappingLMDB::LSML0DB}) {
      Destroy();
      boost::filesystem::remove_all(Directory());
      boost::filesystem::create_directories(Directory());
      WritePlainDatabase(File(CMappingLMDB::FULLDB), {version});
      WritePlainDatabase(File(name), {Short()});
      ASSERT_EQ(major, Load().getExtMapVersion().major);
      ExtLMDB own;
      EXPECT_EQ(0, peer().lowerBoundDB(15, &own));
      ExpectZeroPadded(own);
      Cursors cursors(peer().dbChain());
      ExtLMDB given;
      EXPECT_EQ(0, peer().GetNextExtInDBChain(peer().dbChain(), peer().dbChain().begin(),
                                              cursors.begin(), 15, &given));
      ExpectZeroPadded(given);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Lengths, ShortValueTest, testing::Values(0, 8, 20, 48, 52, 56, 60, 71));

// --- back
// -----------------------------------------------------------------------------------------

TEST_F(ReadPathTest, NobodyStepsBack) {
  LoadOver({{10, 20, 70}});
  long previous = 5;
  ExtLMDB out;
  EXPECT_EQ(-1, CodeOf([&] { peer().GetPreviousExtent(20, &previous, &out); }));
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::GetPreviousExtent()"));
  EXPECT_EQ(-1, CodeOf([&] { peer().previousExtDB(20, &previous, &out); }));
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::previousExtDB()"));
  EXPECT_EQ(5, previous);
}

}  // namespace
