#include "sidefiles/dc_offset_store.h"

#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <boost/functional/hash.hpp>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/sidefiles/dc_offset_store_fixture.h"

namespace zefs::test {
namespace {

using Aldenta::Qnd::Morene::Zefs::DcOffsetAviliable;
using Aldenta::Qnd::Morene::Zefs::DcOffsetEqual;
using Aldenta::Qnd::Morene::Zefs::DcOffsetHash;
using Aldenta::Qnd::Morene::Zefs::DecodeDcOffset;
using Aldenta::Qnd::Morene::Zefs::EncodeDcOffset;
using DcOffsetStoreTest = DcOffsetStoreFixture;
using Lines = std::vector<std::string>;

// ---- the record ---------------------------------------------------------------------------------

TEST(DcOffsetRecord, DefaultBuiltOneWantsARefreshOfNothing) {
  const DCOffset record;
  EXPECT_EQ(-1, record.key);
  EXPECT_EQ(0U, record.dcid);
  EXPECT_EQ(crfp_digest_t{}, record.fp);
  EXPECT_EQ(-1, record.dcOffset);
}

TEST(DcOffsetRecord, FileFormIsFiftySixBytesInFieldOrderLittleEndian) {
  DCOffset record{0x0102030405060708, 0x1112131415161718, {}, -2};
  for (std::size_t i = 0; i < record.fp.size(); ++i) {
    record.fp.at(i) = static_cast<unsigned char>(0x20 + i);
  }
  Bytes bytes(kDcOffsetRecordBytes, 0xEE);
  EncodeDcOffset(record, bytes.data());
  EXPECT_EQ(
      (Bytes{0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, 0x18, 0x17, 0x16, 0x15, 0x14, 0x13,
             0x12, 0x11, 0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2A, 0x2B,
             0x2C, 0x2D, 0x2E, 0x2F, 0x30, 0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39,
             0x3A, 0x3B, 0x3C, 0x3D, 0x3E, 0x3F, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
      bytes);
  EXPECT_EQ(FieldsOf(record), FieldsOf(DecodeDcOffset(bytes.data(), bytes.size())));
}

TEST(DcOffsetRecord, BytesThatAreMissingAreThoseOfADefaultBuiltRecord) {
  const Bytes whole = FileOf({{7, 64, Fp(9), 5}});
  const Bytes fresh = FileOf({DCOffset()});
  for (std::size_t size = 0; size <= kDcOffsetRecordBytes; ++size) {
    const auto cut = static_cast<Bytes::difference_type>(size);
    const Bytes part(whole.begin(), whole.begin() + cut);
    Bytes expected = part;
    expected.insert(expected.end(), fresh.begin() + cut, fresh.end());
    EXPECT_EQ(expected, FileOf({DecodeDcOffset(part.data(), part.size())})) << size;
  }
}

TEST(DcOffsetRecord, OnlyOneRecordIsReadOfALongerArray) {
  const Bytes two = FileOf({Wanted(1), Wanted(2)});
  EXPECT_EQ(FieldsOf(Wanted(1)), FieldsOf(DecodeDcOffset(two.data(), two.size())));
}

// ---- hash and equality --------------------------------------------------------------------------

std::uint64_t Combine(std::uint64_t seed, std::uint64_t k) {
  constexpr std::uint64_t kM = 0xc6a4a7935bd1e995;
  k *= kM;
  k ^= k >> 47;
  k *= kM;
  seed ^= k;
  seed *= kM;
  return seed + 0xe6546b64;
}

TEST(DcOffsetHash, CombinesContainerKeyAndFingerprintInThisOrder) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 1000; ++i) {
    DCOffset record{static_cast<std::int64_t>(random()), random(), {}, -1};
    std::uint64_t ofFp = 0;
    for (unsigned char& byte : record.fp) {
      byte = static_cast<unsigned char>(random());
      ofFp = Combine(ofFp, byte);
    }
    const std::uint64_t ofRecord =
        Combine(Combine(Combine(0, record.dcid), static_cast<std::uint64_t>(record.key)), ofFp);
    ASSERT_EQ(ofRecord, DcOffsetHash()(record));
    ASSERT_EQ(ofFp, boost::hash_range(record.fp.begin(), record.fp.end()));
    std::size_t seed = 0;
    boost::hash_combine(seed, record.dcid);
    boost::hash_combine(seed, record.key);
    boost::hash_combine(seed, ofFp);
    ASSERT_EQ(seed, DcOffsetHash()(record));
  }
}

TEST(DcOffsetHash, LeavesTheOffsetOut) {
  EXPECT_EQ(DcOffsetHash()(Wanted(3, -1)), DcOffsetHash()(Wanted(3, -2)));
  EXPECT_NE(DcOffsetHash()(Wanted(3)), DcOffsetHash()(Wanted(4)));
}

TEST(DcOffsetEqual, EveryFieldAndEveryByteOfTheFingerprintCounts) {
  const DCOffset record = Wanted(3);
  const DcOffsetEqual equal;
  EXPECT_TRUE(equal(record, Wanted(3)));
  DCOffset other = record;
  other.key = 4;
  EXPECT_FALSE(equal(record, other));
  other = record;
  other.dcid = 4;
  EXPECT_FALSE(equal(record, other));
  other = record;
  other.dcOffset = -2;
  EXPECT_FALSE(equal(record, other));
  for (std::size_t i = 0; i < record.fp.size(); ++i) {
    other = record;
    other.fp.at(i) ^= 0x80;
    EXPECT_FALSE(equal(record, other)) << i;
  }
}

// ---- construction -------------------------------------------------------------------------------

TEST_F(DcOffsetStoreTest, ConstructionTouchesNoFileAndSaysNothing) {
  EXPECT_EQ(Lines(), Log());
  EXPECT_TRUE(boost::filesystem::is_empty(dir_.path()));
  EXPECT_EQ(-1, peer_.fd());
  EXPECT_EQ(path_, peer_.path());
  EXPECT_GE(peer_.offsets().bucket_count(), 10U);
  EXPECT_EQ(1.0F, peer_.offsets().max_load_factor());
}

TEST_F(DcOffsetStoreTest, HasNoVirtualOperations) {
  EXPECT_FALSE(std::is_polymorphic_v<DcOffsetStore>);
}

TEST_F(DcOffsetStoreTest, TraceLogSaysNothing) {
  DcOffsetStore::TraceLog("%s %d", "text", 1);
  EXPECT_EQ(Lines(), Log());
}

// ---- CheckAndStore ------------------------------------------------------------------------------

TEST_F(DcOffsetStoreTest, KnownOffsetsAndUntrackedOnesAreNotStored) {
  for (const int dcOffset : {0, 5, -3}) {
    for (const bool tracking : {true, false}) {
      Track(tracking);
      EXPECT_EQ(0, Store(Wanted(1, dcOffset))) << dcOffset;
      EXPECT_TRUE(InMemory().empty()) << dcOffset;
    }
  }
  EXPECT_FALSE(Exists(path_));
}

TEST_F(DcOffsetStoreTest, OtherNegativeOffsetsAreStoredOnlyWhileTracking) {
  for (const int dcOffset : {-1, -2, -4, -2147483647 - 1}) {
    Track(false);
    EXPECT_EQ(0, Store(Wanted(1, dcOffset)));
    EXPECT_TRUE(InMemory().empty()) << dcOffset;
    Track(true);
    EXPECT_EQ(0, Store(Wanted(1, dcOffset)));
    EXPECT_EQ(Sorted({Wanted(1, dcOffset)}), InMemory());
    EXPECT_EQ(0, store_.Flush());
  }
}

TEST_F(DcOffsetStoreTest, StoringLogsItsOffsetAndNothingMoreBelowTheThreshold) {
  Store(Wanted(1));
  Store(Wanted(1, 5));
  Track(false);
  Store(Wanted(1, -2));
  EXPECT_EQ((Lines{"0 CheckAndStore store dc offset with path_=" + path_ + ", dcoff=-1",
                   "0 CheckAndStore store dc offset with path_=" + path_ + ", dcoff=5",
                   "0 CheckAndStore store dc offset with path_=" + path_ + ", dcoff=-2"}),
            Log());
  EXPECT_FALSE(Exists(path_));
}

TEST_F(DcOffsetStoreTest, ThresholdIsReachedByThatManyRecords) {
  Threshold(3);
  Store(Wanted(1));
  Store(Wanted(2));
  EXPECT_FALSE(Exists(path_));
  EXPECT_EQ(0, Store(Wanted(3)));
  EXPECT_TRUE(InMemory().empty());
  EXPECT_EQ(Sorted({Wanted(1), Wanted(2), Wanted(3)}), Sorted(OnFile()));
}

TEST_F(DcOffsetStoreTest, ThresholdOfZeroOrOneWritesEachRecordAtOnce) {
  for (const std::uint32_t threshold : {0U, 1U}) {
    Threshold(threshold);
    boost::filesystem::remove(path_);
    store_.Destory();
    EXPECT_EQ(0, Store(Wanted(1)));
    EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(path_));
    EXPECT_EQ(0, Store(Wanted(2)));
    EXPECT_EQ(FileOf({Wanted(1), Wanted(2)}), ReadBytes(path_));
    EXPECT_TRUE(InMemory().empty());
  }
}

TEST_F(DcOffsetStoreTest, ThresholdIsReadAnewEachTime) {
  Store(Wanted(1));
  Store(Wanted(2));
  Threshold(2);
  EXPECT_EQ(0, Store(Wanted(3)));
  EXPECT_EQ(3U, OnFile().size());
}

TEST_F(DcOffsetStoreTest, EqualRecordCountsOnceAnotherOffsetMakesASecondOne) {
  Threshold(2);
  Store(Wanted(1, -1));
  Store(Wanted(1, -1));
  EXPECT_EQ(1U, InMemory().size());
  EXPECT_FALSE(Exists(path_));
  Store(Wanted(1, -2));
  EXPECT_EQ(Sorted({Wanted(1, -1), Wanted(1, -2)}), Sorted(OnFile()));
}

TEST_F(DcOffsetStoreTest, DuplicatesAcrossBatchesAllStandInTheFile) {
  Threshold(1);
  Store(Wanted(1));
  Store(Wanted(1));
  EXPECT_EQ(FileOf({Wanted(1), Wanted(1)}), ReadBytes(path_));
}

TEST_F(DcOffsetStoreTest, BatchIsLoggedStepByStep) {
  Threshold(2);
  Store(Wanted(1));
  Log();
  Store(Wanted(2));
  EXPECT_EQ((Lines{"0 CheckAndStore store dc offset with path_=" + path_ + ", dcoff=-1",
                   "0 DcOffsetStore store dc offset with path_=" + path_ + ", return=2",
                   "1 DcOffsetStore::Open, file: " + path_,
                   "0 fd_=" + std::to_string(peer_.fd()) + ", path_=" + path_ +
                       ", write=112, size=2, ret=112"}),
            Log());
}

TEST_F(DcOffsetStoreTest, FileStaysOpenAfterABatchAndOpenSaysSoAgain) {
  Threshold(0);
  Store(Wanted(1));
  const int fd = peer_.fd();
  EXPECT_NE(-1, fd);
  Log();
  EXPECT_EQ(0, store_.Open());
  EXPECT_EQ(fd, peer_.fd());
  EXPECT_EQ((Lines{"1 DcOffsetStore::Open, file: " + path_}), Log());
}

TEST_F(DcOffsetStoreTest, FileIsForTheOwnerOnly) {
  const mode_t before = ::umask(0);
  ASSERT_EQ(0, store_.Open());
  struct stat status {};
  ::umask(before);
  ASSERT_EQ(0, ::stat(path_.c_str(), &status));
  EXPECT_EQ(0600U, status.st_mode & 0777U);
}

TEST_F(DcOffsetStoreTest, WritingIsAppendingWhateverTheFileHeld) {
  const Bytes before{1, 2, 3};
  WriteBytes(path_, before);
  Threshold(0);
  Store(Wanted(1));
  Bytes expected = before;
  const Bytes record = FileOf({Wanted(1)});
  expected.insert(expected.end(), record.begin(), record.end());
  EXPECT_EQ(expected, ReadBytes(path_));
}

TEST_F(DcOffsetStoreTest, EmptyBatchOnlyMakesTheFile) {
  EXPECT_EQ(0, store_.Write({}));
  EXPECT_TRUE(Exists(path_));
  EXPECT_EQ(Bytes(), ReadBytes(path_));
}

// ---- Flush, Destory, UpdatePath, destruction ----------------------------------------------------

TEST_F(DcOffsetStoreTest, FlushOfNothingLeavesAnOpenFileOpen) {
  ASSERT_EQ(0, store_.Open());
  const int fd = peer_.fd();
  Log();
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ(fd, peer_.fd());
  EXPECT_EQ((Lines{"0 DcOffsetStore::Flush, file: " + path_}), Log());
}

TEST_F(DcOffsetStoreTest, FlushOfNothingMakesNoFile) {
  EXPECT_EQ(0, store_.Flush());
  EXPECT_FALSE(Exists(path_));
}

TEST_F(DcOffsetStoreTest, FlushWritesWhatIsBelowTheThresholdAndCloses) {
  Store(Wanted(1));
  ASSERT_EQ(0, store_.Open());
  const std::string fd = std::to_string(peer_.fd());
  Log();
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ(-1, peer_.fd());
  EXPECT_TRUE(InMemory().empty());
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(path_));
  EXPECT_EQ((Lines{"0 DcOffsetStore::Flush, file: " + path_,
                   "0 DcOffsetStore store dc offset with path_=" + path_ + ", return=1",
                   "1 DcOffsetStore::Open, file: " + path_,
                   "0 fd_=" + fd + ", path_=" + path_ + ", write=56, size=1, ret=56"}),
            Log());
}

