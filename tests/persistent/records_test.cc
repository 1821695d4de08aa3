// The bytes of records and special values, and the order of keys.

#include "persistent/records.h"

#include <climits>
#include <cstring>
#include <memory>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "refhost/host/log_recorder.h"
#include "tests/support/oid.h"
#include "tests/support/plain_lmdb.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using zefs::refhost::LogRecord;
using zefs::refhost::LogRecorder;
using zefs::test::EntryBytes;
using zefs::test::EntryFields;
using zefs::test::Oid;
using zefs::test::PlainDigest;
using zefs::test::SpecialBytes;

static_assert(std::is_trivially_copyable_v<ExtLMDBEntry>, "copied as raw bytes");
static_assert(std::is_standard_layout_v<ExtLMDBEntry>);
static_assert(!std::is_polymorphic_v<ExtLMDBEntry>);
static_assert(sizeof(ExtLMDBEntry) == 72);
static_assert(std::is_trivially_copyable_v<ExtMapVersion>);
static_assert(offsetof(ExtMapVersion, major) == 0 && offsetof(ExtMapVersion, minor) == 4);
static_assert(kCurrentVersion.major == 2 && kCurrentVersion.minor == 0);

template <typename Value>
std::string BytesOf(const Value& value) {
  return {reinterpret_cast<const char*>(&value), sizeof(value)};
}

std::string BytesOf(SpecialValue value) {
  const MDB_val val = value.Val();
  return {static_cast<const char*>(val.mv_data), val.mv_size};
}

/// `bytes` at an odd address, with nothing readable behind them under the address sanitizer.
class Misaligned {
 public:
  explicit Misaligned(const std::string& bytes) : size_(bytes.size()), room_(new char[1 + size_]) {
    std::memcpy(room_.get() + 1, bytes.data(), size_);
  }
  MDB_val Val() const { return {size_, room_.get() + 1}; }

 private:
  std::size_t size_;
  std::unique_ptr<char[]> room_;
};

ExtLMDBEntry Filled() {
  const ObjectID oid = Oid(0x1122334455667788, 0xa1b2c3d4);
  ExtLMDBEntry entry{};
  entry.FillExtLMDBEntry(0x0102030405060708, &oid, 0x21222324, -2);
  return entry;
}

EntryFields FilledFields() {
  const ObjectID oid = Oid(0x1122334455667788, 0xa1b2c3d4);
  return {0x0102030405060708, oid.dcid,     oid.fp,      0x21222324, -2,
          oid.attrByte,       oid.attrWord, oid.attrFlag};
}

// --- extents -------------------------------------------------------------------------------------

TEST(ExtentRecord, EveryFieldStandsAtItsPlaceAndTheGapsAreZero) {
  EXPECT_EQ(EntryBytes(FilledFields()), BytesOf(Filled()));
  EXPECT_EQ(std::string(72, '\0'), BytesOf(ExtLMDBEntry{}));
}

TEST(ExtentRecord, FillingWithoutAnObjectIdClearsTheContainerAlone) {
  ExtLMDBEntry entry = Filled();
  entry.FillExtLMDBEntry(LONG_MIN, nullptr, 5, INT_MIN);
  EntryFields expected = FilledFields();
  expected.startOffset = LONG_MIN;
  expected.dcid = 0;
  expected.objectOffset = 5;
  expected.dcOffset = INT_MIN;
  EXPECT_EQ(EntryBytes(expected), BytesOf(entry));
}

TEST(ExtentRecord, FillingAgainReplacesTheWholeObjectId) {
  ExtLMDBEntry entry = Filled();
  const ObjectID oid;
  entry.FillExtLMDBEntry(-1, &oid, -1, -1);
  EntryFields expected;
  expected.startOffset = -1;
  expected.objectOffset = -1;
  EXPECT_EQ(EntryBytes(expected), BytesOf(entry));
}

TEST(ExtentRecord, AnotherObjectIdTouchesItsFiveFieldsOnly) {
  ExtLMDBEntry entry;
  std::memset(static_cast<void*>(&entry), 0xee, sizeof(entry));
  const ObjectID oid = Oid(70, 0x01020304);
  entry.UpdateObjectID(oid);
  std::string expected(72, '\xee');
  EntryFields fields;
  fields.dcid = oid.dcid;
  fields.fp = oid.fp;
  fields.attrByte = oid.attrByte;
  fields.attrWord = oid.attrWord;
  fields.attrFlag = oid.attrFlag;
  const std::string image = EntryBytes(fields);
  expected.replace(8, 40, image, 8, 40);
  expected.replace(56, 1, image, 56, 1);
  expected.replace(60, 5, image, 60, 5);
  EXPECT_EQ(expected, BytesOf(entry));
}

