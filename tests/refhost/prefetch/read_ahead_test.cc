#include "refhost/prefetch/read_ahead.h"

#include <fcntl.h>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "refhost/store/store_error.h"
#include "table/extent.h"
#include "tests/refhost/durable/durable_fixture.h"

// Reading ahead, seen through a store.

namespace zefs::refhost {
namespace {

using test::DurableStoreTest;
using test::kSegment;
using test::Pattern;
using test::ReadAll;
using ::testing::Each;

constexpr std::size_t kSegmentsOfFile = 64;
constexpr std::size_t kSegmentsOfContainer = 16;  // of 8192 bytes

class ReadAheadTest : public DurableStoreTest {
 protected:
  ReadAheadTest() {
    options_.workers = 1;  // containers in the order of the writes
    options_.readAhead.windowBytes = 8 * kSegment;
  }

  void PutFile(const std::string& name, const std::string& bytes) {
    store().Create(name);
    store().Write(name, 0, bytes);
  }
  std::string ReadSegment(const std::string& name, std::size_t number) {
    std::string bytes(kSegment, '?');
    bytes.resize(store().Read(name, static_cast<std::int64_t>(number * kSegment), bytes.data(),
                              bytes.size()));
    return bytes;
  }
  void ExpectSegments(const std::string& name, const std::string& expected, std::size_t first,
                      std::size_t end) {
    for (std::size_t i = first; i < end; ++i) {
      EXPECT_EQ(expected.substr(i * kSegment, kSegment), ReadSegment(name, i)) << "segment " << i;
    }
  }
  std::string Container(std::uint64_t dcid) const {
    return Path() + "/containers/" + std::to_string(dcid);
  }