TEST_F(DcOffsetStoreTest, DestoryClosesAndLeavesFileAndMemoryAlone) {
  Threshold(2);
  Store(Wanted(1));
  Store(Wanted(2));
  Store(Wanted(3));
  const Bytes before = ReadBytes(path_);
  Log();
  store_.Destory();
  EXPECT_EQ(-1, peer_.fd());
  EXPECT_EQ(before, ReadBytes(path_));
  EXPECT_EQ(Sorted({Wanted(3)}), InMemory());
  EXPECT_EQ((Lines{"1 DcOffsetStore::Destory, file: " + path_}), Log());
  store_.Destory();
  EXPECT_EQ((Lines{"1 DcOffsetStore::Destory, file: " + path_}), Log()) << "also when closed";
}

TEST_F(DcOffsetStoreTest, UpdatePathFlushesUnderTheOldPathAndGoesOnUnderTheNew) {
  const std::string moved = (dir_ / "moved").string();
  Store(Wanted(1));
  Log();
  store_.UpdatePath(moved);
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(path_));
  EXPECT_FALSE(Exists(moved)) << "files are not moved here";
  EXPECT_EQ(-1, peer_.fd());
  const Lines lines = Log();
  ASSERT_EQ(5U, lines.size());
  EXPECT_EQ("0 DcOffsetStore::Flush, file: " + path_, lines.front());
  EXPECT_EQ("1 DcOffsetStore::Destory, file: " + moved, lines.back());
  Store(Wanted(2));
  EXPECT_EQ(0, store_.Flush());
  EXPECT_EQ(FileOf({Wanted(2)}), ReadBytes(moved));
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(path_));
}