TEST(ExtentRecord, TheObjectIdComesBackWithAllFiveFields) {
  const ObjectID oid = Filled().GetObjectID();
  const EntryFields expected = FilledFields();
  EXPECT_EQ(expected.dcid, oid.dcid);
  EXPECT_EQ(expected.fp, oid.fp);
  EXPECT_EQ(expected.attrByte, oid.attrByte);
  EXPECT_EQ(expected.attrWord, oid.attrWord);
  EXPECT_EQ(expected.attrFlag, oid.attrFlag);
}

TEST(ExtentRecord, AMovedObjectOffsetWrapsAroundInThirtyTwoBits) {
  const auto moved = [](std::int32_t offset, long delta) {
    ExtLMDBEntry entry = Filled();
    entry.objectOffset = offset;
    entry.ModifyObjectOffset(delta);
    EntryFields expected = FilledFields();
    expected.objectOffset = entry.objectOffset;
    EXPECT_EQ(EntryBytes(expected), BytesOf(entry)) << "nothing else changes";
    return entry.objectOffset;
  };
  EXPECT_EQ(12, moved(5, 7));
  EXPECT_EQ(-2, moved(5, -7));
  EXPECT_EQ(INT32_MIN, moved(INT32_MAX, 1));
  EXPECT_EQ(INT32_MAX, moved(INT32_MIN, -1));
  EXPECT_EQ(5, moved(5, 1L << 32));
  EXPECT_EQ(6, moved(5, (1L << 32) + 1));
  EXPECT_EQ(5, moved(5, LONG_MIN));
  EXPECT_EQ(4, moved(5, LONG_MAX));
}

TEST(ExtentRecord, ObjectOffsetsFromTwoGiBOnDoNotSurvive) {
  const auto survives = [](long offset) {
    ExtLMDBEntry entry{};
    entry.FillExtLMDBEntry(0, nullptr, offset, -1);
    ExtLMDB ext;
    entry.FillExtLMDB(&ext, 1, nullptr, nullptr);
    return ext.getObjOff();
  };
  EXPECT_EQ(INT32_MAX, survives(INT32_MAX));
  EXPECT_EQ(INT32_MIN, survives(INT32_MAX + 1L));
  EXPECT_EQ(-1, survives(0xffffffffL));
  EXPECT_EQ(0, survives(1L << 32));
  EXPECT_EQ(5, survives((7L << 32) + 5));
  EXPECT_EQ(-1, survives(-1)) << "signed on its way out";
  EXPECT_EQ(INT32_MIN, survives(INT32_MIN));
}

// --- extents on their way out --------------------------------------------------------------------

/// Notes the calls of its setters.
class SeenExtent : public ExtLMDB {
 public:
  void setObjectID(const ObjectID& oid) override {
    Note("setObjectID", oid.dcid);
    ExtLMDB::setObjectID(oid);
  }
  void setData(void* node) override {
    Note("setData", node != nullptr ? 1 : 0);
    ExtLMDB::setData(node);
  }
  void setObjCksum(long checksum) override {
    Note("setObjCksum", checksum);
    ExtLMDB::setObjCksum(checksum);
  }
  void setObjOff(long offset) override {
    Note("setObjOff", offset);
    ExtLMDB::setObjOff(offset);
  }
  void setSOff(long offset) override {
    Note("setSOff", offset);
    ExtLMDB::setSOff(offset);
  }
  void setEOff(long offset) override {
    Note("setEOff", offset);
    ExtLMDB::setEOff(offset);
  }
  void setDCOffset(int offset) override {
    Note("setDCOffset", offset);
    ExtLMDB::setDCOffset(offset);
  }

  std::vector<std::string> calls_;

 private:
  template <typename Number>
  void Note(const std::string& name, Number number) {
    calls_.push_back(name + ' ' + std::to_string(number));
  }
};

TEST(ExtentRecord, EveryFieldGoesOutThroughTheVirtualSettersInTheirOrder) {
  ExtLMDBEntry entry{};
  const ObjectID oid = Oid(70, 9);
  entry.FillExtLMDBEntry(10, &oid, -3, -2);
  SeenExtent ext;
  ext.objCksum = 99;
  int node = 0;
  // An address alone: the record hands it on and asks nothing of it.
  alignas(CMappingLMDB) char place[1] = {};
  auto* const owner = reinterpret_cast<CMappingLMDB*>(place);
  entry.FillExtLMDB(&ext, 20, &node, owner);
  EXPECT_THAT(ext.calls_, ElementsAre("setObjectID 70", "setObjOff -3", "setSOff 10", "setData 1",
                                      "setObjCksum 0", "setEOff 20", "setDCOffset -2"));
  EXPECT_EQ(oid.fp, ext.objectID.fp);
  EXPECT_EQ(oid.attrByte, ext.objectID.attrByte);
  EXPECT_EQ(oid.attrWord, ext.objectID.attrWord);
  EXPECT_EQ(oid.attrFlag, ext.objectID.attrFlag);
  EXPECT_EQ(-3, ext.objOff);
  EXPECT_EQ(10, ext.sOff);
  EXPECT_EQ(20, ext.eOff);
  EXPECT_EQ(&node, ext.data);
  EXPECT_EQ(0, ext.objCksum);
  EXPECT_EQ(-2, ext.dcOffset);
  EXPECT_EQ(owner, ext.owner_);
}

