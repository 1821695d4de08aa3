// What a merge writes: the records, the special items, and how many transactions it takes.

#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/merge_fixture.h"
#include "tests/support/fault_injection.h"

namespace zefs::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

class MergeWalkTest : public MergeTest {
 protected:
  /// Merges these and returns the extents of the new full database.
  Records Merged(const Records& full, const Records& small) {
    LoadBoth(full, small);
    EXPECT_EQ(0, peer().MergeAndSwitch());
    ExpectNoMerge();
    EXPECT_THAT(Small(), IsEmpty());
    return Full();
  }

  /// The lines about records that were cut.
  std::vector<std::string> Cuts() {
    std::vector<std::string> cuts;
    for (const std::string& line : Lines()) {
      if (line.rfind("0 Modify", 0) == 0) {
        cuts.push_back(line);
      }
    }
    return cuts;
  }

  /// The special items of the full database: file size, counter, object id, version.
  void ExpectSpecial(std::int64_t size, std::uint64_t dcid, const PlainDigest& fp) {
    const std::map<std::int64_t, std::string> expected = {
        {kPlainFileSizeKey, SpecialBytes(size)},
        {kPlainCommitCounterKey, SpecialBytes(std::int64_t{0})},
        {kPlainDoidKey, SpecialBytes(dcid, fp)},
        {kPlainVersionKey, SpecialBytes(2, 0)}};
    EXPECT_EQ(expected, Special(peer().fullDb()));
  }
};

// --- one side only -----------------------------------------------------------------------------

TEST_F(MergeWalkTest, OverAnEmptyFullDatabaseTheIncrementalRecordsAreCopiedAsTheyAre) {
  const Records small = {Stored(0, 10, 70), Shortened(Stored(20, 30, 71), 56), Stored(30, 40, 72)};
  EXPECT_EQ(small, Merged({}, small));
  EXPECT_THAT(Cuts(), IsEmpty());
}

TEST_F(MergeWalkTest, OfAnEmptyIncrementalDatabaseTheFullRecordsAreCopiedAsTheyAre) {
  const Records full = {Stored(0, 10, 70), Shortened(Stored(20, 30, 71), 56), Stored(30, 40, 72)};
  EXPECT_EQ(full, Merged(full, {}));
  EXPECT_THAT(Cuts(), IsEmpty());
}

TEST_F(MergeWalkTest, OfTwoEmptyDatabasesThereAreTheSpecialItems) {
  EXPECT_THAT(Merged({}, {}), IsEmpty());
  ExpectSpecial(0, 0, PlainDigest{});
}

// --- overlaps ----------------------------------------------------------------------------------

TEST_F(MergeWalkTest, OfTwoRecordsWithOneRangeTheIncrementalOneStays) {
  EXPECT_EQ(Records({Stored(10, 20, 80)}), Merged({Stored(10, 20, 70)}, {Stored(10, 20, 80)}));
  EXPECT_THAT(Cuts(), IsEmpty());
}

TEST_F(MergeWalkTest, AnIncrementalRecordInsideAFullOneLeavesFrontAndRest) {
  EXPECT_EQ(Records({CutOf(0, 0, 40, 70), Stored(40, 60, 80), CutOf(0, 60, 100, 70)}),
            Merged({Stored(0, 100, 70)}, {Stored(40, 60, 80)}));
  EXPECT_THAT(Cuts(), ElementsAre("0 Modify EndOff 100 to 40")) << "the rest has no line";
}

TEST_F(MergeWalkTest, ARestBeforeAFurtherIncrementalRecordHasALineForEachCut) {
  EXPECT_EQ(Records({CutOf(0, 0, 10, 70), Stored(10, 20, 80), CutOf(0, 20, 50, 70),
                     Stored(50, 60, 81), CutOf(0, 60, 100, 70)}),
            Merged({Stored(0, 100, 70)}, {Stored(10, 20, 80), Stored(50, 60, 81)}));
  EXPECT_THAT(Cuts(), ElementsAre("0 Modify EndOff 100 to 10", "0 Modify StartOff 0 to 20",
                                  "0 Modify EndOff 100 to 50"));
}