TEST_F(DcOffsetStoreTest, UpdatePathClosesAFileThatAnEmptyFlushLeftOpen) {
  ASSERT_EQ(0, store_.Open());
  Log();
  store_.UpdatePath(path_ + "2");
  EXPECT_EQ(-1, peer_.fd());
  EXPECT_EQ((Lines{"0 DcOffsetStore::Flush, file: " + path_,
                   "1 DcOffsetStore::Destory, file: " + path_ + "2"}),
            Log());
}

TEST_F(DcOffsetStoreTest, DestructionFlushesAndCloses) {
  int fd = -1;
  {
    DcOffsetStore store(path_, false, kOffsetStoreName, kOffsetStoreTmpSuffix);
    Store(store, Wanted(1));
  }
  EXPECT_EQ(FileOf({Wanted(1)}), ReadBytes(path_));
  Log();
  {
    DcOffsetStore store(path_, false, kOffsetStoreName, kOffsetStoreTmpSuffix);
    ASSERT_EQ(0, store.Open());
    fd = DcOffsetStoreTestPeer{store}.fd();
    Log();
  }
  struct stat status {};
  EXPECT_EQ(-1, ::fstat(fd, &status)) << "the descriptor of an empty store is closed, too";
  EXPECT_EQ((Lines{"0 DcOffsetStore::Flush, file: " + path_}), Log());
}

