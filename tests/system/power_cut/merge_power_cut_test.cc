// A power cut at any call of a merge: the table is what it was, and the next merge succeeds.

#include "tests/system/power_cut/power_cut_fixture.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

class MergePowerCutTest : public PowerCutTest {
 protected:
  MergePowerCutTest() { Set(&Config::mergeCommitBatchSize, 2U); }

  /// A table of an earlier life, every byte and name of which lasts.
  void Prepare() {
    Clear();
    Write("data.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{200})},
                       {kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)},
                       Stored(0, 100, 70),
                       Stored(200, 210, 72)});
    Write("lsml0.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{310})},
                        {kPlainCommitCounterKey, SpecialBytes(std::int64_t{1})},
                        {kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})},
                        Stored(40, 60, 80),
                        Stored(300, 310, 81)});
  }

  static std::string Of(long size, const std::string& extents) {
    return "size " + std::to_string(size) + ", version 2.0, do id none, " + extents;
  }
  const std::string extents_ =
      "[0, 40) 70 70000 700, [40, 60) 80 80000 800, [60, 100) 70 70060 700, "
      "[200, 210) 72 72000 720, [300, 310) 81 81000 810";
  const std::string whole_ = Of(310, extents_);
  const std::string written_ = Of(410, extents_ + ", [400, 410) 73 0 -3");
  /// Without what lay in the small database.
  const std::string stale_ = Of(200, "[0, 100) 70 70000 700, [200, 210) 72 72000 720");
  const std::string staleAndWritten_ =
      Of(410, "[0, 100) 70 70000 700, [200, 210) 72 72000 720, [400, 410) 73 0 -3");

  /// A merge, and a flush after it.
  RecordedRun RecordMergeAndFlush() {
    Prepare();
    return Record([&] {
      LoadTable();
      EXPECT_EQ(0, peer().MergeAndSwitch());
      Done();
      WriteKnown(400, 410, Oid(73, 3));
      Flush();
      Done();
      End();
    });
  }

  /// A merge that fails in the middle, a flush into the tmp database that it has left, and the
  /// merge that this flush starts.
  RecordedRun RecordFlushBetweenMerges() {
    Prepare();
    return Record([&] {
      LoadTable();
      const std::uint64_t mapSize = std::exchange(peer().bigTableMapSize(), 4096U * 5);
      EXPECT_EQ(0, peer().MergeAndSwitch());
      peer().bigTableMapSize() = mapSize;
      ExpectFailedMerge();
      Done();
      WriteKnown(400, 410, Oid(73, 3));
      Flush();
      Done();
      peer().WaitingForMerge();
      ExpectNoMerge();
      Done();
      End();
    });
  }

  /// Cuts the power in the run, whose flush is acknowledged as its `flush`th step (1: the first).
  PowerCuts Cut(const RecordedRun& run, Names names, std::size_t flush,
                const std::set<std::string>& alsoAllowed) {
    unmadeAt_.clear();
    return CutEverywhere(run, names, "merges", [&](Moment moment, const std::string& outcome) {
      if (outcome == unmade_) {
        unmadeAt_.insert(moment.calls);
      }
      return (outcome == whole_ && moment.done < flush) ||
             (outcome == written_ && moment.done + 1 >= flush) || alsoAllowed.count(outcome) != 0 ||
             (outcome == unmade_ && IsBeingMade(run, "table/tmp.mdb", moment));
    });
  }

  // Between its first write and its first sync the tmp database may be half there, and LMDB refuses
  // it. That is the time of two calls; until then nobody has been told of anything in it.
  const std::string unmade_ = std::string(kNotLoaded) + ": " + std::to_string(MDB_INVALID);
  std::set<std::size_t> unmadeAt_;  ///< by number of calls
};