TEST_F(MergeWalkTest, AnIncrementalRecordAtTheLastEndComesBeforeTheFullOneAroundIt) {
  EXPECT_EQ(
      Records({CutOf(0, 0, 10, 70), Stored(10, 20, 80), Stored(20, 30, 81), CutOf(0, 30, 50, 70)}),
      Merged({Stored(0, 50, 70)}, {Stored(10, 20, 80), Stored(20, 30, 81)}));
  EXPECT_THAT(Cuts(), ElementsAre("0 Modify EndOff 50 to 10"));
}

TEST_F(MergeWalkTest, AFullRecordThatEndsWhereTheIncrementalOneStartsIsWrittenWhole) {
  EXPECT_EQ(Records({Shortened(Stored(0, 40, 70), 60), Stored(40, 60, 80)}),
            Merged({Shortened(Stored(0, 40, 70), 60)}, {Stored(40, 60, 80)}));
  EXPECT_THAT(Cuts(), IsEmpty());
}

TEST_F(MergeWalkTest, AnIncrementalRecordOverSeveralFullOnesCutsTheLast) {
  EXPECT_EQ(Records({Stored(5, 45, 80), CutOf(40, 45, 50, 74), Stored(60, 70, 75)}),
            Merged({Stored(5, 10, 70), Stored(10, 20, 71), Stored(20, 30, 72), Stored(30, 40, 73),
                    Stored(40, 50, 74), Stored(60, 70, 75)},
                   {Stored(5, 45, 80)}));
}

TEST_F(MergeWalkTest, WithEqualEndsNothingOfTheFullRecordIsLeft) {
  EXPECT_EQ(Records({CutOf(0, 0, 10, 70), Stored(10, 50, 80), Stored(50, 60, 71)}),
            Merged({Stored(0, 50, 70), Stored(50, 60, 71)}, {Stored(10, 50, 80)}));
}

TEST_F(MergeWalkTest, AHoleStaysAHole) {
  EXPECT_EQ(Records({Stored(10, 20, 70), Stored(30, 40, 80), Stored(50, 60, 71)}),
            Merged({Stored(10, 20, 70), Stored(50, 60, 71)}, {Stored(30, 40, 80)}));
}

TEST_F(MergeWalkTest, ACutOfAShortValueHasAllBytesAndZerosForThoseThatWereNotThere) {
  PlainRecord rest = CutOf(0, 60, 100, 70);
  PlainRecord front = CutOf(0, 0, 40, 70);
  for (PlainRecord* piece : {&front, &rest}) {
    piece->value.replace(52, 20, std::string(20, '\0'));
  }
  EXPECT_EQ(Records({front, Stored(40, 60, 80), rest}),
            Merged({Shortened(Stored(0, 100, 70), 52)}, {Stored(40, 60, 80)}));
}

TEST_F(MergeWalkTest, TheObjectOffsetOfACutWrapsAroundIn32Bits) {
  EntryFields fields = FieldsOf(0, 70);
  fields.objectOffset = INT32_MAX - 10;
  fields.attrByte = 1;
  fields.attrWord = 2;
  fields.attrFlag = 3;
  const PlainRecord whole{100, EntryBytes(fields)};
  fields.startOffset = 60;
  fields.objectOffset = INT32_MIN + 49;
  const PlainRecord rest{100, EntryBytes(fields)};
  EXPECT_EQ(Records({Stored(0, 60, 80), rest}), Merged({whole}, {Stored(0, 60, 80)}))
      << "attributes and container offset stay";
}

