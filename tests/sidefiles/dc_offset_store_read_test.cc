#include <string>
#include <utility>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "sidefiles/dc_offset_store.h"
#include "tests/sidefiles/dc_offset_store_fixture.h"
#include "tests/sidefiles/formats_page.h"
#include "tests/sidefiles/nommap_recorder.h"

// Handing the list out and taking it back.

namespace zefs::test {
namespace {

using Lines = std::vector<std::string>;

class DcOffsetStoreReadTest : public DcOffsetStoreFixture {
 protected:
  /// The list that a file of `bytes` gives.
  std::vector<DCOffset> ReadFile(const Bytes& bytes) {
    WriteBytes(path_, bytes);
    std::vector<DCOffset> out;
    EXPECT_EQ(0, store_.Read(&out));
    EXPECT_FALSE(Exists(path_));
    return out;
  }
};

using DcOffsetStoreMergeTest = DcOffsetStoreFixture;

std::vector<DCOffset> Many(std::size_t count) {
  std::vector<DCOffset> records;
  for (std::size_t i = 0; i < count; ++i) {
    records.push_back(Wanted(static_cast<std::int64_t>(i)));
  }
  return records;
}

std::string TotalLine(std::size_t slots, std::size_t records) {
  return "0 Total offset in rec:" + std::to_string(slots) + ", dcoffset:" + std::to_string(records);
}

// ---- Read ---------------------------------------------------------------------------------------

TEST_F(DcOffsetStoreReadTest, WithoutAFileTheListStaysAsItWas) {
  std::vector<DCOffset> out{Wanted(1)};
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(ListOf({Wanted(1)}), ListOf(out));
  EXPECT_EQ((Lines{"0 DcOffsetStore::Read, file: " + path_}), Log());
  EXPECT_FALSE(Exists(aside_));
}

TEST_F(DcOffsetStoreReadTest, EmptyFileIsRemovedAndTheListEmptied) {
  WriteBytes(path_, {});
  std::vector<DCOffset> out{Wanted(1)};
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_TRUE(out.empty());
  EXPECT_FALSE(Exists(path_));
  EXPECT_FALSE(Exists(aside_));
  EXPECT_EQ(
      (Lines{"0 DcOffsetStore::Read, file: " + path_, "1 DcOffsetStore::Destory, file: " + path_,
             "0 no valid data in dc offset file " + path_ + ", remove it."}),
      Log());
}

TEST_F(DcOffsetStoreReadTest, FileOfInvalidRecordsIsRemovedAnEarlierListStays) {
  WriteBytes(aside_, {1});
  EXPECT_TRUE(ReadFile(FileOf({{-1, 64, Fp(1), -1}, {0, 63, Fp(1), -1}, DCOffset()})).empty());
  EXPECT_EQ(Bytes{1}, ReadBytes(aside_));
}

TEST_F(DcOffsetStoreReadTest, FirstContainerAndFirstOffsetAreKeptTheOnesBelowDropped) {
  const DCOffset first{0, 64, Fp(1), -1};
  const DCOffset largest{9223372036854775807, 18446744073709551615U, Fp(2), -1};
  const std::vector<DCOffset> out = ReadFile(FileOf({{0, 63, Fp(1), -1},
                                                     {-1, 64, Fp(1), -1},
                                                     first,
                                                     {-9223372036854775807 - 1, 64, Fp(1), -1},
                                                     {0, 0, Fp(1), -1},
                                                     largest}));
  EXPECT_EQ(ListOf({first, largest}), ListOf(out));
}

TEST_F(DcOffsetStoreReadTest, OffsetsAndFingerprintsDoNotMakeARecordInvalid) {
  const std::vector<DCOffset> records{
      {1, 64, {}, 0}, {1, 64, {}, 7}, {1, 64, {}, -2}, {1, 64, {}, -3}};
  EXPECT_EQ(ListOf(records), ListOf(ReadFile(FileOf(records))));
}

TEST_F(DcOffsetStoreReadTest, FileIsSetAsideByteForByteInPlaceOfAnEarlierOne) {
  WriteBytes(aside_, Bytes(1000, 1));
  const Bytes file = FileOf({Wanted(2), {-1, 0, {}, -1}, Wanted(1), Wanted(2)});
  EXPECT_EQ(ListOf({Wanted(2), Wanted(1), Wanted(2)}), ListOf(ReadFile(file)))
      << "in file order, duplicates and all";
  EXPECT_EQ(file, ReadBytes(aside_));
  EXPECT_EQ((Lines{"0 DcOffsetStore::Read, file: " + path_,
                   "1 DcOffsetStore::Destory, file: " + path_, TotalLine(32768, 3)}),
            Log());
}

TEST_F(DcOffsetStoreReadTest, ListSetAsideIsNeverReadAgain) {
  WriteBytes(aside_, FileOf({Wanted(1)}));
  std::vector<DCOffset> out;
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(Exists(aside_));
}

TEST_F(DcOffsetStoreReadTest, RecordsInMemoryAreForALaterList) {
  Threshold(2);
  Store(Wanted(1));
  Store(Wanted(2));
  Store(Wanted(3));
  std::vector<DCOffset> out;
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(Sorted({Wanted(1), Wanted(2)}), Sorted(out));
  EXPECT_EQ(Sorted({Wanted(3)}), InMemory());
  EXPECT_EQ(-1, peer_.fd());
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(ListOf({Wanted(3)}), ListOf(out));
}

TEST_F(DcOffsetStoreReadTest, WritingGoesToANewFileAfterTheOldOneWasSetAside) {
  Threshold(0);
  Store(Wanted(1));
  std::vector<DCOffset> out;
  EXPECT_EQ(0, store_.Read(&out));
  Store(Wanted(2));
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(aside_));
  EXPECT_EQ(FileOf({Wanted(2)}), ReadBytes(path_));
}

TEST_F(DcOffsetStoreReadTest, EverySlotOfEachReadIsCounted) {
  constexpr std::size_t kChunk = 32768;
  const std::vector<DCOffset> all = Many(2 * kChunk + 1);
  for (const std::size_t records : {kChunk - 1, kChunk, kChunk + 1, 2 * kChunk, 2 * kChunk + 1}) {
    const std::vector<DCOffset> some(all.begin(), all.begin() + static_cast<long>(records));
    ASSERT_EQ(ListOf(some), ListOf(ReadFile(FileOf(some)))) << records;
    const std::size_t chunks = (records + kChunk - 1) / kChunk;
    EXPECT_EQ(TotalLine(chunks * kChunk, records), Log().back()) << records;
  }
}

TEST_F(DcOffsetStoreReadTest, OneTornByteBehindAFullChunkIsOneMoreChunk) {
  Bytes file = FileOf(Many(32768));
  file.push_back(5);
  EXPECT_EQ(32768U, ReadFile(file).size());
  EXPECT_EQ(TotalLine(65536, 32768), Log().back());
}

TEST_F(DcOffsetStoreReadTest, FileCutAtAnyByteGivesTheWholeRecordsAndWhatArrivedOfTheLast) {
  const std::vector<DCOffset> records{{10, 0x0140, Fp(0xA1), -2}, {20, 0x0140, Fp(0xA2), -2}};
  const Bytes file = FileOf(records);
  for (std::size_t size = 0; size <= file.size(); ++size) {
    const std::size_t whole = size / kDcOffsetRecordBytes;
    const std::size_t arrived = size % kDcOffsetRecordBytes;
    std::vector<DCOffset> expected(records.begin(), records.begin() + static_cast<long>(whole));
    if (arrived >
        8) {  // the key is there; of the id 0x0140 the first byte alone names container 64
      DCOffset torn{records[whole].key, arrived == 9 ? 0x40U : 0x0140U, {}, -1};
      for (std::size_t i = 16; i < arrived && i < 48; ++i) {
        torn.fp.at(i - 16) = records[whole].fp.at(i - 16);
      }
      torn.dcOffset = arrived > 48 ? -2 : -1;
      expected.push_back(torn);
    }
    const Bytes cut(file.begin(), file.begin() + static_cast<long>(size));
    ASSERT_EQ(ListOf(expected), ListOf(ReadFile(cut))) << size;
    ASSERT_EQ(!expected.empty(), Exists(aside_)) << size;
    boost::filesystem::remove(aside_);
  }
}

TEST_F(DcOffsetStoreReadTest, FileCutAtAnyByteTakesThePlaceOfAnEarlierListOnlyWithARecord) {
  const Bytes file = FileOf({{10, 0x0140, Fp(0xA1), -2}, {20, 0x0140, Fp(0xA2), -2}});
  const Bytes earlier = FileOf({Wanted(1), Wanted(2), Wanted(3)});
  for (std::size_t size = 0; size <= file.size(); ++size) {
    WriteBytes(aside_, earlier);
    const Bytes cut(file.begin(), file.begin() + static_cast<long>(size));
    ASSERT_EQ(size <= 8, ReadFile(cut).empty()) << size;
    ASSERT_EQ(size <= 8 ? earlier : cut, ReadBytes(aside_)) << size;
  }
}

TEST_F(DcOffsetStoreReadTest, TornRecordWhoseContainerIsIncompleteAndTooSmallIsDropped) {
  Bytes file = FileOf({{10, 0x0101, Fp(1), -1}});
  file.resize(9);
  EXPECT_TRUE(ReadFile(file).empty());
}

TEST_F(DcOffsetStoreReadTest, TornKeyIsNegativeHoweverMuchOfItArrived) {
  for (std::size_t arrived = 1; arrived < 8; ++arrived) {
    EXPECT_TRUE(ReadFile(Bytes(arrived, 0)).empty()) << arrived;
  }
}

TEST_F(DcOffsetStoreReadTest, GarbageGivesOnlyValidRecords) {
  Bytes file(100003);
  std::uint32_t state = 1;
  for (unsigned char& byte : file) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<unsigned char>(state >> 24);
  }
  const std::vector<DCOffset> out = ReadFile(file);
  EXPECT_FALSE(out.empty());
  for (const DCOffset& record : out) {
    EXPECT_GE(record.key, 0);
    EXPECT_GE(record.dcid, 64U);
  }
}

