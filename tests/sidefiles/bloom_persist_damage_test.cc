// Bloom files that are not what was stored: every wrong bit, every cut, and anything else.

#include <algorithm>
#include <functional>
#include <limits>
#include <random>
#include <unistd.h>

#include <sys/stat.h>

#include "tests/sidefiles/allocation_limit.h"
#include "tests/sidefiles/bloom_persist_fixture.h"

namespace {

namespace fs = boost::filesystem;
using namespace zefs::test;

LogRecord ShortOf(int returned, int expected, const std::string& what) {
  return {8, "returned size " + std::to_string(returned) + ", expected size " +
                 std::to_string(expected) + " for " + what};
}

/// Small enough that every bit can be turned, with 64 bytes of filter and 3 containers.
class BloomDamageTest : public BloomPersistFixture {
 protected:
  BloomDamageTest() { log_.Take(); }

  /// The filter and the map are as they were before the call.
  static void ExpectUntouched(const Loaded& loaded) {
    EXPECT_TRUE(loaded.hasOldFilter);
    EXPECT_EQ(OldUdcids(), loaded.udcids);
  }

  /// The filter is the stored one already, the map as it was.
  void ExpectOnlyFilter(const Loaded& loaded) const {
    ASSERT_FALSE(loaded.hasOldFilter);
    EXPECT_EQ(DataOf(*filter_), DataOf(*loaded.filter));
    EXPECT_EQ(filter_->GetInsertedFingerPrints(), loaded.filter->GetInsertedFingerPrints());
    EXPECT_EQ(OldUdcids(), loaded.udcids);
  }

  void ExpectWhole(const Loaded& loaded) const {
    ASSERT_FALSE(loaded.hasOldFilter);
    EXPECT_EQ(0, loaded.outcome);
    EXPECT_EQ(DataOf(*filter_), DataOf(*loaded.filter));
    EXPECT_EQ(filter_->GetInsertedFingerPrints(), loaded.filter->GetInsertedFingerPrints());
    EXPECT_EQ(DcidBytes(list_.begin(), list_.end()), loaded.udcids);
  }

  /// Loads the file with each of the bits from `begin` up to `end` turned, one at a time, and hands
  /// each result to `check`.
  void TurnBits(std::size_t begin, std::size_t end,
                const std::function<void(const Loaded&)>& check) const {
    for (std::size_t bit = begin; bit < end; ++bit) {
      SCOPED_TRACE("byte " + std::to_string(bit / 8) + ", bit " + std::to_string(bit % 8));
      std::string bytes = bytes_;
      bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ 1 << bit % 8);
      check(LoadBytes(bytes));
    }
  }
  void TurnBytes(std::size_t begin, std::size_t size,
                 const std::function<void(const Loaded&)>& check) const {
    TurnBits(begin * 8, (begin + size) * 8, check);
  }

  /// The file with another number at `at`.
  std::string With(std::size_t at, int width, std::uint64_t number) const {
    std::string bytes = bytes_;
    bytes.replace(at, static_cast<std::size_t>(width), Little(number, width));
    return bytes;
  }

  void ExpectMismatchBeforeTheFilter(const Loaded& loaded) {
    EXPECT_EQ(-1, loaded.outcome);
    ExpectUntouched(loaded);
    EXPECT_EQ((Log{{0, "read bloom finish, bufSize:64"}}), log_.Take());
  }
  void ExpectMismatchBehindTheFilter(const Loaded& loaded) {
    EXPECT_EQ(-1, loaded.outcome);
    ExpectOnlyFilter(loaded);
    EXPECT_EQ(Log(), FailuresOf(log_));
  }

  const std::unique_ptr<BloomFilter> filter_ = SmallFilter();
  const DcidList list_{{64, 100}, {0x123456789abc, 7}, {65, UINT64_MAX}};
  const std::string bytes_ = ImageOf(*filter_, list_).Bytes();
};

// ---- one wrong bit ------------------------------------------------------------------------------