// ---- DcOffsetAviliable --------------------------------------------------------------------------

using DcOffsetAviliableTest = DcOffsetStoreFixture;

TEST_F(DcOffsetAviliableTest, EveryTailOfTheNameMatches) {
  const std::string whole = kOffsetStoreName;
  for (std::size_t at = 0; at < whole.size(); ++at) {
    const TempDir dir;
    const std::string file = (dir / whole.substr(at)).string();
    WriteBytes(file, {});
    Log();
    EXPECT_TRUE(DcOffsetAviliable(dir.path().string())) << file;
    EXPECT_EQ((Lines{"0 DcOffsetAviliable, path:" + dir.path().string(),
                     "0 DcOffsetAviliable, detected dcoffset file path:" + file}),
              Log());
  }
}

TEST_F(DcOffsetAviliableTest, NoOtherNameMatches) {
  for (const char* const name : {"xdcoffset", "1.dcoffset", "dcoffset.tmp", "dcoffsett", "dcoffse",
                                 "d", "xoffset", "Offset", "tt", "dcoffsex"}) {
    WriteBytes((dir_ / name).string(), {1});
  }
  Log();
  EXPECT_FALSE(DcOffsetAviliable(dir_.path().string()));
  EXPECT_EQ((Lines{"0 DcOffsetAviliable, path:" + dir_.path().string()}), Log());
}

