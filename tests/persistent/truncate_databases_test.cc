// What a truncate does to one database: which records go, which one is cut, and the stored size.

#include <climits>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/merge_fixture.h"
#include "tests/persistent/unsynced.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

using Aldenta::Qnd::Morene::Zefs::SysException;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Pair;

/// [0, 100), [100, 200) and, behind a hole, [300, 400).
Records Three() {
  return {Stored(0, 100, 70), Stored(100, 200, 71), Stored(300, 400, 72)};
}

class TruncateDatabaseTest : public MergeTest {
 protected:
  /// A table whose databases hold the same.
  void LoadTwice(const Records& records) {
    LoadBoth(records, records);
    DoNotSync(peer().dbChain());
    peer().fileSize() = 555;  // as truncateCache may have left it
    peer().committedFileSize() = 666;
    log_.Take();
  }

  /// Truncates both databases, one by one, and expects the same of each.
  void ExpectLeft(long size, const Records& expected) {
    for (LMDBContext* db : {&peer().smallDb(), &peer().fullDb()}) {
      SCOPED_TRACE(db->path);
      auto special = Special(*db);
      EXPECT_EQ(0, peer().truncateDB(db, size));
      EXPECT_EQ(expected, Extents(*db));
      special[kPlainFileSizeKey] = SpecialBytes(size);
      EXPECT_EQ(special, Special(*db)) << "the size alone is new";
      EXPECT_EQ(size, peer().fileSize());
      EXPECT_EQ(size, peer().committedFileSize());
      EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::truncateDB(), dbpath=" + db->path +
                                       ", offset=" + std::to_string(size)));
    }
  }
};

TEST_F(TruncateDatabaseTest, ASizeInsideAnExtentMovesItsEndAlone) {
  LoadTwice(Three());
  ExpectLeft(150, {Stored(0, 100, 70), CutOf(100, 100, 150, 71)});
}

TEST_F(TruncateDatabaseTest, ASizeInsideTheLastExtentCutsIt) {
  LoadTwice(Three());
  ExpectLeft(399, {Stored(0, 100, 70), Stored(100, 200, 71), CutOf(300, 300, 399, 72)});
}

TEST_F(TruncateDatabaseTest, ASizeAByteBehindAStartLeavesThatByte) {
  LoadTwice(Three());
  ExpectLeft(1, {CutOf(0, 0, 1, 70)});
}

TEST_F(TruncateDatabaseTest, ASizeAtTheEndOfAnExtentLeavesItWhole) {
  LoadTwice(Three());
  ExpectLeft(200, {Stored(0, 100, 70), Stored(100, 200, 71)});
}

TEST_F(TruncateDatabaseTest, ASizeWhereOneExtentEndsAndTheNextBeginsCutsNeither) {
  LoadTwice(Three());
  ExpectLeft(100, {Stored(0, 100, 70)});
}

TEST_F(TruncateDatabaseTest, ASizeInAHoleCutsNothing) {
  LoadTwice(Three());
  ExpectLeft(250, {Stored(0, 100, 70), Stored(100, 200, 71)});
}

TEST_F(TruncateDatabaseTest, ASizeAtTheStartOfAnExtentBehindAHoleDeletesIt) {
  LoadTwice(Three());
  ExpectLeft(300, {Stored(0, 100, 70), Stored(100, 200, 71)});
}

TEST_F(TruncateDatabaseTest, ASizeOfZeroDeletesTheExtentAtZeroLikeAllOthers) {
  LoadTwice(Three());
  ExpectLeft(0, {});
}

TEST_F(TruncateDatabaseTest, ASizeAtOrBehindTheLastEndChangesNoExtent) {
  for (const long size : {400L, 401L, LONG_MAX}) {
    SCOPED_TRACE(size);
    if (table_ != nullptr) {
      Close();
    }
    LoadTwice(Three());
    ExpectLeft(size, Three());
  }
}

TEST_F(TruncateDatabaseTest, WithoutExtentsOnlyTheSizeChanges) {
  LoadTwice({});
  ExpectLeft(100, {});
  ExpectLeft(0, {});
}

TEST_F(TruncateDatabaseTest, ALargerStoredSizeShrinks) {
  LoadTwice({{kPlainFileSizeKey, SpecialBytes(std::int64_t{1000})}, Stored(0, 100, 70)});
  ExpectLeft(50, {CutOf(0, 0, 50, 70)});
}

TEST_F(TruncateDatabaseTest, AnExtentThatEndsAtTheLargestOffsetIsDeletedOrCut) {
  LoadTwice({Stored(0, 100, 70), Stored(100, LONG_MAX, 71)});
  ExpectLeft(LONG_MAX - 1, {Stored(0, 100, 70), CutOf(100, 100, LONG_MAX - 1, 71)});
  Close();
  LoadTwice({Stored(0, 100, 70), Stored(100, LONG_MAX, 71)});
  ExpectLeft(100, {Stored(0, 100, 70)});
}

TEST_F(TruncateDatabaseTest, TheCutRecordLosesItsByteAndFlagAttributesOnly) {
  EntryFields fields = FieldsOf(100, 71);
  fields.attrByte = 0xb1;
  fields.attrWord = 0xd4d3d2d1;
  fields.attrFlag = 0xf1;
  fields.objectOffset = -5;
  fields.dcOffset = -3;
  const PlainRecord whole{200, EntryBytes(fields)};
  LoadTwice({whole});
  ExpectLeft(200, {whole});
  fields.attrByte = 0;
  fields.attrFlag = 0;
  ExpectLeft(150, {{150, EntryBytes(fields)}});
}

