// A power cut at any call of what changes a stored table in place: special items, object ids of a
// range, container offsets, the end of the table.

#include "tests/system/power_cut/power_cut_fixture.h"

namespace zefs::test {
namespace {

class ChangesPowerCutTest : public PowerCutTest, public testing::WithParamInterface<Names> {
 protected:
  /// A table of an earlier life, every byte and name of which lasts.
  void Prepare() {
    Write("data.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{200})},
                       {kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)},
                       Stored(100, 200, 71)});
    Write("lsml0.mdb", {{kPlainCommitCounterKey, SpecialBytes(std::int64_t{1})},
                        {kPlainDoidKey, SpecialBytes(std::uint64_t{90}, DigestOf(3))},
                        Stored(0, 100, 70)});
  }

  static std::string Shown(long size, const std::string& version, const std::string& doid,
                           const std::string& extents =
                               "[0, 100) 70 70000 700, "
                               "[100, 200) 71 71000 710") {
    return "size " + std::to_string(size) + ", version " + version + ", do id " + doid + ", " +
           extents;
  }
};

INSTANTIATE_TEST_SUITE_P(Of, ChangesPowerCutTest,
                         testing::Values(Names::kInOrder, Names::kUnordered));

TEST_P(ChangesPowerCutTest, SizeVersionAndObjectIdLastOnceSet) {
  Prepare();
  const RecordedRun run = Record([&] {
    LoadTable();
    EXPECT_EQ(0, table().setFileSize(500));
    Done();
    ObjectID oid = Oid(91, 4);
    EXPECT_EQ(0, table().SetDOID(&oid));
    Done();
    EXPECT_EQ(0, table().setExtMapVersion({1, 5}));
    Done();
    ObjectID none;
    EXPECT_EQ(0, table().SetDOID(&none));
    Done();
    End();
  });
  ExpectLasting(run, GetParam(), "changes of special items",
                {Shown(200, "2.0", "90"), Shown(500, "2.0", "90"), Shown(500, "2.0", "91"),
                 Shown(500, "1.5", "91"), Shown(500, "1.5", "none")});
}

// The object id goes before the size comes: two transactions.
TEST_P(ChangesPowerCutTest, ANewSizeMayBeMissingWhenTheObjectIdIsGone) {
  Prepare();
  const RecordedRun run = Record([&] {
    LoadTable();
    peer().dataChanged() = false;
    EXPECT_EQ(0, table().setFileSize(500));
    Done();
    End();
  });
  const std::string between = Shown(200, "2.0", "none");
  const PowerCuts cuts = CutEverywhere(
      run, GetParam(), "changes of special items", [&](Moment moment, const std::string& outcome) {
        return outcome == Shown(500, "2.0", "none") ||
               (moment.done == 0 && (outcome == Shown(200, "2.0", "90") || outcome == between));
      });
  ExpectRight(cuts);
  EXPECT_GT(cuts.Seen(between), 0);
}

TEST_P(ChangesPowerCutTest, ObjectIdsOfARangeChangeAllOrNone) {
  Records full = {{kPlainFileSizeKey, SpecialBytes(std::int64_t{5000})},
                  {kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)}};
  std::string before;
  std::string after;
  constexpr int kExtents = 100;  // several pages
  for (int i = 0; i < kExtents; ++i) {
    full.push_back(Stored(50 * i, 50 * i + 50, 71));
    const std::string range =
        ", [" + std::to_string(50 * i) + ", " + std::to_string(50 * i + 50) + ") ";
    before += range + "71 71000 710";
    after += range + "171 71000 710";
  }
  Write("data.mdb", full);
  Write("lsml0.mdb", {{kPlainCommitCounterKey, SpecialBytes(std::int64_t{1})},
                      {kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})}});
  const RecordedRun run = Record([&] {
    LoadTable();
    DataCacheNode::ObjectID_With_Offset wanted{};
    wanted.objectID.dcid = 171;
    wanted.objectID.fp = DigestOf(71);
    wanted.startOffset = 0;
    wanted.endOffset = 5000;
    EXPECT_EQ(0, table().UpdateObjectIdsByRange(0, 5000, {wanted}));
    Done();
    End();
  });
  const std::string head = "size 5000, version 2.0, do id none";
  ExpectLasting(run, GetParam(), "changes of object ids", {head + before, head + after});
}

