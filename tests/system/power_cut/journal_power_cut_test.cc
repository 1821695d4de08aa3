// A power cut at any call of a flush of a table with a journal. What a forced flush has returned
// from is there as it was written; what came with others is undone by the journal, as after any
// other end of the process.

#include "tests/system/power_cut/power_cut_fixture.h"

namespace zefs::test {
namespace {

class JournalPowerCutTest : public PowerCutTest, public testing::WithParamInterface<Names> {
 protected:
  JournalPowerCutTest() { type_ = "GENERIC"; }

  /// A table of an earlier life, every byte and name of which lasts.
  void Prepare() {
    Write("data.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{200})},
                       {kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)},
                       Stored(100, 200, 71)});
    Write("lsml0.mdb", {{kPlainCommitCounterKey, SpecialBytes(std::int64_t{1})},
                        {kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})},
                        Stored(0, 100, 70)});
  }

  /// One flush of an extent that overlaps another, and of one that does not.
  RecordedRun RecordFlush(bool force) {
    Prepare();
    return Record([&] {
      Set(&Config::objIdReadyThreshold, 0U);
      LoadTable();
      WriteKnown(40, 50, Oid(73, 3), 3);
      WriteKnown(300, 310, Oid(74, 4));
      WriteKnown(400, 410, Oid(75, 5));
      Flush(force);
      Done();
      End();
    });
  }

  const std::string before_ =
      "size 200, version 2.0, do id none, [0, 100) 70 70000 700, [100, 200) 71 71000 710";

  /// The table after the flush, as the journal leaves it: without the extents that overlapped
  /// nothing, and with no container offsets of the others.
  static std::string Undone(long size) {
    return "size " + std::to_string(size) +
           ", version 2.0, do id none, [0, 40) 70 70000 700, [40, 50) 73 3 -1, "
           "[50, 100) 70 70050 700, [100, 200) 71 71000 710";
  }
};

INSTANTIATE_TEST_SUITE_P(Of, JournalPowerCutTest,
                         testing::Values(Names::kInOrder, Names::kUnordered));

TEST_P(JournalPowerCutTest, AForcedFlushThatReturnedIsNotUndoneByAJournalThatCameBack) {
  const std::string after =
      "size 410, version 2.0, do id none, [0, 40) 70 70000 700, [40, 50) 73 3 -3, "
      "[50, 100) 70 70050 700, [100, 200) 71 71000 710, [300, 310) 74 0 -3, [400, 410) 75 0 -3";
  const PowerCuts cuts =
      CutEverywhere(RecordFlush(true), GetParam(), "forced flushes with a journal",
                    [&](Moment moment, const std::string& outcome) {
                      return outcome == after ||
                             (moment.done == 0 && (outcome == before_ || outcome == Undone(410)));
                    });
  ExpectRight(cuts);
  EXPECT_GT(cuts.Seen(Undone(410)), 0) << "before it has returned";
}

TEST_P(JournalPowerCutTest, AFlushThatWasNotForcedIsUndoneByTheNextLoad) {
  const std::string after =
      "size 310, version 2.0, do id none, [0, 40) 70 70000 700, [40, 50) 73 3 -3, "
      "[50, 100) 70 70050 700, [100, 200) 71 71000 710, [300, 310) 74 0 -3";
  const PowerCuts cuts = CutEverywhere(RecordFlush(false), GetParam(), "flushes with a journal",
                                       [&](Moment moment, const std::string& outcome) {
                                         return outcome == after || outcome == Undone(310) ||
                                                (moment.done == 0 && outcome == before_);
                                       });
  ExpectRight(cuts);
  EXPECT_GT(cuts.Seen(Undone(310)), 0);
}

}  // namespace
}  // namespace zefs::test
