#include "refhost/prefetch/container_cache.h"

#include <cstring>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zefs::refhost {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint32_t kBlock = ContainerCache::kBlockBytes;
constexpr std::int64_t kFull = std::int64_t{100} * kBlock;  // end of a container with many blocks

/// What tells the bytes of one block from those of another.
char LetterOf(std::uint64_t dcid, std::uint32_t number) {
  return static_cast<char>('a' + (dcid * 7 + number) % 26);
}

class ContainerCacheTest : public ::testing::Test {
 protected:
  ContainerCache::BlockNumbers Begin(std::uint64_t dcid, const ContainerCache::BlockNumbers& wanted,
                                     std::int64_t end = kFull) {
    ContainerCache::BlockNumbers begun;
    cache.Begin(dcid, wanted, end, &begun);
    return begun;
  }
  void Put(std::uint64_t dcid, std::uint32_t number, std::int64_t end = kFull) {
    const std::uint32_t length = ContainerCache::LengthOf(number, end);
    std::shared_ptr<char[]> bytes(new char[length]);
    std::memset(bytes.get(), LetterOf(dcid, number), length);
    cache.Put(dcid, number, std::move(bytes));
  }
  void Fetch(std::uint64_t dcid, const ContainerCache::BlockNumbers& wanted,
             std::int64_t end = kFull) {
    for (const std::uint32_t number : Begin(dcid, wanted, end)) {
      Put(dcid, number, end);
    }
  }
  /// The bytes, or "none".
  std::string Read(std::uint64_t dcid, std::int64_t offset, std::uint32_t size) {
    std::string bytes(size, '?');
    if (cache.Read(dcid, offset, size, bytes.data())) {
      return bytes;
    }
    EXPECT_EQ(std::string(size, '?'), bytes) << "nothing is copied";
    return "none";
  }

  ContainerCache cache{std::size_t{4} * kBlock};
};

TEST_F(ContainerCacheTest, WhatWasPutIsReadAcrossBlocks) {
  Fetch(64, {0, 1});
  EXPECT_EQ(std::string(3, LetterOf(64, 0)), Read(64, 0, 3));
  EXPECT_EQ(std::string(2, LetterOf(64, 0)) + std::string(3, LetterOf(64, 1)),
            Read(64, kBlock - 2, 5));
  EXPECT_EQ(std::string(kBlock, LetterOf(64, 0)) + std::string(kBlock, LetterOf(64, 1)),
            Read(64, 0, 2 * kBlock));
}

TEST_F(ContainerCacheTest, WhatIsMissingInPartIsNotRead) {
  Fetch(64, {0, 2});
  EXPECT_EQ("none", Read(64, kBlock - 2, 5));
  EXPECT_EQ("none", Read(64, 2 * kBlock - 1, 2));
  EXPECT_EQ("none", Read(65, 0, 1)) << "another container";
}

TEST_F(ContainerCacheTest, BlocksThatAreThereOrBegunAreNotBegunAgain) {
  EXPECT_THAT(Begin(64, {0, 1}), ElementsAre(0, 1));
  EXPECT_THAT(Begin(64, {0, 1, 2}), ElementsAre(2));
  Put(64, 0);
  EXPECT_THAT(Begin(64, {0, 1}), IsEmpty());
  for (const std::uint32_t number : {1U, 2U}) {
    cache.GiveUp(64, number);
  }
  EXPECT_THAT(Begin(64, {0, 1}), ElementsAre(1)) << "given up";
  cache.GiveUp(64, 1);
  EXPECT_EQ(kBlock, cache.bytes());
}

TEST_F(ContainerCacheTest, LastBlockIsShorterAndFetchedAgainWhenItHasGrown) {
  const std::int64_t end = kBlock + 10;
  Fetch(64, {0, 1, 2}, end);
  EXPECT_EQ(static_cast<std::size_t>(end), cache.bytes());
  EXPECT_EQ(std::string(10, LetterOf(64, 1)), Read(64, kBlock, 10));
  EXPECT_EQ("none", Read(64, kBlock, 11));
  EXPECT_THAT(Begin(64, {0, 1}, end + 1), ElementsAre(1));
  Put(64, 1, end + 1);
  EXPECT_EQ(std::string(11, LetterOf(64, 1)), Read(64, kBlock, 11));
  EXPECT_EQ(static_cast<std::size_t>(end) + 1, cache.bytes());
}

TEST_F(ContainerCacheTest, WhatWasUsedLeastRecentlyMakesRoom) {
  Fetch(64, {0, 1, 2, 3});
  Read(64, 0, 1);
  Begin(64, {1});  // wanted again
  Fetch(65, {0, 1});
  EXPECT_EQ(std::size_t{4} * kBlock, cache.bytes());
  EXPECT_NE("none", Read(64, 0, 1));
  EXPECT_NE("none", Read(64, kBlock, 1));
  EXPECT_EQ("none", Read(64, 2 * kBlock, 1));
  EXPECT_EQ("none", Read(64, 3 * kBlock, 1));
}

TEST_F(ContainerCacheTest, BlocksThatAreBegunTakeRoomAndAreNotThrownOut) {
  EXPECT_THAT(Begin(64, {0, 1, 2, 3, 4, 5}), ElementsAre(0, 1, 2, 3)) << "no room for more";
  EXPECT_THAT(Begin(65, {0}), IsEmpty());
  Put(64, 0);
  EXPECT_THAT(Begin(65, {0, 1}), ElementsAre(0)) << "in place of the one that is there";
  EXPECT_EQ("none", Read(64, 0, 1));
  for (const std::uint32_t number : {1U, 2U, 3U}) {
    cache.GiveUp(64, number);
  }
  cache.GiveUp(65, 0);
  EXPECT_EQ(0U, cache.bytes());
}

TEST_F(ContainerCacheTest, ReaderWaitsForABlockThatIsBegun) {
  Begin(64, {0, 1});
  std::string put;
  std::string givenUp;
  std::thread first([&] { put = Read(64, 5, 2); });
  std::thread second([&] { givenUp = Read(64, kBlock, 2); });
  Put(64, 0);
  cache.GiveUp(64, 1);
  first.join();
  second.join();
  EXPECT_EQ(std::string(2, LetterOf(64, 0)), put);
  EXPECT_EQ("none", givenUp);
}

}  // namespace
}  // namespace zefs::refhost