TEST_F(DcOffsetAviliableTest, PipesAndDirectoriesAndWhatLiesInThemDoNotMatch) {
  ASSERT_EQ(0, ::mkfifo((dir_ / "offset").c_str(), 0600));
  boost::filesystem::create_directory(dir_ / "dcoffset");
  WriteBytes((dir_ / "dcoffset/offset").string(), {});
  EXPECT_FALSE(DcOffsetAviliable(dir_.path().string()));
}

TEST_F(DcOffsetAviliableTest, LinkCountsAsWhatItLeadsTo) {
  boost::filesystem::create_symlink("nowhere", dir_ / "offset");
  EXPECT_FALSE(DcOffsetAviliable(dir_.path().string()));
  WriteBytes((dir_ / "nowhere").string(), {});
  EXPECT_TRUE(DcOffsetAviliable(dir_.path().string()));
}

TEST_F(DcOffsetAviliableTest, EntryThatCannotBeLookedAtThrows) {
  boost::filesystem::create_symlink("loop", dir_ / "loop");
  EXPECT_THROW(DcOffsetAviliable(dir_.path().string()), boost::filesystem::filesystem_error);
  boost::filesystem::remove(dir_ / "loop");
  EXPECT_FALSE(DcOffsetAviliable(dir_.path().string()));
}

TEST_F(DcOffsetAviliableTest, FindsAFileAmongOthers) {
  for (int i = 0; i < 100; ++i) {
    WriteBytes((dir_ / std::to_string(i)).string(), {});
  }
  EXPECT_FALSE(DcOffsetAviliable(dir_.path().string()));
  Threshold(0);
  Store(Wanted(1));
  EXPECT_TRUE(DcOffsetAviliable(dir_.path().string()));
}

TEST_F(DcOffsetAviliableTest, EmptyDirectoryHasNone) {
  EXPECT_FALSE(DcOffsetAviliable(dir_.path().string()));
}

TEST_F(DcOffsetAviliableTest, MissingDirectoryThrowsAfterTheFirstLine) {
  const std::string missing = (dir_ / "missing").string();
  EXPECT_THROW(DcOffsetAviliable(missing), boost::filesystem::filesystem_error);
  EXPECT_EQ((Lines{"0 DcOffsetAviliable, path:" + missing}), Log());
  WriteBytes((dir_ / "file").string(), {});
  EXPECT_THROW(DcOffsetAviliable((dir_ / "file").string()), boost::filesystem::filesystem_error)
      << "a file is no directory";
}

}  // namespace
}  // namespace zefs::test
