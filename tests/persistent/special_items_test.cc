// File size, commit counter, object id and version of a table: what is stored, kept and said.

#include <climits>
#include <cstdint>

#include <gmock/gmock.h>

#include "table/fingerprint.h"
#include "tests/persistent/open_databases_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using zefs::test::DigestOf;
using zefs::test::kPlainCommitCounterKey;
using zefs::test::kPlainDoidKey;
using zefs::test::kPlainFileSizeKey;
using zefs::test::kPlainVersionKey;
using zefs::test::Oid;
using zefs::test::PlainDigest;
using zefs::test::PlainRecord;
using zefs::test::Records;
using zefs::test::SpecialBytes;
using zefs::test::Stored;

constexpr const char* kSmall = CMappingLMDB::LSML0DB;
constexpr const char* kFull = CMappingLMDB::FULLDB;
constexpr const char* kTmp = CMappingLMDB::TMPDB;

const PlainRecord kEmptyDoid{kPlainDoidKey, SpecialBytes(0, PlainDigest{})};

PlainRecord DoidOf(const ObjectID& oid) {
  return {kPlainDoidKey, SpecialBytes(oid.dcid, oid.fp)};
}

PlainRecord SizeOf(std::int64_t size) {
  return {kPlainFileSizeKey, SpecialBytes(size)};
}

PlainRecord VersionOf(std::int32_t major, std::int32_t minor) {
  return {kPlainVersionKey, SpecialBytes(major, minor)};
}

std::string Text(const ObjectID& oid) {
  return TextOf(oid.fp).data();
}

class SpecialItemsTest : public zefs::test::OpenDatabasesTest {
 protected:
  std::string Sizes() {
    return std::to_string(peer().fileSize()) + ' ' + std::to_string(peer().committedFileSize());
  }
  std::string Version() {
    const ExtMapVersion version = table().getExtMapVersion();
    return std::to_string(version.major) + '.' + std::to_string(version.minor);
  }
  void SetSizes(std::int64_t size, std::int64_t committed) {
    peer().fileSize() = size;
    peer().committedFileSize() = committed;
  }
  static void ExpectAttributesOf(const ObjectID& expected, const ObjectID& oid) {
    EXPECT_EQ(expected.attrByte, oid.attrByte);
    EXPECT_EQ(expected.attrWord, oid.attrWord);
    EXPECT_EQ(expected.attrFlag, oid.attrFlag);
  }
};

// --- at load -------------------------------------------------------------------------------------

TEST_F(SpecialItemsTest, ANewTableKnowsNothingYet) {
  const CMappingLMDB& made = Make();
  EXPECT_EQ("-1 -1", Sizes());
  EXPECT_EQ(2, made.getExtMapVersion().major);
  EXPECT_EQ(0, made.getExtMapVersion().minor);
  EXPECT_EQ(0, peer().commitCounter());
  EXPECT_TRUE(peer().dataChanged());
  EXPECT_EQ(0U, peer().doid().dcid);
}

TEST_F(SpecialItemsTest, AFreshTableGetsAVersionACounterAndAnEmptyId) {
  Open();
  EXPECT_EQ(0, peer().GetFileSize(&peer().smallDb()));
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_EQ(0, peer().CheckAndLoadSpecialItems(&peer().fullDb(), 4096));
  EXPECT_THAT(Lines(), ElementsAre("0 Not found file size, set to 0",
                                   "0 Not found lmdb version, set to default: 1.0"));
  EXPECT_EQ("4096 4096", Sizes());
  EXPECT_EQ("2.0", Version());
  EXPECT_EQ(0, peer().GetCommitCounter(&peer().smallDb()));
  EXPECT_THAT(Lines(), ElementsAre("0 update table commit counter 0, ret:0"));
  ObjectID oid = Oid(70, 5);
  EXPECT_EQ(0, peer().GetDOIDUnlocked(&peer().smallDb(), &oid));
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_EQ(0U, oid.dcid);
  EXPECT_EQ(PlainDigest{}, oid.fp);
  ExpectAttributesOf(Oid(70, 5), oid);
  EXPECT_EQ(-1, table().GetDOID(&oid));
  EXPECT_EQ((Records{{kPlainCommitCounterKey, SpecialBytes(0)}, kEmptyDoid}),
            RecordsAtTheEnd(kSmall));
  EXPECT_EQ((Records{VersionOf(2, 0)}), RecordsAtTheEnd(kFull)) << "the file size is not stored";
}

