// A database whose keys are out of order, as damage of a page leaves them: LMDB goes round in it
// for ever, if it is asked to. Every walk of the library ends, with the code of a damaged database.

#include <climits>
#include <list>
#include <lmdb.h>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/damaged_database.h"
#include "tests/persistent/lifecycle_fixture.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

using Aldenta::Qnd::Morene::Zefs::CMappingTable;
using testing::Contains;
using testing::SizeIs;

constexpr std::int64_t kRecords = 200;
constexpr long kWhole = 1L << 40;
constexpr std::uint64_t kKeysOnly = 0x20;  // a flag of a page
const std::string kCorrupted = std::to_string(MDB_CORRUPTED);

class DamagedOrderTest : public LifecycleTest {
 protected:
  /// Loads a table of ten-byte extents side by side in the database `name`, in which the first key
  /// of the last leaf has become the smallest of all.
  CMappingLMDB& LoadDisordered(const std::string& name) {
    Records records;
    for (std::int64_t i = 0; i < kRecords; ++i) {
      records.push_back(Stored(i * 10, i * 10 + 10, 70));
    }
    Write(name, records);
    DamagedDatabase database(File(name));
    const std::size_t leaf = database.LastLeaf();
    behind_ = database.FirstKey(leaf);
    database.SetFirstKey(leaf, 5);
    database.Store();
    CMappingLMDB& table = Load();
    Lines();
    return table;
  }

  /// The end of the extent before that leaf.
  long LastBefore() const { return behind_ - 10; }

  std::int64_t behind_ = 0;  ///< the key that was changed
};

TEST_F(DamagedOrderTest, ALookUpFails) {
  CMappingLMDB& table = LoadDisordered("data.mdb");
  EXPECT_EQ(LastBefore(), table.lower_bound(LastBefore() - 1, nullptr)->eOff);
  EXPECT_EQ(MDB_CORRUPTED, CodeOf([&] { table.lower_bound(LastBefore(), nullptr); }));
  EXPECT_THAT(Lines(8), Contains("8 Failed to read for a cursor, return value is " + kCorrupted));
}

TEST_F(DamagedOrderTest, AWalkEnds) {
  CMappingLMDB& table = LoadDisordered("lsml0.mdb");
  EXPECT_EQ(MDB_CORRUPTED, CodeOf([&] { Walk(table); }));
}

TEST_F(DamagedOrderTest, APlanEnds) {
  CMappingLMDB& table = LoadDisordered("data.mdb");
  std::list<CMappingTable::DCInfo> plan;
  table.GetDCInfoList({0, kWhole, 0}, &plan);
  ASSERT_EQ(1U, plan.size());
  EXPECT_THAT(plan.front().extents.size(), testing::Le(static_cast<std::size_t>(kRecords)));
}

TEST_F(DamagedOrderTest, AnEnumerationOfReferencesFails) {
  CMappingLMDB& table = LoadDisordered("lsml0.mdb");
  std::unordered_map<unsigned long, unsigned long> dcids;
  std::vector<crfp_digest_t> fps;
  EXPECT_EQ(MDB_CORRUPTED, CodeOf([&] { table.GetDCIDAndFPs(&dcids, &fps); }));
  EXPECT_THAT(fps, SizeIs(static_cast<std::size_t>(LastBefore() / 10)));
  std::vector<std::pair<unsigned long, unsigned long>> pairs;
  std::unique_ptr<BloomFilter> filter;
  EXPECT_EQ(MDB_CORRUPTED, CodeOf([&] { table.GetDCIDAndBloomFilter(&pairs, &filter); }));
}

TEST_F(DamagedOrderTest, AMergeFailsAndLosesNothing) {
  InChild([&] {
    CMappingLMDB& table = LoadDisordered("data.mdb");
    peer().StartMergeThread();
    peer().WaitingForMerge();
    EXPECT_THAT(Lines(8), Contains("8 Failed to get cursor for merge db, return value is " +
                                   kCorrupted + " and " + std::to_string(MDB_NOTFOUND)));
    EXPECT_EQ(LastBefore(), table.lower_bound(LastBefore() - 1, nullptr)->eOff);
    Destroy();
  });
}

TEST_F(DamagedOrderTest, AFlushOverItFails) {
  CMappingLMDB& table = LoadDisordered("lsml0.mdb");
  const ObjectID oid = Oid(80);
  table.insert(LastBefore(), LastBefore() + 60, &oid, 0, 0, nullptr, 1, nullptr);
  std::set<void*> released;
  EXPECT_EQ(-1, CodeOf([&] {
    table.checkAndBackfillObjectID(&released, true, "", "", nullptr, nullptr);
  }));
  EXPECT_THAT(Lines(8), Contains("8 Failed to read for a cursor, return value is " + kCorrupted));
}

TEST_F(DamagedOrderTest, ATruncateOverItFails) {
  CMappingLMDB& table = LoadDisordered("lsml0.mdb");
  EXPECT_EQ(-1, table.truncate(LastBefore(), nullptr));
  EXPECT_THAT(Lines(8), Contains("8 Failed to read for a cursor, return value is " + kCorrupted));
}