TEST_F(MergeWalkTest, RecordsThatOverlapInOneDatabaseFailTheMergeAndNothingElse) {
  LoadBoth({Stored(0, 50, 70)}, {Stored(10, 30, 80), Stored(12, 40, 81)});
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_THAT(Lines(kLogFailure),
              ElementsAre("8 Failed to put cursor for merge db, return value is -30799",
                          "8 Failed to merge db, the performance is potentially impacted, return "
                          "value is 0"));
  ExpectFailedMerge();
  EXPECT_EQ("[0, 10) 70 70000 700", Walk(table()).front()) << "the table is usable";
  WriteKnown(0, 60, Oid(90));
  Flush();
  peer().WaitingForMerge();
  ExpectFailedMerge();
  EXPECT_THAT(Walk(table()), ElementsAre("[0, 60) 90 0 -3"));
}

// --- special items -----------------------------------------------------------------------------

TEST_F(MergeWalkTest, TheFileSizeNeverFallsBelowThatOfTheTable) {
  LoadBoth({Stored(0, 10, 70)}, {Stored(10, 20, 80)});
  EXPECT_EQ(0, table().setFileSize(500));
  EXPECT_EQ(0, peer().MergeAndSwitch());
  ExpectSpecial(500, 0, PlainDigest{});
  EXPECT_EQ(500, peer().committedFileSize());
  EXPECT_EQ(500, peer().fileSize());
}

TEST_F(MergeWalkTest, TheFileSizeRisesToTheLastEnd) {
  LoadBoth({Stored(0, 10, 70), Stored(30, 70, 71)}, {Stored(10, 20, 80)});
  EXPECT_EQ(0, peer().committedFileSize());
  peer().fileSize() = 600;  // as after a write that is not flushed
  EXPECT_EQ(0, peer().MergeAndSwitch());
  ExpectSpecial(70, 0, PlainDigest{});
  EXPECT_EQ(70, peer().committedFileSize());
  EXPECT_EQ(70, peer().fileSize()) << "both are set";
}

TEST_F(MergeWalkTest, VersionAndCounterAreNewWhateverTheSourcesHad) {
  LoadBoth({{kPlainVersionKey, SpecialBytes(1, 5)},
            {kPlainCommitCounterKey, SpecialBytes(std::int64_t{7})},
            Stored(0, 10, 70)},
           {{kPlainVersionKey, SpecialBytes(1, 4)},
            {kPlainCommitCounterKey, SpecialBytes(std::int64_t{8})},
            Stored(10, 20, 80)});
  EXPECT_EQ(1, table().getExtMapVersion().major);
  EXPECT_EQ(8, peer().commitCounter());
  EXPECT_EQ(0, peer().MergeAndSwitch());
  ExpectSpecial(20, 0, PlainDigest{});
  EXPECT_EQ(2, table().getExtMapVersion().major);
  EXPECT_EQ(0, table().getExtMapVersion().minor);
  EXPECT_EQ(8, peer().commitCounter()) << "a flush resets it, and not the merge";
}

TEST_F(MergeWalkTest, NoReaderOfTheDatabasesHoldsItUp) {
  LoadBoth({Stored(0, 10, 70)}, {Stored(10, 20, 80)});
  LMDBContext merged;
  ASSERT_EQ(0, peer().SetupDBEnv(Path("mergedb"), &merged, CMappingLMDB::kSmallMapSize));
  {
    const CMappingLMDB::SharedLock reader(
        peer().tableLock());  // an exclusive one would wait for it
    EXPECT_EQ(0, peer().MergeDBs(peer().fullDb(), peer().smallDb(), merged, false));
  }
  peer().ClearDBEnv(&merged);
}

TEST_F(MergeWalkTest, TheObjectIdOfTheTableGoesAlong) {
  LoadBoth({}, {});
  ObjectID doid = Oid(65, 9);
  EXPECT_EQ(0, table().SetDOID(&doid));
  EXPECT_EQ(0, peer().MergeAndSwitch());
  ExpectSpecial(0, 65, doid.fp);
  EXPECT_EQ(0, table().GetDOID(&doid));
}

