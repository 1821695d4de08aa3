// What a power cut may leave: everything that the model allows turns up, and nothing else.

#include "tests/system/power_cut/model_disk.h"

#include <algorithm>
#include <fcntl.h>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zefs::test {
namespace {

using testing::Contains;
using testing::ElementsAre;

constexpr std::size_t kSector = ModelDisk::kSector;

DiskEvent Open(int fd, const std::string& path) {
  return {DiskEvent::kOpen, fd, O_CREAT | O_RDWR, 0, path, ""};
}
DiskEvent Write(int fd, std::uint64_t offset, const std::string& bytes) {
  return {DiskEvent::kWrite, fd, 0, offset, "", bytes};
}
DiskEvent SyncWrite(int fd) {
  return {DiskEvent::kSyncWrite, fd, 0, 0, "", ""};
}
DiskEvent Sync(int fd) {
  return {DiskEvent::kSync, fd, 0, 0, "", ""};
}
DiskEvent Truncate(int fd, std::uint64_t size) {
  return {DiskEvent::kTruncate, fd, 0, size, "", ""};
}
DiskEvent Rename(const std::string& from, const std::string& to) {
  return {DiskEvent::kRename, -1, 0, 0, from, to};
}
DiskEvent Unlink(const std::string& path) {
  return {DiskEvent::kUnlink, -1, 0, 0, path, ""};
}
DiskEvent Mkdir(const std::string& path) {
  return {DiskEvent::kMkdir, -1, 0, 0, path, ""};
}

class ModelDiskTest : public testing::TestWithParam<Names> {
 protected:
  /// All that was left by many power cuts at the end of these calls.
  static std::set<DiskImage> Left(Names names, const DiskImage& before,
                                  const std::vector<DiskEvent>& events) {
    ModelDisk disk(before, names);
    for (const DiskEvent& event : events) {
      disk.Apply(event);
    }
    std::mt19937_64 random(1);
    std::set<DiskImage> left;
    for (int variant = 0; variant < 600; ++variant) {
      left.insert(disk.AfterPowerCut(variant, &random));
    }
    return left;
  }

  /// The files of each, "name name ".
  static std::set<std::string> NamesOf(const std::set<DiskImage>& images) {
    std::set<std::string> names;
    for (const DiskImage& image : images) {
      std::string text;
      for (const auto& [path, bytes] : image) {
        text += path + ' ';
      }
      names.insert(text);
    }
    return names;
  }

  /// The bytes of "f" in each.
  static std::set<std::string> BytesIn(const std::set<DiskImage>& images) {
    std::set<std::string> all;
    for (const DiskImage& image : images) {
      const auto at = image.find("f");
      all.insert(at == image.end() ? "none" : at->second.value_or("directory"));
    }
    return all;
  }

