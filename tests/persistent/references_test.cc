// What a table says that it references: containers with their bytes, and fingerprints.

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/merge_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::UnorderedElementsAre;

class ReferencesTest : public MergeTest {
 protected:
  using Dcids = std::vector<std::pair<unsigned long, unsigned long>>;
  using DcidMap = std::unordered_map<unsigned long, unsigned long>;

  ReferencesTest() { Set(&Config::persistBloom, std::uint8_t{1}); }

  /// Asks for both, and keeps the filter.
  Dcids Ask() {
    Dcids dcids = {{1, 1}};  // is emptied
    table().GetDCIDAndBloomFilter(&dcids, &filter_);
    EXPECT_EQ(Held::kNot, TableLock());
    return dcids;
  }
  bool Holds(unsigned char dcid) const { return filter_->Contains(DigestOf(dcid)); }

  static unsigned int BufferFor(unsigned long entries) {
    return BloomFilter(entries, 0.02).GetBufferSize();
  }

  std::unique_ptr<BloomFilter> filter_;
};

// --- containers and fingerprints ---------------------------------------------------------------

TEST_F(ReferencesTest, OfOneKeyInSeveralDatabasesTheNewestCountsAndAllFingerprintsAreListed) {
  LoadBoth({Stored(0, 100, 70), Stored(100, 150, 71)}, {Stored(50, 100, 72)},
           Records{Stored(90, 100, 73), Stored(200, 300, 71)});
  DcidMap dcids = {{71, 1000}};
  std::vector<PlainDigest> fps = {DigestOf(9)};
  EXPECT_EQ(0, table().GetDCIDAndFPs(&dcids, &fps));
  EXPECT_THAT(dcids, UnorderedElementsAre(Pair(71, 1150UL), Pair(73, 10UL)))
      << "added to what was there";
  EXPECT_THAT(fps, ElementsAre(DigestOf(9), DigestOf(73), DigestOf(71), DigestOf(72), DigestOf(70),
                               DigestOf(71)))
      << "newest database first";
  EXPECT_THAT(Lines(), ElementsAre("0 GetDCIDAndFPs, dcid_refs:2, fps: 6"));
  EXPECT_EQ(Held::kNot, TableLock());
  EXPECT_TRUE(peer().dataChanged()) << "that is left alone";
}

TEST_F(ReferencesTest, AContainerIdThatIsNoneIsInTheMapAllTheSame) {
  LoadBoth({Stored(0, 10, 63), Stored(10, 20, 64)}, {});
  DcidMap dcids;
  std::vector<PlainDigest> fps;
  EXPECT_EQ(0, table().GetDCIDAndFPs(&dcids, &fps));
  EXPECT_THAT(dcids, UnorderedElementsAre(Pair(63, 10UL), Pair(64, 10UL)));
}

TEST_F(ReferencesTest, WhatIsOnlyInTheCacheIsNotSeen) {
  LoadBoth({}, {});
  WriteKnown(0, 10, Oid(70));
  DcidMap dcids;
  std::vector<PlainDigest> fps;
  EXPECT_EQ(0, table().GetDCIDAndFPs(&dcids, &fps));
  EXPECT_THAT(dcids, IsEmpty());
  EXPECT_THAT(fps, IsEmpty());
  EXPECT_THAT(Ask(), IsEmpty());
}

TEST_F(ReferencesTest, ShortValuesAndTheLargestKeysAreRead) {
  LoadBoth({Shortened(Stored(10, 20, 70), 16), {INT64_MAX, EntryBytes(FieldsOf(20, 71))}}, {});
  DcidMap dcids;
  std::vector<PlainDigest> fps;
  EXPECT_EQ(0, table().GetDCIDAndFPs(&dcids, &fps));
  EXPECT_THAT(dcids, UnorderedElementsAre(Pair(70, 10UL),
                                          Pair(71, static_cast<unsigned long>(INT64_MAX) - 20)));
  EXPECT_THAT(fps, ElementsAre(PlainDigest{}, DigestOf(71)));
}

TEST_F(ReferencesTest, NewReferencesAreNotToldByThisTable) {
  LoadBoth({}, {});
  Dcids dcids;
  std::vector<FingerprintText> fps;
  try {
    table().GetNewReferencedDCID(&dcids);
    ADD_FAILURE();
  } catch (int code) {
    EXPECT_EQ(0, code);
  }
  try {
    table().GetReferencedFP(&fps);
    ADD_FAILURE();
  } catch (int code) {
    EXPECT_EQ(0, code);
  }
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ReferencesTest, AFilterThatIsNotWantedCountsNothing) {
  Aldenta::Qnd::Morene::Zefs::ExtLMDBEntry entry{};
  entry.startOffset = 10;
  entry.dcid = 70;
  DcidMap dcids;
  Peer::ConstructRefs(30, &entry, &dcids, nullptr);
  EXPECT_THAT(dcids, IsEmpty());
  BloomFilter filter(10, 0.02);
  Peer::ConstructRefs(30, &entry, &dcids, &filter);
  Peer::ConstructRefs(110, &entry, &dcids, &filter);
  EXPECT_THAT(dcids, UnorderedElementsAre(Pair(70, 120UL)));
  EXPECT_EQ(2U, filter.GetInsertedFingerPrints()) << "extents, and not distinct fingerprints";
}