TEST_F(SpecialItemsTest, ALoadMakesTheSameOfANewDirectory) {
  Load();
  EXPECT_EQ("0 0", Sizes());
  EXPECT_EQ(0, table().getFileSize());
  EXPECT_EQ("2.0", Version());
  ObjectID oid = Oid(70, 5);
  EXPECT_EQ(-1, table().GetDOID(&oid));
  EXPECT_EQ(70U, oid.dcid) << "left alone";
  EXPECT_EQ((Records{{kPlainCommitCounterKey, SpecialBytes(0)}, kEmptyDoid}),
            RecordsAtTheEnd(kSmall));
  EXPECT_EQ((Records{VersionOf(2, 0)}), RecordsAtTheEnd(kFull));
}

TEST_F(SpecialItemsTest, WhatIsStoredIsReadAndLeftAsItIs) {
  const ObjectID doid = Oid(70, 0xab);
  const Records small{SizeOf(300), {kPlainCommitCounterKey, SpecialBytes(7)}, DoidOf(doid)};
  const Records full{VersionOf(1, 5), SizeOf(200), Stored(0, 10, 70)};
  Write(kSmall, small);
  Write(kFull, full);
  Open();
  EXPECT_EQ(300, peer().GetFileSize(&peer().smallDb()));
  EXPECT_THAT(Lines(), ElementsAre("0 Get file size 300, db=" + Path(kSmall)));
  EXPECT_EQ(7, peer().GetCommitCounter(&peer().smallDb()));
  EXPECT_THAT(Lines(), ElementsAre("0 Get table commit counter 7, db=" + Path(kSmall)));
  ObjectID oid = Oid(1, 5);
  EXPECT_EQ(0, peer().GetDOIDUnlocked(&peer().smallDb(), &oid));
  EXPECT_EQ(70U, oid.dcid);
  EXPECT_EQ(doid.fp, oid.fp);
  ExpectAttributesOf(Oid(1, 5), oid);
  EXPECT_THAT(Lines(), ElementsAre("0 Get do fp " + Text(doid) + ", dcid 70, db=" + Path(kSmall),
                                   "0 GetDOIDUnlocked, dcid:70, fp:" + Text(doid)));
  EXPECT_EQ(0, peer().CheckAndLoadSpecialItems(&peer().fullDb(), 100));
  EXPECT_THAT(Lines(), ElementsAre("0 Get file size 200", "0 Get lmdb version: 1.5"));
  EXPECT_EQ("1.5", Version());
  EXPECT_EQ("200 200", Sizes());
  EXPECT_EQ(small, RecordsAtTheEnd(kSmall));
  EXPECT_EQ(full, RecordsAtTheEnd(kFull));
}

TEST_F(SpecialItemsTest, AStoredIdIsPrintedAsASignedNumber) {
  const ObjectID doid = Oid(UINT64_MAX, 1);
  Write(kSmall, {DoidOf(doid)});
  Open();
  ObjectID oid;
  EXPECT_EQ(0, peer().GetDOIDUnlocked(&peer().smallDb(), &oid));
  EXPECT_EQ(UINT64_MAX, oid.dcid);
  EXPECT_THAT(Lines(), ElementsAre("0 Get do fp " + Text(doid) + ", dcid -1, db=" + Path(kSmall),
                                   "0 GetDOIDUnlocked, dcid:-1, fp:" + Text(doid)));
}

