// A process that dies at any call of a truncate: each database is cut whole or not at all, the
// small one first, and nothing in front of the size is lost.

#include <csignal>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/crash_points.h"
#include "tests/persistent/merge_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

constexpr long kSize = 150;

class TruncateCrashTest : public MergeTest {
 protected:
  /// The table of every life: extents of both databases span the size, lie behind it and in front
  /// of it, and it has an object id.
  void Prepare() {
    LoadBoth({Stored(0, 100, 70), Stored(100, 200, 71), Stored(300, 400, 72)},
             {Stored(40, 60, 80), Stored(120, 180, 81), Stored(350, 360, 82)});
    ObjectID oid = Oid(99, 9);
    EXPECT_EQ(0, table().SetDOID(&oid));
    EXPECT_EQ(0, table().setFileSize(400));
    Close();
    WriteBytes(File("bloom"), "anything");
    for (const char* name : {"data.mdb", "lsml0.mdb", "bloom"}) {
      files_[name] = BytesOf(File(name));
    }
    smallBefore_ = ReadPlainDatabase(File("lsml0.mdb"));
    fullBefore_ = ReadPlainDatabase(File("data.mdb"));
  }
  void PutBack() {
    fs::remove_all(Directory());
    MakeDirectory();
    for (const auto& [name, bytes] : files_) {
      WriteBytes(File(name), bytes);
    }
  }

  /// The life that dies. It has not changed the table before.
  void Live(CrashPoint point) {
    Load();
    peer().dataChanged() = false;
    Arm(Directory().string(), point);
    EXPECT_EQ(0, table().truncate(kSize, nullptr));
    Disarm();
    Destroy();
  }

  /// `records` with this item in place of what is there.
  static Records With(Records records, const PlainRecord& item) {
    for (PlainRecord& record : records) {
      record = record.key == item.key ? item : record;
    }
    return records;
  }
  /// A database after the truncate, with its new size among the special items.
  static Records CutAt(const Records& before) {
    std::map<std::int64_t, std::string> items;
    for (const PlainRecord& record : before) {
      std::int64_t start = record.key;
      if (record.key > kSize) {
        std::memcpy(&start, record.value.data(), sizeof(start));
      }
      if (start < kSize) {
        items[std::min(record.key, std::int64_t{kSize})] = record.value;
      }
    }
    items[kPlainFileSizeKey] = SpecialBytes(std::int64_t{kSize});
    Records cut;
    for (const auto& [key, value] : items) {
      cut.push_back({key, value});
    }
    return cut;
  }

  /// How far the truncate has come, by the files alone: 0 nothing is stored, 1 the object id is
  /// emptied, 2 the small database is cut, 3 the full one too. Fails for anything in between.
  int StepsDone() {
    const Records small = ReadPlainDatabase(File("lsml0.mdb"));
    const Records full = ReadPlainDatabase(File("data.mdb"));
    const Records emptied =
        With(smallBefore_, {kPlainDoidKey, SpecialBytes(std::uint64_t{0}, PlainDigest{})});
    const bool bloom = fs::exists(File("bloom"));
    if (full == CutAt(fullBefore_)) {
      EXPECT_EQ(CutAt(emptied), small);
      EXPECT_FALSE(bloom);
      return 3;
    }
    EXPECT_EQ(fullBefore_, full);
    if (small == CutAt(emptied)) {
      EXPECT_FALSE(bloom);
      return 2;
    }
    if (small == emptied) {
      return 1;
    }
    EXPECT_EQ(smallBefore_, small);
    EXPECT_TRUE(bloom);
    return 0;
  }

  /// What the next life finds, and that it can do the rest.
  void ExpectToGoOnFrom(int done) {
    const std::vector<std::string> front = {"[0, 40) 70 70000 700", "[40, 60) 80 80000 800",
                                            "[60, 100) 70 70060 700", "[100, 120) 71 71000 710"};
    std::vector<std::string> expected = front;
    if (done < 2) {
      expected.insert(expected.end(), {"[120, 180) 81 81000 810", "[180, 200) 71 71080 710",
                                       "[300, 350) 72 72000 720", "[350, 360) 82 82000 820",
                                       "[360, 400) 72 72060 720"});
    } else if (done == 2) {
      expected.insert(expected.end(), {"[120, 150) 81 81000 810", "[150, 200) 71 71050 710",
                                       "[300, 400) 72 72000 720"});
    } else {
      expected.emplace_back("[120, 150) 81 81000 810");
    }
    Load();
    EXPECT_EQ(expected, Walk(table()));
    EXPECT_EQ(done == 3 ? kSize : 400, table().getFileSize());
    EXPECT_EQ(done == 0 ? 99U : 0U, peer().doid().dcid);
    EXPECT_EQ(0, table().truncate(kSize, nullptr));
    expected = front;
    expected.emplace_back("[120, 150) 81 81000 810");
    EXPECT_EQ(expected, Walk(table()));
    EXPECT_EQ(kSize, table().getFileSize());
    Close();
  }

  std::map<std::string, std::string> files_;
  Records smallBefore_;
  Records fullBefore_;
};

TEST_F(TruncateCrashTest, EachDatabaseIsCutWholeOrNotAtAllAndTheSmallOneFirst) {
  Prepare();
  int deaths = 0;
  int insideLmdb = 0;
  std::map<int, int> deathsAfter;  // by StepsDone
  for (std::size_t kind = 0; kind < kCrashKinds; ++kind) {
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE("kind " + std::to_string(kind) + ", call " + std::to_string(nth));
      PutBack();
      const int status = RunInChild([&] { Live({kind, nth}); });
      const int done = StepsDone();
      if (!DiedBy(status, SIGKILL)) {
        EXPECT_TRUE(EndedWell(status));
        EXPECT_EQ(3, done);
        break;
      }
      ++deaths;
      insideLmdb += kind == kCalls ? 1 : 0;
      ++deathsAfter[done];
      ExpectToGoOnFrom(done);
      ASSERT_FALSE(HasFailure());
    }
  }
  std::cout << "deaths of a truncate: " << deaths << ", of them inside a commit: " << insideLmdb
            << "; with nothing stored " << deathsAfter[0] << ", the object id emptied "
            << deathsAfter[1] << ", the small database cut " << deathsAfter[2] << '\n';
  RecordProperty("deaths", deaths);
  EXPECT_GT(deaths, 30);
  EXPECT_GE(insideLmdb, 9) << "two writes and a sync of each commit";
  EXPECT_GT(deathsAfter[0], 3);
  EXPECT_GT(deathsAfter[1], 10);
  EXPECT_GT(deathsAfter[2], 10);
}

}  // namespace
}  // namespace zefs::test
