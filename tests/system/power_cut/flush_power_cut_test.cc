// A power cut at any call of a flush: what a flush has returned from is there, and what it was busy
// with is there whole or not at all.

#include "tests/system/power_cut/power_cut_fixture.h"

namespace zefs::test {
namespace {

class FlushPowerCutTest : public PowerCutTest, public testing::WithParamInterface<Names> {
 protected:
  /// A table of an earlier life, every byte and name of which lasts.
  void Prepare() {
    Clear();
    Write("data.mdb", {{kPlainFileSizeKey, SpecialBytes(std::int64_t{200})},
                       {kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)},
                       Stored(100, 200, 71)});
    Write("lsml0.mdb", {{kPlainCommitCounterKey, SpecialBytes(std::int64_t{1})},
                        {kPlainDoidKey, SpecialBytes(std::uint64_t{90}, DigestOf(3))},
                        Stored(0, 100, 70)});
  }

  const std::string before_ =
      "size 200, version 2.0, do id 90, [0, 100) 70 70000 700, [100, 200) 71 71000 710";
};

INSTANTIATE_TEST_SUITE_P(Of, FlushPowerCutTest,
                         testing::Values(Names::kInOrder, Names::kUnordered));

TEST_P(FlushPowerCutTest, EveryFlushThatReturnedIsThereAndNoneIsHalfThere) {
  for (const char* type : {"PROVISION", "INGEST"}) {
    type_ = type;
    Prepare();
    const RecordedRun run = Record([&] {
      Set(&Config::objIdReadyThreshold, 0U);
      LoadTable();
      WriteNode(10, 20, Ready(Oid(72, 2), -3));
      WriteKnown(40, 50, Oid(73, 3), 3);
      WriteKnown(300, 310, Oid(74, 4));
      Flush(false);
      Done();
      Flush(true);
      Done();
      WriteKnown(15, 45, Oid(75, 5));
      table().checkAndBackfillObjectIDUnlock(false);
      Done();
      End();
    });
    const std::string head = "size 200, version 2.0, do id 90, [0, 10) 70 70000 700, ";
    const std::string headOf310 = "size 310, version 2.0, do id 90, [0, 10) 70 70000 700, ";
    const std::string first =
        "[10, 20) 72 0 -3, [20, 40) 70 70020 700, [40, 50) 73 3 -3, [50, 100) 70 70050 700, "
        "[100, 200) 71 71000 710";
    const std::string last =
        "[10, 15) 72 0 -3, [15, 45) 75 0 -3, [45, 50) 73 8 -3, [50, 100) 70 70050 700, "
        "[100, 200) 71 71000 710, [300, 310) 74 0 -3";
    ExpectLasting(
        run, GetParam(), "flushes",
        {before_, head + first, headOf310 + first + ", [300, 310) 74 0 -3", headOf310 + last});
  }
}

TEST_P(FlushPowerCutTest, OfManyExtentsIsStillOneStep) {
  Prepare();
  constexpr int kExtents = 200;
  const RecordedRun run = Record([&] {
    LoadTable();
    for (int i = 0; i < kExtents; ++i) {
      WriteKnown(1000 + 10 * i, 1005 + 10 * i, Oid(100 + static_cast<unsigned int>(i)));
    }
    Flush();
    Done();
    End();
  });
  std::string after = before_;
  after.replace(after.find("200"), 3, "2995");
  for (int i = 0; i < kExtents; ++i) {
    after += ", [" + std::to_string(1000 + 10 * i) + ", " + std::to_string(1005 + 10 * i) + ") " +
             std::to_string(100 + i) + " 0 -3";
  }
  ExpectLasting(run, GetParam(), "flushes", {before_, after});
}

TEST_P(FlushPowerCutTest, IntoATmpDatabaseThatAMergeHasLeft) {
  Prepare();
  Write("tmp.mdb", {Stored(20, 30, 76)});
  const RecordedRun run = Record([&] {
    LoadTable();
    peer().merging() = true;  // no flush starts a merge
    WriteKnown(25, 35, Oid(77, 7));
    Flush();
    Done();
    peer().merging() = false;
    End();
  });
  const std::string head = "size 200, version 2.0, do id 90, [0, 20) 70 70000 700, ";
  ExpectLasting(run, GetParam(), "flushes",
                {head + "[20, 30) 76 76000 760, [30, 100) 70 70030 700, [100, 200) 71 71000 710",
                 head + "[20, 25) 76 76000 760, [25, 35) 77 0 -3, [35, 100) 70 70035 700, "
                        "[100, 200) 71 71000 710"});
}

/// What a flush asks to know of container offsets.
class OffsetsPowerCutTest : public FlushPowerCutTest {
 protected:
  OffsetsPowerCutTest() { showOffsets_ = true; }

  RecordedRun RecordFlushes(std::uint32_t threshold) {
    Prepare();
    Set(&Config::dcOffsetTrackingEnabled, true);
    Set(&Config::dcOffsetStoreThreshold, threshold);
    return Record([&] {
      LoadTable();
      WriteKnown(300, 310, Oid(74, 4), 0, -1);
      Flush(true);
      Done();
      WriteKnown(320, 330, Oid(75, 5), 0, -1);
      Flush(true);
      Done();
      End();
    });
  }

  const std::vector<std::string> extents_ = {
      before_, "size 310" + before_.substr(8) + ", [300, 310) 74 0 -1",
      "size 330" + before_.substr(8) + ", [300, 310) 74 0 -1, [320, 330) 75 0 -1"};
  const std::vector<std::string> open_ = {", open", ", open 300/74", ", open 300/74 320/75"};

  /// Whether it is the state after at least `done` flushes, with at least the open offsets of
  /// `listed` of them; one more may be listed than is stored.
  bool IsAllowed(std::size_t done, std::size_t listed, const std::string& outcome) const {
    for (std::size_t flushed = done; flushed <= done + 1 && flushed < 3; ++flushed) {
      for (std::size_t open = listed; open < 3; ++open) {
        if (outcome == extents_[flushed] + open_[open]) {
          return true;
        }
      }
    }
    return false;
  }
};

INSTANTIATE_TEST_SUITE_P(Of, OffsetsPowerCutTest,
                         testing::Values(Names::kInOrder, Names::kUnordered));

TEST_P(OffsetsPowerCutTest, WhatIsOpenIsOnTheListOnceAForcedFlushReturned) {
  const bool ordered = GetParam() == Names::kInOrder;
  for (const std::uint32_t threshold : {1U, 100U}) {
    const RecordedRun run = RecordFlushes(threshold);
    const PowerCuts cuts =
        CutEverywhere(run, GetParam(), "flushes with open offsets",
                      [&](Moment moment, const std::string& outcome) {
                        return IsAllowed(moment.done, ordered ? moment.done : 0, outcome);
                      });
    ExpectRight(cuts);
    EXPECT_EQ(!ordered, cuts.seen.count(extents_[2] + open_[0]) != 0)
        << "a new file whose directory was not synced may be gone, with the list";
  }
}

}  // namespace
}  // namespace zefs::test
