// A process that dies at any call of a flush: every flush that has returned is there, the one cut
// off is there whole or not at all.

#include <csignal>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/crash_points.h"
#include "tests/persistent/flush_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

const DataCacheNode::ObjectID kOld = Oid(70, 5);

class FlushCrashTest : public FlushTest {
 protected:
  static constexpr std::size_t kFlushes = 3;

  /// The small database after each number of flushes.
  static Records StateAfter(std::size_t flushes) {
    Records state;
    const std::int64_t size = flushes == 0 ? 0 : flushes == 1 ? 50 : 310;
    if (flushes > 0) {
      state.push_back({kPlainFileSizeKey, SpecialBytes(size)});
    }
    state.push_back({kPlainCommitCounterKey, SpecialBytes(static_cast<std::int64_t>(flushes))});
    state.push_back({kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})});
    const ObjectID first = Oid(71, 1);
    const ObjectID second = Oid(72, 2);
    Records extents;
    if (flushes == 0) {
      extents = {WholeRecord(0, 100, kOld, 1, 2)};
    } else if (flushes < 3) {
      extents = {PieceRecord(0, 10, kOld, 1, 2), WholeRecord(10, 20, first, 0, -1),
                 PieceRecord(20, 40, kOld, 21, 2), WholeRecord(40, 50, second, 3, -3),
                 PieceRecord(50, 100, kOld, 51, 2)};
    } else {
      extents = {PieceRecord(0, 10, kOld, 1, 2), PieceRecord(10, 15, first, 0, -1),
                 WholeRecord(15, 45, Oid(74, 4), 0, -3), PieceRecord(45, 50, second, 8, -3),
                 PieceRecord(50, 100, kOld, 51, 2)};
    }
    state.insert(state.end(), extents.begin(), extents.end());
    if (flushes >= 2) {
      state.push_back(WholeRecord(300, 310, Oid(73, 3), 0, -3));
    }
    return state;
  }

  /// The life that dies: three flushes, the first of which is not forced and leaves one extent to
  /// the next. Tells of each that has returned.
  void Live(const std::string& type, CrashPoint point) {
    TrackOffsets();
    Set(&Config::objIdReadyThreshold, 0U);
    LoadOver({WholeRecord(0, 100, kOld, 1, 2)}, type);
    Arm(Directory().string(), point);
    WriteNode(10, 20, Ready(Oid(71, 1), -1));
    WriteKnown(40, 50, Oid(72, 2), 3);
    WriteKnown(300, 310, Oid(73, 3));
    FlushAndTell(false);
    FlushAndTell(true);
    WriteKnown(15, 45, Oid(74, 4));
    FlushAndTell(true);
    Disarm();
    Destroy();
  }

  void FlushAndTell(bool force) {
    Flush(force);
    std::ofstream((dir_ / "returned").string(), std::ios::app) << 'x';
  }

  /// Dies at every point in turn; `check` looks at the directory, with the number of flushes that
  /// had returned. Returns the number of deaths.
  int DieEverywhere(const std::string& type, const std::function<void(std::size_t)>& check) {
    int deaths = 0;
    for (std::size_t kind = 0; kind < kCrashKinds; ++kind) {
      for (int nth = 1;; ++nth) {
        SCOPED_TRACE("kind " + std::to_string(kind) + ", call " + std::to_string(nth));
        fs::remove_all(Directory());
        fs::remove(dir_ / "returned");
        const int status = RunInChild([&] { Live(type, {kind, nth}); });
        const std::size_t returned = BytesOf(dir_ / "returned").size();
        if (!DiedBy(status, SIGKILL)) {
          EXPECT_TRUE(EndedWell(status));
          EXPECT_EQ(kFlushes, returned);
          break;
        }
        ++deaths;
        insideLmdb_ += kind == kCalls ? 1 : 0;
        check(returned);
        if (HasFailure()) {
          return deaths;
        }
      }
    }
    std::cout << "deaths of a " << type << " table: " << deaths
              << ", of them inside a commit: " << insideLmdb_ << '\n';
    RecordProperty("deaths", deaths);
    EXPECT_GE(insideLmdb_, 9) << "two writes and a sync of each commit";
    return deaths;
  }

  /// What the small database holds without a table; checks that it is what a whole number of
  /// flushes has made of it, and not fewer than have returned.
  Records CheckWhole(std::size_t returned) {
    Records found = ReadPlainDatabase(File("lsml0.mdb"));
    EXPECT_TRUE(found == StateAfter(returned) ||
                (returned < kFlushes && found == StateAfter(returned + 1)))
        << returned << " had returned: " << testing::PrintToString(found);
    return found;
  }

  /// The small database after another process has loaded the table, checked it, and let go of it.
  Records AfterLoad(const std::string& type, const std::function<void()>& look) {
    InChild([&] {
      table_ = std::make_unique<CMappingLMDB>(&host_, type);
      EXPECT_EQ(0, table_->load(Directory().string(), false, ""));
      look();
      Destroy();
    });
    return ReadPlainDatabase(File("lsml0.mdb"));
  }

  /// What the replay of a journal, newest record first, makes of the records.
  static Records ReplayedOn(const Records& records, const std::string& journal) {
    constexpr std::size_t kBytes = 80;
    std::map<std::int64_t, std::string> database;
    for (const PlainRecord& record : records) {
      database[record.key] = record.value;
    }
    for (std::size_t at = journal.size() - journal.size() % kBytes; at >= kBytes; at -= kBytes) {
      JournalFields fields;
      const char* const bytes = journal.data() + at - kBytes;
      std::memcpy(&fields.start, bytes + 8, 8);
      std::memcpy(&fields.end, bytes + 16, 8);
      std::memcpy(&fields.offset, bytes + 24, 8);
      std::memcpy(&fields.dcid, bytes + 32, 8);
      std::memcpy(fields.fp.data(), bytes + 40, 32);
      std::memcpy(&fields.op, bytes + 72, 4);
      if (fields.op == kOpAdd) {
        database.erase(fields.end);
      } else {
        database[fields.end] = Replayed(fields).value;
      }
    }
    Records result;
    for (const auto& [key, value] : database) {
      result.push_back({key, value});
    }
    return result;
  }

  int insideLmdb_ = 0;  ///< deaths at a write or sync of LMDB's own
};

