// A process that dies at any call of a merge, and at any call of the load after that: the next one
// finds every extent.

#include <csignal>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/crash_points.h"
#include "tests/persistent/lifecycle_faults.h"
#include "tests/persistent/merge_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

class MergeCrashTest : public MergeTest {
 protected:
  static constexpr const char* kExtents =
      "size 310: [0, 40) 70 70000 700, [40, 60) 80 80000 800, [60, 100) 70 70060 700, "
      "[100, 150) 71 71000 710, [200, 205) 72 72000 720, [205, 208) 90 90000 900, "
      "[208, 210) 72 72008 720, [300, 310) 81 81000 810";

  MergeCrashTest() {
    Set(&Config::persistBloom, std::uint8_t{1});
    Set(&Config::mergeCommitBatchSize, 2U);
  }

  /// The table before the merge. With `tmp` an earlier one has failed.
  void Prepare(bool tmp) {
    fs::remove_all(Directory());
    Write("data.mdb", {Stored(0, 100, 70), Stored(100, 150, 71), Stored(200, 210, 72)});
    Records small = {Stored(40, 60, 80), Stored(300, 310, 81)};
    small.push_back({kPlainFileSizeKey, SpecialBytes(std::int64_t{310})});
    Records newest = {Stored(205, 208, 90)};
    if (tmp) {
      Write("tmp.mdb", newest);
    } else {
      small.insert(small.end(), newest.begin(), newest.end());
    }
    Write("lsml0.mdb", small);
  }

  /// Loads the table and tells what it shows.
  std::string Content() {
    Load();
    std::string content = "size " + std::to_string(table().getFileSize()) + ": ";
    for (const std::string& extent : Walk(table())) {
      content += content.back() == ' ' ? extent : ", " + extent;
    }
    return content;
  }

  /// Loads the table in a process of its own, and expects it whole, of use for a flush, and merged
  /// by what comes next.
  void ExpectWhole() {
    InChild([this] {
      EXPECT_EQ(kExtents, Content());
      Lines();
      Set(&Config::mergeCommitCountThreshold, 0U);
      WriteKnown(1000, 1010, Oid(99, 9));
      Flush();
      peer().WaitingForMerge();
      EXPECT_THAT(Lines(kLogRecoverable), testing::IsEmpty());
      ExpectNoMerge();
      EXPECT_EQ("[1000, 1010) 99 0 -3", Walk(table()).back());
      EXPECT_EQ(9U, Walk(table()).size());
      std::vector<std::pair<unsigned long, unsigned long>> dcids;
      std::unique_ptr<BloomFilter> filter;
      table().GetDCIDAndBloomFilter(&dcids, &filter);
      EXPECT_EQ(7U, dcids.size());
      for (const unsigned int dcid : {70U, 71U, 72U, 80U, 81U, 90U}) {
        EXPECT_TRUE(filter->Contains(DigestOf(static_cast<unsigned char>(dcid)))) << dcid;
      }
      Close();
    });
  }

  /// Runs `life` once for each point at which it dies, from a directory that `prepare` makes, and
  /// then `check`. Returns the number of deaths.
  int DieEverywhere(const std::function<void()>& prepare,
                    const std::function<void(CrashPoint)>& life,
                    const std::function<void()>& check) {
    int deaths = 0;
    for (std::size_t kind = 0; kind < kCrashKinds; ++kind) {
      for (int nth = 1;; ++nth) {
        SCOPED_TRACE("kind " + std::to_string(kind) + ", call " + std::to_string(nth));
        prepare();
        const int status = RunInChild([&] { life({kind, nth}); });
        if (!DiedBy(status, SIGKILL)) {
          EXPECT_TRUE(EndedWell(status));
          break;
        }
        ++deaths;
        check();
      }
    }
    return deaths;
  }

  void MergeAt(CrashPoint point) {
    Load();
    Arm(dir_.path().string(), point);
    EXPECT_EQ(0, peer().MergeAndSwitch());
    Disarm();
  }

  /// Keeps a copy of the directory if none with these files was kept before.
  void Keep() {
    std::string names;
    for (const std::string& name : Files()) {
      if (name.find("-lock") == std::string::npos) {
        names += name + ' ';
      }
    }
    if (kept_.count(names) != 0) {
      return;
    }
    const fs::path copy = dir_ / ("kept" + std::to_string(kept_.size()));
    kept_[names] = copy;
    Copy(Directory(), copy);
  }
  static void Copy(const fs::path& from, const fs::path& to) {
    fs::remove_all(to);
    fs::create_directories(to);
    for (const auto& entry : fs::directory_iterator(from)) {
      if (fs::is_regular_file(entry.status())) {
        fs::copy_file(entry.path(), to / entry.path().filename());
      } else {
        fs::create_directories(to / entry.path().filename());
      }
    }
  }