TEST_F(SpecialItemsTest, TheLargerOfStoredAndGivenSizeIsTakenAndNothingIsStored) {
  const Records full{VersionOf(2, 0), SizeOf(200)};
  Write(kFull, full);
  Open();
  for (const long given : {0L, 199L, 200L, 201L, LONG_MAX}) {
    const std::string larger = std::to_string(std::max(given, 200L));
    EXPECT_EQ(0, peer().CheckAndLoadSpecialItems(&peer().fullDb(), given));
    std::string expected = larger;
    expected += ' ' + larger;
    EXPECT_EQ(expected, Sizes());
    EXPECT_THAT(Lines(), ElementsAre("0 Get file size " + larger, "0 Get lmdb version: 2.0"));
  }
  EXPECT_EQ(full, RecordsAtTheEnd(kFull));
}

TEST_F(SpecialItemsTest, NumbersOfBothEndsOfTheRangeAreRead) {
  for (const std::int64_t number : {INT64_MIN, std::int64_t{-1}, INT64_MAX}) {
    Write(kSmall, {SizeOf(number), {kPlainCommitCounterKey, SpecialBytes(number)}});
    Write(kFull, {VersionOf(INT32_MIN, INT32_MAX), SizeOf(number)});
    Open();
    EXPECT_EQ(number, peer().GetFileSize(&peer().smallDb()));
    EXPECT_EQ(number, peer().GetCommitCounter(&peer().smallDb()));
    EXPECT_EQ(0, peer().CheckAndLoadSpecialItems(&peer().fullDb(), LONG_MIN));
    EXPECT_EQ(number, peer().fileSize());
    EXPECT_EQ("-2147483648.2147483647", Version());
    Destroy();
  }
}

TEST_F(SpecialItemsTest, ShortValuesAndBytesWithoutAMeaningAreReadToo) {
  const auto filledUp = [](std::string image, std::size_t fields) {
    return image.replace(fields, std::string::npos, 72 - fields, '\xee');
  };
  const Records small{{kPlainFileSizeKey, filledUp(SpecialBytes(300), 8)},
                      {kPlainCommitCounterKey, std::string("\x07", 1)},
                      {kPlainDoidKey, filledUp(SpecialBytes(70, DigestOf(3)), 40)}};
  const Records full{{kPlainVersionKey, std::string("\x01\0\0\0", 4)}, {kPlainFileSizeKey, ""}};
  Write(kSmall, small);
  Write(kFull, full);
  Load();
  EXPECT_EQ("300 300", Sizes());
  EXPECT_EQ("1.0", Version());
  EXPECT_EQ(7, peer().commitCounter());
  ObjectID oid;
  EXPECT_EQ(0, table().GetDOID(&oid));
  EXPECT_EQ(DigestOf(3), oid.fp);
  EXPECT_EQ(small, RecordsAtTheEnd(kSmall));
  EXPECT_EQ(full, RecordsAtTheEnd(kFull));
}

/// Where a file size is stored: in the small, the tmp and the full database, or not (-1).
struct StoredSizes {
  long small, tmp, full;
};

class FileSizeAtLoadTest : public SpecialItemsTest,
                           public testing::WithParamInterface<StoredSizes> {};

TEST_P(FileSizeAtLoadTest, IsTheLargestOfThoseStored) {
  const StoredSizes& stored = GetParam();
  const auto write = [this](const char* name, long size) {
    Write(name, size < 0 ? Records{} : Records{SizeOf(size)});
  };
  write(kSmall, stored.small);
  write(kTmp, stored.tmp);
  write(kFull, stored.full);
  Load();
  ASSERT_TRUE(peer().tmpDb().opened);
  const long largest = std::max({0L, stored.small, stored.tmp, stored.full});
  EXPECT_EQ(largest, table().getFileSize());
  EXPECT_EQ(largest, peer().fileSize());
  EXPECT_EQ(largest, peer().committedFileSize());
  EXPECT_EQ(stored.full < 0 ? 1U : 2U, RecordsAtTheEnd(kFull).size())
      << "a version and no other size";
}

