// Storing and loading bloom files.

#include <cerrno>

#include <sys/stat.h>

#include "tests/sidefiles/bloom_persist_fixture.h"
#include "tests/sidefiles/nommap_recorder.h"
#include "tests/support/fault_injection.h"

namespace {

namespace fs = boost::filesystem;
using namespace zefs::test;
using Sizes = std::vector<std::size_t>;

constexpr unsigned int kChunk = 0x100000;

class BloomPersistTest : public BloomPersistFixture {};

// ---- Reset, CheckAndClose -----------------------------------------------------------------------

TEST_F(BloomPersistTest, NewObjectHasNoDescriptorNoBufferAndNoFile) {
  const BloomPersist file(path_, false);
  EXPECT_EQ(-1, BloomPersistTestPeer::Descriptor(file));
  EXPECT_FALSE(BloomPersistTestPeer::HasBuffer(file));
  EXPECT_FALSE(Exists(path_));
  EXPECT_EQ(Log(), log_.Take());
}

TEST_F(BloomPersistTest, WriterCreatesAFileOfItsOwnerOnly) {
  BloomPersist file(path_, false);
  EXPECT_EQ(0, file.Reset(false));
  EXPECT_NE(-1, BloomPersistTestPeer::Descriptor(file));
  EXPECT_TRUE(BloomPersistTestPeer::HasBuffer(file));
  EXPECT_EQ("", BytesOf(path_));
  EXPECT_EQ(fs::owner_read | fs::owner_write, fs::status(path_).permissions());
  EXPECT_EQ(Log(), log_.Take());
}

TEST_F(BloomPersistTest, ReaderCreatesNothing) {
  BloomPersist file(path_, true);
  EXPECT_EQ(-1, file.Reset(false));
  EXPECT_EQ((Log{{8, "failed to open file " + path_ + ", errno is 2"}}), log_.Take());
  EXPECT_EQ(-1, BloomPersistTestPeer::Descriptor(file));
  EXPECT_FALSE(Exists(path_));
}

TEST_F(BloomPersistTest, ReaderCannotWriteAndWriterCannotRead) {
  WriteBytes(path_, "1234");
  unsigned char byte = 'x';
  BloomPersist reader(path_, true);
  ASSERT_EQ(0, reader.Reset(false));
  EXPECT_THROW(reader.Write(&byte, 1), SysException);
  BloomPersist writer(path_, false);
  ASSERT_EQ(0, writer.Reset(false));
  EXPECT_THROW(writer.Read(&byte, 1), SysException);
  EXPECT_EQ("1234", BytesOf(path_));
}

TEST_F(BloomPersistTest, ResetOnceMoreReadsFromTheStart) {
  WriteBytes(path_, "ab");
  WatchCalls watch(dir_.path().string());
  BloomPersist file(path_, true);
  std::string read(2, '\0');
  for (char& c : read) {
    ASSERT_EQ(0, file.Reset(false));
    file.Read(reinterpret_cast<unsigned char*>(&c), 1);
  }
  EXPECT_EQ("aa", read);
  EXPECT_EQ(2, Faults::Count(Call::kOpen));
  EXPECT_EQ(1, Faults::Count(Call::kClose)) << "the first descriptor";
}

TEST_F(BloomPersistTest, CloseHappensOnceAndKeepsTheFile) {
  WatchCalls watch(dir_.path().string());
  {
    BloomPersist file(path_, false);
    file.CheckAndClose();
    ASSERT_EQ(0, file.Reset(false));
    file.CheckAndClose();
    EXPECT_EQ(-1, BloomPersistTestPeer::Descriptor(file));
    file.CheckAndClose();
  }
  EXPECT_EQ(1, Faults::Count(Call::kClose));
  EXPECT_TRUE(Exists(path_));
  EXPECT_EQ(Log(), log_.Take());
}

TEST_F(BloomPersistTest, DestructionClosesTheFile) {
  WatchCalls watch(dir_.path().string());
  {
    BloomPersist file(path_, false);
    ASSERT_EQ(0, file.Reset(false));
  }
  EXPECT_EQ(1, Faults::Count(Call::kClose));
}

TEST_F(BloomPersistTest, NommapIsAskedForEachDescriptorIfWanted) {
  TakeNommapCalls();
  BloomPersist file(path_, false);
  ASSERT_EQ(0, file.Reset(false));
  EXPECT_TRUE(TakeNommapCalls().empty());
  ASSERT_EQ(0, file.Reset(true)) << "the result is not used";
  EXPECT_EQ(
      (std::vector<std::pair<std::string, int>>{{path_, BloomPersistTestPeer::Descriptor(file)}}),
      TakeNommapCalls());
  BloomPersist missing((dir_ / "missing").string(), true);
  ASSERT_EQ(-1, missing.Reset(true));
  EXPECT_TRUE(TakeNommapCalls().empty());
}

// ---- StoreBloom, ReadBloom ----------------------------------------------------------------------

TEST_F(BloomPersistTest, WhatIsStoredIsLoaded) {
  const auto filter = FilterOf(3000, 3000);
  const DcidBytes udcids{{64, 100}, {65, 0}, {1UL << 40U, UINT64_MAX}};
  ASSERT_EQ(0, Store(path_, filter.get(), udcids));
  const Loaded loaded = Load(path_);
  EXPECT_EQ(0, loaded.outcome);
  EXPECT_EQ(udcids, loaded.udcids);
  EXPECT_EQ(DataOf(*filter), DataOf(*loaded.filter));
  EXPECT_EQ(3000U, loaded.filter->GetInsertedFingerPrints());
  EXPECT_EQ(0.02, loaded.filter->GetMaxFalsePositive());
  for (unsigned int i = 0; i < 10000; ++i) {
    ASSERT_EQ(filter->Contains(NthFp(i)), loaded.filter->Contains(NthFp(i))) << i;
  }
}

TEST_F(BloomPersistTest, LoadedFilterIsBuiltFromTheBufferSize) {
  const auto filter = FilterOf(3000, 1);
  ASSERT_NE(3000U, filter->GetBufferSize());
  ASSERT_EQ(0, Store(path_, filter.get(), {}));
  EXPECT_EQ(filter->GetBufferSize(), Load(path_).filter->GetExpectedFingerprints());
}

TEST_F(BloomPersistTest, FilterOfTheCallerIsNotChangedByStoring) {
  const auto filter = SmallFilter();
  const std::string before = DataOf(*filter);
  ASSERT_EQ(0, Store(path_, filter.get(), {{64, 1}}));
  EXPECT_EQ(before, DataOf(*filter));
  EXPECT_EQ(5U, filter->GetInsertedFingerPrints());
}

TEST_F(BloomPersistTest, StoringAndLoadingLogTheSizes) {
  ASSERT_EQ(0, Store(path_, SmallFilter().get(), {{64, 1}, {65, 2}, {66, 3}}));
  EXPECT_EQ((Log{{0, "StoreBloom, path:" + path_ + ", buffSize:64, udcidBufSize:48"}}),
            log_.Take());
  EXPECT_EQ(0, Load(path_).outcome);
  EXPECT_EQ((Log{{0, "read bloom finish, bufSize:64"},
                 {0, "ReadBloom, path:" + path_ + ", buffSize:64, udcidBufSize:48"}}),
            log_.Take());
}

TEST_F(BloomPersistTest, AnEmptyMapHasNoBytesAndTheChecksumOne) {
  ASSERT_EQ(0, Store(path_, SmallFilter().get(), {}));
  const std::string bytes = BytesOf(path_);
  EXPECT_EQ(kAtFilter + 64, bytes.size());
  EXPECT_EQ(0U, NumberAt(bytes, kAtListSize, 4));
  EXPECT_EQ(1U, NumberAt(bytes, kAtListCrc, 4));
  const Loaded loaded = Load(path_);
  EXPECT_EQ(0, loaded.outcome);
  EXPECT_EQ(DcidBytes(), loaded.udcids);
}

TEST_F(BloomPersistTest, ContainersBelow64AreStoredAndDroppedOnLoading) {
  ASSERT_EQ(0, Store(path_, SmallFilter().get(), {{63, 1}, {64, 2}}));
  EXPECT_EQ(32U, NumberAt(BytesOf(path_), kAtListSize, 4));
  EXPECT_EQ((DcidBytes{{64, 2}}), Load(path_).udcids);
}

TEST_F(BloomPersistTest, AFileOfAnotherVersionLoads) {
  const auto filter = SmallFilter();
  BloomImage image = ImageOf(*filter, {{64, 1}});
  image.version = 7;
  const Loaded loaded = LoadBytes(image.Bytes());
  EXPECT_EQ(0, loaded.outcome);
  EXPECT_EQ((DcidBytes{{64, 1}}), loaded.udcids);
  EXPECT_EQ(DataOf(*filter), DataOf(*loaded.filter));
}

TEST_F(BloomPersistTest, AFileWithoutFilterDataLoads) {
  BloomImage image;
  image.list = {{64, 1}};
  const Loaded loaded = LoadBytes(image.Bytes());
  EXPECT_EQ(0, loaded.outcome);
  EXPECT_EQ((DcidBytes{{64, 1}}), loaded.udcids);
  EXPECT_EQ(0U, loaded.filter->GetExpectedFingerprints());
}

TEST_F(BloomPersistTest, BytesBehindTheListAreNotLookedAt) {
  const std::string bytes = ImageOf(*SmallFilter(), {{64, 1}}).Bytes();
  const Loaded loaded = LoadBytes(bytes + "more");
  EXPECT_EQ(0, loaded.outcome);
  EXPECT_EQ((DcidBytes{{64, 1}}), loaded.udcids);
}

TEST_F(BloomPersistTest, APartOfAnEntryAtTheEndOfTheListIsIgnored) {
  std::string bytes = ImageOf(*SmallFilter(), {}).Bytes();
  const std::string list = Little(64, 8) + Little(1, 8) + Little(65, 7);
  bytes.replace(kAtListSize, 4, Little(list.size(), 4));
  bytes.replace(kAtListCrc, 4, Little(PlainAdler(list), 4));
  const Loaded loaded = LoadBytes(bytes + list);
  EXPECT_EQ(0, loaded.outcome);
  EXPECT_EQ((DcidBytes{{64, 1}}), loaded.udcids);
}

TEST_F(BloomPersistTest, StoringIntoAFileThatExistsAppendsAndTheFirstIsLoaded) {
  ASSERT_EQ(0, Store(path_, SmallFilter().get(), {{64, 1}}));
  const std::string first = BytesOf(path_);
  const auto other = FilterOf(1000, 9);
  DcidBytes udcids{{70, 2}};
  {
    BloomPersist file(path_, false);
    ASSERT_EQ(0, file.Reset(false));
    ASSERT_EQ(0, file.StoreBloom(other.get(), &udcids));
  }
  EXPECT_TRUE(first + ImageOf(*other, {{70, 2}}).Bytes() == BytesOf(path_));
  EXPECT_EQ((DcidBytes{{64, 1}}), Load(path_).udcids);

  BloomPersist file(path_, true);
  ASSERT_EQ(0, file.Reset(false));
  std::unique_ptr<BloomFilter> filter;
  EXPECT_EQ(0, file.ReadBloom(&filter, &udcids));
  EXPECT_EQ(0, file.ReadBloom(&filter, &udcids)) << "goes on where the first reading ended";
  EXPECT_EQ((DcidBytes{{70, 2}}), udcids);
  EXPECT_EQ(9U, filter->GetInsertedFingerPrints());
}

TEST_F(BloomPersistTest, AClosedFileIsRefusedWithoutALine) {
  auto filter = SmallFilter();
  const BloomFilter* const before = filter.get();
  DcidBytes udcids{{64, 1}};
  for (const bool readOnly : {false, true}) {
    BloomPersist file(path_, readOnly);
    EXPECT_EQ(kThrewIo, OutcomeOf([&] { return file.StoreBloom(filter.get(), &udcids); }));
    EXPECT_EQ(kThrewIo, OutcomeOf([&] { return file.ReadBloom(&filter, &udcids); }));
  }
  EXPECT_EQ(before, filter.get());
  EXPECT_EQ((DcidBytes{{64, 1}}), udcids);
  EXPECT_EQ(Log(), log_.Take());
  EXPECT_FALSE(Exists(path_));
}

TEST_F(BloomPersistTest, StoringDoesNotSync) {
  WatchCalls watch(dir_.path().string());
  ASSERT_EQ(0, Store(path_, SmallFilter().get(), {{64, 1}}));
  EXPECT_EQ(0, Faults::Count(Call::kFsync));
  EXPECT_EQ((Sizes{4, 56, 64, 16}), Faults::WriteSizes());
}

// ---- chunks -------------------------------------------------------------------------------------

/// Pieces of less than a chunk differ, so that a misplaced one shows.
std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>(i * 2654435761U >> 24U);
  }
  return bytes;
}