  std::map<std::string, fs::path> kept_;  // directories that deaths have left, by their files
};

TEST_F(MergeCrashTest, AtAnyCallLosesNothingAndTheNextMergeSucceeds) {
  const int deaths = DieEverywhere([this] { Prepare(false); }, [this](CrashPoint p) { MergeAt(p); },
                                   [this] {
                                     Keep();
                                     ExpectWhole();
                                   });
  std::cout << "deaths in a merge: " << deaths << '\n';
  RecordProperty("deaths", deaths);
  EXPECT_GT(deaths, 100);

  std::set<std::string> states;
  for (const auto& [names, copy] : kept_) {
    states.insert(names);
  }
  // The states that a crash may leave, from the first phase to behind the last rename.
  for (const char* state :
       {"data.mdb lsml0.mdb mergedb tmp.mdb ", "bloom.merge data.mdb lsml0.mdb mergedb tmp.mdb ",
        "bloom.merge data.mdb lsml0.mdb tmp.mdb ", "bloom.merge data.mdb tmp.mdb ",
        "bloom.merge data.mdb lsml0.mdb "}) {
    EXPECT_EQ(1U, states.count(state)) << state;
  }

  int later = 0;
  for (const auto& [names, copy] : kept_) {
    SCOPED_TRACE(names);
    const fs::path from = copy;
    later +=
        DieEverywhere([this, from] { Copy(from, Directory()); },
                      [this](CrashPoint point) {
                        Arm(dir_.path().string(), point);
                        Load();
                        Disarm();
                        Close();
                      },
                      [this] { EXPECT_EQ(kExtents, FromChild([this] { return Content(); })); });
  }
  std::cout << "deaths in the load after it: " << later << ", from " << kept_.size() << " states\n";
  EXPECT_GT(later, 200);
}

TEST_F(MergeCrashTest, AtAnyCallOfTheSecondAttemptLosesNothingEither) {
  const int deaths =
      DieEverywhere([this] { Prepare(true); }, [this](CrashPoint p) { MergeAt(p); },
                    [this] { EXPECT_EQ(kExtents, FromChild([this] { return Content(); })); });
  std::cout << "deaths in a second merge: " << deaths << '\n';
  EXPECT_GT(deaths, 80);
}

// A filter that was stored by the merge before: while the new one waits under its other name, the
// old one denies what is no longer in the small database.
TEST_F(MergeCrashTest, OnlyBetweenTheSwitchOfTheDatabasesAndItsLastStepMayTheOldFilterBeLeft) {
  int stale = 0;
  DieEverywhere(
      [this] {
        Prepare(false);
        BloomFilter filter(16, 0.02);
        std::unordered_map<unsigned long, unsigned long> refs;
        for (const unsigned int dcid : {70U, 71U, 72U}) {
          filter.Insert(DigestOf(static_cast<unsigned char>(dcid)));
          refs[dcid] = 1;
        }
        Aldenta::Qnd::Morene::Zefs::BloomPersist file(Path("bloom"), false);
        ASSERT_EQ(0, file.Reset(false));
        ASSERT_EQ(0, file.StoreBloom(&filter, &refs));
      },
      [this](CrashPoint p) { MergeAt(p); },
      [this, &stale] {
        const std::string answer = FromChild([this] {
          Load();
          std::vector<std::pair<unsigned long, unsigned long>> dcids;
          std::unique_ptr<BloomFilter> filter;
          table().GetDCIDAndBloomFilter(&dcids, &filter);
          return filter->Contains(DigestOf(80)) && filter->Contains(DigestOf(71)) ? "yes" : "no";
        });
        if (answer == "no") {
          ++stale;
          ExpectNoFile({"mergedb"});
          EXPECT_TRUE(fs::exists(File("bloom.merge"))) << "which the next merge removes";
          ExpectWhole();
        }
      });
  std::cout << "deaths that leave the filter of the merge before: " << stale << '\n';
  EXPECT_LT(stale, 60);
}

}  // namespace
}  // namespace zefs::test