  const std::string bytes_ = Pattern(1, kSegmentsOfFile* kSegment);
};

TEST_F(ReadAheadTest, SequentialReaderFindsWhatWasFetchedAhead) {
  PutFile("a", bytes_);
  SyncAndReopen();
  ExpectSegments("a", bytes_, 0, kSegmentsOfFile);
  const ReadAheadFigures figures = store().readAheadFigures();
  EXPECT_EQ(1U, figures.misses) << "the first read";
  EXPECT_EQ(kSegmentsOfFile - 1, figures.hits);
  EXPECT_EQ(kSegmentsOfFile / kSegmentsOfContainer, figures.containers) << "each fetched once";
  EXPECT_EQ(bytes_.size(), figures.fetchedBytes);
  EXPECT_EQ(12U, figures.plans) << "one for each five segments";
}

TEST_F(ReadAheadTest, ReadsHereAndThereAskForNoPlan) {
  PutFile("a", bytes_);
  SyncAndReopen();
  for (std::size_t i = 0; i < kSegmentsOfFile; i += 2) {
    ExpectSegments("a", bytes_, i, i + 1);
  }
  const ReadAheadFigures figures = store().readAheadFigures();
  EXPECT_EQ(0U, figures.plans + figures.containers + figures.fetchedBytes + figures.hits);
  EXPECT_EQ(kSegmentsOfFile / 2, figures.misses);
}

TEST_F(ReadAheadTest, WithoutAWindowNothingIsFetchedOrCounted) {
  auto& config = FileSystemDaemonConfig::GetInstance();
  config.Set(&FileSystemDaemonConfig::prefetchEnabled, 0);  // whatever another test has left
  options_.readAhead.windowBytes = 0;
  PutFile("a", bytes_);
  SyncAndReopen();
  ExpectSegments("a", bytes_, 0, kSegmentsOfFile);
  EXPECT_FALSE(store().readAheadFigures().Any());
  EXPECT_EQ(0, config.Get(&FileSystemDaemonConfig::prefetchEnabled));
  options_.readAhead.windowBytes = kSegment;
  Close();
  store();
  EXPECT_EQ(1, config.Get(&FileSystemDaemonConfig::prefetchEnabled)) << "from now on";
}

TEST_F(ReadAheadTest, CacheTooSmallForTheWindowMakesTheWindowSmaller) {
  options_.readAhead.cacheBytes = 4 * kSegment;
  PutFile("a", bytes_);
  SyncAndReopen();
  ExpectSegments("a", bytes_, 0, kSegmentsOfFile);
  EXPECT_EQ(0U, store().readAheadFigures().fetchedBytes) << "no block has room";
  EXPECT_EQ(kSegmentsOfFile, store().readAheadFigures().misses);
  EXPECT_GT(store().readAheadFigures().plans, 12U);
}

TEST_F(ReadAheadTest, WhatStillHasANodeIsReadFromThat) {
  const test::SmallThresholds never(1000, 100000);
  PutFile("a", bytes_);
  ExpectSegments("a", bytes_, 0, kSegmentsOfFile);
  EXPECT_EQ(0U, store().readAheadFigures().hits + store().readAheadFigures().misses);
  EXPECT_EQ("", store().nodes().Problem());
}

TEST_F(ReadAheadTest, WriteInsideWhatWasPlannedIsSeenAtOnce) {
  PutFile("a", bytes_);
  SyncAndReopen();
  ExpectSegments("a", bytes_, 0, 4);
  std::string now = bytes_;
  for (const std::size_t segment : {5U, 6U, 2U}) {
    const std::string fresh = Pattern(90 + segment, kSegment);
    now.replace(segment * kSegment, kSegment, fresh);
    store().Write("a", static_cast<std::int64_t>(segment * kSegment), fresh);
    EXPECT_EQ(fresh, ReadSegment("a", segment));
  }
  EXPECT_EQ(now, ReadAll(store(), "a"));
  ExpectSegments("a", now, 0, kSegmentsOfFile);
  store().Sync();
  ExpectSegments("a", now, 0, kSegmentsOfFile);
  EXPECT_EQ("", test::ProblemsOf(store()));
}

TEST_F(ReadAheadTest, WhatIsCutOffIsNotSeenWhenTheFileGrowsAgain) {
  PutFile("a", bytes_);
  SyncAndReopen();
  ExpectSegments("a", bytes_, 0, 4);
  store().Truncate("a", 5 * kSegment);
  store().Truncate("a", 8 * kSegment);
  ExpectSegments("a", bytes_.substr(0, 5 * kSegment) + std::string(3 * kSegment, '\0'), 0, 8);
}

TEST_F(ReadAheadTest, ExtentWithoutAContainerOffsetIsFoundByItsFingerprint) {
  PutFile("a", bytes_);
  SyncAndReopen();
  store().WithTable("a", [](MappingTable& table) {
    constexpr std::int64_t kEnd = 8 * kSegment;
    for (std::int64_t at = 0; at < kEnd; at += std::int64_t{kSegment}) {
      const auto it = table.find(at, nullptr);
      const DataCacheNode::ObjectID id = it->getObjectID();
      ASSERT_EQ(0, table.insert(at, it->getEOff(), &id, it->getObjOff(), 0, nullptr, -1, nullptr));
    }
  });
  ExpectSegments("a", bytes_, 0, kSegmentsOfFile);
  EXPECT_EQ(8U, store().readAheadFigures().misses);
  EXPECT_EQ(kSegmentsOfFile - 8, store().readAheadFigures().hits);
}

TEST_F(ReadAheadTest, ContainerOfWhichLittleIsNeededIsFetchedInPart) {
  constexpr std::size_t kBig = std::size_t{1} << 20;
  options_.containerBytes = 2 * kBig;
  const std::string few = Pattern(77, 4 * kSegment);
  PutFile("big", Pattern(2, kBig));
  store().Sync();
  PutFile("small", few);
  SyncAndReopen();
  ExpectSegments("small", few, 0, 4);
  EXPECT_EQ(1U, store().readAheadFigures().containers);
  EXPECT_EQ(few.size(), store().readAheadFigures().fetchedBytes) << "the last block of it";
  EXPECT_EQ(3U, store().readAheadFigures().hits);
}

TEST_F(ReadAheadTest, ContainerOfWhichAQuarterIsNeededIsFetchedWhole) {
  constexpr std::size_t kBig = std::size_t{1} << 20;
  options_.containerBytes = kBig;
  options_.readAhead.windowBytes = kBig / 4;
  const std::string big = Pattern(2, kBig);
  PutFile("big", big);
  SyncAndReopen();
  ExpectSegments("big", big, 0, 2);
  EXPECT_EQ(1U, store().readAheadFigures().plans);
  EXPECT_EQ(1U, store().readAheadFigures().containers);
  ExpectSegments("big", big, 2, kBig / kSegment);
  EXPECT_EQ(kBig, store().readAheadFigures().fetchedBytes);
  EXPECT_EQ(1U, store().readAheadFigures().containers) << "and not again";
  EXPECT_EQ(1U, store().readAheadFigures().misses);
}

TEST_F(ReadAheadTest, ContainerThatIsGoneIsToldByTheReadOfItAlone) {
  PutFile("a", bytes_);
  SyncAndReopen();
  boost::filesystem::remove(Container(65));
  LogRecorder log(kLogRecoverable);
  ExpectSegments("a", bytes_, 0, kSegmentsOfContainer);
  EXPECT_THAT(log.Take(),
              Each(LogRecord{kLogRecoverable, "cannot fetch container 65 ahead: container " +
                                                  Container(65) + " is gone"}));
  EXPECT_THROW(
      {
        try {
          ReadSegment("a", kSegmentsOfContainer);
        } catch (const DamageError& error) {
          EXPECT_STREQ(("extent [8192, 8704): container " + Container(65) + " is gone").c_str(),
                       error.what());
          throw;
        }
      },
      DamageError);
  ExpectSegments("a", bytes_, 2 * kSegmentsOfContainer, kSegmentsOfFile);
  EXPECT_GT(store().readAheadFigures().hits, 0U);
}

TEST_F(ReadAheadTest, ContainerThatIsCutIsFetchedAsFarAsItGoes) {
  PutFile("a", bytes_);
  SyncAndReopen();
  FileHandle::Open(Container(64), O_RDWR).Resize(10 * kSegment);
  ExpectSegments("a", bytes_, 0, 10);
  EXPECT_EQ(9U, store().readAheadFigures().hits);
  EXPECT_THROW(ReadSegment("a", 10), DamageError);
}

TEST_F(ReadAheadTest, ContainerThatIsBeingWrittenIsFetchedAsFarAsItIsWritten) {
  const std::string first = bytes_.substr(0, 8 * kSegment);
  PutFile("a", first);
  store().Sync();
  FileHandle::Open(Container(64), O_RDWR).WriteAt(8 * kSegment, "left by a failed append");
  ExpectSegments("a", first, 0, 8);
  EXPECT_EQ(first.size(), store().readAheadFigures().fetchedBytes);
  const std::string second = bytes_.substr(8 * kSegment, 8 * kSegment);
  PutFile("b", second);
  store().Sync();
  ExpectSegments("b", second, 0, 8);
  EXPECT_EQ(3 * first.size(), store().readAheadFigures().fetchedBytes)
      << "a block that has grown is fetched again";
}

TEST_F(ReadAheadTest, EqualDataOfAnotherFileIsHit) {
  PutFile("a", bytes_);
  PutFile("b", bytes_);
  SyncAndReopen();
  ExpectSegments("a", bytes_, 0, kSegmentsOfFile);
  ExpectSegments("b", bytes_, 0, kSegmentsOfFile);
  EXPECT_EQ(1U, store().readAheadFigures().misses);
  EXPECT_EQ(bytes_.size(), store().readAheadFigures().fetchedBytes);
}

TEST_F(ReadAheadTest, FiguresAreKeptFromRunToRun) {
  PutFile("a", bytes_);
  SyncAndReopen();
  EXPECT_FALSE(store().formerReadAheadFigures().Any()) << "nothing was read";
  for (std::uint64_t run = 1; run <= 2; ++run) {
    ExpectSegments("a", bytes_, 0, kSegmentsOfFile);
    Close();
    EXPECT_EQ(run * (kSegmentsOfFile - 1), store().formerReadAheadFigures().hits);
    EXPECT_EQ(run, store().formerReadAheadFigures().misses);
    EXPECT_EQ(run * bytes_.size(), store().formerReadAheadFigures().fetchedBytes);
    EXPECT_EQ(0U, store().readAheadFigures().hits);
  }
}

}  // namespace
}  // namespace zefs::refhost
