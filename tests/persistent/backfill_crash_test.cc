// A process that dies at any call between the flush that asks for container offsets and the flush
// that stores the answers. What stays open is on file at every moment; an answer is in memory only,
// and may be lost with it, until the flush has returned.

#include <algorithm>
#include <csignal>
#include <fstream>
#include <iostream>
#include <string>

#include <gmock/gmock.h>

#include "tests/persistent/crash_points.h"
#include "tests/persistent/flush_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::IsSupersetOf;

class BackfillCrashTest : public FlushTest {
 protected:
  // What has come to an end, as the dying process tells it.
  static constexpr char kAsked = 'f';
  static constexpr char kListed = 'l';
  static constexpr char kAnswered = 'b';
  static constexpr char kStored = 's';

  // The answered extent, the one that is given up, and the one that stays open.
  static constexpr long kKnown = 0;
  static constexpr long kGivenUp = 100;
  static constexpr long kOpen = 200;

  /// The extents after the first and after the second flush.
  static Records Flushed(std::int32_t known, std::int32_t givenUp) {
    return {WholeRecord(kKnown, 100, Oid(70), 1, known),
            WholeRecord(kGivenUp, 200, Oid(71), 2, givenUp),
            WholeRecord(kOpen, 300, Oid(72), 3, -1)};
  }

  /// A loaded table of this process.
  void Load() {
    TrackOffsets();
    table_ = std::make_unique<CMappingLMDB>(&host_, "PROVISION");
    EXPECT_EQ(0, table_->load(Directory().string(), false, ""));
  }

  /// Keeps an empty table aside, of which each life has a copy.
  void KeepEmptyTable() {
    InChild([&] {
      Load();
      Destroy();
    });
    fs::rename(Directory(), dir_ / "empty");
  }
  void CopyEmptyTable() {
    fs::remove_all(Directory());
    MakeDirectory();
    for (const auto& file : fs::directory_iterator(dir_ / "empty")) {
      fs::copy_file(file.path(), File(file.path().filename().string()));
    }
  }

  void Tell(char what) const { std::ofstream((dir_ / "said").string(), std::ios::app) << what; }

  /// The life that dies.
  void Live(CrashPoint point) {
    Load();
    if (point.kind < kCalls) {
      ::mdb_env_set_flags(peer().smallDb().env, MDB_NOSYNC, 1);  // a kill loses no written page
    }
    Arm(Directory().string(), point);
    WriteKnown(kKnown, 100, Oid(70), 1, -1);
    WriteKnown(kGivenUp, 200, Oid(71), 2, -1);
    WriteKnown(kOpen, 300, Oid(72), 3, -1);
    Flush();
    Tell(kAsked);
    std::vector<DCOffset> list;
    EXPECT_EQ(0, table().GetEmptyDcOffsetList(&list));
    Tell(kListed);
    EXPECT_EQ(3U, list.size());
    for (DCOffset& record : list) {
      record.dcOffset = record.key == kKnown ? 4096 : record.key == kGivenUp ? -2 : -1;
    }
    EXPECT_EQ(0, table().BackfillDcOffset(list));
    Tell(kAnswered);
    Flush();
    Tell(kStored);
    DieAtLmdbWrite(0);
    Faults::Reset();
    Destroy();
  }

  /// The keys of all records in the store and in the list that is out.
  std::vector<long> KeysOnFile() const {
    std::vector<long> keys;
    for (const char* const name : {"dcoffset", "dcoffset.tmp"}) {
      const std::string bytes = BytesOf(File(name));
      EXPECT_EQ(0U, bytes.size() % 56) << "no call was cut short";
      for (std::size_t at = 0; at + 56 <= bytes.size(); at += 56) {
        long key = 0;
        std::memcpy(&key, bytes.data() + at, sizeof(key));
        keys.push_back(key);
      }
    }
    return keys;
  }

  /// What a dead process may leave behind, given what it said.
  void CheckLeft(const std::string& said) {
    const auto has = [&](char what) { return said.find(what) != std::string::npos; };
    Records stored = ReadPlainDatabase(File("lsml0.mdb"));
    stored.erase(std::remove_if(stored.begin(), stored.end(),
                                [](const PlainRecord& record) { return record.key < 0; }),
                 stored.end());
    const bool asked = stored == Flushed(-1, -1);
    const bool answered = stored == Flushed(4096, -2);
    EXPECT_TRUE(stored.empty() || asked || answered) << testing::PrintToString(stored);
    EXPECT_TRUE(!has(kAsked) || asked || answered);
    EXPECT_TRUE(!has(kStored) || answered);

    const std::vector<long> keys = KeysOnFile();
    const bool isOut = fs::exists(File("dcoffset.tmp"));
    const bool takenBack = has(kListed) && !isOut;
    EXPECT_FALSE(has(kAnswered) && isOut);
    if (!stored.empty()) {
      EXPECT_THAT(keys, testing::Contains(kOpen));
    }
    if (!stored.empty() && !takenBack) {
      EXPECT_THAT(keys, IsSupersetOf({kKnown, kGivenUp, kOpen}));
    }
    answersLost_ += takenBack && asked && std::count(keys.begin(), keys.end(), kKnown) == 0;
  }

