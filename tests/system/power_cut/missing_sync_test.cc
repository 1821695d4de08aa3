// The layer finds what it is there for: a library that forgot a sync is caught at it.

#include "tests/system/power_cut/power_cut_fixture.h"

namespace zefs::test {
namespace {

class MissingSyncTest : public PowerCutTest {
 protected:
  MissingSyncTest() {
    showOffsets_ = true;
    Set(&Config::dcOffsetTrackingEnabled, true);
    Set(&Config::dcOffsetStoreThreshold, 1U);
    Write("lsml0.mdb", {{kPlainCommitCounterKey, SpecialBytes(std::int64_t{1})},
                        {kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})},
                        Stored(0, 100, 70)});
    Write("data.mdb", {{kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)}});
  }

  /// What power cuts find of a flush, with the syncs of these files left out.
  PowerCuts Flushed(const std::vector<std::string>& forgotten) {
    forgotten_ = forgotten;
    const RecordedRun run = Record([&] {
      LoadTable();
      WriteKnown(40, 50, Oid(71, 1), 5, -1);
      Flush();
      Done();
      End();
    });
    return CutEverywhere(run, Names::kInOrder, "a library without syncs",
                         [&](Moment moment, const std::string& outcome) {
                           lost_ += moment.done == 1 && outcome.find(before_) == 0 ? 1 : 0;
                           return outcome == after_ || (moment.done == 0 && !IsBroken(outcome));
                         });
  }

  /// Whether it is neither the table before the flush nor after it.
  bool IsBroken(const std::string& outcome) const {
    return outcome.find(before_) != 0 && outcome.find(extents_) != 0;
  }

  const std::string before_ = "size 0, version 2.0, do id none, [0, 100) 70 70000 700, open";
  const std::string extents_ =
      "size 50, version 2.0, do id none, [0, 40) 70 70000 700, [40, 50) 71 5 -1, "
      "[50, 100) 70 70050 700";
  // The flush asks for the offset of what it cuts, too.
  const std::string after_ = extents_ + ", open 0/71 40/71 50/71";
  int lost_ = 0;
};

TEST_F(MissingSyncTest, NothingIsWrongWithAllSyncs) {
  ExpectRight(Flushed({}));
  EXPECT_EQ(0, lost_);
}

TEST_F(MissingSyncTest, ADatabaseThatIsNotSyncedLosesWhatWasAcknowledgedAndBreaks) {
  const PowerCuts cuts = Flushed({"lsml0.mdb"});
  EXPECT_FALSE(cuts.wrong.empty());
  EXPECT_GT(lost_, 0);
  int broken = 0;
  for (const auto& [outcome, times] : cuts.seen) {
    broken += IsBroken(outcome) ? times : 0;
  }
  EXPECT_GT(broken, 0) << "a page that refers to another is there without it";
}

TEST_F(MissingSyncTest, ASideFileThatIsNotSyncedLosesWhatWasAcknowledged) {
  const PowerCuts cuts = Flushed({"dcoffset"});
  EXPECT_FALSE(cuts.wrong.empty());
  EXPECT_GT(cuts.seen.count(extents_ + ", open"), 0U);
}

}  // namespace
}  // namespace zefs::test