INSTANTIATE_TEST_SUITE_P(AnyOfThem, FileSizeAtLoadTest,
                         testing::Values(StoredSizes{-1, -1, -1}, StoredSizes{30, -1, -1},
                                         StoredSizes{-1, 30, -1}, StoredSizes{-1, -1, 30},
                                         StoredSizes{30, 20, 10}, StoredSizes{10, 30, 20},
                                         StoredSizes{20, 10, 30}, StoredSizes{30, 30, 30}),
                         [](const auto& test) {
                           const auto digits = [](long size) {
                             return size < 0 ? std::string("None") : std::to_string(size);
                           };
                           return "Small" + digits(test.param.small) + "Tmp" +
                                  digits(test.param.tmp) + "Full" + digits(test.param.full);
                         });

TEST_F(SpecialItemsTest, AFileSizeInASmallDatabaseAloneCountsAtLoadWithoutATmpDatabase) {
  Write(kSmall, {SizeOf(4096)});
  Load();
  EXPECT_EQ(4096, table().getFileSize());
  EXPECT_EQ("4096 4096", Sizes());
}

TEST_F(SpecialItemsTest, TheVersionIsThatOfTheFullDatabase) {
  Write(kSmall, {VersionOf(1, 3)});
  Write(kFull, {VersionOf(1, 9)});
  Load();
  EXPECT_EQ("1.9", Version());
}

// --- setFileSize ---------------------------------------------------------------------------------

TEST_F(SpecialItemsTest, ALargerFileSizeIsStoredInTheFullDatabase) {
  Open();
  SetSizes(150, 100);
  EXPECT_EQ(0, table().setFileSize(101));
  EXPECT_EQ("101 101", Sizes()) << "below what the cache knew, and kept so";
  EXPECT_EQ(101, table().getFileSize());
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::setFileSize(), fileSize=101"));
  EXPECT_EQ(0, table().setFileSize(LONG_MAX));
  EXPECT_EQ(LONG_MAX, table().getFileSize());
  EXPECT_EQ((Records{SizeOf(LONG_MAX)}), RecordsAtTheEnd(kFull));
  EXPECT_EQ(Records{}, RecordsAtTheEnd(kSmall));
}

TEST_F(SpecialItemsTest, AFileSizeThatIsNotLargerWritesNothing) {
  Open();
  SetSizes(150, 100);
  for (const long size : {100L, 99L, 0L, -1L, LONG_MIN}) {
    EXPECT_EQ(0, table().setFileSize(size));
    EXPECT_EQ("150 100", Sizes());
    EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::setFileSize(), fileSize=150 not updated to " +
                                     std::to_string(size)));
  }
  EXPECT_EQ(Records{}, RecordsAtTheEnd(kFull));
  EXPECT_EQ(Records{}, RecordsAtTheEnd(kSmall));
}

TEST_F(SpecialItemsTest, TheFirstFileSizeOfATableWithoutOneIsStoredEvenIfZero) {
  Open();
  EXPECT_EQ(0, table().setFileSize(0));
  EXPECT_EQ("0 0", Sizes());
  EXPECT_EQ((Records{SizeOf(0)}), RecordsAtTheEnd(kFull));
}

TEST_F(SpecialItemsTest, AFileSizeClearsTheIdOfAnUnchangedTableEvenIfItStays) {
  for (const long size : {100L, 99L, 101L}) {
    Open();
    SetSizes(100, 100);
    ObjectID doid = Oid(70, 5);
    ASSERT_EQ(0, table().SetDOID(&doid));
    ExpectAttributesOf(ObjectID{}, peer().doid());
    peer().dataChanged() = false;
    log_.Take();
    EXPECT_EQ(0, table().setFileSize(size));
    EXPECT_TRUE(peer().dataChanged());
    EXPECT_EQ(-1, table().GetDOID(&doid));
    EXPECT_EQ(0U, peer().doid().dcid);
    EXPECT_EQ(PlainDigest{}, peer().doid().fp);
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ("0 update do id fp " + std::string(64, '0') + ", dcid 0, ret:0", lines[0]);
    EXPECT_EQ((Records{kEmptyDoid}), RecordsAtTheEnd(kSmall));
    EXPECT_EQ(size > 100 ? Records{SizeOf(size)} : Records{}, RecordsAtTheEnd(kFull));
    boost::filesystem::remove_all(Directory());
  }
}

