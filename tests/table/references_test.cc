#include "table/references.h"

#include <algorithm>
#include <climits>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "tests/table/table_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using zefs::refhost::LogRecorder;
using zefs::test::Oid;
using zefs::test::TableTest;

FingerprintText Text(unsigned int tag) {
  return TextOf(Oid(0, tag).fp);
}

class ReferencesTest : public TableTest {};

TEST_F(ReferencesTest, TwoExtentsOfOneObjectAddTheirBytesAndCountTwice) {
  Append(0, 10, Oid(64, 1));
  Append(10, 30, Oid(64, 1));
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(64, 30)));
  EXPECT_THAT(peer_.fps(), ElementsAre(Pair(Text(1), 2)));
}

TEST_F(ReferencesTest, DeletingOneOfTwoLeavesTheOther) {
  Append(0, 10, Oid(64, 1));
  Append(10, 30, Oid(64, 1));
  table_.insert(0, 10, nullptr, 0, 0, nullptr, -1, nullptr);
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(64, 20)));
  EXPECT_THAT(peer_.fps(), ElementsAre(Pair(Text(1), 1)));
}

TEST_F(ReferencesTest, AContainerIdBelowSixtyFourIsInNeitherMap) {
  Append(0, 10, Oid(63, 1));
  EXPECT_THAT(peer_.dcids(), IsEmpty());
  EXPECT_THAT(peer_.fps(), IsEmpty());
  Append(10, 20, Oid(64, 1));
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(64, 10)));
  EXPECT_THAT(peer_.fps(), ElementsAre(Pair(Text(1), 1)));
  table_.InnerDeleteReference(63, Text(1), 10);
  EXPECT_THAT(peer_.fps(), ElementsAre(Pair(Text(1), 1)));
}

TEST_F(ReferencesTest, TheContainerStaysWhileAnyBytesRemain) {
  Insert(0, 10, Oid(64, 1));
  Insert(10, 30, Oid(64, 2));
  table_.insert(0, 10, nullptr, 0, 0, nullptr, -1, nullptr);
  std::vector<FingerprintText> fps;
  table_.GetReferencedFP(&fps);
  EXPECT_THAT(fps, ElementsAre(Text(2)));
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(64, 20)));
  table_.truncate(0, nullptr);
  EXPECT_THAT(peer_.dcids(), IsEmpty());
  EXPECT_THAT(peer_.fps(), IsEmpty());
}

TEST_F(ReferencesTest, CuttingAnExtentKeepsCountingItsPieces) {
  Insert(0, 100, Oid(64, 1));
  Insert(40, 60, Oid(65, 2));
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(64, 80), Pair(65, 20)));
  EXPECT_THAT(peer_.fps(), testing::UnorderedElementsAre(Pair(Text(1), 2), Pair(Text(2), 1)));
}

TEST_F(ReferencesTest, DeletingMoreBytesThanAreCountedWrapsAroundInSilence) {
  LogRecorder log;
  table_.InnerAddReference(64, Text(1), 10);
  table_.InnerDeleteReference(64, Text(1), 11);
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(64, ULONG_MAX)));
  EXPECT_THAT(peer_.fps(), IsEmpty());
  EXPECT_TRUE(log.Take().empty());
}

TEST_F(ReferencesTest, DeletingFromAContainerThatIsNotCountedLeavesTheFingerprintAlone) {
  table_.InnerAddReference(64, Text(1), 10);
  table_.InnerDeleteReference(65, Text(1), 10);
  EXPECT_THAT(peer_.fps(), ElementsAre(Pair(Text(1), 1)));
}

TEST_F(ReferencesTest, DeletingAFingerprintThatIsNotCountedStillTakesTheBytes) {
  table_.InnerAddReference(64, Text(1), 10);
  table_.InnerDeleteReference(64, Text(2), 4);
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(64, 6)));
  EXPECT_THAT(peer_.fps(), ElementsAre(Pair(Text(1), 1)));
}

TEST_F(ReferencesTest, AFingerprintAtZeroGoesAtTheNextDelete) {
  Insert(0, 10, Oid(64, 1));
  Insert(10, 20, Oid(64, 2));
  for (auto& [fp, extents] : peer_.fps()) {
    extents = 0;
  }
  table_.InnerDeleteReference(64, Text(1), 1);
  EXPECT_THAT(peer_.fps(), ElementsAre(Pair(Text(2), 0)));
  table_.insert(10, 20, nullptr, 0, 0, nullptr, -1, nullptr);
  EXPECT_THAT(peer_.fps(), IsEmpty());
}