TEST_F(BloomPersistTest, TransfersGoInChunksOfOneMebibyte) {
  const std::vector<std::pair<std::size_t, Sizes>> rows = {
      {0, {}},
      {1, {1}},
      {kChunk - 1, {kChunk - 1}},
      {kChunk, {kChunk}},
      {kChunk + 1, {kChunk, 1}},
      {3 * kChunk, {kChunk, kChunk, kChunk}},
  };
  for (const auto& [size, chunks] : rows) {
    SCOPED_TRACE(size);
    std::string bytes = Pattern(size);
    WatchCalls watch(dir_.path().string());
    {
      BloomPersist writer(path_, false);
      ASSERT_EQ(0, writer.Reset(false));
      writer.Write(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<unsigned>(size));
    }
    EXPECT_EQ(chunks, Faults::WriteSizes());
    std::string read(size + 1, '*');
    BloomPersist reader(path_, true);
    ASSERT_EQ(0, reader.Reset(false));
    reader.Read(reinterpret_cast<unsigned char*>(read.data()), static_cast<unsigned>(size));
    EXPECT_EQ(chunks, Faults::ReadSizes());
    EXPECT_TRUE(bytes + "*" == read) << "no byte more than asked for";
    fs::remove(path_);
  }
}

TEST_F(BloomPersistTest, AFilterOfOneMebibyteTakesOneChunk) {
  const auto filter = FilterOf(kChunk, 1000);
  ASSERT_EQ(kChunk, filter->GetBufferSize());
  WatchCalls watch(dir_.path().string());
  ASSERT_EQ(0, Store(path_, filter.get(), {{64, 1}}));
  EXPECT_EQ((Sizes{4, 56, kChunk, 16}), Faults::WriteSizes());
  const Loaded loaded = Load(path_);
  EXPECT_EQ(0, loaded.outcome);
  EXPECT_EQ((Sizes{4, 56, kChunk, 16}), Faults::ReadSizes());
  EXPECT_TRUE(DataOf(*filter) == DataOf(*loaded.filter));
}

