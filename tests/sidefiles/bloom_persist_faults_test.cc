// What a failing call leaves behind, in results, in the log and on file.

#include <cerrno>

#include "tests/sidefiles/bloom_persist_fixture.h"
#include "tests/support/fault_injection.h"

namespace {

namespace fs = boost::filesystem;
using namespace zefs::test;

constexpr int kChunk = 0x100000;
constexpr std::size_t kFileBytes = 60 + 2 * kChunk + 32;

/// A filter of two chunks and two containers: each write and each read of a file happens.
class BloomFaultsTest : public BloomPersistFixture {
 protected:
  int Store() { return BloomPersistFixture::Store(path_, filter_.get(), udcids_); }

  void ExpectLoads() const {
    const Loaded loaded = Load(path_);
    EXPECT_EQ(0, loaded.outcome);
    EXPECT_EQ(udcids_, loaded.udcids);
    EXPECT_TRUE(DataOf(*filter_) == DataOf(*loaded.filter));
  }

  const std::unique_ptr<BloomFilter> filter_ = FilterOf(2 * kChunk, 100);
  const DcidBytes udcids_{{64, 1}, {65, 2}};
  const WatchCalls watch_{dir_.path().string()};
};

// ---- Reset, CheckAndClose -----------------------------------------------------------------------

TEST_F(BloomFaultsTest, FailedOpenIsLoggedAndLeavesTheObjectClosed) {
  WriteBytes(path_, "x");
  for (const bool readOnly : {false, true}) {
    BloomPersist file(path_, readOnly);
    ASSERT_EQ(0, file.Reset(false));
    Faults::FailNth(Call::kOpen, 1, EACCES);
    EXPECT_EQ(-1, file.Reset(true));
    EXPECT_EQ((Log{{8, "failed to open file " + path_ + ", errno is 13"}}), log_.Take());
    EXPECT_EQ(-1, BloomPersistTestPeer::Descriptor(file));
    unsigned char byte = 0;
    EXPECT_THROW(file.Read(&byte, 1), SysException);
    EXPECT_THROW(file.Write(&byte, 1), SysException);
    EXPECT_EQ((Log{{8, "returned size -1, expected size 1 for failed to read buffer"},
                   {8, "returned size -1, expected size 1 for failed to write buffer to disk"}}),
              log_.Take());
    EXPECT_EQ(0, file.Reset(false)) << "the next attempt";
  }
  EXPECT_EQ("x", BytesOf(path_));
}

TEST_F(BloomFaultsTest, FailedCloseInResetIsLoggedAndTheFileOpenedAnew) {
  BloomPersist file(path_, false);
  ASSERT_EQ(0, file.Reset(false));
  Faults::FailNth(Call::kClose, 1, EIO);
  EXPECT_EQ(0, file.Reset(false));
  EXPECT_EQ((Log{{8, "close file failed, return is -1, errno is 5"}}), log_.Take());
  EXPECT_NE(-1, BloomPersistTestPeer::Descriptor(file));
}

TEST_F(BloomFaultsTest, FailedCloseIsLoggedAndNotTriedAgain) {
  {
    BloomPersist file(path_, false);
    ASSERT_EQ(0, file.Reset(false));
    Faults::FailNth(Call::kClose, 1, EIO);
    file.CheckAndClose();
    EXPECT_EQ((Log{{8, "close file " + path_ + " failed, return is -1; errno is 5"}}), log_.Take());
    EXPECT_EQ(-1, BloomPersistTestPeer::Descriptor(file));
  }
  EXPECT_EQ(1, Faults::Count(Call::kClose));
  {
    BloomPersist file(path_, false);
    ASSERT_EQ(0, file.Reset(false));
    Faults::FailNth(Call::kClose, 1, ENOSPC);
  }
  EXPECT_EQ((Log{{8, "close file " + path_ + " failed, return is -1; errno is 28"}}), log_.Take());
}

// ---- StoreBloom ---------------------------------------------------------------------------------

struct StoreStep {
  std::size_t before;  ///< bytes of the file before this write
  int bytes;           ///< of this write
  const char* what;
};
const std::vector<StoreStep> kStoreSteps = {
    {0, 4, "failed to write version of bloom file"},
    {4, 56, "failed to store Bloom filter attribute"},
    {60, kChunk, "failed to write buffer to disk"},
    {60 + kChunk, kChunk, "failed to write buffer to disk"},
    {60 + 2 * kChunk, 32, "failed to write buffer to disk"},
};

std::string ShortText(int returned, int expected, const std::string& what) {
  return "returned size " + std::to_string(returned) + ", expected size " +
         std::to_string(expected) + " for " + what;
}

TEST_F(BloomFaultsTest, EachFailedWriteThrowsAndLeavesWhatCameBeforeIt) {
  const int fired = Faults::UntilNoneFires([this](int nth) {
    SCOPED_TRACE(nth);
    Faults::FailNth(Call::kWrite, nth, ENOSPC);
    const int outcome = Store();
    const auto step = static_cast<std::size_t>(nth) - 1;
    if (step >= kStoreSteps.size()) {
      EXPECT_EQ(0, outcome);
      EXPECT_EQ(Log(), FailuresOf(log_));
      ExpectLoads();
      return;
    }
    EXPECT_EQ(kThrewIo, outcome);
    EXPECT_EQ((Log{{8, ShortText(-1, kStoreSteps[step].bytes, kStoreSteps[step].what)}}),
              FailuresOf(log_));
    EXPECT_EQ(kStoreSteps[step].before, BytesOf(path_).size());
    EXPECT_EQ(kThrewIo, Load(path_).outcome) << "a file that was cut short";
    log_.Take();
  });
  EXPECT_EQ(5, fired);
}

TEST_F(BloomFaultsTest, EachShortWriteTellsHowFarItGot) {
  for (std::size_t step = 0; step < kStoreSteps.size(); ++step) {
    SCOPED_TRACE(step);
    Faults::ShortWriteNth(static_cast<int>(step) + 1, 3);
    Faults::FailNth(Call::kWrite, static_cast<int>(step) + 2, EIO);
    EXPECT_EQ(kThrewIo, Store());
    Faults::Disarm();
    EXPECT_EQ((Log{{8, ShortText(3, kStoreSteps[step].bytes, kStoreSteps[step].what)}}),
              FailuresOf(log_));
    EXPECT_EQ(kStoreSteps[step].before + 3, BytesOf(path_).size());
    EXPECT_EQ(kThrewIo, Load(path_).outcome);
    log_.Take();
  }
}

TEST_F(BloomFaultsTest, AShortWriteAloneIsNoFailure) {
  for (int nth = 1; nth <= 5; ++nth) {
    SCOPED_TRACE(nth);
    Faults::ShortWriteNth(nth, 3);
    EXPECT_EQ(0, Store());
    Faults::Disarm();
    ExpectLoads();
  }
}

TEST_F(BloomFaultsTest, InterruptedCallsAreNoFailure) {
  for (const Call call : {Call::kWrite, Call::kRead}) {
    Faults::UntilNoneFires([&](int nth) {
      Faults::FailNth(call, nth, EINTR);
      EXPECT_EQ(0, Store());
      ExpectLoads();
    });
  }
}

TEST_F(BloomFaultsTest, StoringIsLoggedOnceTheVersionIsWritten) {
  Faults::FailNth(Call::kWrite, 1, EIO);
  EXPECT_EQ(kThrewIo, Store());
  EXPECT_EQ((Log{{8, ShortText(-1, 4, "failed to write version of bloom file")}}), log_.Take());
  Faults::FailNth(Call::kWrite, 2, EIO);
  EXPECT_EQ(kThrewIo, Store());
  EXPECT_EQ((Log{{0, "StoreBloom, path:" + path_ + ", buffSize:2097152, udcidBufSize:32"},
                 {8, ShortText(-1, 56, "failed to store Bloom filter attribute")}}),
            log_.Take());
}

// ---- ReadBloom ----------------------------------------------------------------------------------

TEST_F(BloomFaultsTest, EachFailedReadThrowsAndKeepsTheFile) {
  ASSERT_EQ(0, Store());
  log_.Take();
  const std::vector<std::pair<int, const char*>> steps = {
      {4, "read version of bloom file"}, {56, "failed to store Bloom filter attribute"},
      {kChunk, "failed to read buffer"}, {kChunk, "failed to read buffer"},
      {32, "failed to read buffer"},
  };
  const int fired = Faults::UntilNoneFires([&](int nth) {
    SCOPED_TRACE(nth);
    Faults::FailNth(Call::kRead, nth, EIO);
    const Loaded loaded = Load(path_);
    const auto step = static_cast<std::size_t>(nth) - 1;
    if (step >= steps.size()) {
      EXPECT_EQ(0, loaded.outcome);
      EXPECT_EQ(Log(), FailuresOf(log_));
      return;
    }
    EXPECT_EQ(kThrewIo, loaded.outcome);
    EXPECT_EQ((Log{{8, ShortText(-1, steps[step].first, steps[step].second)}}), FailuresOf(log_));
    EXPECT_EQ(step < 4, loaded.hasOldFilter) << "the filter is there before the list is read";
    EXPECT_EQ(OldUdcids(), loaded.udcids);
  });
  EXPECT_EQ(5, fired);
  EXPECT_EQ(kFileBytes, fs::file_size(path_));
  ExpectLoads();
}

TEST_F(BloomFaultsTest, NoCallThatFailsLeavesADescriptorOpen) {
  const std::string source = path_ + ".source";
  ASSERT_EQ(0, BloomPersistFixture::Store(source, filter_.get(), udcids_));
  for (const Call call : {Call::kOpen, Call::kWrite, Call::kRead, Call::kClose}) {
    const int fired = Faults::UntilNoneFires([&](int nth) {
      SCOPED_TRACE("call " + std::to_string(static_cast<int>(call)) + ", " + std::to_string(nth));
      const int opened = Faults::Count(Call::kOpen);
      const int closed = Faults::Count(Call::kClose);
      Faults::FailNth(call, nth, EIO);
      Store();
      {
        BloomPersist file(source, true);
        std::unique_ptr<BloomFilter> filter;
        DcidBytes udcids;
        file.Reset(false);
        OutcomeOf([&] { return file.ReadBloom(&filter, &udcids); });
      }
      const int failed = call == Call::kOpen && Faults::Fired() ? 1 : 0;
      EXPECT_EQ(Faults::Count(Call::kOpen) - opened - failed, Faults::Count(Call::kClose) - closed);
    });
    EXPECT_GT(fired, 0) << static_cast<int>(call);
  }
}

}  // namespace