TEST_P(ChangesPowerCutTest, ATruncateLastsOnceItReturnedAndCutsTheSmallDatabaseFirst) {
  Set(&Config::persistBloom, std::uint8_t{1});
  Write("data.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{400})},
                     {kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)},
                     Stored(0, 100, 70),
                     Stored(100, 400, 71)});
  InChild([&] {  // leaves a filter
    LoadTable();
    EXPECT_EQ(0, peer().MergeAndSwitch());
    WriteKnown(120, 180, Oid(72, 5));
    WriteKnown(350, 360, Oid(73, 6));
    Flush();
    ObjectID oid = Oid(90, 7);
    EXPECT_EQ(0, table().SetDOID(&oid));
    Close();
  });
  const RecordedRun run = Record([&] {
    LoadTable();
    peer().dataChanged() = false;
    EXPECT_EQ(0, table().truncate(150, nullptr));
    Done();
    End();
  });
  const std::string head = "[0, 100) 70 70000 700, [100, 120) 71 71000 710, ";
  const std::string all = head +
                          "[120, 180) 72 0 -3, [180, 350) 71 71080 710, "
                          "[350, 360) 73 0 -3, [360, 400) 71 71260 710";
  const std::string smallCut = head + "[120, 150) 72 0 -3, [150, 400) 71 71050 710";
  const std::set<std::string> before = {Shown(400, "2.0", "90", all),
                                        Shown(400, "2.0", "none", all),
                                        Shown(400, "2.0", "none", smallCut)};
  const std::string after = Shown(150, "2.0", "none", head + "[120, 150) 72 0 -3");
  const PowerCuts cuts =
      CutEverywhere(run, GetParam(), "truncates", [&](Moment moment, const std::string& outcome) {
        return outcome == after || (moment.done == 0 && before.count(outcome) != 0);
      });
  ExpectRight(cuts);
  for (const std::string& state : before) {
    EXPECT_GT(cuts.Seen(state), 0) << state;
  }
}

/// Container offsets that are asked for, answered and stored.
class BackfillPowerCutTest : public ChangesPowerCutTest {
 protected:
  BackfillPowerCutTest() {
    showOffsets_ = true;
    Set(&Config::dcOffsetTrackingEnabled, true);
    Set(&Config::dcOffsetStoreThreshold, 100U);
  }

  /// Two open offsets, of which one is answered.
  RecordedRun RecordBackfill() {
    Prepare();
    return Record([&] {
      LoadTable();
      WriteKnown(300, 310, Oid(74, 4), 0, -1);
      WriteKnown(320, 330, Oid(75, 5), 0, -1);
      Flush(true);
      Done();
      std::vector<DCOffset> offsets;
      EXPECT_EQ(0, table().GetEmptyDcOffsetList(&offsets));
      EXPECT_EQ(2U, offsets.size());
      Done();
      for (DCOffset& offset : offsets) {
        offset.dcOffset = offset.key == 300 ? 7 : -1;
      }
      EXPECT_EQ(0, table().BackfillDcOffset(offsets));
      Done();
      Flush(true);
      Done();
      End();
    });
  }

  static std::string Extents(const std::string& first) {
    return Shown(330, "2.0", "90",
                 "[0, 100) 70 70000 700, [100, 200) 71 71000 710, [300, 310) 74 0 " + first +
                     ", [320, 330) 75 0 -1");
  }
};

INSTANTIATE_TEST_SUITE_P(Of, BackfillPowerCutTest,
                         testing::Values(Names::kInOrder, Names::kUnordered));

TEST_P(BackfillPowerCutTest, AnAnswerLastsOnceItIsFlushedAndWhatStaysOpenIsListed) {
  const RecordedRun run = RecordBackfill();
  const bool ordered = GetParam() == Names::kInOrder;
  const std::string both = ", open 300/74 320/75";
  const std::string one = ", open 320/75";
  const std::string none = ", open";
  const PowerCuts cuts =
      CutEverywhere(run, GetParam(), "backfills", [&](Moment moment, const std::string& outcome) {
        const bool unanswered = outcome.find(Extents("-1")) == 0;
        const bool answered = outcome.find(Extents("7")) == 0;
        const std::string open = unanswered ? outcome.substr(Extents("-1").size())
                                 : answered ? outcome.substr(Extents("7").size())
                                            : "";
        switch (moment.done) {
          case 0:  // the flush
            return outcome == Shown(200, "2.0", "90") + none || unanswered;
          case 1:  // the list is given out
            return unanswered && (open == both || open == none);
          case 2:  // the answers come
            return unanswered && (open == both || open == one || open == none);
          case 3:  // they are being flushed
            return (unanswered || answered) && (!ordered || open == one || open == both);
          default:
            return answered && (!ordered || open == one || open == both);
        }
      });
  ExpectRight(cuts);
  EXPECT_GT(cuts.seen.count(Extents("-1") + none), 0U) << "a list that is out is on no list";
  EXPECT_GT(cuts.seen.count(Extents("-1") + one), 0U) << "an answer in memory is lost with it";
}

}  // namespace
}  // namespace zefs::test