// --- transactions ------------------------------------------------------------------------------

struct Batch {
  std::uint32_t size;
  int commits;  // of the walk and the finish
};

class MergeBatchTest : public MergeWalkTest, public testing::WithParamInterface<Batch> {};

TEST_P(MergeBatchTest, ACommitComesAfterEachBatchOfRecordsAndAtTheEnd) {
  Set(&Config::mergeCommitBatchSize, GetParam().size);
  LoadBoth({Stored(0, 10, 70), Stored(10, 20, 71), Stored(20, 30, 72), Stored(30, 40, 73),
            Stored(40, 50, 74)},
           {Stored(20, 30, 80), Stored(60, 70, 81)});
  const WatchCalls watch(dir_.path().string());
  Faults::OnlyDatabase("mergedb");
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_EQ(1 + GetParam().commits, Faults::Count(Call::kMdbTxnCommit)) << "one opens it";
  EXPECT_EQ(6, Faults::Count(Call::kMdbCursorPut));
  EXPECT_EQ(4, Faults::Count(Call::kMdbPut)) << "the special items are not appended";
  EXPECT_EQ(Records({Stored(0, 10, 70), Stored(10, 20, 71), Stored(20, 30, 80), Stored(30, 40, 73),
                     Stored(40, 50, 74), Stored(60, 70, 81)}),
            Full());
}

std::string NameOf(const testing::TestParamInfo<Batch>& batch) {
  return "Of" + std::to_string(batch.param.size);
}

// Seven steps, of which one passes over a record and six write one.
INSTANTIATE_TEST_SUITE_P(Sizes, MergeBatchTest,
                         testing::Values(Batch{0, 8}, Batch{1, 7}, Batch{2, 4}, Batch{3, 3},
                                         Batch{6, 2}, Batch{7, 1}, Batch{1000, 1}),
                         NameOf);

// --- references --------------------------------------------------------------------------------

TEST_F(MergeWalkTest, TheBloomFileHoldsWhatTheMergedRecordsReference) {
  Set(&Config::persistBloom, std::uint8_t{1});
  Set(&Config::mergeWaitEntriesThreshold, 5U);
  LoadBoth({Stored(0, 100, 70), Stored(200, 300, 71)}, {Stored(40, 60, 80), Stored(200, 300, 70)});
  peer().newDcidRefs() = {{99, 5}};  // of a merge that failed
  const long records = table().size();
  EXPECT_EQ(0, peer().MergeAndSwitch());
  ExpectNoMerge();
  EXPECT_THAT(peer().newDcidRefs(), IsEmpty());
  const StoredBloom stored = ReadBloomFile(File("bloom"));
  EXPECT_THAT(stored.refs,
              testing::UnorderedElementsAre(testing::Pair(70, 180UL), testing::Pair(80, 20UL)));
  EXPECT_EQ(4U, stored.filter->GetInsertedFingerPrints());
  EXPECT_TRUE(stored.filter->Contains(DigestOf(70)));
  EXPECT_TRUE(stored.filter->Contains(DigestOf(80)));
  EXPECT_EQ(BloomFilter(static_cast<unsigned long>(records + 5) * 2, 0.02).GetBufferSize(),
            stored.filter->GetBufferSize());
  EXPECT_DOUBLE_EQ(0.02, stored.filter->GetMaxFalsePositive());
}

TEST_F(MergeWalkTest, WithoutBloomFilesNothingIsCountedOrStored) {
  LoadBoth({Stored(0, 100, 70)}, {Stored(40, 60, 80)});
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_THAT(peer().newDcidRefs(), IsEmpty());
  ExpectNoFile({"bloom", "bloom.merge"});
  for (const std::string& line : Lines()) {
    EXPECT_THAT(line, testing::Not(StartsWith("1 remove file"))) << line;
  }
}

}  // namespace
}  // namespace zefs::test