TEST_F(BloomDamageTest, ABitOfWhatIsNotCheckedIsNotNoticed) {
  const auto check = [this](const Loaded& loaded) { ExpectWhole(loaded); };
  TurnBytes(0, 4, check);   // version
  TurnBytes(8, 4, check);   // bitmapSize
  TurnBytes(12, 8, check);  // expectedFingerprints
  TurnBytes(28, 4, check);  // hashFunctionCount
  TurnBytes(32, 4, check);  // padding
  TurnBytes(56, 4, check);  // padding
}

TEST_F(BloomDamageTest, ABitOfTheFilterDataIsDetected) {
  TurnBytes(kAtFilter, 64, [this](const Loaded& l) { ExpectMismatchBeforeTheFilter(l); });
}

TEST_F(BloomDamageTest, ABitOfTheInsertedCountIsDetected) {
  TurnBytes(kAtInserted, 8, [this](const Loaded& l) { ExpectMismatchBeforeTheFilter(l); });
}

TEST_F(BloomDamageTest, ABitOfTheRateIsDetected) {
  TurnBits(kAtRate * 8, kAtRate * 8 + 62,
           [this](const Loaded& l) { ExpectMismatchBeforeTheFilter(l); });
}

TEST_F(BloomDamageTest, TheHighestBitsOfTheRateMakeItOneThatTheFilterRefuses) {
  TurnBits(kAtRate * 8 + 62, kAtRate * 8 + 64, [this](const Loaded& loaded) {
    EXPECT_EQ(kThrewRate, loaded.outcome);
    ExpectUntouched(loaded);
    EXPECT_EQ(Log(), log_.Take());
  });
}

TEST_F(BloomDamageTest, ABitOfTheFilterChecksumIsDetected) {
  TurnBytes(kAtBloomCrc, 4, [this](const Loaded& l) { ExpectMismatchBeforeTheFilter(l); });
}

TEST_F(BloomDamageTest, ABitOfTheFilterSizeIsDetected) {
  TurnBytes(kAtBufferSize, 4, [](const Loaded& loaded) {
    EXPECT_TRUE(loaded.outcome == -1 || loaded.outcome == kThrewIo) << loaded.outcome;
    ExpectUntouched(loaded);
  });
}

TEST_F(BloomDamageTest, ABitOfTheListSizeIsDetectedBehindTheFilter) {
  TurnBytes(kAtListSize, 4, [this](const Loaded& loaded) {
    EXPECT_TRUE(loaded.outcome == -1 || loaded.outcome == kThrewIo) << loaded.outcome;
    ExpectOnlyFilter(loaded);
  });
}

TEST_F(BloomDamageTest, ABitOfTheListChecksumIsDetectedBehindTheFilter) {
  TurnBytes(kAtListCrc, 4, [this](const Loaded& l) { ExpectMismatchBehindTheFilter(l); });
}

TEST_F(BloomDamageTest, ABitOfTheListIsDetectedBehindTheFilter) {
  TurnBytes(kAtFilter + 64, 48, [this](const Loaded& l) { ExpectMismatchBehindTheFilter(l); });
}

// ---- cut short ----------------------------------------------------------------------------------

TEST_F(BloomDamageTest, AFileCutAnywhereIsAShortRead) {
  ExpectWhole(LoadBytes(bytes_));
  log_.Take();
  const LogRecord finish{0, "read bloom finish, bufSize:64"};
  const LogRecord sizes{0, "ReadBloom, path:" + path_ + ", buffSize:64, udcidBufSize:48"};
  for (std::size_t size = 0; size < bytes_.size(); ++size) {
    SCOPED_TRACE(size);
    const std::string cut = bytes_.substr(0, size);
    const Loaded loaded = LoadBytes(cut);
    const int length = static_cast<int>(size);
    EXPECT_EQ(kThrewIo, loaded.outcome);
    EXPECT_EQ(cut, BytesOf(path_));
    Log expected;
    if (size < 4) {
      expected = {ShortOf(length, 4, "read version of bloom file")};
    } else if (size < 60) {
      expected = {ShortOf(length - 4, 56, "failed to store Bloom filter attribute")};
    } else if (size < 124) {
      expected = {ShortOf(length - 60, 64, "failed to read buffer")};
    } else {
      expected = {finish, sizes, ShortOf(length - 124, 48, "failed to read buffer")};
      ExpectOnlyFilter(loaded);
    }
    if (size < 124) {
      ExpectUntouched(loaded);
    }
    EXPECT_EQ(expected, log_.Take());
  }
}