TEST_F(BloomPersistTest, FilterDataOfOneByteMoreTakesTwoChunks) {
  BloomImage image;
  image.filter = Pattern(kChunk + 1);
  image.list = {{64, 1}};
  const std::string bytes = image.Bytes();
  WatchCalls watch(dir_.path().string());
  const Loaded loaded = LoadBytes(bytes);
  EXPECT_EQ(0, loaded.outcome);
  EXPECT_EQ((Sizes{4, 56, kChunk, 1, 16}), Faults::ReadSizes());
  EXPECT_TRUE(image.filter == DataOf(*loaded.filter).substr(0, kChunk + 1));
}

TEST_F(BloomPersistTest, AListOfMoreThanAChunkIsStoredAndLoaded) {
  DcidBytes udcids;
  for (unsigned long dcid = 64; udcids.size() < kChunk / 16 + 1; ++dcid) {
    udcids[dcid] = dcid;
  }
  WatchCalls watch(dir_.path().string());
  ASSERT_EQ(0, Store(path_, SmallFilter().get(), udcids));
  EXPECT_EQ((Sizes{4, 56, 64, kChunk, 16}), Faults::WriteSizes());
  const Loaded loaded = Load(path_);
  EXPECT_EQ(0, loaded.outcome);
  EXPECT_TRUE(udcids == loaded.udcids);
}

}  // namespace