TEST_F(DcOffsetStoreReadTest, DirectoryInPlaceOfTheFileHasNoRecords) {
  boost::filesystem::create_directory(path_);
  std::vector<DCOffset> out;
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_TRUE(out.empty());
  EXPECT_FALSE(Exists(path_)) << "an empty one is removed like a file without records";
}

TEST_F(DcOffsetStoreReadTest, MappingIsForbiddenOnceForEachOpenedFileAndOnlyIfWanted) {
  TakeNommapCalls();
  for (const bool noMmap : {true, false}) {
    DcOffsetStore store(path_, noMmap, kOffsetStoreName, kOffsetStoreTmpSuffix);
    Threshold(0);
    EXPECT_EQ(0, Store(store, Wanted(1)));
    EXPECT_EQ(0, Store(store, Wanted(2)));
    const int fd = DcOffsetStoreTestPeer{store}.fd();
    std::vector<DCOffset> out;
    EXPECT_EQ(0, store.Read(&out)) << "the refusal of the request is ignored";
    EXPECT_EQ(2U, out.size());
    const auto calls = TakeNommapCalls();
    ASSERT_EQ(noMmap ? 2U : 0U, calls.size());
    if (noMmap) {
      EXPECT_EQ(std::make_pair(path_, fd), calls.front());
      EXPECT_EQ(path_, calls.back().first);
      EXPECT_NE(fd, calls.back().second) << "the reading has a descriptor of its own";
    }
  }
}