TEST_F(BloomDamageTest, ALargeFileCutIsToldByTheChunkThatIsShort) {
  constexpr std::size_t kChunk = 0x100000;
  BloomImage image = ImageOf(*filter_, {});
  image.filter.resize(2 * kChunk + 100);
  const std::string bytes = image.Bytes();
  const std::vector<std::tuple<std::size_t, int, int>> rows = {
      {0, 0, kChunk},       {kChunk - 1, kChunk - 1, kChunk},
      {kChunk, 0, kChunk},  {kChunk + 5, 5, kChunk},
      {2 * kChunk, 0, 100}, {2 * kChunk + 99, 99, 100}};
  for (const auto& [left, returned, expected] : rows) {
    SCOPED_TRACE(left);
    const Loaded loaded = LoadBytes(bytes.substr(0, kAtFilter + left));
    EXPECT_EQ(kThrewIo, loaded.outcome);
    ExpectUntouched(loaded);
    EXPECT_EQ((Log{ShortOf(returned, expected, "failed to read buffer")}), log_.Take());
  }
}

// ---- sizes that the file does not hold ----------------------------------------------------------

TEST_F(BloomDamageTest, ASizeOfTheFilterBeyondTheFileTakesNoMemory) {
  const AllocationLimit limit(2 * 1024 * 1024);
  for (const std::uint32_t size : {113U, 0x00800000U, 0x40000000U, 0x80000000U, 0xffffffffU}) {
    SCOPED_TRACE(size);
    const Loaded loaded = LoadBytes(With(kAtBufferSize, 4, size));
    EXPECT_EQ(kThrewIo, loaded.outcome);
    ExpectUntouched(loaded);
    const int chunk = static_cast<int>(std::min(size, 0x100000U));
    EXPECT_EQ((Log{ShortOf(112, chunk, "failed to read buffer")}), log_.Take());
  }
}

