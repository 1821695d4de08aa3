// Which volume a new table goes to, and what of it is measured when.

#include "persistent/metadata_volumes.h"

#include <array>
#include <cerrno>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "tests/persistent/clock_steps.h"
#include "tests/persistent/volume_switch.h"
#include "tests/support/temp_dir.h"

namespace zefs::test {
namespace {

using Aldenta::Qnd::Morene::Zefs::GetExtentPathInMVolume;
using Aldenta::Qnd::Morene::Zefs::isVolumeFull;
using testing::ElementsAre;
using testing::IsEmpty;

using Names = std::vector<std::string>;

constexpr std::time_t kNoon = 1700000000;

/// Three volumes that nobody has asked about before: what is remembered of a volume lasts as long
/// as the process, and each test has paths of its own.
class VolumesTest : public testing::Test {
 protected:
  VolumesTest() {
    StopClockAt(kNoon);
    for (const char* name : {"/a", "/b", "/c"}) {
      names_.push_back(dir_.path().string() + name);
      SetFree(names_.back());
    }
  }
  ~VolumesTest() override { SetClockStep(0); }

  void SetFree(const std::string& volume) { volumes_[volume] = {100, 50, 50}; }
  void SetFull(const std::string& volume) { volumes_[volume] = {100, 8, 8}; }

  /// What is measured of a volume that nobody has asked about before.
  bool FullAt(const VolumeSize& size) {
    const std::string volume = dir_.path().string() + "/" + std::to_string(++asked_);
    volumes_[volume] = size;
    return isVolumeFull(volume);
  }

  std::string Choose(const std::string& key) { return GetExtentPathInMVolume(names_, true, key); }

  /// "level text" of each line so far.
  Names Lines() {
    Names lines;
    for (const auto& record : log_.Take()) {
      lines.push_back(std::to_string(record.level) + ' ' + record.text);
    }
    return lines;
  }
  static std::string FullLine(const std::string& volume) {
    return "4 GetExtentPathInMVolume volume " + volume + " is full, skip it";
  }
  static std::string ResultLine(const std::string& volume, int count) {
    return "0 GetExtentPathInMVolume get volume " + volume + ", volume number " +
           std::to_string(count);
  }