TEST_F(MergePowerCutTest, LosesNothingWhereNamesComeInOrder) {
  const PowerCuts cuts = Cut(RecordMergeAndFlush(), Names::kInOrder, 2, {});
  ExpectRight(cuts);
  EXPECT_GE(unmadeAt_.size(), 1U) << "a limit that has gone need not be told of";
  EXPECT_LE(unmadeAt_.size(), 3U);
  ExpectRight(Cut(RecordFlushBetweenMerges(), Names::kInOrder, 2, {}));
}

// The switch syncs no directory. Where names come in no order the small database may be gone
// without the merged one in the place of the full one, or the tmp database may be gone.
TEST_F(MergePowerCutTest, MayLoseWhatCameSinceTheLastOneWhereNamesComeInNoOrder) {
  const std::set<std::string> lost = {stale_, staleAndWritten_, whole_, written_,
                                      Of(410, extents_)};  // the size of what is lost
  const PowerCuts cuts = Cut(RecordMergeAndFlush(), Names::kUnordered, 2, lost);
  ExpectRight(cuts);
  EXPECT_GT(cuts.Seen(stale_), 0);
  EXPECT_GT(cuts.Seen(staleAndWritten_), 0);
  const PowerCuts twice = Cut(RecordFlushBetweenMerges(), Names::kUnordered, 2, lost);
  ExpectRight(twice);
  EXPECT_GT(twice.Seen(stale_) + twice.Seen(staleAndWritten_), 0);
}

class BloomPowerCutTest : public MergePowerCutTest, public testing::WithParamInterface<Names> {
 protected:
  BloomPowerCutTest() { Set(&Config::persistBloom, std::uint8_t{1}); }

  /// A merge of a table that has the filter of an earlier one.
  RecordedRun RecordSecondMerge() {
    Prepare();
    InChild([&] {
      LoadTable();
      EXPECT_EQ(0, peer().MergeAndSwitch());
      WriteKnown(400, 410, Oid(73, 3));
      Flush();
      Close();
    });
    EXPECT_TRUE(boost::filesystem::exists(File("bloom")));
    return Record([&] {
      LoadTable();
      EXPECT_EQ(0, peer().MergeAndSwitch());
      Done();
      End();
    });
  }

  /// The calls of the run until the merged database has the name of the full one.
  static std::size_t CallsToTheSwitch(const RecordedRun& run) {
    const auto at = std::find_if(run.events.begin(), run.events.end(), [](const DiskEvent& event) {
      return event.kind == DiskEvent::kRename && event.path == "table/mergedb";
    });
    return static_cast<std::size_t>(at - run.events.begin()) + 1;
  }
};

INSTANTIATE_TEST_SUITE_P(Of, BloomPowerCutTest,
                         testing::Values(Names::kInOrder, Names::kUnordered));

// The file of the filter is not synced, and takes its place by the last change of names of a
// switch. A torn one is told by its checksums and made anew. An old one beside the new databases is
// not, and denies what came since the merge before; as after any other end of the process in a
// switch.
TEST_P(BloomPowerCutTest, ATornFilterIsMadeAnewAndAnOldOneMayStayBesideANewTable) {
  const RecordedRun run = RecordSecondMerge();
  const std::string denied = written_ + ", " + kDenied;
  const PowerCuts cuts = CutEverywhere(
      run, GetParam(), "merges with a filter", [&](Moment moment, const std::string& outcome) {
        return outcome == written_ ||
               (outcome == denied && moment.calls >= CallsToTheSwitch(run)) ||
               (outcome == whole_ && GetParam() == Names::kUnordered) ||
               (outcome == unmade_ && IsBeingMade(run, "table/tmp.mdb", moment));
      });
  ExpectRight(cuts);
  EXPECT_GT(cuts.Seen(kDenied), 0);
}

TEST_F(MergePowerCutTest, AFirstFilterDeniesNothing) {
  Set(&Config::persistBloom, std::uint8_t{1});
  const PowerCuts cuts = Cut(RecordMergeAndFlush(), Names::kInOrder, 2, {});
  ExpectRight(cuts);
  EXPECT_EQ(0, cuts.Seen(kDenied));
}

}  // namespace
}  // namespace zefs::test
