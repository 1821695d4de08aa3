// Directories that were not written by this library: every form that a database may have.

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/lifecycle_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using Aldenta::Qnd::Morene::Zefs::Ext;
using testing::ElementsAre;
using testing::IsEmpty;

class PlainDatabaseTest : public LifecycleTest {
 protected:
  static PlainRecord Version(std::int32_t major, std::int32_t minor) {
    return {kPlainVersionKey, SpecialBytes(major, minor)};
  }

  static std::string FoundAt(CMappingLMDB& table, long offset) {
    const auto found = table.lower_bound(offset, nullptr);
    return found == table.end() ? "end" : Shown(*found);
  }
};

// --- values
// ----------------------------------------------------------------------------------------

TEST_F(PlainDatabaseTest, AShortValueReadsAsIfZerosFollowedWhateverTheVersion) {
  EntryFields fields = FieldsOf(0, 70);
  fields.objectOffset = -2;
  fields.dcOffset = -3;
  fields.attrByte = 0xb1;
  fields.attrWord = 0xd4d3d2d1;
  fields.attrFlag = 0xf1;
  const std::vector<std::size_t> sizes = {56, 57, 60, 61, 63, 64, 65, 71, 72};
  for (const std::int32_t major : {1, 2}) {
    for (const std::string name : {"lsml0.mdb", "data.mdb"}) {
      SCOPED_TRACE(name + ", version " + std::to_string(major));
      fs::remove_all(Directory());
      Records records;
      for (const std::size_t size : sizes) {
        fields.startOffset = static_cast<std::int64_t>(size) * 10;
        records.push_back({fields.startOffset + 10, EntryBytes(fields).substr(0, size)});
      }
      Write("data.mdb", {Version(major, 0)});
      Write(name, records);

      CMappingLMDB& table = Load();
      EXPECT_EQ(major, table.getExtMapVersion().major);
      auto at = table.begin();
      for (const std::size_t size : sizes) {
        SCOPED_TRACE(size);
        ASSERT_NE(table.end(), at);
        const Ext& ext = *at;
        EXPECT_EQ(static_cast<std::int64_t>(size) * 10, ext.sOff);
        EXPECT_EQ(ext.sOff + 10, ext.eOff);
        EXPECT_EQ(70U, ext.objectID.dcid);
        EXPECT_EQ(DigestOf(70), ext.objectID.fp);
        EXPECT_EQ(-2, ext.objOff);
        EXPECT_EQ(-3, ext.dcOffset);
        EXPECT_EQ(0, ext.objCksum);
        EXPECT_EQ(nullptr, ext.data);
        EXPECT_EQ(size > 56 ? 0xb1 : 0, ext.objectID.attrByte);
        const std::uint32_t word = size <= 60   ? 0
                                   : size == 61 ? 0xd1
                                   : size == 63 ? 0xd3d2d1
                                                : 0xd4d3d2d1;
        EXPECT_EQ(word, ext.objectID.attrWord);
        EXPECT_EQ(size > 64 ? 0xf1 : 0, ext.objectID.attrFlag);
        ++at;
      }
      EXPECT_EQ(table.end(), at);
      Destroy();
      EXPECT_THAT(ReadPlainDatabase(File(name)), testing::IsSupersetOf(records))
          << "no value is rewritten";
    }
  }
}

TEST_F(PlainDatabaseTest, ShortSpecialValuesCount) {
  Write("data.mdb", {{kPlainVersionKey, SpecialBytes(std::int32_t{1}, 7).substr(0, 8)},
                     {kPlainFileSizeKey, SpecialBytes(std::int64_t{0x123456789a}).substr(0, 8)}});
  Write("lsml0.mdb", {{kPlainCommitCounterKey, SpecialBytes(std::int64_t{41}).substr(0, 8)},
                      {kPlainDoidKey, SpecialBytes(std::uint64_t{65}, DigestOf(3)).substr(0, 40)}});
  CMappingLMDB& table = Load();
  EXPECT_EQ(1, table.getExtMapVersion().major);
  EXPECT_EQ(7, table.getExtMapVersion().minor);
  EXPECT_EQ(0x123456789a, table.getFileSize());
  EXPECT_EQ(41, peer().commitCounter());
  ObjectID doid = Oid(1, 5);
  EXPECT_EQ(0, table.GetDOID(&doid));
  EXPECT_EQ(65U, doid.dcid);
  EXPECT_EQ(DigestOf(3), doid.fp);
  EXPECT_EQ(6, doid.attrByte) << "not stored, so left alone";
}

TEST_F(PlainDatabaseTest, BytesWithoutAMeaningAreIgnored) {
  std::string entry = EntryBytes(FieldsOf(0, 70));
  std::string version = SpecialBytes(std::int32_t{2}, 0);
  std::string size = SpecialBytes(std::int64_t{77});
  entry.replace(57, 3, 3, '\xee').replace(65, 7, 7, '\xee');
  version.replace(8, 64, 64, '\xee');
  size.replace(8, 64, 64, '\xee');
  Write("data.mdb", {{kPlainVersionKey, version}, {kPlainFileSizeKey, size}, {10, entry}});
  CMappingLMDB& table = Load();
  EXPECT_THAT(Walk(table), ElementsAre("[0, 10) 70 70000 700"));
  EXPECT_EQ(77, table.getFileSize());
  EXPECT_EQ(2, table.getExtMapVersion().major);
}