TEST_F(DcOffsetStoreReadTest, ListGoesUnderTheGivenSuffix) {
  WriteBytes(path_, FileOf({Wanted(1)}));
  DcOffsetStore store(path_, false, kOffsetStoreName, ".aside");
  std::vector<DCOffset> out;
  EXPECT_EQ(0, store.Read(&out));
  EXPECT_TRUE(Exists(path_ + ".aside"));
  EXPECT_EQ(0, store.MergeDcOffset({}));
  EXPECT_FALSE(Exists(path_ + ".aside"));
}

// ---- MergeDcOffset ------------------------------------------------------------------------------

TEST_F(DcOffsetStoreMergeTest, OnlyWhatIsStillWantedIsStoredAgainAndOnce) {
  WriteBytes(aside_, {1});
  EXPECT_EQ(0, store_.MergeDcOffset({Wanted(1, 0), Wanted(2, 4096), Wanted(3, -2), Wanted(4, -1),
                                     Wanted(4, -1), Wanted(5, -3), Wanted(6, -7)}));
  EXPECT_EQ(Sorted({Wanted(4, -1), Wanted(5, -3), Wanted(6, -7)}), Sorted(OnFile()));
  EXPECT_FALSE(Exists(aside_));
  EXPECT_TRUE(InMemory().empty());
}

TEST_F(DcOffsetStoreMergeTest, ListWithNothingOpenOnlyEndsTheHandedOutState) {
  WriteBytes(aside_, {1});
  EXPECT_EQ(0, store_.MergeDcOffset({Wanted(1, 0), Wanted(2, -2)}));
  EXPECT_FALSE(Exists(path_));
  EXPECT_FALSE(Exists(aside_));
  EXPECT_EQ((Lines{"0 DcOffsetStore::MergeDcOffset, file: " + path_,
                   "0 DcOffsetStore::MergeDcOffset, file: " + path_ + " , done!"}),
            Log());
}