TEST_F(ReferencesTest, WhatWasCountedByTextIsFoundByObject) {
  table_.InnerAddReference(64, Text(1), 100);
  Insert(0, 10, Oid(64, 1));
  EXPECT_THAT(peer_.fps(), ElementsAre(Pair(Text(1), 2)));
  table_.InnerAddReference(64, Text(2), 100);
  Append(10, 20, Oid(64, 3));
  table_.SetObjectID(table_.find(10, nullptr).operator->(), Oid(64, 2));
  EXPECT_THAT(peer_.fps(), ElementsAre(Pair(Text(1), 2), Pair(Text(2), 2)));
  // By text until nothing is left, while the extents still stand.
  for (int i = 0; i < 2; ++i) {
    table_.InnerDeleteReference(64, Text(1), 1);
    table_.InnerDeleteReference(64, Text(2), 1);
  }
  EXPECT_THAT(peer_.fps(), IsEmpty());
  Insert(0, 20, Oid(65, 1));
  EXPECT_THAT(peer_.fps(), ElementsAre(Pair(Text(1), 1)));
}

TEST_F(ReferencesTest, ACountThatOnlyTheMapKnowsIsLoweredByObject) {
  Insert(0, 10, Oid(64, 1));
  table_.InnerDeleteReference(64, Text(1), 1);  // leaves the map, and the index
  table_.InnerAddReference(64, Text(1), 1);     // comes back into the map alone
  table_.truncate(0, nullptr);
  EXPECT_THAT(peer_.fps(), IsEmpty());
  EXPECT_THAT(peer_.dcids(), IsEmpty());
}

TEST_F(ReferencesTest, AnEntryWithoutBytesGoesAtTheNextDelete) {
  table_.InnerAddReference(64, Text(1), 0);
  EXPECT_THAT(peer_.dcids(), ElementsAre(Pair(64, 0)));
  table_.InnerDeleteReference(64, Text(1), 5);
  EXPECT_THAT(peer_.dcids(), IsEmpty());
  EXPECT_THAT(peer_.fps(), IsEmpty());
}

// --- the lists -------------------------------------------------------------------------------

TEST_F(ReferencesTest, ListsAreAppendedInRisingOrderAndLogTheirLength) {
  Insert(0, 10, Oid(66, 2));
  Insert(10, 20, Oid(64, 3));
  Insert(20, 30, Oid(65, 1));
  LogRecorder log;
  std::vector<std::pair<unsigned long, unsigned long>> dcids{{1, 1}};
  table_.GetNewReferencedDCID(&dcids);
  EXPECT_THAT(dcids, ElementsAre(Pair(1, 1), Pair(64, 10), Pair(65, 10), Pair(66, 10)));
  std::vector<FingerprintText> fps;
  table_.GetReferencedFP(&fps);
  EXPECT_THAT(fps, ElementsAre(Text(1), Text(2), Text(3)));
  table_.GetDCIDAndFP(&dcids, &fps);
  EXPECT_EQ(7U, dcids.size());
  EXPECT_EQ(6U, fps.size());
  std::vector<std::string> lines;
  for (const auto& record : log.Take()) {
    EXPECT_EQ(1, record.level);
    lines.push_back(record.text);
  }
  EXPECT_THAT(lines, ElementsAre("unique dcid vector size: 4", "unique fp vector size: 3",
                                 "unique dcid vector size: 7", "unique fp vector size: 6"));
}

TEST_F(ReferencesTest, EntriesAtZeroAreNotListed) {
  table_.InnerAddReference(64, Text(1), 0);
  table_.InnerAddReference(65, Text(2), 1);
  peer_.fps()[Text(3)] = 0;
  std::vector<std::pair<unsigned long, unsigned long>> dcids;
  std::vector<FingerprintText> fps;
  table_.GetDCIDAndFP(&dcids, &fps);
  EXPECT_THAT(dcids, ElementsAre(Pair(65, 1)));
  EXPECT_THAT(fps, ElementsAre(Text(1), Text(2)));
}

TEST_F(ReferencesTest, ListsTakeTheTableLockShared) {
  Insert(0, 10);
  const CMappingTable::SharedLock reader(peer_.lock());
  std::vector<std::pair<unsigned long, unsigned long>> dcids;
  std::vector<FingerprintText> fps;
  table_.GetNewReferencedDCID(&dcids);
  table_.GetReferencedFP(&fps);
  table_.GetDCIDAndFP(&dcids, &fps);
  EXPECT_EQ(2U, dcids.size());
}

// --- one change of many extents equals many changes of one -------------------------------------

/// The counting told one extent at a time, with nothing remembered.
struct PlainCounts {
  DcidReferences byDcid;
  FingerprintReferences byFp;

  void Add(unsigned long dcid, const FingerprintText& fp, unsigned long bytes) {
    if (dcid < 64) {
      return;
    }
    byDcid[dcid] += bytes;
    byFp[fp] += 1;
  }
  void Delete(unsigned long dcid, const FingerprintText& fp, unsigned long bytes) {
    if (dcid < 64 || byDcid.count(dcid) == 0) {
      return;
    }
    unsigned long& counted = byDcid[dcid];
    if (counted != 0) {
      counted -= bytes;
    }
    if (counted == 0) {
      byDcid.erase(dcid);
    }
    if (byFp.count(fp) == 0) {
      return;
    }
    if (--byFp[fp] == 0) {
      byFp.erase(fp);
    }
  }
};

