// A power cut at any call of what treats a table as a set of files: snapshot, move and removal.

#include "tests/system/power_cut/power_cut_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

class FilesPowerCutTest : public PowerCutTest, public testing::WithParamInterface<Names> {
 protected:
  fs::path Target() const { return dir_ / "target"; }

  /// A table of an earlier life, every byte and name of which lasts.
  void Prepare() {
    Write("data.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{200})},
                       {kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)},
                       Stored(100, 200, 71)});
    Write("lsml0.mdb", {{kPlainCommitCounterKey, SpecialBytes(std::int64_t{1})},
                        {kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})},
                        Stored(0, 100, 70)});
  }
  static constexpr const char* kNew = "size 0, version 2.0, do id none";
  static constexpr const char* kFullOnly =
      "size 200, version 2.0, do id none, [100, 200) 71 71000 710";
  static constexpr const char* kSmallOnly =
      "size 0, version 2.0, do id none, [0, 100) 70 70000 700";
  static constexpr const char* kWhole =
      "size 200, version 2.0, do id none, [0, 100) 70 70000 700, [100, 200) 71 71000 710";

  RecordedRun RecordSnapshot() {
    Prepare();
    return Record([&] {
      LoadTable();
      EXPECT_EQ(0, table().Snapshot(Directory().string(), Target().string()));
      Done();
      End();
    });
  }
};

INSTANTIATE_TEST_SUITE_P(Of, FilesPowerCutTest,
                         testing::Values(Names::kInOrder, Names::kUnordered));

TEST_P(FilesPowerCutTest, ASnapshotLeavesItsTableAlone) {
  const RecordedRun run = RecordSnapshot();
  ExpectLasting(run, GetParam(), "snapshots", {kWhole, kWhole});
}

TEST_P(FilesPowerCutTest, ASnapshotThatReturnedIsWholeUnlessItsNamesAreLost) {
  const RecordedRun run = RecordSnapshot();
  loaded_ = Target();
  const bool ordered = GetParam() == Names::kInOrder;
  const std::set<std::string> withoutNames = {kNew, kFullOnly, kSmallOnly};
  const PowerCuts cuts = CutEverywhere(
      run, GetParam(), "snapshots",
      [&](Moment /*moment*/, const std::string& outcome) {
        return outcome == kWhole || (!ordered && withoutNames.count(outcome) != 0);
      },
      1);
  ExpectRight(cuts);
  EXPECT_EQ(ordered, cuts.seen.size() == 1);
}

TEST_P(FilesPowerCutTest, AMovedTableIsWholeAtOneOfTheTwoPlaces) {
  Prepare();
  showOffsets_ = true;
  Set(&Config::dcOffsetTrackingEnabled, true);
  Set(&Config::dcOffsetStoreThreshold, 100U);
  const RecordedRun run = Record([&] {
    LoadTable();
    WriteKnown(300, 310, Oid(74, 4), 0, -1);
    table().checkAndBackfillObjectIDUnlock(false);  // flushes no offsets
    Done();
    table().UpdateExtPath(Target().string());  // stores what is open, at the old place
    fs::rename(Directory(), Target());
    Done();
    WriteKnown(320, 330, Oid(75, 5), 0, -1);
    Flush(true);
    Done();
    peer().smallDb().path = (Target() / "lsml0.mdb").string();  // for the lock files
    peer().fullDb().path = (Target() / "data.mdb").string();
    End();
  });
  EXPECT_TRUE(fs::exists(Target()));
  moved_ = Target();
  const bool ordered = GetParam() == Names::kInOrder;
  const std::vector<std::string> extents = {
      kWhole,
      "size 310, version 2.0, do id none, [0, 100) 70 70000 700, [100, 200) 71 71000 710, "
      "[300, 310) 74 0 -1",
      "size 330, version 2.0, do id none, [0, 100) 70 70000 700, [100, 200) 71 71000 710, "
      "[300, 310) 74 0 -1, [320, 330) 75 0 -1"};
  const std::vector<std::string> open = {", open", ", open 300/74", ", open 300/74 320/75"};
  // By steps acknowledged: how many flushes there are at least, and open offsets.
  const std::vector<std::pair<std::size_t, std::size_t>> least = {{0, 0}, {1, 0}, {1, 1}, {2, 2}};
  const PowerCuts cuts =
      CutEverywhere(run, GetParam(), "moves", [&](Moment moment, const std::string& outcome) {
        const auto [flushed, listed] = least.at(moment.done);
        for (std::size_t i = flushed; i < extents.size(); ++i) {
          for (std::size_t j = ordered ? listed : 0; j < open.size(); ++j) {
            if (outcome == extents[i] + open[j]) {
              return true;
            }
          }
        }
        return false;
      });
  ExpectRight(cuts);
}

TEST_P(FilesPowerCutTest, ARemovalMayBeUndoneInPart) {
  Prepare();
  const RecordedRun run = Record([&] {
    LoadTable();
    EXPECT_EQ(0, table().remove(Directory().string()));
    Done();
    End();
  });
  const std::set<std::string> parts = {kNew, kFullOnly, kSmallOnly, kWhole};
  const PowerCuts cuts = CutEverywhere(
      run, GetParam(), "removals",
      [&](Moment /*moment*/, const std::string& outcome) { return parts.count(outcome) != 0; });
  ExpectRight(cuts);
  EXPECT_GT(cuts.Seen(kWhole), 0);
  EXPECT_GT(cuts.seen.count(kNew), 0U);
  EXPECT_GT(cuts.seen.count(kFullOnly) + cuts.seen.count(kSmallOnly), 0U);
}

}  // namespace
}  // namespace zefs::test