// --- keys
// ------------------------------------------------------------------------------------------

TEST_F(PlainDatabaseTest, KeysSortAsSignedNumbersBehindTheSpecialOnes) {
  // In the order of their bytes 256 would come before 1, and the negative ones last.
  Write("data.mdb", {Version(2, 0),
                     {kPlainFileSizeKey, SpecialBytes(std::int64_t{5})},
                     {kPlainCommitCounterKey, SpecialBytes(std::int64_t{5})},
                     {kPlainDoidKey, SpecialBytes(std::uint64_t{5}, DigestOf(5))},
                     Stored(0, 1, 70),
                     Stored(1, 256, 71),
                     Stored(256, 257, 72),
                     Stored(0x7ffffffffffffff0, LONG_MAX, 73)});
  CMappingLMDB& table = Load();
  EXPECT_THAT(Walk(table),
              ElementsAre("[0, 1) 70 70000 700", "[1, 256) 71 71000 710", "[256, 257) 72 72000 720",
                          "[9223372036854775792, 9223372036854775807) 73 73000 730"));
  EXPECT_EQ("[1, 256) 71 71000 710", FoundAt(table, 255));
  EXPECT_EQ("[256, 257) 72 72000 720", FoundAt(table, 256));
  EXPECT_EQ("end", FoundAt(table, LONG_MAX));
}

TEST_F(PlainDatabaseTest, SpecialItemsAloneAreAnEmptyTable) {
  Write("data.mdb", {Version(2, 0), {kPlainFileSizeKey, SpecialBytes(std::int64_t{5})}});
  CMappingLMDB& table = Load();
  EXPECT_THAT(Walk(table), IsEmpty());
  EXPECT_EQ("end", FoundAt(table, 0));
  EXPECT_EQ(0, table.size());
  EXPECT_EQ(5, table.getFileSize());
}

TEST_F(PlainDatabaseTest, SpecialItemsOfANewerDatabaseHideNothing) {
  Write("data.mdb", {Version(2, 0), Stored(100, 200, 70)});
  Write("lsml0.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{300})}, Stored(300, 400, 71)});
  CMappingLMDB& table = Load();
  EXPECT_THAT(Walk(table), ElementsAre("[100, 200) 70 70000 700", "[300, 400) 71 71000 710"));
  EXPECT_EQ("[100, 200) 70 70000 700", FoundAt(table, 0));
  EXPECT_EQ("[300, 400) 71 71000 710", FoundAt(table, 200));
}

// --- chains
// ----------------------------------------------------------------------------------------

TEST_F(PlainDatabaseTest, AFullDatabaseAloneIsEnough) {
  Write("data.mdb", {Version(1, 3), Stored(0, 10, 70), Stored(20, 30, 71)});
  CMappingLMDB& table = Load();
  EXPECT_THAT(Walk(table), ElementsAre("[0, 10) 70 70000 700", "[20, 30) 71 71000 710"));
  EXPECT_EQ("[20, 30) 71 71000 710", FoundAt(table, 15)) << "behind the hole";
  Destroy();
  EXPECT_EQ(Version(1, 3), ReadPlainDatabase(File("data.mdb")).front()) << "no upgrade";
}

TEST_F(PlainDatabaseTest, ASmallDatabaseAloneIsEnough) {
  Write("lsml0.mdb", {Stored(0, 10, 70)});
  EXPECT_THAT(Walk(Load()), ElementsAre("[0, 10) 70 70000 700"));
}

TEST_F(PlainDatabaseTest, AnExtentOfTheSmallDatabaseCutsThoseOfTheFullOne) {
  Write("data.mdb", {Stored(0, 100, 70), Stored(100, 200, 71)});
  Write("lsml0.mdb", {Stored(40, 60, 72), Stored(90, 110, 73)});
  EXPECT_THAT(Walk(Load()),
              ElementsAre("[0, 40) 70 70000 700", "[40, 60) 72 72000 720", "[60, 90) 70 70060 700",
                          "[90, 110) 73 73000 730", "[110, 200) 71 71010 710"));
}

TEST_F(PlainDatabaseTest, ATmpDatabaseCutsBothOthers) {
  Write("data.mdb", {Stored(0, 100, 70), Stored(100, 200, 71)});
  Write("lsml0.mdb", {Stored(40, 60, 72), Stored(90, 110, 73)});
  Write("tmp.mdb", {Stored(50, 95, 74), Stored(150, 160, 75)});
  InChild([&] {
    EXPECT_THAT(Walk(Load()), ElementsAre("[0, 40) 70 70000 700", "[40, 50) 72 72000 720",
                                          "[50, 95) 74 74000 740", "[95, 110) 73 73005 730",
                                          "[110, 150) 71 71010 710", "[150, 160) 75 75000 750",
                                          "[160, 200) 71 71060 710"));
  });
}

}  // namespace
}  // namespace zefs::test
