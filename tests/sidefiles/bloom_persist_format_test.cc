// The bytes of the bloom file, its checksums, and how the container list is read.

#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include "sidefiles/adler32.h"
#include "tests/sidefiles/allocation_limit.h"
#include "tests/sidefiles/bloom_persist_fixture.h"
#include "tests/sidefiles/formats_page.h"

namespace {

using namespace zefs::test;
using Aldenta::Qnd::Morene::Zefs::Adler32;
using Aldenta::Qnd::Morene::Zefs::BloomAttributes;
using Aldenta::Qnd::Morene::Zefs::DcidReference;
using Aldenta::Qnd::Morene::Zefs::DecodeBloomAttributes;
using Aldenta::Qnd::Morene::Zefs::DecodeDcidReference;
using Aldenta::Qnd::Morene::Zefs::EncodeBloomAttributes;
using Aldenta::Qnd::Morene::Zefs::EncodeDcidReference;
using Aldenta::Qnd::Morene::Zefs::kBloomAttributesBytes;
using Aldenta::Qnd::Morene::Zefs::kDcidReferenceBytes;

unsigned char* BytesIn(std::string& bytes) {
  return reinterpret_cast<unsigned char*>(bytes.data());
}

std::uint32_t AdlerOf(std::string bytes) {
  return Adler32(BytesIn(bytes), bytes.size());
}

// ---- Adler-32 -----------------------------------------------------------------------------------

TEST(Adler32Test, KnownValues) {
  EXPECT_EQ(1U, AdlerOf(""));
  EXPECT_EQ(1U, Adler32(nullptr, 0));
  EXPECT_EQ(0x00620062U, AdlerOf("a"));
  EXPECT_EQ(0x024d0127U, AdlerOf("abc"));
  EXPECT_EQ(0x11e60398U, AdlerOf("Wikipedia"));
  EXPECT_EQ(0x00010001U, AdlerOf(std::string(1, '\0')));
}

TEST(Adler32Test, TheLargestBytesDoNotOverflowAroundARun) {
  for (const std::size_t size : {5551U, 5552U, 5553U, 11103U, 11104U, 11105U, 100000U}) {
    const std::string bytes(size, '\xff');
    EXPECT_EQ(PlainAdler(bytes), AdlerOf(bytes)) << size;
  }
}

TEST(Adler32Test, LaterRunsMayBeginWithAnyRemainder) {
  std::string bytes(3 * 5552, '\xff');
  for (int first = 0; first < 256; ++first) {
    bytes[0] = static_cast<char>(first);
    EXPECT_EQ(PlainAdler(bytes), AdlerOf(bytes)) << first;
  }
}

TEST(Adler32Test, AgreesWithThePlainOneForRandomLengths) {
  constexpr unsigned int kSeed = 1;
  SCOPED_TRACE(kSeed);
  std::mt19937 random(kSeed);
  for (int i = 0; i < 300; ++i) {
    const std::size_t around = 5552 * (random() % 4);
    std::string bytes(around + random() % 60, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    ASSERT_EQ(PlainAdler(bytes), AdlerOf(bytes)) << bytes.size();
  }
}

// ---- layout -------------------------------------------------------------------------------------

TEST(BloomFormatTest, GoldenBytesOfTheAttributes) {
  BloomAttributes attributes;
  attributes.bufferSize = 0x04030201;
  attributes.bitmapSize = 0x14131211;
  attributes.expectedFingerprints = 0x2827262524232221;
  attributes.insertedFingerprints = 0xf8f7f6f5f4f3f2f1;
  attributes.hashFunctionCount = 0x34333231;
  attributes.maxFalsePositive = 0.02;
  attributes.bloomCrc = 0x44434241;
  attributes.udcidBufferSize = 0x54535251;
  attributes.udcidCrc = 0x64636261;
  std::string bytes(kBloomAttributesBytes, '\xee');
  EncodeBloomAttributes(attributes, BytesIn(bytes));
  EXPECT_EQ(
      "01020304"
      "11121314"
      "2122232425262728"
      "f1f2f3f4f5f6f7f8"
      "31323334"
      "00000000"
      "7b14ae47e17a943f"
      "41424344"
      "51525354"
      "61626364"
      "00000000",
      HexOf(bytes));
  const BloomAttributes decoded = DecodeBloomAttributes(BytesIn(bytes));
  EXPECT_EQ(attributes.bufferSize, decoded.bufferSize);
  EXPECT_EQ(attributes.bitmapSize, decoded.bitmapSize);
  EXPECT_EQ(attributes.expectedFingerprints, decoded.expectedFingerprints);
  EXPECT_EQ(attributes.insertedFingerprints, decoded.insertedFingerprints);
  EXPECT_EQ(attributes.hashFunctionCount, decoded.hashFunctionCount);
  EXPECT_EQ(attributes.maxFalsePositive, decoded.maxFalsePositive);
  EXPECT_EQ(attributes.bloomCrc, decoded.bloomCrc);
  EXPECT_EQ(attributes.udcidBufferSize, decoded.udcidBufferSize);
  EXPECT_EQ(attributes.udcidCrc, decoded.udcidCrc);
}

TEST(BloomFormatTest, PaddingOfTheAttributesIsWrittenAsZeros) {
  BloomAttributes attributes;
  std::memset(static_cast<void*>(&attributes), 0xee, sizeof(attributes));
  std::string bytes(kBloomAttributesBytes, '\xee');
  EncodeBloomAttributes(attributes, BytesIn(bytes));
  EXPECT_EQ(std::string(28, '\xee') + std::string(4, '\0') + std::string(20, '\xee') +
                std::string(4, '\0'),
            bytes);
}

TEST(BloomFormatTest, GoldenBytesOfAListEntry) {
  std::string bytes(kDcidReferenceBytes, '\xee');
  EncodeDcidReference({0x0807060504030201, 0xf8f7f6f5f4f3f2f1}, BytesIn(bytes));
  EXPECT_EQ("0102030405060708f1f2f3f4f5f6f7f8", HexOf(bytes));
  const DcidReference decoded = DecodeDcidReference(BytesIn(bytes));
  EXPECT_EQ(0x0807060504030201U, decoded.dcid);
  EXPECT_EQ(0xf8f7f6f5f4f3f2f1U, decoded.bytes);
}

class BloomFileTest : public BloomPersistFixture {};

TEST_F(BloomFileTest, WholeFileIsWhatThePlainModelSays) {
  const auto filter = SmallFilter();
  ASSERT_EQ(0, Store(path_, filter.get(), {{0x123456789abc, 0xfedcba9876543210}}));
  EXPECT_EQ(HexOf(ImageOf(*filter, {{0x123456789abc, 0xfedcba9876543210}}).Bytes()),
            HexOf(BytesOf(path_)));
}

TEST_F(BloomFileTest, ListStandsInTheOrderOfTheMap) {
  const auto filter = SmallFilter();
  DcidBytes udcids;
  for (unsigned long dcid = 64; dcid < 1064; ++dcid) {
    udcids[dcid * 7919] = dcid;
  }
  BloomPersist file(path_, false);
  ASSERT_EQ(0, file.Reset(false));
  ASSERT_EQ(0, file.StoreBloom(filter.get(), &udcids));
  EXPECT_TRUE(ImageOf(*filter, DcidList(udcids.begin(), udcids.end())).Bytes() == BytesOf(path_));
}

TEST_F(BloomFileTest, TheExampleOfTheFormatsPageIsWhatIsWritten) {
  BloomFilter filter(16, 0.02);
  crfp_digest_t fp{};
  for (std::size_t i = 0; i < fp.size(); ++i) {
    fp.at(i) = static_cast<unsigned char>(0xa0 + i);
  }
  filter.Insert(fp);
  filter.Insert(fp);
  ASSERT_EQ(0, Store(path_, &filter, {{0x46, 0x3000}}));
  EXPECT_EQ(HexOfThePage("## Bloom file"), HexOf(BytesOf(path_)));
}

// ---- BloomCRC -----------------------------------------------------------------------------------

TEST(BloomCrcTest, CoversDataSizeCountAndRateInThisOrder) {
  std::string data = "some filter data";
  const std::string covered =
      data + Little(data.size(), 4) + Little(0x0102030405060708, 8) + Little(BitsOf(0.25), 8);
  BloomPersist::BloomCRC crc(static_cast<std::uint32_t>(data.size()), BytesIn(data),
                             0x0102030405060708, 0.25);
  EXPECT_EQ(PlainAdler(covered), crc.GetCRC());
  EXPECT_EQ(PlainAdler(covered), crc.GetCRC()) << "asked once more";
}

TEST(BloomCrcTest, WithoutDataCoversTheAttributes) {
  BloomPersist::BloomCRC crc(0, nullptr, 0, 0);
  EXPECT_EQ(PlainAdler(std::string(20, '\0')), crc.GetCRC());
}

TEST(BloomCrcTest, IsOneWithoutMemoryForTheScratchBuffer) {
  std::string data(1000, 'x');
  const AllocationLimit limit(1019);
  BloomPersist::BloomCRC crc(1000, BytesIn(data), 0, 0);
  EXPECT_EQ(1U, crc.GetCRC());
}

TEST(BloomCrcTest, LargestSizeDoesNotWrapRound) {
  const AllocationLimit limit(1000);
  BloomPersist::BloomCRC crc(UINT32_MAX, nullptr, 0, 0);
  EXPECT_EQ(1U, crc.GetCRC()) << "no small scratch buffer for a large size";
}

// ---- Udcids::FromBuffer -------------------------------------------------------------------------

DcidBytes FromList(const DcidList& list, DcidBytes before = {}) {
  std::string bytes;
  for (const auto& [dcid, referenced] : list) {
    bytes += Little(dcid, 8) + Little(referenced, 8);
  }
  BloomPersist::Udcids::FromBuffer(BytesIn(bytes), list.size(), &before);
  return before;
}

TEST(UdcidsTest, ContainersBelow64AreDropped) {
  EXPECT_EQ((DcidBytes{{64, 5}, {UINT64_MAX, 6}}),
            FromList({{0, 1}, {62, 2}, {63, 3}, {64, 5}, {UINT64_MAX, 6}}));
}

TEST(UdcidsTest, TheFirstEntryOfAContainerCounts) {
  EXPECT_EQ((DcidBytes{{64, 5}, {65, 1}}), FromList({{64, 5}, {65, 1}, {64, 9}, {65, 2}}));
}

TEST(UdcidsTest, WhatTheMapHeldIsGone) {
  EXPECT_EQ((DcidBytes{{64, 5}}), FromList({{64, 5}}, {{64, 1}, {70, 2}}));
  EXPECT_EQ(DcidBytes(), FromList({}, {{64, 1}, {70, 2}}));
}

TEST(UdcidsTest, TheMapGetsRoomForAllEntriesAtOnce) {
  const DcidBytes udcids = FromList(DcidList(5000, {63, 1}));
  EXPECT_EQ(0U, udcids.size());
  EXPECT_LE(5000U, udcids.bucket_count()) << "also for those that are dropped";
}

TEST(UdcidsTest, UnalignedEntriesAreRead) {
  std::string bytes = "x" + Little(64, 8) + Little(7, 8);
  DcidBytes udcids;
  BloomPersist::Udcids::FromBuffer(BytesIn(bytes) + 1, 1, &udcids);
  EXPECT_EQ((DcidBytes{{64, 7}}), udcids);
}

}  // namespace