TEST(ReferenceChangeTest, GivesWhatCountingOneByOneGives) {
  std::mt19937 random(20240707);
  const auto below = [&random](unsigned int n) {
    return std::uniform_int_distribution<unsigned int>(0, n - 1)(random);
  };
  for (int round = 0; round < 2000; ++round) {
    // Few containers and fingerprints, small lengths and zero among them: entries empty, come back,
    // wrap around and are deleted without ever having been counted, all the time.
    PlainCounts plain;
    DcidReferences byDcid;
    FingerprintReferences byFp;
    FingerprintIndex index;
    const unsigned int kinds = 2 + below(14);
    for (int change = 0; change < 4; ++change) {
      ReferenceChange references(&byDcid, &byFp, &index);
      if (change == 2) {  // by text: nothing is remembered, and the index has to follow
        const unsigned int tag = below(kinds);
        if (below(2) == 0) {
          references.Add(63 + tag, TextOf(Oid(0, tag).fp), 1);
          plain.Add(63 + tag, TextOf(Oid(0, tag).fp), 1);
        } else {
          references.Delete(63 + tag, TextOf(Oid(0, tag).fp), 1);
          plain.Delete(63 + tag, TextOf(Oid(0, tag).fp), 1);
        }
        continue;
      }
      for (unsigned int step = below(40); step > 0; --step) {
        const ObjectID oid = Oid(62 + below(kinds), below(kinds));
        const unsigned long bytes = below(4);
        if (below(2) == 0) {
          references.Add(oid, bytes);
          plain.Add(oid.dcid, TextOf(oid.fp), bytes);
        } else {
          references.Delete(oid, bytes);
          plain.Delete(oid.dcid, TextOf(oid.fp), bytes);
        }
      }
    }
    ASSERT_EQ(plain.byDcid, byDcid) << "round " << round;
    ASSERT_EQ(plain.byFp, byFp) << "round " << round;
  }
}

TEST(FingerprintIndexTest, FindsWhatWasInsertedAndNothingElse) {
  // Fingerprints that share their first bytes, or all of them but the last, fall on one slot.
  std::vector<crfp_digest_t> digests;
  for (unsigned int i = 0; i < 300; ++i) {
    crfp_digest_t fp = Oid(0, i % 7).fp;
    fp[31] = static_cast<unsigned char>(i);
    fp[30] = static_cast<unsigned char>(i >> 8);
    digests.push_back(fp);
  }
  std::mt19937 random(7);
  FingerprintReferences entries;
  FingerprintIndex index;
  std::vector<bool> inside(digests.size());
  for (int step = 0; step < 5000; ++step) {
    const std::size_t i = random() % digests.size();
    if (inside[i]) {
      const auto entry = entries.find(TextOf(digests[i]));
      index.Erase(digests[i], entry);
      entries.erase(entry);
    } else {
      index.Insert(digests[i], entries.emplace(TextOf(digests[i]), i).first);
    }
    inside[i] = !inside[i];
    const std::size_t asked = random() % digests.size();
    const auto* found = index.Find(digests[asked]);
    ASSERT_EQ(inside[asked], found != nullptr);
    if (found != nullptr) {
      ASSERT_EQ(asked, (*found)->second);
    }
  }
  for (std::size_t i = 0; i < digests.size(); ++i) {
    EXPECT_EQ(inside[i], index.Find(digests[i]) != nullptr);
    index.Erase(digests[i], entries.find(TextOf(digests[i])));
    EXPECT_EQ(nullptr, index.Find(digests[i]));
  }
}

TEST(FingerprintIndexTest, WhateverIsErasedTheOthersOfACrowdedIndexAreFound) {
  // Twelve in the first sixteen slots: chains of slots that end behind the last one are usual.
  constexpr std::size_t kCount = 12;
  std::mt19937 random(11);
  for (int round = 0; round < 200; ++round) {
    std::vector<crfp_digest_t> digests(kCount);
    FingerprintReferences entries;
    FingerprintIndex index;
    for (std::size_t i = 0; i < kCount; ++i) {
      std::generate(digests[i].begin(), digests[i].end(),
                    [&random] { return static_cast<unsigned char>(random()); });
      index.Insert(digests[i], entries.emplace(TextOf(digests[i]), i).first);
    }
    for (std::size_t erased = 0; erased < kCount; ++erased) {
      index.Erase(digests[erased], entries.find(TextOf(digests[erased])));
      EXPECT_EQ(nullptr, index.Find(digests[erased]));
      for (std::size_t i = erased + 1; i < kCount; ++i) {
        const auto* found = index.Find(digests[i]);
        ASSERT_NE(nullptr, found) << "round " << round;
        EXPECT_EQ(i, (*found)->second);
      }
    }
  }
}

}  // namespace