// --- containers and filter, from the databases -------------------------------------------------

TEST_F(ReferencesTest, OfATableWithoutExtentsThereIsAnEmptyFilter) {
  LoadBoth({}, {});
  EXPECT_THAT(Ask(), IsEmpty());
  EXPECT_EQ(0U, filter_->GetInsertedFingerPrints());
  EXPECT_EQ(0U, filter_->GetExpectedFingerprints());
  EXPECT_FALSE(peer().dataChanged());
}

TEST_F(ReferencesTest, ExtentsOfOneContainerGiveOnePair) {
  LoadBoth({Stored(0, 100, 70)}, {Stored(200, 250, 70)});
  EXPECT_THAT(Ask(), ElementsAre(Pair(70, 150UL)));
  EXPECT_TRUE(Holds(70));
  EXPECT_FALSE(Holds(71));
}

TEST_F(ReferencesTest, AContainerIdThatIsNoneIsInTheFilterAndLeftOutOfTheList) {
  LoadBoth({Stored(0, 10, 63), Stored(10, 20, 64)}, {});
  EXPECT_THAT(Ask(), ElementsAre(Pair(64, 10UL)));
  EXPECT_TRUE(Holds(63));
  EXPECT_THAT(Lines(kLogStep), ElementsAre("4 The dcid is invalid, dcid=63"));
}

TEST_F(ReferencesTest, WithoutABloomFileAllDatabasesAreWalkedIntoAFilterForTwiceTheRecords) {
  LoadBoth({Stored(0, 10, 70), Stored(10, 20, 71)}, {Stored(20, 30, 72)},
           Records{Stored(30, 40, 73), Stored(40, 50, 74)});
  const long records = table().size();
  filter_ = std::make_unique<BloomFilter>(7, 0.5);
  EXPECT_THAT(Ask(), SizeIs(5));
  EXPECT_EQ(static_cast<unsigned long>(records) * 2, filter_->GetExpectedFingerprints());
  EXPECT_DOUBLE_EQ(0.02, filter_->GetMaxFalsePositive());
  EXPECT_EQ(5U, filter_->GetInsertedFingerPrints());
  EXPECT_THAT(Lines(),
              ElementsAre("0 dcid:5, bufsize: " + std::to_string(filter_->GetBufferSize()) +
                          ", fpall: 5, " + "fulldb:" + std::to_string(records) + ", l0:-2, tmp:2"))
      << "what comes of counting the small database once more";
  ExpectNoFile({"bloom"});
}

TEST_F(ReferencesTest, OneQuestionClearsTheChangeAndAWriteSetsItAgain) {
  LoadBoth({}, {});
  EXPECT_TRUE(peer().dataChanged());
  Ask();
  EXPECT_FALSE(peer().dataChanged());
  WriteKnown(0, 10, Oid(70));
  EXPECT_TRUE(peer().dataChanged());
}

// --- from the bloom file -----------------------------------------------------------------------

TEST_F(ReferencesTest, AGoodBloomFileSavesTheWalkOfTheFullDatabase) {
  LoadBoth({Stored(0, 100, 70)}, {Stored(40, 60, 80)});
  EXPECT_EQ(0, peer().MergeAndSwitch());
  WriteKnown(200, 210, Oid(90, 9));
  Flush();
  Lines();
  const WatchCalls watch(dir_.path().string());
  const Dcids dcids = Ask();
  EXPECT_EQ(1, Faults::Count(Call::kMdbTxnBegin)) << "of the small database";
  EXPECT_THAT(dcids, UnorderedElementsAre(Pair(70, 80UL), Pair(80, 20UL), Pair(90, 10UL)));
  EXPECT_TRUE(Holds(70));
  EXPECT_TRUE(Holds(80));
  EXPECT_TRUE(filter_->Contains(Oid(90, 9).fp));
  EXPECT_EQ(4U, filter_->GetInsertedFingerPrints());
  EXPECT_EQ("0 dcid:3, bufsize: " + std::to_string(filter_->GetBufferSize()) +
                ", fpall: 4, fulldb:0, l0:1, tmp:0",
            Lines().back());
  EXPECT_TRUE(fs::exists(File("bloom")));
}

TEST_F(ReferencesTest, ATmpDatabaseIsWalkedOnTopOfTheFile) {
  LoadBoth({Stored(0, 100, 70)}, {});
  EXPECT_EQ(0, peer().MergeAndSwitch());
  Close();
  Write("tmp.mdb", {Stored(100, 110, 70), Stored(110, 120, 71)});
  Write("lsml0.mdb", {Stored(200, 210, 72)});
  Load();
  Lines();
  EXPECT_THAT(Ask(), UnorderedElementsAre(Pair(70, 110UL), Pair(71, 10UL), Pair(72, 10UL)));
  const auto lines = Lines();
  EXPECT_THAT(lines.back(), testing::EndsWith(", fpall: 4, fulldb:0, l0:1, tmp:2"));
}