TEST_F(SpecialItemsTest, AFileSizeLeavesTheIdOfAChangedTable) {
  Open();
  ObjectID doid = Oid(70, 5);
  ASSERT_EQ(0, table().SetDOID(&doid));
  EXPECT_EQ(0, table().setFileSize(10));
  EXPECT_EQ(0, table().GetDOID(&doid));
  EXPECT_EQ((Records{DoidOf(doid)}), RecordsAtTheEnd(kSmall));
}

TEST_F(SpecialItemsTest, TheFileSizeIsTheLargerOfWhatIsStoredAndWhatIsKnown) {
  Make();
  EXPECT_EQ(-1, table().getFileSize());
  SetSizes(10, 20);
  EXPECT_EQ(20, table().getFileSize());
  SetSizes(30, 20);
  EXPECT_EQ(30, table().getFileSize());
}

// --- setExtMapVersion ----------------------------------------------------------------------------

TEST_F(SpecialItemsTest, AVersionIsStoredInTheFullDatabaseAndReplacesTheOldOne) {
  Open();
  for (const ExtMapVersion version :
       {ExtMapVersion{1, 9}, ExtMapVersion{INT_MIN, INT_MAX}, ExtMapVersion{3, -1}}) {
    const std::string text = std::to_string(version.major) + '.' + std::to_string(version.minor);
    EXPECT_EQ(0, table().setExtMapVersion(version));
    EXPECT_EQ(text, Version());
    EXPECT_THAT(Lines(), ElementsAre("0 Set lmdb version: " + text));
  }
  EXPECT_EQ((Records{VersionOf(3, -1)}), RecordsAtTheEnd(kFull));
  EXPECT_EQ(Records{}, RecordsAtTheEnd(kSmall));
}

// --- the table's object id -----------------------------------------------------------------------

TEST_F(SpecialItemsTest, AnIdOfAContainerAbove64IsStoredAndGivenBack) {
  Open();
  peer().doid().attrWord = 4711;
  for (const std::uint64_t dcid : {std::uint64_t{65}, UINT64_MAX, std::uint64_t{70}}) {
    ObjectID doid = Oid(dcid, 0xab);
    const std::string printed = std::to_string(static_cast<long>(dcid));
    EXPECT_EQ(0, table().SetDOID(&doid));
    EXPECT_THAT(Lines(),
                ElementsAre("0 update do id fp " + Text(doid) + ", dcid " + printed + ", ret:0"));
    EXPECT_EQ(dcid, peer().doid().dcid);
    EXPECT_EQ(4711U, peer().doid().attrWord) << "attributes are not taken over";
    EXPECT_EQ(0, peer().doid().attrByte);
    ObjectID oid = Oid(1, 5);
    EXPECT_EQ(0, table().GetDOID(&oid));
    EXPECT_THAT(Lines(), ElementsAre("0 GetDOID, dcid:" + printed + ", fp:" + Text(doid)));
    EXPECT_EQ(dcid, oid.dcid);
    EXPECT_EQ(doid.fp, oid.fp);
    ExpectAttributesOf(Oid(1, 5), oid);
  }
  EXPECT_EQ((Records{DoidOf(Oid(70, 0xab))}), RecordsAtTheEnd(kSmall));
  EXPECT_EQ(Records{}, RecordsAtTheEnd(kFull));
}

