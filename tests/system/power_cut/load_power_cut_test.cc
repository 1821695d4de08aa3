// A power cut at any call of a load, of whatever it recovers too: the next one finds the table as
// it was.

#include "tests/system/power_cut/power_cut_fixture.h"

namespace zefs::test {
namespace {

class LoadPowerCutTest : public PowerCutTest, public testing::WithParamInterface<Names> {
 protected:
  RecordedRun RecordLoad() {
    return Record([&] {
      LoadTable();
      Done();
      End();
    });
  }

  /// A load shows `whole` whenever it was cut before. While one of the `made` databases is being
  /// made it cannot be opened if it is half there.
  PowerCuts ExpectWhole(const RecordedRun& run, const std::set<std::string>& whole,
                        const std::set<std::string>& made = {}) {
    PowerCuts cuts =
        CutEverywhere(run, GetParam(), "loads", [&](Moment moment, const std::string& outcome) {
          if (outcome == unmade_ && moment.done == 0) {
            return std::any_of(made.begin(), made.end(), [&](const std::string& name) {
              return IsBeingMade(run, "table/" + name, moment);
            });
          }
          return whole.count(outcome) != 0;
        });
    ExpectRight(cuts);
    EXPECT_EQ(made.empty(), cuts.Seen(kNotLoaded) == 0);
    return cuts;
  }

  const std::string unmade_ = std::string(kNotLoaded) + ": " + std::to_string(MDB_INVALID);
};

INSTANTIATE_TEST_SUITE_P(Of, LoadPowerCutTest, testing::Values(Names::kInOrder, Names::kUnordered));

TEST_P(LoadPowerCutTest, OfANewTable) {
  ExpectWhole(RecordLoad(), {"size 0, version 2.0, do id none"}, {"lsml0.mdb", "data.mdb"});
}

TEST_P(LoadPowerCutTest, OfATableThatNeedsNothing) {
  Write("data.mdb", {{kPlainVersionKey, SpecialBytes(std::int32_t{1}, 5)}, Stored(10, 20, 72)});
  Write("lsml0.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{44})},
                      {kPlainCommitCounterKey, SpecialBytes(std::int64_t{5})},
                      {kPlainDoidKey, SpecialBytes(std::uint64_t{65}, DigestOf(3))},
                      Stored(0, 10, 70)});
  ExpectWhole(RecordLoad(),
              {"size 44, version 1.5, do id 65, [0, 10) 70 70000 700, [10, 20) 72 72000 720"});
}

TEST_P(LoadPowerCutTest, ThatFindsATmpDatabase) {
  Write("data.mdb", {{kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)}, Stored(10, 20, 72)});
  Write("lsml0.mdb", {Stored(0, 10, 70)});
  Write("tmp.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{44})}, Stored(5, 15, 73)});
  ExpectWhole(RecordLoad(), {"size 44, version 2.0, do id none, [0, 5) 70 70000 700, "
                             "[5, 15) 73 73000 730, [15, 20) 72 72005 720"});
}

// A switch was cut behind the removal of the old small database, and one in front of its first
// rename whose full database was lost.
TEST_P(LoadPowerCutTest, ThatTakesOverAMerge) {
  Write("mergedb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{200})},
                    {kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)},
                    Stored(100, 200, 71)});
  Write("tmp.mdb", {Stored(0, 100, 70)});
  ExpectWhole(RecordLoad(),
              {"size 200, version 2.0, do id none, [0, 100) 70 70000 700, [100, 200) 71 71000 710"},
              {"lsml0.mdb"});
}

TEST_P(LoadPowerCutTest, ThatReplaysAJournalDoesSoOnceOrAgainOrNotAtAll) {
  type_ = "GENERIC";
  Write("lsml0.mdb", {Stored(0, 10, 70), Stored(40, 50, 74)});
  Write("data.mdb", {{kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)}, Stored(10, 20, 72)});
  WriteBytes(File("journal"), JournalBytes({{kOpAdd, 0, 10, 70}, {kOpDel, 20, 30, 71}}));
  const std::string replayed =
      "size 0, version 2.0, do id none, [10, 20) 72 72000 720, [20, 30) 71 0 -1, "
      "[40, 50) 74 74000 740";
  const std::string skipped =
      "size 0, version 2.0, do id none, [0, 10) 70 70000 700, [10, 20) 72 72000 720, "
      "[40, 50) 74 74000 740";
  const RecordedRun run = RecordLoad();
  const PowerCuts cuts =
      CutEverywhere(run, GetParam(), "loads", [&](Moment moment, const std::string& outcome) {
        return outcome == replayed || (moment.done == 0 && outcome == skipped);
      });
  ExpectRight(cuts);
  EXPECT_GT(cuts.Seen(skipped), 0) << "the journal is removed before its records are stored";
}

/// Power cuts in the load after a power cut in a merge.
class RecoveryPowerCutTest : public LoadPowerCutTest {};

INSTANTIATE_TEST_SUITE_P(Of, RecoveryPowerCutTest, testing::Values(Names::kInOrder));

TEST_P(RecoveryPowerCutTest, OfWhatAMergeLeftLosesNothing) {
  Write("data.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{310})},
                     {kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)},
                     Stored(0, 100, 70)});
  Write("lsml0.mdb", {{kPlainCommitCounterKey, SpecialBytes(std::int64_t{1})},
                      {kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})},
                      Stored(40, 60, 80)});
  const RecordedRun merge = Record([&] {
    LoadTable();
    EXPECT_EQ(0, peer().MergeAndSwitch());
    End();
  });
  const std::string whole =
      "size 310, version 2.0, do id none, [0, 40) 70 70000 700, [40, 60) 80 80000 800, "
      "[60, 100) 70 70060 700";
  ModelDisk disk(merge.before, Names::kInOrder);
  int loads = 0;
  for (const DiskEvent& event : merge.events) {
    disk.Apply(event);
    if (event.kind != DiskEvent::kRename && event.kind != DiskEvent::kUnlink) {
      continue;
    }
    WriteImage(disk.Now(), dir_.path());
    const RecordedRun run = RecordLoad();
    ExpectRight(CutEverywhere(
        run, GetParam(), "loads after a power cut", [&](Moment moment, const std::string& outcome) {
          return outcome == whole || (outcome == unmade_ && moment.done == 0 &&
                                      (IsBeingMade(run, "table/lsml0.mdb", moment) ||
                                       IsBeingMade(run, "table/tmp.mdb", moment)));
        }));
    ++loads;
  }
  EXPECT_GT(loads, 5);
}

}  // namespace
}  // namespace zefs::test
