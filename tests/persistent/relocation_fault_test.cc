// Removals and moves whose calls fail.

#include <cerrno>
#include <iostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/call_failures.h"
#include "tests/persistent/relocation_fixture.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::IsEmpty;

class RemovalFaultTest : public RelocationTest {
 protected:
  /// A tree below the directory of the test that is to go.
  void Grow() {
    fs::create_directories(Target() / "below");
    WriteBytes(Target() / "file", "bytes");
    WriteBytes(Target() / "below" / "file", "bytes");
  }

  /// Fails each call of one kind while the tree is removed. Returns how many calls there were.
  int FailEach(int code, const CallFailures& failures) {
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE("call " + std::to_string(nth) + ", code " + std::to_string(code));
      Grow();
      WriteKnown(500, 510, Oid(90));
      log_.Take();
      failures.fail(nth);
      const int result = table().remove(Target().string());
      const bool hit = failures.fired();
      failures.fail(0);
      const auto lines = Lines();
      EXPECT_THAT(Cached(), IsEmpty()) << "the cache is empty already";
      if (!hit) {
        EXPECT_EQ(0, result);
        EXPECT_THAT(lines, IsEmpty());
        return nth - 1;
      }
      EXPECT_EQ(-1, result);
      EXPECT_EQ(1U, lines.size()) << testing::PrintToString(lines);
      EXPECT_EQ(0U, lines.front().find("8 Failed to remove map file " + Target().string() +
                                       ", error is boost::filesystem::"))
          << lines.front();
      EXPECT_NE(std::string::npos, lines.front().find(std::strerror(code))) << lines.front();
      EXPECT_TRUE(fs::exists(Target()));
      EXPECT_EQ(Content(), Walk(table())) << "the databases lie elsewhere";
      EXPECT_EQ(0, table().remove(Target().string())) << "the next time it goes";
      EXPECT_FALSE(fs::exists(Target()));
    }
  }
  int FailEach(Call call, int code) {
    const WatchCalls watch(dir_.path().string());
    return FailEach(code, FailuresOf(call, code, dir_.path().string()));
  }
  int FailEach(FileCall call, int code, int beside = 0) {
    return FailEach(code, FailuresOf(call, code, beside));
  }
};

TEST_F(RemovalFaultTest, EachCallFailsOnceWithEachCode) {
  LoadTable();
  int points = 0;
  for (const int code : {EACCES, EPERM, EBUSY, EROFS, EIO}) {
    EXPECT_EQ(2, FailEach(Call::kUnlink, code)) << "two files";
    EXPECT_EQ(2, FailEach(FileCall::kRmdir, code)) << "two directories";
    points += 4;
  }
  for (const int code : {EACCES, EMFILE}) {
    EXPECT_EQ(2, FailEach(FileCall::kOpendir, code));
    points += 2;
  }
  for (const int code : {EIO, ELOOP}) {
    // The first look is the table's own; the others are those of the removal: it looks at each of
    // the four.
    const int looks = FailEach(FileCall::kLstat, code, 1);
    EXPECT_EQ(4, looks);
    points += looks;
    const int reads = FailEach(FileCall::kReaddir, code);
    EXPECT_GT(reads, 4);
    points += reads;
  }
  std::cout << "calls and codes that failed: " << points << '\n';
  RecordProperty("points", points);
}

TEST_F(RemovalFaultTest, APathThatCannotBeLookedAtIsTheCallersToHear) {
  LoadTable();
  FailFileCall(FileCall::kLstat, 1, EIO);
  EXPECT_THROW(table().remove(dir_.path().string()), fs::filesystem_error);
  EXPECT_TRUE(FileCallFailed());
  EXPECT_THAT(Lines(2), testing::IsEmpty()) << "and not the log's";
}

// --- moves ---------------------------------------------------------------------------------------

class MoveFaultTest : public RelocationTest {
 protected:
  /// A table whose offset store has a record in memory.
  void LoadWithOffset() {
    LoadTable();
    fs::create_directory(Target());
    Set(&Config::dcOffsetTrackingEnabled, true);
    Set(&Config::dcOffsetStoreThreshold, 1000U);
    EXPECT_EQ(0, table().AppendToRefreshDcOffsetList(5, 70, Oid(70).fp));
    log_.Take();
  }

  /// The move has gone on, whatever has failed, and the table works at the new place.
  void ExpectMoved() {
    EXPECT_EQ(Target().string(), peer().path());
    EXPECT_EQ(Held::kNot, TableLock());
    EXPECT_EQ(0, table().AppendToRefreshDcOffsetList(6, 71, Oid(71).fp));
    EXPECT_EQ(Content(), Walk(table()));
    Destroy();
    EXPECT_NE(std::string::npos, BytesOf(TargetFile("dcoffset")).find(OffsetBytes(6, Oid(71), -1)));
  }
};

TEST_F(MoveFaultTest, AnOffsetStoreThatCannotBeSyncedIsToldAndTheMoveGoesOn) {
  LoadWithOffset();
  const WatchCalls watch(dir_.path().string());
  Faults::FailNth(Call::kFsync, 1, EIO, true);
  table().UpdateExtPath(Target().string());
  Faults::Disarm();
  const auto lines = Lines(kLogStep);
  ASSERT_GE(lines.size(), 2U);
  EXPECT_EQ("8 UpdatePath, failed to flush path_=" + Path("dcoffset") + ", return=-1",
            lines[lines.size() - 2]);
  EXPECT_EQ("1 DcOffsetStore::Destory, file: " + TargetFile("dcoffset"), lines.back());
  ExpectMoved();
}

TEST_F(MoveFaultTest, EachCallOfTheFlushFailsOnceAndTheMoveGoesOn) {
  int points = 0;
  for (const Call call : {Call::kOpen, Call::kWrite, Call::kFsync, Call::kClose}) {
    for (const int code : {EIO, ENOSPC}) {
      const WatchCalls watch(dir_.path().string());
      points += Faults::UntilNoneFires([&](int nth) {
        SCOPED_TRACE("kind " + std::to_string(static_cast<int>(call)) + ", call " +
                     std::to_string(nth));
        Destroy();
        fs::remove_all(Directory());
        fs::remove_all(Target());
        LoadWithOffset();
        Faults::FailNth(call, nth, code);
        EXPECT_NO_THROW(table().UpdateExtPath(Target().string()));
        Faults::Disarm();
        if (Faults::Fired() && call != Call::kClose) {
          EXPECT_THAT(Lines(kLogFailure), testing::Not(IsEmpty())) << "a failure is told";
        }
        ExpectMoved();
      });
    }
  }
  std::cout << "calls and codes that failed: " << points << '\n';
  EXPECT_GE(points, 10);
}

TEST_F(MoveFaultTest, AMoveWithAnEmptyStoreTouchesNoFile) {
  LoadTable("GENERIC");
  const WatchCalls watch(dir_.path().string());
  for (const Call call : {Call::kOpen, Call::kWrite, Call::kFsync, Call::kRename, Call::kUnlink}) {
    Faults::FailNth(call, 1, EIO, true);
  }
  table().UpdateExtPath(Target().string());
  EXPECT_FALSE(Faults::Fired());
  EXPECT_THAT(Lines(kLogRecoverable), IsEmpty());
}

}  // namespace
}  // namespace zefs::test