TEST(ExtentRecord, WhatGoesOutIsLoggedInUnsignedNumbers) {
  ExtLMDBEntry entry{};
  const ObjectID oid = Oid(UINT64_MAX);
  entry.FillExtLMDBEntry(10, &oid, 3, -1);
  ExtLMDB ext;
  LogRecorder log;
  entry.FillExtLMDB(&ext, 20, nullptr, nullptr);
  EXPECT_THAT(log.Take(),
              ElementsAre(LogRecord{zefs::kLogTrace,
                                    "CMappingLMDB::ExtLMDBEntry::FillExtLMDB(), start=10, end=20, "
                                    "dcid=18446744073709551615, offset=3, data=(nil)"}));
  entry.FillExtLMDBEntry(LONG_MIN, nullptr, -1, -1);
  entry.FillExtLMDB(&ext, LONG_MAX, reinterpret_cast<void*>(0x1000), nullptr);
  EXPECT_THAT(log.Take(),
              ElementsAre(LogRecord{
                  zefs::kLogTrace,
                  "CMappingLMDB::ExtLMDBEntry::FillExtLMDB(), start=9223372036854775808, "
                  "end=9223372036854775807, dcid=0, offset=18446744073709551615, data=0x1000"}));
}

// --- reading -------------------------------------------------------------------------------------

TEST(ExtentRecord, AShortValueReadsAsIfZerosFollowed) {
  const std::string image = EntryBytes(FilledFields());
  for (std::size_t size = 0; size <= image.size(); ++size) {
    const Misaligned stored(image.substr(0, size));
    std::string expected = image.substr(0, size);
    expected.resize(image.size(), '\0');
    EXPECT_EQ(expected, BytesOf(ReadRecord(stored.Val()))) << size << " bytes";
  }
}

TEST(ExtentRecord, ALongValueReadsUpToItsEndingField) {
  const std::string image = EntryBytes(FilledFields());
  const Misaligned stored(image + std::string(1000, 'x'));
  EXPECT_EQ(image, BytesOf(ReadRecord(stored.Val())));
}

TEST(ExtentRecord, WhatStandsInTheGapsOfAStoredRecordIsReadAndKept) {
  const std::string image(72, '\xee');
  const Misaligned stored(image);
  ExtLMDBEntry entry = ReadRecord(stored.Val());
  const MDB_val value = RecordVal(entry);
  EXPECT_EQ(&entry, value.mv_data);
  EXPECT_EQ(72U, value.mv_size);
  EXPECT_EQ(image, std::string(static_cast<const char*>(value.mv_data), value.mv_size));
}

// --- keys ----------------------------------------------------------------------------------------

TEST(RecordKeys, TheSpecialOnesAreTheFourSmallestNumbers) {
  EXPECT_EQ(0x8000000000000000U, static_cast<std::uint64_t>(SPECIAL_KEY_LMDB_VERSION));
  EXPECT_EQ(0x8000000000000001U, static_cast<std::uint64_t>(SPECIAL_KEY_FILE_SIZE));
  EXPECT_EQ(0x8000000000000002U, static_cast<std::uint64_t>(SPECIAL_KEY_COMMIT_COUNTER));
  EXPECT_EQ(0x8000000000000003U, static_cast<std::uint64_t>(SPECIAL_KEY_DOID));
}

TEST(RecordKeys, AKeyIsEightBytesLowestFirst) {
  RecordKey key(0x0102030405060708);
  const MDB_val value = key.Val();
  EXPECT_EQ(std::string("\x08\x07\x06\x05\x04\x03\x02\x01"),
            std::string(static_cast<const char*>(value.mv_data), value.mv_size));
  EXPECT_EQ(0x0102030405060708, ReadKey(value));
}