TEST_F(BloomDamageTest, ASizeOfTheListBeyondTheFileTakesNoMemory) {
  const AllocationLimit limit(2 * 1024 * 1024);
  for (const std::uint32_t size : {49U, 0x00800000U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
    SCOPED_TRACE(size);
    const Loaded loaded = LoadBytes(With(kAtListSize, 4, size));
    EXPECT_EQ(kThrewIo, loaded.outcome);
    ExpectOnlyFilter(loaded);
    const int chunk = static_cast<int>(std::min(size, 0x100000U));
    EXPECT_EQ((Log{ShortOf(48, chunk, "failed to read buffer")}), FailuresOf(log_));
  }
}

TEST_F(BloomDamageTest, AFilterThatIsTooLargeForTheHostIsRefusedByIt) {
  WriteBytes(path_, With(kAtBufferSize, 4, 0x80000001U));
  fs::resize_file(path_, 60 + 0x80000001UL);  // a hole
  const Loaded loaded = Load(path_);
  EXPECT_EQ(kThrewLength, loaded.outcome);
  ExpectUntouched(loaded);
  EXPECT_EQ(Log(), log_.Take());
}

TEST_F(BloomDamageTest, ARateThatMakesNoSenseIsRefusedByTheFilter) {
  using Limits = std::numeric_limits<double>;
  for (const double rate :
       {0.0, -0.0, 1.0, 2.0, -0.02, Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN(),
        Limits::signaling_NaN(), Limits::max(), -Limits::denorm_min()}) {
    SCOPED_TRACE(rate);
    BloomImage image = ImageOf(*filter_, list_);
    image.rate = rate;
    const Loaded loaded = LoadBytes(image.Bytes());
    EXPECT_EQ(kThrewRate, loaded.outcome) << "though the checksum is right";
    ExpectUntouched(loaded);
    EXPECT_EQ(Log(), log_.Take());
  }
}

// ---- no memory ----------------------------------------------------------------------------------

TEST_F(BloomDamageTest, WithoutMemoryForTheChecksumAStoredFileIsRefusedLater) {
  const auto filter = FilterOf(0x200000, 10);
  {
    const AllocationLimit limit(0x200000);
    EXPECT_EQ(0, Store(path_, filter.get(), {{64, 1}}));
  }
  EXPECT_EQ(1U, NumberAt(BytesOf(path_), kAtBloomCrc, 4));
  const Loaded loaded = Load(path_);
  EXPECT_EQ(-1, loaded.outcome);
  ExpectUntouched(loaded);
}

TEST_F(BloomDamageTest, WithoutMemoryForTheChecksumAFileIsRefused) {
  ASSERT_EQ(0, Store(path_, FilterOf(0x200000, 10).get(), {{64, 1}}));
  {
    const AllocationLimit limit(0x200000);
    const Loaded loaded = Load(path_);
    EXPECT_EQ(-1, loaded.outcome);
    ExpectUntouched(loaded);
  }
  EXPECT_EQ(0, Load(path_).outcome);
}

TEST_F(BloomDamageTest, WithoutMemoryForTheFilterOrTheListTheExceptionPasses) {
  ASSERT_EQ(0, Store(path_, FilterOf(0x200000, 10).get(), {{64, 1}}));
  {
    const AllocationLimit limit(0x1fffff);
    const Loaded loaded = Load(path_);
    EXPECT_EQ(kThrewMemory, loaded.outcome);
    ExpectUntouched(loaded);
  }
  DcidList list;
  for (unsigned long dcid = 64; list.size() <= 0x10000; ++dcid) {
    list.emplace_back(dcid, 1);
  }
  const std::string bytes = ImageOf(*filter_, list).Bytes();
  WriteBytes(path_, bytes);
  const AllocationLimit limit(0x100000);
  const Loaded loaded = Load(path_);
  EXPECT_EQ(kThrewMemory, loaded.outcome);
  ExpectOnlyFilter(loaded);
}

// ---- anything else ------------------------------------------------------------------------------

TEST_F(BloomDamageTest, RandomBytesAreRefused) {
  constexpr unsigned int kSeed = 1;
  SCOPED_TRACE(kSeed);
  std::mt19937 random(kSeed);
  for (int i = 0; i < 3000; ++i) {
    std::string bytes(random() % 400, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    if (i % 3 == 0 && bytes.size() > kAtFilter) {  // sizes and a rate to get past
      bytes.replace(kAtBufferSize, 4, Little(random() % 400, 4));
      bytes.replace(kAtRate, 8, Little(BitsOf(0.02), 8));
    }
    const Loaded loaded = LoadBytes(bytes);
    EXPECT_NE(0, loaded.outcome) << i;
    ExpectUntouched(loaded);
  }
}

TEST_F(BloomDamageTest, TheBytesOfOtherFilesAreRefused) {
  for (const std::string& bytes :
       {std::string(1000, '\0'), std::string(1000, '\xff'), std::string(3000, 'x')}) {
    const Loaded loaded = LoadBytes(bytes);
    EXPECT_TRUE(loaded.outcome == kThrewRate || loaded.outcome == kThrewIo) << loaded.outcome;
    ExpectUntouched(loaded);
  }
}

TEST_F(BloomDamageTest, ADirectoryOpensAndCannotBeRead) {
  fs::create_directory(path_);
  const Loaded loaded = Load(path_);
  EXPECT_EQ(kThrewIo, loaded.outcome);
  ExpectUntouched(loaded);
  EXPECT_EQ((Log{ShortOf(-1, 4, "read version of bloom file")}), log_.Take());
}

}  // namespace