TEST_F(SpecialItemsTest, AnIdWithoutAContainerOrAFingerprintClearsIt) {
  ObjectID without = Oid(65);
  without.fp = PlainDigest{};
  for (ObjectID cleared : {Oid(64, 5), Oid(1, 5), Oid(0, 5), without}) {
    Open();
    ObjectID doid = Oid(70, 5);
    ASSERT_EQ(0, table().SetDOID(&doid));
    log_.Take();
    EXPECT_EQ(0, table().SetDOID(&cleared));
    EXPECT_THAT(Lines(),
                ElementsAre("0 update do id fp " + std::string(64, '0') + ", dcid 0, ret:0"));
    EXPECT_EQ(0U, peer().doid().dcid);
    EXPECT_EQ(PlainDigest{}, peer().doid().fp);
    ObjectID oid = Oid(1, 5);
    EXPECT_EQ(-1, table().GetDOID(&oid));
    EXPECT_THAT(Lines(), IsEmpty());
    EXPECT_EQ(1U, oid.dcid);
    EXPECT_EQ(Oid(1, 5).fp, oid.fp);
    EXPECT_EQ((Records{kEmptyDoid}), RecordsAtTheEnd(kSmall));
  }
}

TEST_F(SpecialItemsTest, AnIdIsGivenOutFromContainer65On) {
  Make();
  ObjectID oid;
  peer().doid() = Oid(64, 5);
  EXPECT_EQ(-1, table().GetDOID(&oid));
  peer().doid() = Oid(65, 5);
  EXPECT_EQ(0, table().GetDOID(&oid));
  EXPECT_EQ(65U, oid.dcid);
  peer().doid().fp = PlainDigest{};
  EXPECT_EQ(0, table().GetDOID(&oid)) << "the fingerprint is not asked";
}

TEST_F(SpecialItemsTest, AStoredIdOfContainer64IsLoadedAndNotGivenOut) {
  const Records small{{kPlainCommitCounterKey, SpecialBytes(0)}, DoidOf(Oid(64, 5))};
  Write(kSmall, small);
  Load();
  EXPECT_EQ(64U, peer().doid().dcid);
  ObjectID oid;
  EXPECT_EQ(-1, table().GetDOID(&oid));
  EXPECT_EQ(small, RecordsAtTheEnd(kSmall));
}

TEST_F(SpecialItemsTest, SettingAnIdDoesNotChangeTheDataNorNeedAChange) {
  Open();
  ObjectID doid = Oid(70, 5);
  for (const bool changed : {false, true}) {
    peer().dataChanged() = changed;
    EXPECT_EQ(0, table().SetDOID(&doid));
    EXPECT_EQ(changed, peer().dataChanged());
  }
}

// --- ResetDOID -----------------------------------------------------------------------------------

TEST_F(SpecialItemsTest, AResetOfAChangedTableDoesNothing) {
  Open();
  ObjectID doid = Oid(70, 5);
  ASSERT_EQ(0, table().SetDOID(&doid));
  log_.Take();
  EXPECT_EQ(0, peer().ResetDOID(true));
  EXPECT_EQ(0, peer().ResetDOID(false));
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_EQ(0, table().GetDOID(&doid));
  EXPECT_EQ((Records{DoidOf(doid)}), RecordsAtTheEnd(kSmall));
}

TEST_F(SpecialItemsTest, AResetEmptiesTheIdAndStoresThatOnlyIfAsked) {
  for (const bool persist : {false, true}) {
    Open();
    ObjectID doid = Oid(70, 5);
    ASSERT_EQ(0, table().SetDOID(&doid));
    peer().doid().attrFlag = 9;
    peer().dataChanged() = false;
    log_.Take();
    EXPECT_EQ(0, peer().ResetDOID(persist));
    EXPECT_TRUE(peer().dataChanged());
    EXPECT_EQ(0U, peer().doid().dcid);
    EXPECT_EQ(PlainDigest{}, peer().doid().fp);
    EXPECT_EQ(9, peer().doid().attrFlag);
    if (persist) {
      EXPECT_THAT(Lines(),
                  ElementsAre("0 update do id fp " + std::string(64, '0') + ", dcid 0, ret:0"));
    } else {
      EXPECT_THAT(Lines(), IsEmpty());
    }
    EXPECT_EQ((Records{persist ? kEmptyDoid : DoidOf(doid)}), RecordsAtTheEnd(kSmall));
  }
}

}  // namespace