TEST_F(FlushCrashTest, NothingThatReturnedIsLostAndNothingIsHalfThere) {
  const int deaths = DieEverywhere("PROVISION", [&](std::size_t returned) {
    const Records found = CheckWhole(returned);
    const std::size_t flushes = found == StateAfter(returned) ? returned : returned + 1;
    EXPECT_EQ(found, AfterLoad("PROVISION", [&] {
                EXPECT_EQ(flushes == 0 ? 0 : flushes == 1 ? 50 : 310, table().getFileSize());
                EXPECT_EQ(static_cast<std::int64_t>(flushes), peer().commitCounter());
                const std::vector<std::size_t> extents = {1, 5, 6, 6};
                EXPECT_EQ(extents.at(flushes), Walk(table()).size());
                WriteKnown(5, 6, Oid(90));
                EXPECT_EQ(extents.at(flushes) + 2, Walk(table()).size()) << "it takes writes";
              }));
  });
  EXPECT_GT(deaths, 50);
}

TEST_F(FlushCrashTest, AJournalThatIsLeftIsReplayedOnWhatIsThere) {
  int replays = 0;
  int changed = 0;
  const int deaths = DieEverywhere("GENERIC", [&](std::size_t returned) {
    const Records found = CheckWhole(returned);
    const std::string journal = BytesOf(File("journal"));
    const Records expected = ReplayedOn(found, journal);
    replays += journal.empty() ? 0 : 1;
    changed += expected == found ? 0 : 1;
    EXPECT_EQ(expected, AfterLoad("GENERIC", [] {}));
    EXPECT_EQ("", BytesOf(File("journal"))) << "spent";
  });
  EXPECT_GT(deaths, 65);
  EXPECT_GT(replays, 10);
  EXPECT_GT(changed, 10) << "extents that overlapped nothing go, the others lose their offset";
}

TEST_F(FlushCrashTest, AGenericTableWhoseLastFlushWasForcedKeepsAllOfIt) {
  const int status = RunInChild([&] {
    LoadOver({WholeRecord(0, 100, kOld, 1, 2)}, "GENERIC");
    WriteKnown(40, 50, Oid(72, 2), 3);
    WriteKnown(60, 70, Oid(73, 3));
    Set(&Config::objIdReadyThreshold, 0U);
    Flush(false);
    Flush(true);
    ::kill(::getpid(), SIGKILL);
  });
  EXPECT_TRUE(DiedBy(status, SIGKILL));
  EXPECT_FALSE(fs::exists(File("journal")));
  const Records found = ReadPlainDatabase(File("lsml0.mdb"));
  EXPECT_EQ(WholeRecord(60, 70, Oid(73, 3), 0, -3), found.at(found.size() - 2));
  EXPECT_EQ(found, AfterLoad("GENERIC", [] {}));
}

}  // namespace
}  // namespace zefs::test