TEST_F(DcOffsetStoreMergeTest, WithoutAListOutItIsNoError) {
  EXPECT_EQ(0, store_.MergeDcOffset({}));
  EXPECT_TRUE(boost::filesystem::is_empty(dir_.path()));
}

TEST_F(DcOffsetStoreMergeTest, BatchIsLoggedInside) {
  EXPECT_EQ(0, store_.MergeDcOffset({Wanted(1)}));
  EXPECT_EQ((Lines{"0 DcOffsetStore::MergeDcOffset, file: " + path_,
                   "0 DcOffsetStore store dc offset with path_=" + path_ + ", return=1",
                   "1 DcOffsetStore::Open, file: " + path_,
                   "0 fd_=" + std::to_string(peer_.fd()) + ", path_=" + path_ +
                       ", write=56, size=1, ret=56",
                   "0 DcOffsetStore::MergeDcOffset, file: " + path_ + " , done!"}),
            Log());
}

TEST_F(DcOffsetStoreMergeTest, IsNotBoundToTrackingNorToTheThreshold) {
  Track(false);
  EXPECT_EQ(0, store_.MergeDcOffset({Wanted(1)}));
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(path_));
}

TEST_F(DcOffsetStoreMergeTest, RecordsInMemoryStayThere) {
  Store(Wanted(1));
  EXPECT_EQ(0, store_.MergeDcOffset({Wanted(2)}));
  EXPECT_EQ(Sorted({Wanted(1)}), InMemory());
  EXPECT_EQ(FileOf({Wanted(2)}), ReadBytes(path_));
}

// ---- the life of a record -----------------------------------------------------------------------

TEST_F(DcOffsetStoreMergeTest, RecordLivesInMemoryOnFileWithTheHostAndEnds) {
  Store(Wanted(1));
  Store(Wanted(2));
  EXPECT_EQ(Sorted({Wanted(1), Wanted(2)}), InMemory());
  EXPECT_EQ(0, store_.Flush());
  EXPECT_TRUE(InMemory().empty());
  EXPECT_EQ(2U, OnFile().size());

  std::vector<DCOffset> out;
  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(Sorted({Wanted(1), Wanted(2)}), Sorted(out));
  EXPECT_FALSE(Exists(path_));
  EXPECT_TRUE(Exists(aside_));

  out.front().dcOffset = 4096;
  const DCOffset still = out.back();
  EXPECT_EQ(0, store_.MergeDcOffset(out));
  EXPECT_FALSE(Exists(aside_));
  EXPECT_EQ(FileOf({still}), ReadBytes(path_));

  EXPECT_EQ(0, store_.Read(&out));
  EXPECT_EQ(ListOf({still}), ListOf(out));
  out.front().dcOffset = -2;
  EXPECT_EQ(0, store_.MergeDcOffset(out));
  EXPECT_TRUE(boost::filesystem::is_empty(dir_.path()));
}

TEST_F(DcOffsetStoreMergeTest, ListLeftOutByACrashIsReplacedByTheNextOne) {
  Threshold(0);
  Store(Wanted(1));
  std::vector<DCOffset> out;
  ASSERT_EQ(0, store_.Read(&out));
  DcOffsetStore next(path_, false, kOffsetStoreName, kOffsetStoreTmpSuffix);
  EXPECT_EQ(0, next.Read(&out));
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(aside_)) << "no store file, nothing happens";
  Store(next, Wanted(2));
  EXPECT_EQ(0, next.Read(&out));
  EXPECT_EQ(ListOf({Wanted(2)}), ListOf(out));
  EXPECT_EQ(FileOf({Wanted(2)}), ReadBytes(aside_));
}

TEST_F(DcOffsetStoreMergeTest, ExampleOfTheFormatDescriptionIsWhatIsWritten) {
  crfp_digest_t fp;
  for (std::size_t i = 0; i < fp.size(); ++i) {
    fp.at(i) = static_cast<unsigned char>(0xa0 + i);
  }
  Threshold(1);
  EXPECT_EQ(0, store_.CheckAndStore(0x10000, 0x46, fp, -1));
  EXPECT_EQ(0, store_.CheckAndStore(0x123456789abc, 0xfedcba9876543210, Fp(0xff), -2));
  EXPECT_EQ(112U, ReadBytes(path_).size());
  EXPECT_EQ(HexOfThePage("## Offset store"), HexOf(ReadBytes(path_)));
}

}  // namespace
}  // namespace zefs::test