TEST_F(DamagedOrderTest, AListOfObjectIdsEndsBeforeIt) {
  CMappingLMDB& table = LoadDisordered("data.mdb");
  const CMappingTable::ObjectIDs listed = table.GetObjectIdsAndOffsets(1, LONG_MAX);
  ASSERT_THAT(listed, SizeIs(static_cast<std::size_t>(LastBefore() / 10)));
  EXPECT_EQ(LastBefore(), listed.back().endOffset);
  const std::vector<std::string> lines = Lines(8);
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_EQ("8 Failed to get the next item with the current cursor; lmdb corrupted (errno " +
                kCorrupted + ")",
            lines[0]);
}

TEST_F(DamagedOrderTest, ARewriteOfObjectIdsChangesNothing) {
  CMappingLMDB& table = LoadDisordered("data.mdb");
  CMappingTable::ObjectIDs ids = table.GetObjectIdsAndOffsets(1, LONG_MAX);
  ids.back().endOffset = kWhole;
  ids.back().objectID.dcid = 99;
  Lines();
  EXPECT_EQ(0, table.UpdateObjectIdsByRange(1, kWhole, ids));
  EXPECT_THAT(Lines(8), SizeIs(3));
  EXPECT_EQ(70U, table.lower_bound(LastBefore() - 1, nullptr)->objectID.dcid);
}

// Pages that claim to hold keys only give no values: what lay on the stack was taken for one.
TEST_F(DamagedOrderTest, ARecordWithoutAValueIsDamage) {
  LoadDisordered("data.mdb");
  Destroy();
  DamagedDatabase database(File("data.mdb"));
  database.Set(database.LastLeaf(), fuzz::kPageFlags, fuzz::kLeafPage | kKeysOnly);
  database.Store();
  CMappingLMDB& table = Load();
  std::unordered_map<unsigned long, unsigned long> dcids;
  std::vector<crfp_digest_t> fps;
  EXPECT_EQ(MDB_CORRUPTED, CodeOf([&] { table.GetDCIDAndFPs(&dcids, &fps); }));
}

class KeysOnlyTest : public DamagedOrderTest {
 protected:
  /// Writes the database `name` as one leaf that holds nothing but keys of eight bytes: `key`, over
  /// and over.
  void WriteKeysOnly(const std::string& name, std::int64_t key) {
    constexpr std::size_t kNewer = 1;  // after one commit
    Write(name, {Stored(0, 10, 70), Stored(10, 20, 70), Stored(20, 30, 70)});
    DamagedDatabase database(File(name));
    database.SetMeta(fuzz::kMetaMainDb, fuzz::kDbPad, sizeof(key));
    const std::size_t leaf =
        database.Get(kNewer, {fuzz::kMetaMainDb + fuzz::kDbRoot.at, fuzz::kDbRoot.width});
    ASSERT_EQ(fuzz::kLeafPage, database.Get(leaf, fuzz::kPageFlags));
    database.Set(leaf, fuzz::kPageFlags, fuzz::kLeafPage | kKeysOnly);
    for (std::size_t at = 0; at < 16; ++at) {
      database.Set(leaf, {fuzz::kPageHeaderBytes + at * sizeof(key), sizeof(key)},
                   static_cast<std::uint64_t>(key));
    }
    database.Store();
  }
};

TEST_F(KeysOnlyTest, ALookUpFindsNoValueAndFails) {
  WriteKeysOnly("data.mdb", 20);
  CMappingLMDB& table = Load();
  EXPECT_EQ(MDB_CORRUPTED, CodeOf([&] { table.lower_bound(15, nullptr); }));
}

TEST_F(KeysOnlyTest, ASpecialItemWithoutAValueFailsTheLoad) {
  WriteKeysOnly("lsml0.mdb", kPlainFileSizeKey);
  CMappingLMDB& table = Make();
  EXPECT_EQ(MDB_CORRUPTED, CodeOf([&] { table.load(Directory().string(), false, ""); }));
  EXPECT_THAT(Lines(8), Contains("8 Failed to get file size, ret:" + kCorrupted));
  Destroy();
}

TEST_F(DamagedOrderTest, ACountThatFellBelowZeroIsNone) {
  Write("lsml0.mdb", {Stored(0, 10, 70), Stored(10, 20, 70), Stored(20, 30, 70)});
  DamagedDatabase database(File("lsml0.mdb"));
  database.SetMeta(fuzz::kMetaMainDb, fuzz::kDbEntries, 0);
  database.Store();
  CMappingLMDB& table = Load();
  EXPECT_EQ(0, table.truncate(0, nullptr));
  EXPECT_EQ(0, table.size());
  std::vector<std::pair<unsigned long, unsigned long>> dcids;
  std::unique_ptr<BloomFilter> filter;
  table.GetDCIDAndBloomFilter(&dcids, &filter);
  EXPECT_THAT(dcids, SizeIs(0));
}

}  // namespace
}  // namespace zefs::test
