// A snapshot whose calls fail one by one, and whose process dies at any of them.

#include <cerrno>
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/call_failures.h"
#include "tests/persistent/relocation_fixture.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using Aldenta::Qnd::Morene::Zefs::SysException;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned int kOwnerOnly = 0700;

/// How a snapshot ends.
enum class End {
  kWell,
  kPassedThrough,  ///< boost::filesystem::filesystem_error comes out of it
  kNoDirectory,
  kNotCopied,
  kNotSynced
};

void PrintTo(End end, std::ostream* out) {
  static constexpr const char* kNames[] = {"well", "passed through", "no directory", "not copied",
                                           "not synced"};
  *out << kNames[static_cast<int>(end)];
}

class SnapshotFaultTest : public RelocationTest {
 protected:
  /// Takes a snapshot with the fault that is set. How it ended, and the code.
  End Run(int* code) {
    *code = 0;
    Lines();
    try {
      EXPECT_EQ(0, table().Snapshot(Directory().string(), Target().string()));
      EXPECT_THAT(Lines(kLogRare),
                  ElementsAre("2 Success to copy mdb, path=" + Target().string() + '.'));
      return End::kWell;
    } catch (const fs::filesystem_error& e) {
      *code = e.code().value();
      EXPECT_THAT(Lines(kLogRare), IsEmpty());
      return End::kPassedThrough;
    } catch (const SysException& e) {
      *code = e.code;
      return EndOf(Lines(kLogRare));
    }
  }

  /// What the one line of a failed snapshot tells.
  End EndOf(const std::vector<std::string>& lines) {
    EXPECT_EQ(1U, lines.size()) << testing::PrintToString(lines);
    const std::string line = lines.empty() ? "" : lines.front();
    const std::string files = TargetFile("data.mdb") + ", " + TargetFile("lsml0.mdb");
    if (line == "8 Failed to create snapshot folder, path=" + Target().string() + '.') {
      return End::kNoDirectory;
    }
    if (line.rfind("8 Failed to take snapshot for mdb, path=" + files + ". ret=", 0) == 0) {
      return End::kNotCopied;
    }
    EXPECT_EQ(0U, line.rfind("4 Failed to sync ." + TargetFile("data.mdb") + " and ." +
                                 TargetFile("lsml0.mdb") + " into disk, errno=",
                             0))
        << line;
    told_ = line.substr(line.rfind('=') + 1);
    return End::kNotSynced;
  }

  /// Removes what a snapshot has left.
  void Clear() { fs::remove_all(Target()); }

  /// Fails the calls of one kind in turn; how each ended. `code` is what the failing call says.
  std::vector<End> EndsOf(int code, const CallFailures& failures) {
    std::vector<End> ends;
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE("call " + std::to_string(nth));
      failures.fail(nth);
      int thrown = 0;
      const End end = Run(&thrown);
      const bool hit = failures.fired();
      failures.fail(0);
      if (!hit) {
        EXPECT_EQ(End::kWell, end);
        Clear();
        return ends;
      }
      ++points_;
      const bool isIo = end == End::kNoDirectory || end == End::kNotSynced;
      EXPECT_EQ(end == End::kWell ? 0 : isIo ? EIO : code, thrown);
      if (end == End::kNotSynced) {
        EXPECT_EQ(std::to_string(code), told_);
      }
      if (end == End::kWell) {
        EXPECT_EQ(kOwnerOnly, ModeOf(Target()));
        EXPECT_EQ(BytesOf(File("data.mdb")), BytesOf(TargetFile("data.mdb")));
        EXPECT_EQ(BytesOf(File("lsml0.mdb")), BytesOf(TargetFile("lsml0.mdb")));
      }
      CheckAfter();
      ends.push_back(end);
    }
  }
  std::vector<End> EndsOf(Call call, int code) {
    const WatchCalls watch(dir_.path().string());
    return EndsOf(code, FailuresOf(call, code, dir_.path().string()));
  }
  std::vector<End> EndsOf(FileCall call, int code) { return EndsOf(code, FailuresOf(call, code)); }

  /// Whatever has failed: the table is as it was, and a snapshot into a clean directory succeeds.
  void CheckAfter() {
    Clear();
    EXPECT_EQ(Content(), Walk(table()));
    int thrown = 0;
    EXPECT_EQ(End::kWell, Run(&thrown));
    Clear();
  }

  std::string told_;  ///< the error number that the last failed sync was told with
  int points_ = 0;
};