TEST_F(ReferencesTest, WhatWasReplacedSinceTheMergeIsStillCounted) {
  LoadBoth({Stored(0, 100, 70)}, {});
  EXPECT_EQ(0, peer().MergeAndSwitch());
  WriteKnown(0, 100, Oid(90, 9));
  Flush();
  EXPECT_THAT(Ask(), UnorderedElementsAre(Pair(70, 100UL), Pair(90, 100UL)));
  EXPECT_EQ(0, peer().MergeAndSwitch());
  EXPECT_THAT(Ask(), ElementsAre(Pair(90, 100UL))) << "until the next merge";
}

TEST_F(ReferencesTest, ABloomFileThatIsNotWantedIsIgnoredAndStays) {
  LoadBoth({Stored(0, 100, 70)}, {});
  EXPECT_EQ(0, peer().MergeAndSwitch());
  Set(&Config::persistBloom, std::uint8_t{0});
  const std::string bytes = BytesOf(File("bloom"));
  const WatchCalls watch(dir_.path().string());
  EXPECT_THAT(Ask(), ElementsAre(Pair(70, 100UL)));
  EXPECT_EQ(0, Faults::Count(Call::kRead));
  EXPECT_EQ(bytes, BytesOf(File("bloom")));
}

// --- bad bloom files ---------------------------------------------------------------------------

class BadBloomFileTest : public ReferencesTest {
 protected:
  static constexpr std::size_t kHeader = 60;

  /// A merged table whose bloom file is changed so.
  void LoadWith(const std::function<void(std::string*)>& change) {
    LoadBoth({Stored(0, 100, 70)}, {Stored(200, 220, 80)});
    EXPECT_EQ(0, peer().MergeAndSwitch());
    std::string bytes = BytesOf(File("bloom"));
    change(&bytes);
    WriteBytes(File("bloom"), bytes);
    Lines();
  }
  void ExpectRebuilt() {
    EXPECT_THAT(Ask(), UnorderedElementsAre(Pair(70, 100UL), Pair(80, 20UL)));
    EXPECT_TRUE(Holds(70));
    EXPECT_TRUE(Holds(80));
    EXPECT_EQ(2U, filter_->GetInsertedFingerPrints());
  }
};

TEST_F(BadBloomFileTest, OneWhoseFilterFailsItsChecksumIsRemoved) {
  LoadWith([](std::string* bytes) { bytes->at(kHeader) ^= 1; });
  ExpectRebuilt();
  EXPECT_THAT(Lines(kLogStep), ElementsAre(testing::StartsWith("1 remove file " + Path("bloom") +
                                                               ", return is 0; errno is ")));
  ExpectNoFile({"bloom"});
}

TEST_F(BadBloomFileTest, OneWhoseListFailsItsChecksumIsRemovedAndItsFilterReplaced) {
  LoadWith([](std::string* bytes) { bytes->back() ^= 1; });
  ExpectRebuilt();
  EXPECT_THAT(Lines(kLogStep), ElementsAre(testing::StartsWith("1 remove file " + Path("bloom") +
                                                               ", return is 0; errno is ")));
  ExpectNoFile({"bloom"});
}

TEST_F(BadBloomFileTest, OneThatIsCutShortStays) {
  LoadWith([](std::string* bytes) { bytes->pop_back(); });
  ExpectRebuilt();
  const auto lines = Lines(kLogRecoverable);
  ASSERT_THAT(lines, testing::Not(IsEmpty()));
  EXPECT_THAT(lines.back(),
              testing::MatchesRegex("4 Cannot load bloom from: .*bloom, errno:[0-9]+, msg:.*, "
                                    "generate bloom from table"));
  EXPECT_TRUE(fs::exists(File("bloom")));
}

TEST_F(BadBloomFileTest, AnEmptyOneStays) {
  LoadWith([](std::string* bytes) { bytes->clear(); });
  ExpectRebuilt();
  EXPECT_TRUE(fs::exists(File("bloom")));
}

TEST_F(BadBloomFileTest, ARateThatMakesNoSenseIsNoReasonToFail) {
  LoadWith([](std::string* bytes) { std::fill_n(bytes->begin() + 36, 8, '\xff'); });
  ExpectRebuilt();
  EXPECT_TRUE(fs::exists(File("bloom")));
}

TEST_F(BadBloomFileTest, ADirectoryInItsPlaceIsNotOne) {
  LoadWith([](std::string*) {});
  fs::remove(File("bloom"));
  fs::create_directories(File("bloom"));
  ExpectRebuilt();
  EXPECT_TRUE(fs::is_directory(File("bloom")));
}

}  // namespace
}  // namespace zefs::test