TEST_F(TruncateDatabaseTest, AShortValueKeepsItsLengthUnlessItIsCut) {
  const PlainRecord first = Shortened(Stored(0, 100, 70), 56);
  LoadTwice({first, Shortened(Stored(100, 200, 71), 60)});
  EntryFields cut = FieldsOf(100, 71);
  ExpectLeft(150, {first, {150, EntryBytes(cut)}});
  cut = FieldsOf(0, 70);
  ExpectLeft(50, {{50, EntryBytes(cut)}});
}

TEST_F(TruncateDatabaseTest, OfManyPagesOfRecordsThoseBehindTheSizeGo) {
  constexpr std::int64_t kCount = 3000;
  Records records;
  for (std::int64_t i = 0; i < kCount; ++i) {
    records.push_back(Stored(i * 10, i * 10 + 10, 70 + static_cast<std::uint64_t>(i % 100)));
  }
  LoadTwice(records);
  for (const std::int64_t kept : {2999, 1500, 7}) {
    records.resize(static_cast<std::size_t>(kept));
    records.back() = CutOf((kept - 1) * 10, (kept - 1) * 10, kept * 10 - 5,
                           70 + static_cast<std::uint64_t>((kept - 1) % 100));
    ExpectLeft(kept * 10 - 5, records);
  }
}

TEST_F(TruncateDatabaseTest, TheSummariesAreForgotten) {
  LoadTwice(Three());
  peer().truncatePending() = true;
  peer().newDcidRefs()[70] = 5;
  table().InnerAddReference(70, FingerprintText{"70"}, 10);
  log_.Take();
  ExpectLeft(150, {Stored(0, 100, 70), CutOf(100, 100, 150, 71)});
  EXPECT_FALSE(peer().truncatePending());
  EXPECT_THAT(peer().newDcidRefs(), IsEmpty());
  std::vector<std::pair<unsigned long, unsigned long>> byDcid;
  table().CMappingTable::GetNewReferencedDCID(&byDcid);
  EXPECT_THAT(byDcid, IsEmpty());
}

TEST_F(TruncateDatabaseTest, WithoutAnEnvironmentItThrowsNoCode) {
  LoadTwice(Three());
  MDB_env* const env = std::exchange(peer().smallDb().env, nullptr);
  bool thrown = false;
  try {
    peer().truncateDB(&peer().smallDb(), 150);
  } catch (const SysException& e) {
    thrown = true;
    EXPECT_EQ(0, e.code);
  }
  peer().smallDb().env = env;
  EXPECT_TRUE(thrown);
  EXPECT_THAT(Lines(8), ElementsAre("8 Failed to open transaction for db " + Directory().string() +
                                    ", return value is 0"));
  EXPECT_EQ(555, peer().fileSize());
  EXPECT_EQ(666, peer().committedFileSize());
}

// --- both, and the next load
// ------------------------------------------------------------------------------------

TEST_F(TruncateDatabaseTest, FilesHoldWhatIsLeftAndLoadAgain) {
  LoadBoth(Three(), {Stored(40, 60, 80), Stored(140, 160, 81), Stored(180, 310, 82)});
  EXPECT_EQ(0, table().truncate(150, nullptr));
  const std::vector<std::string> left = {"[0, 40) 70 70000 700", "[40, 60) 80 80000 800",
                                         "[60, 100) 70 70060 700", "[100, 140) 71 71000 710",
                                         "[140, 150) 81 81000 810"};
  EXPECT_THAT(Walk(table()), ElementsAreArray(left));
  EXPECT_EQ(150, table().getFileSize());
  Close();

  const auto extentsOf = [this](const char* name) {
    Records records = ReadPlainDatabase(File(name));
    std::string size;
    while (!records.empty() && records.front().key < 0) {
      size = records.front().key == kPlainFileSizeKey ? records.front().value : size;
      records.erase(records.begin());
    }
    return std::pair{size, records};
  };
  EXPECT_THAT(extentsOf("lsml0.mdb"),
              Pair(SpecialBytes(std::int64_t{150}),
                   ElementsAre(Stored(40, 60, 80), CutOf(140, 140, 150, 81))));
  EXPECT_THAT(extentsOf("data.mdb"),
              Pair(SpecialBytes(std::int64_t{150}),
                   ElementsAre(Stored(0, 100, 70), CutOf(100, 100, 150, 71))));
  Load();
  EXPECT_THAT(Walk(table()), ElementsAreArray(left));
  EXPECT_EQ(150, table().getFileSize());
}

TEST_F(TruncateDatabaseTest, ATruncateThatRaisesTheSizeLastsToo) {
  LoadBoth(Three(), {});
  EXPECT_EQ(0, table().truncate(5000, nullptr));
  EXPECT_EQ(5000, table().getFileSize());
  Close();
  Load();
  EXPECT_EQ(5000, table().getFileSize());
  EXPECT_THAT(Walk(table()), ElementsAre("[0, 100) 70 70000 700", "[100, 200) 71 71000 710",
                                         "[300, 400) 72 72000 720"));
}

}  // namespace
}  // namespace zefs::test