  /// Another process goes on with the directory.
  void CheckNextLife() {
    InChild([&] {
      Load();
      ::mdb_env_set_flags(peer().smallDb().env, MDB_NOSYNC, 1);
      const std::size_t wanted = BytesOf(File("dcoffset")).size() / 56;
      std::vector<DCOffset> list;
      EXPECT_EQ(0, table().GetEmptyDcOffsetList(&list));
      EXPECT_EQ(wanted, list.size()) << "a list that was out is not handed out again";
      for (DCOffset& record : list) {
        record.dcOffset = 5;
      }
      const Records before = Small();
      EXPECT_EQ(0, table().BackfillDcOffset(list));
      EXPECT_FALSE(fs::exists(File("dcoffset.tmp"))) << "it goes with whatever is taken back";
      Flush();
      EXPECT_EQ(before.size(), Small().size());
      for (const PlainRecord& record : Small()) {
        std::int32_t offset = 0;
        std::memcpy(&offset, record.value.data() + 52, sizeof(offset));
        EXPECT_TRUE(list.empty() || record.key != kOpen + 100 || offset == 5);
      }
      Destroy();
    });
  }

  int answersLost_ = 0;  ///< deaths after which an answer is known to nobody
};

TEST_F(BackfillCrashTest, WhatIsStillOpenIsOnFileAtEveryMomentAndAnswersFromTheFlushOn) {
  KeepEmptyTable();
  int deaths = 0;
  int insideLmdb = 0;
  int sidefileDeaths = 0;
  for (std::size_t kind = 0; kind < kCrashKinds && !HasFailure(); ++kind) {
    for (int nth = 1; !HasFailure(); ++nth) {
      SCOPED_TRACE("kind " + std::to_string(kind) + ", call " + std::to_string(nth));
      CopyEmptyTable();
      fs::remove(dir_ / "said");
      const int status = RunInChild([&] { Live({kind, nth}); });
      const std::string said = BytesOf(dir_ / "said");
      if (!DiedBy(status, SIGKILL)) {
        EXPECT_TRUE(EndedWell(status));
        EXPECT_EQ("flbs", said);
        CheckLeft(said);
        break;
      }
      ++deaths;
      insideLmdb += kind == kCalls ? 1 : 0;
      sidefileDeaths += kind < static_cast<std::size_t>(Call::kMdbEnvCreate) ? 1 : 0;
      CheckLeft(said);
      CheckNextLife();
    }
  }
  std::cout << "deaths: " << deaths << ", of them at calls on the store " << sidefileDeaths
            << " and inside a commit " << insideLmdb << "; with an answer lost: " << answersLost_
            << '\n';
  RecordProperty("deaths", deaths);
  EXPECT_GT(deaths, 60);
  EXPECT_GE(insideLmdb, 6) << "two writes and a sync of each commit";
  EXPECT_GT(sidefileDeaths, 20);
  EXPECT_GT(answersLost_, 0) << "between the backfill and the flush an answer is in memory only";
}

// The host may hand a list back as long as the process lives; another one does not know of it.
TEST_F(BackfillCrashTest, AListThatWasOutAtADeathGoesWithTheNextOne) {
  const int status = RunInChild([&] {
    Load();
    WriteKnown(0, 100, Oid(70), 0, -1);
    Flush();
    std::vector<DCOffset> list;
    EXPECT_EQ(0, table().GetEmptyDcOffsetList(&list));
    WriteKnown(100, 200, Oid(71), 0, -1);
    Flush();
    ::kill(::getpid(), SIGKILL);
  });
  ASSERT_TRUE(DiedBy(status, SIGKILL));
  EXPECT_THAT(KeysOnFile(), ElementsAre(100, 0));
  InChild([&] {
    Load();
    std::vector<DCOffset> list;
    EXPECT_EQ(0, table().GetEmptyDcOffsetList(&list));
    EXPECT_EQ(1U, list.size());
    EXPECT_THAT(KeysOnFile(), ElementsAre(100));
    Destroy();
  });
}

}  // namespace
}  // namespace zefs::test
