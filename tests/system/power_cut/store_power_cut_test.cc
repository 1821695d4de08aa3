// A power cut at any call of the reference host's store: what a sync has seen is there, byte for
// byte, and no file is half there.

#include <set>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "tests/refhost/durable/durable_fixture.h"
#include "tests/system/power_cut/power_cuts.h"

namespace zefs::refhost {
namespace {

using test::kSegment;
using test::Names;
using test::Pattern;

class StorePowerCutTest : public ::testing::TestWithParam<Names> {
 protected:
  static constexpr std::size_t kBytes = 4 * kSegment;

  std::string Path() const { return (dir_ / "store").string(); }

  /// Every file and the seeds of its segments; or what is wrong with the store.
  std::string Look() const {
    const LogRecorder quiet;
    try {
      DurableStore store(Path(), test::SmallStoreOptions());
      std::ostringstream shown;
      for (const auto& [name, entry] : store.Catalogued()) {
        shown << name << ' ' << SeedsOf(test::ReadAll(store, name)) << "; ";
      }
      shown << test::ProblemsOf(store);
      store.Create("another");
      store.Write("another", 0, Pattern(9, kBytes));
      store.Sync();
      if (test::ReadAll(store, "another") != Pattern(9, kBytes)) {
        shown << "of no use";
      }
      store.CloseFiles();
      return shown.str();
    } catch (const std::exception& e) {
      return std::string("cannot be opened: ") + e.what();
    }
  }

  /// The seed of each segment, '?' for bytes that nobody wrote.
  static std::string SeedsOf(const std::string& bytes) {
    std::string seeds;
    for (std::size_t at = 0; at < bytes.size(); at += kSegment) {
      char found = '?';
      for (std::uint64_t seed = 0; seed < 9; ++seed) {
        if (bytes.compare(at, kSegment, Pattern(seed, kBytes), at, kSegment) == 0) {
          found = static_cast<char>('0' + seed);
        }
      }
      seeds += found;
    }
    return seeds;
  }

  const test::SmallThresholds thresholds_{2, 100000};  // no merges
  const test::TempDir dir_;
  test::PowerCutter cutter_{dir_.path(), [this] { return Look(); }};
};

INSTANTIATE_TEST_SUITE_P(Of, StorePowerCutTest,
                         testing::Values(Names::kInOrder, Names::kUnordered));

TEST_P(StorePowerCutTest, WhatASyncHasSeenIsThere) {
  const test::RecordedRun run = cutter_.Record([&] {
    DurableStore store(Path(), test::SmallStoreOptions());
    test::Done();
    store.Create("anew");
    store.Write("anew", 0, Pattern(1, kBytes));
    store.Create("over");
    store.Write("over", 0, Pattern(2, kBytes));
    store.Sync();
    test::Done();
    store.Create("anew");
    store.Write("anew", 0, Pattern(3, kBytes));
    store.Write("over", 0, Pattern(4, kBytes).substr(0, kBytes / 2));
    store.Sync();
    test::Done();
    store.CloseFiles();
  });
  const std::string first = "anew 1111; over 2222; ";
  const std::string second = "anew 3333; over 4422; ";
  const std::set<std::string> between = {first, "anew 1111; over 4222; ", "anew 1111; over 2422; ",
                                         "anew 1111; over 4422; ", second};
  const test::PowerCuts cuts = cutter_.CutEverywhere(
      run, GetParam(), "the reference host's store",
      [&](test::Moment moment, const std::string& outcome) {
        switch (moment.done) {
          case 0:  // it is being made, and cannot be opened while one of its databases is half
                   // there
            return outcome.empty() || (outcome.find("MDB_INVALID") != std::string::npos &&
                                       (IsBeingMade(run, "store/index.mdb", moment) ||
                                        IsBeingMade(run, "store/catalogue.mdb", moment)));
          case 1:
            return outcome.empty() || outcome == first;
          case 2:
            return between.count(outcome) != 0;
          default:
            return outcome == second;
        }
      });
  ExpectRight(cuts);
  EXPECT_GT(cuts.Seen(first), 0);
  EXPECT_GT(cuts.Seen(second), 0);
}

}  // namespace
}  // namespace zefs::refhost
