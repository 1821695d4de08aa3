// The layer finds what it is there for: a library that forgot a sync is caught at it.

#include "tests/system/power_cut/power_cut_fixture.h"

namespace zefs::test {
namespace {

class MissingSyncTest : public PowerCutTest {
 protected:
  /// A flush of one extent over another, with the syncs of these files left out.
  RecordedRun Flushed(const std::vector<std::string>& forgotten) {
    Write("lsml0.mdb", {Stored(0, 100, 70)});
    Write("data.mdb", {{kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)}});
    InChild([&] {  // the first load writes what is missing of the special items
      LoadTable();
      End();
    });
    forgotten_ = forgotten;
    return Record([&] {
      LoadTable();
      WriteKnown(40, 50, Oid(71, 1), 5);
      Flush();
      Done();
      End();
    });
  }
  static constexpr const char* kBefore = "size 100, version 2.0, do id none, [0, 100) 70 70000 700";

  int Wrong(const std::vector<std::string>& forgotten) {
    const RecordedRun run = Flushed(forgotten);
    const std::vector<std::string> states = {
        "size 0, version 2.0, do id none, [0, 100) 70 70000 700",
        "size 50, version 2.0, do id none, [0, 40) 70 70000 700, [40, 50) 71 5 -3, "
        "[50, 100) 70 70050 700"};
    const PowerCuts cuts = CutEverywhere(
        run, Names::kInOrder, "a library without syncs", [&](Moment moment, const std::string& s) {
          return s == states.at(1) || (moment.done == 0 && s == states.at(0));
        });
    for (const std::string& wrong : cuts.wrong) {
      std::cout << wrong << '\n';
    }
    return static_cast<int>(cuts.wrong.size());
  }
};

TEST_F(MissingSyncTest, NothingIsWrongWithAllSyncs) {
  EXPECT_EQ(0, Wrong({}));
}

TEST_F(MissingSyncTest, TheSyncsOfTheSmallDatabaseAreMissed) {
  EXPECT_GT(Wrong({"lsml0.mdb"}), 0);
}

}  // namespace
}  // namespace zefs::test