TEST_F(SnapshotFaultTest, EachCallFailsOnceWithEachCode) {
  LoadTable();
  const End passed = End::kPassedThrough;
  const End copy = End::kNotCopied;
  const End sync = End::kNotSynced;
  for (const int code : {EACCES, ELOOP}) {
    SCOPED_TRACE(code);
    // The target, its parent, its rights; source and target of each copy; the rights once more.
    EXPECT_THAT(EndsOf(Call::kStat, code),
                ElementsAre(passed, End::kNoDirectory, passed, copy, copy, copy, copy, passed));
    EXPECT_THAT(EndsOf(FileCall::kFstat, code), ElementsAre(copy, copy, copy, copy));
  }
  for (const int code : {EACCES, ENOSPC, EROFS, EDQUOT}) {
    SCOPED_TRACE(code);
    EXPECT_THAT(EndsOf(Call::kMkdir, code), ElementsAre(End::kNoDirectory));
  }
  for (const int code : {EMFILE, EACCES}) {
    SCOPED_TRACE(code);
    // Source and target of each copy, then each copy to sync it.
    EXPECT_THAT(EndsOf(Call::kOpen, code), ElementsAre(copy, copy, copy, copy, sync, sync));
  }
  for (const int code : {ENOSPC, EDQUOT, EIO}) {
    SCOPED_TRACE(code);
    EXPECT_THAT(EndsOf(FileCall::kCopyFileRange, code), ElementsAre(copy, copy));
    EXPECT_THAT(EndsOf(FileCall::kFdatasync, code), ElementsAre(copy, copy));
    EXPECT_THAT(EndsOf(Call::kFsync, code), ElementsAre(sync, sync));
  }
  for (const int code : {EPERM, EROFS}) {
    SCOPED_TRACE(code);
    // The rights of a directory just made, and once more in the end.
    EXPECT_THAT(EndsOf(FileCall::kChmod, code), ElementsAre(passed, passed));
  }
  std::cout << "calls and codes that failed: " << points_ << '\n';
  RecordProperty("points", points_);
}

TEST_F(SnapshotFaultTest, AFailedCloseHarmsNoCopyThatIsSynced) {
  LoadTable();
  EXPECT_THAT(EndsOf(Call::kClose, EIO), testing::Each(End::kWell));
  EXPECT_EQ(6, points_) << "target and source of each copy, and each copy that was synced";
}

TEST_F(SnapshotFaultTest, AnInterruptedSyncIsRepeated) {
  LoadTable();
  EXPECT_THAT(EndsOf(Call::kFsync, EINTR), ElementsAre(End::kWell, End::kWell));
}

TEST_F(SnapshotFaultTest, WhatWasCopiedByThenStaysAndTheSmallOneIsNotSyncedAfterTheFullOne) {
  LoadTable();
  const WatchCalls watch(dir_.path().string());
  int thrown = 0;
  fs::create_directory(Target());
  fs::permissions(Target(), fs::owner_all | fs::group_read);
  Faults::FailNth(Call::kFsync, 1, EIO);
  EXPECT_EQ(End::kNotSynced, Run(&thrown));
  EXPECT_EQ(1, Faults::Count(Call::kFsync)) << "the second is not tried";
  EXPECT_EQ((std::set<std::string>{"data.mdb", "lsml0.mdb"}), NamesIn(Target()));
  EXPECT_EQ(0740U, ModeOf(Target())) << "the rights are not set again";
  Clear();
  Faults::FailNth(Call::kOpen, 3, EMFILE);
  EXPECT_EQ(End::kNotCopied, Run(&thrown));
  EXPECT_EQ(EMFILE, thrown);
  EXPECT_EQ((std::set<std::string>{"data.mdb"}), NamesIn(Target()));
}

