#include "refhost/store/recount.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/refhost/store/store_fixture.h"

namespace zefs::refhost {
namespace {

using test::SmallStore;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class Recount : public ::testing::Test {
 protected:
  Recount() : id(store.files.Create()) {
    store.files.Write(id, 0, std::string(1024, 'a') + std::string(100, 'b'));
  }

  std::string Compare() {
    total = {};
    return ReferenceDifference(table(), store.files.SizeOf(id), &total);
  }
  MappingTable& table() { return store.files.TableOf(id); }

  /// A fingerprint that no extent has, as text.
  static FingerprintText Unknown(char digit) {
    FingerprintText text{};
    text.fill(digit);
    text.back() = '\0';
    return text;
  }

  SmallStore store;
  FileStore::FileId id;
  ReferenceCounts total;
};

TEST_F(Recount, AgreesWithAnUntouchedTable) {
  EXPECT_EQ("", Compare());
  EXPECT_EQ(3U, total.extents);
  ASSERT_EQ(1U, total.bytesByDcid.size());
  EXPECT_EQ(1124U, total.bytesByDcid.at(64));
  EXPECT_EQ(2U, total.extentsByFingerprint.size()) << "two of the three extents are equal";
}

TEST_F(Recount, AgreesAfterCutsAndOverwrites) {
  store.files.Write(id, 500, std::string(100, 'c'));
  store.files.Truncate(id, 1030);
  EXPECT_EQ("", Compare());
  EXPECT_EQ(1030U, total.bytesByDcid.at(64));
}

TEST_F(Recount, SumsTablesUp) {
  const auto other = store.files.Create();
  store.files.Write(other, 0, std::string(512, 'a'));
  ASSERT_EQ("", Compare());
  EXPECT_EQ("", ReferenceDifference(store.files.TableOf(other), 512, &total));
  EXPECT_EQ(4U, total.extents);
  EXPECT_EQ(1636U, total.bytesByDcid.at(64));
}

TEST_F(Recount, FindsAContainerThatNoExtentRefersTo) {
  table().InnerAddReference(77, Unknown('0'), 5);
  EXPECT_EQ("the table references 5 bytes of container 77, a recount gives no more", Compare());
}

TEST_F(Recount, FindsBytesThatWereNotTakenOut) {
  table().InnerAddReference(64, Unknown('0'), 5);
  EXPECT_EQ(
      "the table references 1129 bytes of container 64, a recount gives 1124 bytes of container 64",
      Compare());
}

TEST_F(Recount, FindsAnExtentThatIsNotCounted) {
  std::vector<FingerprintText> texts;
  table().GetReferencedFP(&texts);
  table().InnerDeleteReference(64, texts.front(), 1124);
  EXPECT_EQ("the table references no more, a recount gives 1124 bytes of container 64", Compare());
}

TEST_F(Recount, FindsAFingerprintThatNoExtentHas) {
  table().InnerAddReference(64, Unknown('0'), 0);
  EXPECT_THAT(Compare(), StartsWith("the table references 0000"));
}

TEST_F(Recount, FindsAFingerprintBehindAllOthers) {
  table().InnerAddReference(64, Unknown('f'), 0);
  EXPECT_THAT(Compare(), HasSubstr("ffff, a recount gives no more fingerprints"));
}

TEST_F(Recount, FindsAnObjectThatWasExchangedBehindTheTable) {
  table().begin()->objectID.dcid = 70;
  EXPECT_THAT(Compare(), HasSubstr("a recount gives 612 bytes of container 64"));
}

TEST_F(Recount, FindsAnExtentBehindTheEndOfTheFile) {
  EXPECT_THAT(ReferenceDifference(table(), 1100, &total),
              StartsWith("extent [1024, 1124) lies wrong"));
}

TEST_F(Recount, FindsExtentsThatOverlap) {
  auto it = table().begin();
  it->setEOff(513);
  EXPECT_THAT(Compare(), StartsWith("extent [512, 1024) lies wrong: the one before ends at 513"));
}

TEST_F(Recount, ExtentWithoutAContainerIsCountedNowhere) {
  table().insert(2000, 2010, nullptr, 0, 0, nullptr, -1, nullptr);
  EXPECT_EQ("", ReferenceDifference(table(), 2010, &total));
  EXPECT_EQ(4U, total.extents);
  EXPECT_EQ(1U, total.bytesByDcid.size());
}

}  // namespace
}  // namespace zefs::refhost