TEST(RecordKeys, TheirOrderIsThatOfSignedNumbersAtAnyAddress) {
  const std::vector<std::int64_t> ordered{SPECIAL_KEY_LMDB_VERSION,
                                          SPECIAL_KEY_FILE_SIZE,
                                          SPECIAL_KEY_COMMIT_COUNTER,
                                          SPECIAL_KEY_DOID,
                                          SPECIAL_KEY_DOID + 1,
                                          -(1L << 32),
                                          -256,
                                          -1,
                                          0,
                                          1,
                                          255,
                                          256,
                                          1L << 31,
                                          1L << 32,
                                          INT64_MAX - 1,
                                          INT64_MAX};
  for (std::size_t i = 0; i < ordered.size(); ++i) {
    const Misaligned left(BytesOf(ordered[i]));
    EXPECT_EQ(ordered[i], ReadKey(left.Val()));
    for (std::size_t j = 0; j < ordered.size(); ++j) {
      const Misaligned right(BytesOf(ordered[j]));
      const MDB_val leftVal = left.Val();
      const MDB_val rightVal = right.Val();
      EXPECT_EQ(i < j ? -1 : static_cast<int>(i > j), LMDBKeyCompare(&leftVal, &rightVal))
          << ordered[i] << " and " << ordered[j];
    }
  }
}

TEST(RecordKeys, TheSizeOfAKeyPlaysNoPartInTheOrder) {
  std::int64_t small = -1;
  std::int64_t large = 1;
  for (const std::size_t size : {0UL, 1UL, 8UL, 100UL}) {
    const MDB_val first{size, &small};
    const MDB_val second{8, &large};
    EXPECT_EQ(-1, LMDBKeyCompare(&first, &second));
    EXPECT_EQ(1, LMDBKeyCompare(&second, &first));
    EXPECT_EQ(0, LMDBKeyCompare(&first, &first));
  }
}

// --- special values ------------------------------------------------------------------------------

TEST(SpecialValues, BytesWithoutAMeaningAreZero) {
  EXPECT_EQ(std::string(72, '\0'), BytesOf(SpecialValue()));
  for (const std::int64_t number : {0L, 1L, -1L, LONG_MAX, LONG_MIN}) {
    EXPECT_EQ(SpecialBytes(number), BytesOf(SpecialValue::OfNumber(number)));
  }
  EXPECT_EQ(SpecialBytes(2, 0), BytesOf(SpecialValue::OfVersion({2, 0})));
  EXPECT_EQ(SpecialBytes(-1, INT_MAX), BytesOf(SpecialValue::OfVersion({-1, INT_MAX})));
  const ObjectID oid = Oid(70, 0xa1b2c3d4);
  EXPECT_EQ(SpecialBytes(70, oid.fp), BytesOf(SpecialValue::OfObjectID(oid)));
}

TEST(SpecialValues, AValueReadsBackWhateverStandsBehindItsFields) {
  PlainDigest digest;
  digest.fill(0xab);
  const auto read = [](std::string image, std::size_t fields) {
    image.replace(fields, std::string::npos, 72 - fields, '\xee');
    return SpecialValue(Misaligned(image).Val());
  };
  EXPECT_EQ(-4096, read(SpecialBytes(-4096), 8).Number());
  const ExtMapVersion version = read(SpecialBytes(-3, 7), 8).Version();
  EXPECT_EQ(-3, version.major);
  EXPECT_EQ(7, version.minor);
  ObjectID oid = Oid(1, 5);
  read(SpecialBytes(70, digest), 40).GetObjectID(&oid);
  EXPECT_EQ(70U, oid.dcid);
  EXPECT_EQ(digest, oid.fp);
  EXPECT_EQ(6, oid.attrByte) << "attributes are left alone";
  EXPECT_EQ(7U, oid.attrWord);
  EXPECT_EQ(8, oid.attrFlag);
}

TEST(SpecialValues, AShortValueReadsAsIfZerosFollowedAndALongOneIsCut) {
  EXPECT_EQ(0, SpecialValue(Misaligned("").Val()).Number());
  EXPECT_EQ(0x0201, SpecialValue(Misaligned("\x01\x02").Val()).Number());
  const ExtMapVersion version =
      SpecialValue(Misaligned(std::string("\x01\0\0\0", 4)).Val()).Version();
  EXPECT_EQ(1, version.major);
  EXPECT_EQ(0, version.minor);
  ObjectID oid = Oid(1, 5);
  SpecialValue(Misaligned(std::string("\x46\0\0\0\0\0\0\0\x0a", 9)).Val()).GetObjectID(&oid);
  EXPECT_EQ(70U, oid.dcid);
  PlainDigest digest{};
  digest[0] = 10;
  EXPECT_EQ(digest, oid.fp);
  const std::string image(72, 'x');
  EXPECT_EQ(image, BytesOf(SpecialValue(Misaligned(image + "behind").Val())));
}

}  // namespace