TEST_F(SnapshotFaultTest, ADirectoryThatSomebodyElseHasMadeMeanwhileIsUsed) {
  LoadTable();
  const WatchCalls watch(dir_.path().string());
  int thrown = 0;
  fs::create_directory(Target());
  // It is there only from the second look on.
  Faults::FailNth(Call::kStat, 1, ENOENT);
  EXPECT_EQ(End::kWell, Run(&thrown));
  EXPECT_TRUE(Faults::Fired());
  EXPECT_EQ((std::set<std::string>{"data.mdb", "lsml0.mdb"}), NamesIn(Target()));
  EXPECT_EQ(kOwnerOnly, ModeOf(Target()));
}

// --- death ---------------------------------------------------------------------------------------

class SnapshotCrashTest : public SnapshotFaultTest {
 protected:
  /// The life that dies: loads the table and copies it.
  void Live(const std::function<void()>& arm) {
    table_ = std::make_unique<CMappingLMDB>(&host_, "PROVISION");
    EXPECT_EQ(0, table_->load(Directory().string(), false, ""));
    arm();
    table_->Snapshot(Directory().string(), Target().string());
    Faults::Reset();
    FailFileCall(FileCall::kChmod, 0, 0);
    Destroy();
  }

  /// Dies at each call of one kind in turn, set by `arm(nth)`.
  void DieAtEach(const std::function<void(int)>& arm) {
    for (int nth = 1;; ++nth) {
      SCOPED_TRACE("call " + std::to_string(nth));
      Clear();
      const int status = RunInChild([&] { Live([&] { arm(nth); }); });
      if (!DiedBy(status, SIGKILL)) {
        EXPECT_TRUE(EndedWell(status));
        ExpectToLoad(Target());
        return;
      }
      ++deaths_;
      ExpectToLoad(Directory());
      EXPECT_EQ(full_, WithoutSpecial(ReadPlainDatabase(File("data.mdb"))));
      EXPECT_EQ(small_, WithoutSpecial(ReadPlainDatabase(File("lsml0.mdb"))));
      if (IsComplete()) {
        ++complete_;
        ExpectToLoad(Target());
      }
      ASSERT_FALSE(HasFailure());
    }
  }

  bool IsComplete() {
    for (const char* name : {"data.mdb", "lsml0.mdb"}) {
      if (!fs::exists(TargetFile(name)) ||
          fs::file_size(TargetFile(name)) != fs::file_size(File(name))) {
        return false;
      }
    }
    return true;
  }

  static Records WithoutSpecial(Records records) {
    while (!records.empty() && records.front().key < 0) {
      records.erase(records.begin());
    }
    return records;
  }

  int deaths_ = 0;
  int complete_ = 0;
};

TEST_F(SnapshotCrashTest, TheSourceIsUnharmedAndACompleteCopyIsATable) {
  Write("data.mdb", full_);
  Write("lsml0.mdb", small_);
  InChild([this] {
    Load();  // adds the special items, once
    Destroy();
  });
  for (const Call call : {Call::kStat, Call::kMkdir, Call::kOpen, Call::kClose, Call::kFsync}) {
    DieAtEach([&](int nth) {
      Faults::OnlyBelow(dir_.path().string());
      Faults::KillNth(call, nth);
    });
  }
  for (int call = 0; call < kFileCalls; ++call) {
    DieAtEach([&](int nth) { DieAtFileCall(static_cast<FileCall>(call), nth); });
  }
  std::cout << "deaths: " << deaths_ << ", of which " << complete_ << " left a whole copy\n";
  RecordProperty("deaths", deaths_);
  EXPECT_GE(deaths_, 29);
  EXPECT_GE(complete_, 9);
}

}  // namespace
}  // namespace zefs::test
