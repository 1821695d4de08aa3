// Random lives of a table, and power cuts at every call of them: whatever was acknowledged is
// there.

#include <array>
#include <random>

#include "tests/support/figures.h"
#include "tests/support/property.h"
#include "tests/system/power_cut/power_cut_fixture.h"

namespace zefs::test {
namespace {

class PowerCutPropertyTest : public PowerCutTest {
 protected:
  PowerCutPropertyTest() { Set(&Config::mergeCommitBatchSize, 3U); }

  enum class Step { kFlush, kUnlockedFlush, kMerge, kTruncate, kSize, kLoad };

  /// A life of that many steps; after each it tells what the table shows. `steps` gets what each
  /// was.
  RecordedRun RecordLife(std::uint64_t seed, std::size_t count, std::vector<Step>* steps) {
    Clear();
    std::mt19937_64 random(seed);
    for (std::size_t i = 0; i < count; ++i) {
      steps->push_back(std::array{Step::kFlush, Step::kFlush, Step::kUnlockedFlush, Step::kMerge,
                                  Step::kTruncate, Step::kSize, Step::kLoad}[Below(7, &random)]);
    }
    return Record([&] {
      LoadTable();
      DiskRecorder::Mark(Content());
      for (const Step step : *steps) {
        Do(step, &random);
        DiskRecorder::Mark(Content());
      }
      End();
    });
  }

  static std::size_t Below(std::size_t bound, std::mt19937_64* random) {
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(*random);
  }

  void WriteSome(std::mt19937_64* random) {
    const std::size_t writes = 1 + Below(6, random);
    for (std::size_t i = 0; i < writes; ++i) {
      const long start = static_cast<long>(Below(90, random)) * 10;
      const long size = 10 + static_cast<long>(Below(15, random)) * 10;
      WriteKnown(start, start + size, Oid(100 + Below(50, random), static_cast<unsigned int>(i)));
    }
  }

  void Do(Step step, std::mt19937_64* random) {
    switch (step) {
      case Step::kFlush:
        WriteSome(random);
        Flush();
        break;
      case Step::kUnlockedFlush:
        WriteSome(random);
        table().checkAndBackfillObjectIDUnlock(false);
        break;
      case Step::kMerge:
        EXPECT_EQ(0, peer().MergeAndSwitch());
        break;
      case Step::kTruncate:
        EXPECT_EQ(0, table().truncate(static_cast<long>(Below(100, random)) * 10, nullptr));
        break;
      case Step::kSize:
        EXPECT_EQ(0, table().setFileSize(static_cast<long>(1000 + Below(1000, random))));
        break;
      case Step::kLoad:
        Close();
        LoadTable();
        break;
    }
  }
};

TEST_F(PowerCutPropertyTest, WhatWasAcknowledgedIsThere) {
  const char* const given = std::getenv("ZEFS_TEST_POWER_CUT_LIVES");
  const int lives = given == nullptr ? CasesOf(6) : std::atoi(given);
  int steps = 0;
  for (int life = 0; life < lives; ++life) {
    const std::uint64_t seed = PropertySeed() + static_cast<std::uint64_t>(life);
    SCOPED_TRACE("ZEFS_TEST_SEED=" + std::to_string(seed));
    std::vector<Step> kinds;
    const RecordedRun run = RecordLife(seed, 6, &kinds);
    std::vector<std::string> states;
    for (const DiskEvent& event : run.events) {
      if (event.kind == DiskEvent::kMark) {
        states.push_back(event.path);
      }
    }
    ASSERT_EQ(kinds.size() + 1, states.size());
    ExpectRight(CutEverywhere(
        run, Names::kInOrder, "random lives",
        [&](Moment moment, const std::string& outcome) {
          const std::size_t last = moment.done - 1;
          if (outcome == states[last]) {
            return true;
          }
          if (last == kinds.size()) {
            return false;
          }
          // A truncate is two steps, and a tmp database may be half made.
          return outcome == states[last + 1] || kinds[last] == Step::kTruncate ||
                 (kinds[last] == Step::kMerge && outcome.find(kNotLoaded) == 0);
        },
        1));
    steps += static_cast<int>(kinds.size());
  }
  TellFigure("steps of random lives with power cuts", steps);
}

}  // namespace
}  // namespace zefs::test