  const TempDir dir_;
  refhost::LogRecorder log_;
  Volumes volumes_;
  Names names_;
  int asked_ = 0;
};

// --- the choice ----------------------------------------------------------------------------------

/// The bytes of a key are the digits of a number to the base 31, of which the lowest 31 bits count:
/// digit by digit from the last one on, with the power of the base that it stands for.
std::size_t IndexOf(const std::string& key, std::size_t volumes) {
  constexpr std::uint64_t kBits = std::uint64_t{1} << 31;
  std::uint64_t number = 0;
  std::uint64_t power = 1;
  for (auto digit = key.rbegin(); digit != key.rend(); ++digit) {
    number = (number + static_cast<unsigned char>(*digit) * power) % kBits;
    power = power * 31 % kBits;
  }
  return static_cast<std::size_t>(number) % volumes;
}

TEST_F(VolumesTest, AKeyGoesToTheVolumeOfItsHash) {
  const std::vector<std::string> keys = {"a",
                                         "b",
                                         "ab",
                                         "ba",
                                         "key",
                                         std::string(3, '\0'),
                                         "\xff\xfe",
                                         std::string(100, '\xe9'),
                                         "a longer key, of more bytes than the hash has bits",
                                         "/volume/file 1",
                                         "/volume/file 2"};
  std::array<int, 3> times{};
  for (const std::string& key : keys) {
    const std::size_t index = IndexOf(key, 3);
    EXPECT_EQ(names_[index], Choose(key)) << key;
    ++times.at(index);
  }
  EXPECT_THAT(times, testing::Each(testing::Gt(0))) << "the keys reach every volume";
}

TEST_F(VolumesTest, TheHashIsThatOfEveryOtherVersion) {
  // Worked out by hand: 97, 98, 97 * 31 + 98 = 3105, 107 * 961 + 101 * 31 + 121 = 106079.
  EXPECT_EQ(names_[97 % 3], Choose("a"));
  EXPECT_EQ(names_[98 % 3], Choose("b"));
  EXPECT_EQ(names_[3105 % 3], Choose("ab"));
  EXPECT_EQ(names_[106079 % 3], Choose("key"));
  // 255 * 31 + 254 = 8159: bytes above 127 are no negative numbers.
  EXPECT_EQ(names_[8159 % 3], Choose("\xff\xfe"));
}

TEST_F(VolumesTest, AnEmptyKeyGoesToTheFirstVolume) {
  EXPECT_EQ(names_[0], Choose(""));
  EXPECT_THAT(Lines(), ElementsAre(ResultLine(names_[0], 3)));
  EXPECT_THAT(volumes_.TakeMeasured(), ElementsAre(names_[0])) << "the others are not asked about";
}

TEST_F(VolumesTest, OfAFullVolumeTheKeysGoToTheLowestFreeOneButTheFirst) {
  SetFull(names_[0]);
  EXPECT_EQ(names_[1], Choose(""));
  EXPECT_THAT(Lines(), ElementsAre(FullLine(names_[0]), ResultLine(names_[1], 3)));
  EXPECT_THAT(volumes_.TakeMeasured(), ElementsAre(names_[0], names_[1]));
}

TEST_F(VolumesTest, TheFirstVolumeIsNotTriedForAKeyOfAnother) {
  SetFull(names_[1]);
  EXPECT_EQ(names_[2], Choose("a")) << "of volume 1; volume 0 is free";
  EXPECT_THAT(Lines(),
              ElementsAre(FullLine(names_[1]), FullLine(names_[1]), ResultLine(names_[2], 3)));
  EXPECT_THAT(volumes_.TakeMeasured(), ElementsAre(names_[1], names_[2]));
}

TEST_F(VolumesTest, AKeyOfAFullLastVolumeGoesDownAgain) {
  SetFull(names_[2]);
  EXPECT_EQ(names_[1], Choose("b")) << "of volume 2";
  EXPECT_THAT(Lines(), ElementsAre(FullLine(names_[2]), ResultLine(names_[1], 3)));
}

TEST_F(VolumesTest, WhereAllAreFullTheFirstTakesEverything) {
  for (const std::string& name : names_) {
    SetFull(name);
  }
  EXPECT_EQ(names_[0], Choose("b"));
  EXPECT_THAT(Lines(), ElementsAre(FullLine(names_[2]), FullLine(names_[1]), FullLine(names_[2]),
                                   ResultLine(names_[0], 3)));
  EXPECT_THAT(volumes_.TakeMeasured(), ElementsAre(names_[2], names_[1]))
      << "the one that is taken is not asked about";
  EXPECT_EQ(names_[0], Choose(""));
}

TEST_F(VolumesTest, TheFirstVolumeTakesWhatIsLeftOverWhereTheOthersAreFull) {
  SetFull(names_[1]);
  SetFull(names_[2]);
  EXPECT_EQ(names_[0], Choose("a"));
  EXPECT_EQ(names_[0], Choose("b"));
  EXPECT_THAT(volumes_.TakeMeasured(), ElementsAre(names_[1], names_[2]));
}

TEST_F(VolumesTest, TheOnlyVolumeIsTakenWhetherItIsFullOrNot) {
  names_.resize(1);
  EXPECT_EQ(names_[0], Choose("key"));
  EXPECT_THAT(Lines(), ElementsAre(ResultLine(names_[0], 1)));
  SetFull(names_[0]);
  StopClockAt(kNoon + 10);
  EXPECT_EQ(names_[0], Choose("key"));
  EXPECT_THAT(Lines(), ElementsAre(FullLine(names_[0]), ResultLine(names_[0], 1)));
}

TEST_F(VolumesTest, WithoutSpreadingThereIsNoVolumeAndNothingIsMeasured) {
  SetFull(names_[0]);
  EXPECT_EQ("", GetExtentPathInMVolume(names_, false, "key"));
  EXPECT_THAT(Lines(), ElementsAre(ResultLine("", 3)));
  EXPECT_THAT(volumes_.TakeMeasured(), IsEmpty());
}

TEST_F(VolumesTest, OfNoVolumesNoneIsChosen) {
  EXPECT_EQ("", GetExtentPathInMVolume({}, true, "key"));
  EXPECT_EQ("", GetExtentPathInMVolume({}, false, "key"));
  EXPECT_THAT(Lines(), ElementsAre(ResultLine("", 0), ResultLine("", 0)));
  EXPECT_THAT(volumes_.TakeMeasured(), IsEmpty());
}

TEST_F(VolumesTest, AVolumeThatIsListedTwiceIsMeasuredOnce) {
  SetFull(names_[1]);
  names_ = {names_[1], names_[1], names_[2]};
  EXPECT_EQ(names_[2], Choose(""));
  EXPECT_THAT(volumes_.TakeMeasured(), ElementsAre(names_[1], names_[2]));
}

// --- full or not ---------------------------------------------------------------------------------

TEST_F(VolumesTest, NinetyTwoPercentIsFullAndJustUnderIsNot) {
  EXPECT_TRUE(FullAt({100, 8, 8}));
  EXPECT_FALSE(FullAt({100, 9, 9}));
  EXPECT_TRUE(FullAt({100, 7, 7}));
  EXPECT_TRUE(FullAt({1000000, 80000, 80000}));
  EXPECT_FALSE(FullAt({1000000, 80001, 80001})) << "one block in a million";
  EXPECT_TRUE(FullAt({1000000, 79999, 79999}));
  EXPECT_TRUE(FullAt({100, 0, 0}));
  EXPECT_FALSE(FullAt({100, 100, 100}));
}

TEST_F(VolumesTest, WhatIsKeptForTheSuperuserCountsAsUsed) {
  EXPECT_TRUE(FullAt({100, 50, 8}));
  EXPECT_FALSE(FullAt({100, 5, 9}));
}

TEST_F(VolumesTest, AVolumeOfSeveralPetabytesIsMeasuredAsASmallOne) {
  constexpr std::uint64_t kUnit = 1 << 20;
  constexpr std::uint64_t kBlocks = std::uint64_t{1} << 36;
  EXPECT_FALSE(FullAt({kBlocks, 0, kBlocks / 4, kUnit}));
  EXPECT_TRUE(FullAt({kBlocks, 0, kBlocks / 16, kUnit}));
  EXPECT_TRUE(FullAt({2, 0, 0, 1})) << "and so is one of two bytes";
  EXPECT_FALSE(FullAt({2, 0, 1, 1}));
}

TEST_F(VolumesTest, AVolumeWithoutBlocksIsNotFull) {
  EXPECT_FALSE(FullAt({0, 0, 0}));
  EXPECT_FALSE(FullAt({0, 5, 5}));
  EXPECT_FALSE(FullAt({100, 100, 100, 0}));
}

TEST_F(VolumesTest, AVolumeThatCannotBeMeasuredIsFullForTenSeconds) {
  for (const int error : {EACCES, EIO, ENOENT, ENOTDIR, ELOOP, EOVERFLOW}) {
    EXPECT_TRUE(FullAt({100, 100, 100, 4096, error})) << error;
  }
  EXPECT_THAT(Lines(), IsEmpty()) << "nothing is told";
  volumes_[names_[0]].error = EIO;
  EXPECT_TRUE(isVolumeFull(names_[0]));
  volumes_[names_[0]].error = 0;
  StopClockAt(kNoon + 9);
  EXPECT_TRUE(isVolumeFull(names_[0]));
  StopClockAt(kNoon + 10);
  EXPECT_FALSE(isVolumeFull(names_[0]));
}

// --- what is remembered --------------------------------------------------------------------------

TEST_F(VolumesTest, WithinTenSecondsTheOldAnswerHolds) {
  EXPECT_FALSE(isVolumeFull(names_[0]));
  SetFull(names_[0]);
  for (const int later : {0, 1, 9}) {
    StopClockAt(kNoon + later);
    EXPECT_FALSE(isVolumeFull(names_[0])) << later;
    EXPECT_EQ(names_[0], Choose("")) << later;
  }
  EXPECT_THAT(volumes_.TakeMeasured(), ElementsAre(names_[0])) << "once";
  StopClockAt(kNoon + 10);
  EXPECT_TRUE(isVolumeFull(names_[0]));
  EXPECT_THAT(volumes_.TakeMeasured(), ElementsAre(names_[0]));
}

TEST_F(VolumesTest, ThatAVolumeIsFullIsRememberedAsLong) {
  SetFull(names_[0]);
  EXPECT_TRUE(isVolumeFull(names_[0]));
  SetFree(names_[0]);
  StopClockAt(kNoon + 9);
  EXPECT_TRUE(isVolumeFull(names_[0]));
  StopClockAt(kNoon + 10);
  EXPECT_FALSE(isVolumeFull(names_[0]));
}

TEST_F(VolumesTest, EveryMeasurementBeginsTenSecondsAnewAndNoQuestionDoes) {
  EXPECT_FALSE(isVolumeFull(names_[0]));
  StopClockAt(kNoon + 9);
  EXPECT_FALSE(isVolumeFull(names_[0]));
  StopClockAt(kNoon + 11);
  EXPECT_FALSE(isVolumeFull(names_[0]));
  EXPECT_EQ(2U, volumes_.TakeMeasured().size());
  SetFull(names_[0]);
  StopClockAt(kNoon + 20);
  EXPECT_FALSE(isVolumeFull(names_[0]));
  StopClockAt(kNoon + 21);
  EXPECT_TRUE(isVolumeFull(names_[0]));
}

TEST_F(VolumesTest, WhereTheClockGoesBackTheOldAnswerHolds) {
  EXPECT_FALSE(isVolumeFull(names_[0]));
  SetFull(names_[0]);
  StopClockAt(kNoon - 1000);
  EXPECT_FALSE(isVolumeFull(names_[0]));
}

TEST_F(VolumesTest, EachVolumeIsRememberedByItself) {
  EXPECT_FALSE(isVolumeFull(names_[0]));
  StopClockAt(kNoon + 5);
  SetFull(names_[1]);
  EXPECT_TRUE(isVolumeFull(names_[1]));
  SetFull(names_[0]);
  SetFree(names_[1]);
  StopClockAt(kNoon + 12);
  EXPECT_TRUE(isVolumeFull(names_[0])) << "measured again";
  EXPECT_TRUE(isVolumeFull(names_[1])) << "not yet";
}

TEST(RealVolumesTest, ADirectoryThatIsNotThereIsFull) {
  const TempDir dir;
  EXPECT_TRUE(isVolumeFull((dir / "missing").string()));
}

TEST(RealVolumesTest, AFileSystemWithoutBlocksIsNotFull) {
  EXPECT_FALSE(isVolumeFull("/proc"));
}

}  // namespace
}  // namespace zefs::test
