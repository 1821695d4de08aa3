// A process that dies at any call of load: the next one finds the table as it was.

#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include "tests/persistent/lifecycle_faults.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

class LoadCrashTest : public LoadFaultsTest {
 protected:
  /// Kills a load of the directory at each of its calls in turn, and loads again. Returns the
  /// number of deaths.
  int DieEverywhere(Left left) {
    int deaths = 0;
    for (std::size_t kind = 0; kind < kCalls; ++kind) {
      const auto call = static_cast<Call>(kind);
      for (int nth = 1;; ++nth) {
        SCOPED_TRACE("kind " + std::to_string(kind) + ", call " + std::to_string(nth));
        Prepare(left);
        const int status = RunInChild([&] {
          Make(TypeOf(left));
          Faults::OnlyBelow(dir_.path().string());
          Faults::KillNth(call, nth);
          EXPECT_EQ(0, table().load(Directory().string(), false, ""));
          Faults::Reset();
          Destroy();
        });
        if (!DiedBy(status, SIGKILL)) {
          EXPECT_TRUE(EndedWell(status));
          break;
        }
        ++deaths;
        ExpectContent(left);
      }
    }
    std::cout << "deaths: " << deaths << '\n';
    RecordProperty("deaths", deaths);
    return deaths;
  }

  /// The content is that of before, or, once the journal was read, what it makes of it or, if
  /// nothing of it was applied, what there was without it.
  void ExpectContent(Left left) {
    const bool journalIsLeft = fs::exists(File("journal")) && fs::file_size(File("journal")) > 0;
    const std::string content = FromChild([&] { return Content(left); });
    if (left == Left::kJournal && !journalIsLeft && content == WithoutTheJournal()) {
      return;
    }
    EXPECT_EQ(Expected(left), content);
  }
};

TEST_F(LoadCrashTest, OfAFirstLoad) {
  EXPECT_GT(DieEverywhere(Left::kNothing), 40);
}

TEST_F(LoadCrashTest, OfALoadThatTakesOverAMergeAndReplaysAJournal) {
  EXPECT_GT(DieEverywhere(Left::kJournal), 50);
}

TEST_F(LoadCrashTest, OfALoadWithATmpDatabase) {
  EXPECT_GT(DieEverywhere(Left::kTmpDatabase), 45);
}

}  // namespace
}  // namespace zefs::test