  std::set<DiskImage> Left(const DiskImage& before, const std::vector<DiskEvent>& events) const {
    return Left(GetParam(), before, events);
  }
};

INSTANTIATE_TEST_SUITE_P(Of, ModelDiskTest, testing::Values(Names::kInOrder, Names::kUnordered));

TEST_P(ModelDiskTest, AWriteIsLostKeptOrTornAtSectors) {
  const std::string old(3 * kSector, 'o');
  std::set<std::string> expected;
  for (unsigned int kept = 0; kept < 8; ++kept) {
    std::string bytes = old;
    for (std::size_t sector = 0; sector < 3; ++sector) {
      if ((kept >> sector & 1U) != 0) {
        std::fill_n(bytes.begin() + static_cast<long>(sector * kSector), kSector, 'n');
      }
    }
    expected.insert(bytes);
  }
  EXPECT_EQ(expected, BytesIn(Left({{"f", old}},
                                   {Open(3, "f"), Write(3, 0, std::string(3 * kSector, 'n'))})));
}

TEST_P(ModelDiskTest, AWriteInsideOneSectorIsWholeOrNotAtAll) {
  const std::string old(2 * kSector, 'o');
  std::string written = old;
  written.replace(kSector + 10, 3, "new");
  EXPECT_EQ((std::set<std::string>{old, written}),
            BytesIn(Left({{"f", old}}, {Open(3, "f"), Write(3, kSector + 10, "new")})));
}

TEST_P(ModelDiskTest, WhatIsSyncedLasts) {
  EXPECT_THAT(BytesIn(Left({{"f", "old"}}, {Open(3, "f"), Write(3, 0, "newer"), Sync(3)})),
              ElementsAre("newer"));
}

TEST_P(ModelDiskTest, AWriteAfterASyncIsNotCoveredByIt) {
  EXPECT_THAT(BytesIn(Left({{"f", "old"}},
                           {Open(3, "f"), Write(3, 0, "new"), Sync(3), Write(3, 0, "xxx")})),
              ElementsAre("new", "xxx"));
}

TEST_P(ModelDiskTest, AWriteThatSyncsLastsAndNoOther) {
  const auto left = BytesIn(Left({{"f", std::string(2 * kSector, 'o')}},
                                 {Open(3, "f"), Write(3, 0, std::string(kSector, 'n')),
                                  Write(3, kSector, std::string(kSector, 'm')), SyncWrite(3)}));
  EXPECT_THAT(left, ElementsAre(std::string(kSector, 'n') + std::string(kSector, 'm'),
                                std::string(kSector, 'o') + std::string(kSector, 'm')));
}

TEST_P(ModelDiskTest, ASizeIsLostOrKeptWhateverBecomesOfTheBytes) {
  EXPECT_THAT(BytesIn(Left({{"f", "ab"}}, {Open(3, "f"), Write(3, 2, "cd")})),
              testing::UnorderedElementsAre("ab", "abcd", std::string("ab\0\0", 4)));
  EXPECT_THAT(BytesIn(Left({{"f", "abcd"}}, {Open(3, "f"), Truncate(3, 1)})),
              testing::IsSupersetOf({std::string("a"), std::string("abcd")}));
}

TEST_P(ModelDiskTest, AWriteThatSyncsHasTheSizeItNeeds) {
  EXPECT_THAT(BytesIn(Left({{"f", ""}}, {Open(3, "f"), Write(3, 0, "abcd"), SyncWrite(3)})),
              ElementsAre("abcd"));
}

TEST_P(ModelDiskTest, ANewFileMayBeGone) {
  EXPECT_THAT(NamesOf(Left({}, {Open(3, "f")})), ElementsAre("", "f "));
}

TEST_P(ModelDiskTest, ARenameIsLostOrKeptAndLeavesOneName) {
  EXPECT_THAT(NamesOf(Left({{"a", "1"}, {"b", "2"}}, {Rename("a", "b")})),
              ElementsAre("a b ", "b "));
}

TEST_P(ModelDiskTest, ARemovedFileMayBeBack) {
  EXPECT_THAT(NamesOf(Left({{"a", "1"}}, {Unlink("a")})), ElementsAre("", "a "));
}

TEST_P(ModelDiskTest, WhatIsInALostDirectoryIsLost) {
  EXPECT_THAT(NamesOf(Left({}, {Mkdir("d"), Open(3, "d/f")})), ElementsAre("", "d ", "d d/f "));
}

TEST_P(ModelDiskTest, ASyncedDirectoryHasItsNames) {
  const DiskEvent directory = {DiskEvent::kOpen, 9, 0, 0, "d", ""};
  EXPECT_THAT(NamesOf(Left({{"d", std::nullopt}, {"d/a", ""}},
                           {Open(3, "d/f"), Unlink("d/a"), directory, Sync(9)})),
              ElementsAre("d d/f "));
}

TEST(NamesInOrderTest, ASyncedFileHasItsNameAndAllChangesInFrontOfIt) {
  class Reach : public ModelDiskTest {
   public:
    using ModelDiskTest::Left;
    using ModelDiskTest::NamesOf;
  };
  const std::vector<DiskEvent> events = {Unlink("a"), Open(3, "f"), Sync(3), Unlink("b")};
  EXPECT_THAT(Reach::NamesOf(Reach::Left(Names::kInOrder, {{"a", ""}, {"b", ""}}, events)),
              ElementsAre("b f ", "f "));
  EXPECT_THAT(
      Reach::NamesOf(Reach::Left(Names::kUnordered, {{"a", ""}, {"b", ""}}, events)),
      testing::UnorderedElementsAre("", "a ", "b ", "f ", "a b ", "a f ", "b f ", "a b f "));
}

TEST(NamesInOrderTest, ALaterChangeIsNotThereWithoutTheEarlier) {
  class Reach : public ModelDiskTest {
   public:
    using ModelDiskTest::Left;
    using ModelDiskTest::NamesOf;
  };
  const std::vector<DiskEvent> events = {Rename("new", "full"), Unlink("small")};
  const DiskImage before = {{"full", "1"}, {"new", "2"}, {"small", "3"}};
  EXPECT_THAT(Reach::NamesOf(Reach::Left(Names::kInOrder, before, events)),
              ElementsAre("full ", "full new small ", "full small "));
  EXPECT_THAT(Reach::NamesOf(Reach::Left(Names::kUnordered, before, events)),
              Contains("full new "));
}

}  // namespace
}  // namespace zefs::test
