#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "refhost/host/log_recorder.h"
#include "tests/refhost/durable/durable_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/fault_injection.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::Call;
using test::Faults;
using test::kSegment;
using test::Pattern;
using test::ProblemsOf;
using test::ReadAll;

constexpr std::size_t kSegments = 48;
constexpr std::size_t kBytes = kSegments * kSegment;
constexpr std::uint64_t kRounds = 2;

/// Version `round` of a file.
std::string Version(const std::string& name, std::uint64_t round) {
  return Pattern(round * 1000 + static_cast<unsigned char>(name[0]), kBytes);
}

/// A process that changes a store and dies somewhere in it, and what has to be there afterwards:
///   over    written over in each round, segment by segment
///   anew    begun anew in each round
///   late N  made in round N
/// `synced` in the directory beside the store has a byte for each round that was synced.
class DurableStoreCrash : public ::testing::TestWithParam<Call> {
 protected:
  std::string Path() const { return (dir_ / "store").string(); }
  std::string SyncedPath() const { return (dir_ / "synced").string(); }

  /// There as soon as a crash was between the first flush of a round and its sync.
  fs::path ChangingPath() const { return dir_ / "changing"; }

  void SetUp() override {
    ASSERT_TRUE(test::EndedWell(test::RunInChild([&] {
      DurableStore store(Path(), test::SmallStoreOptions());
      for (const char* const name : {"over", "anew"}) {
        store.Create(name);
        store.Write(name, 0, Version(name, 0));
      }
      store.Sync();
      store.CloseFiles();
    })));
    fs::create_directory(dir_ / "before");
    test::CopyTree(dir_ / "store", dir_ / "before/store");
  }

  void Restore() const {
    fs::remove_all(Path());
    fs::remove(SyncedPath());
    test::CopyTree(dir_ / "before/store", dir_ / "store");
  }

  void Change() const {
    DurableStore store(Path(), test::SmallStoreOptions());
    for (std::uint64_t round = 1; round <= kRounds; ++round) {
      for (std::size_t at = 0; at < kBytes; at += 2 * kSegment) {
        store.Write("over", static_cast<std::int64_t>(at),
                    Version("over", round).substr(at, kSegment));
      }
      store.Create("anew");
      store.Write("anew", 0, Version("anew", round));
      const std::string late = "late " + std::to_string(round);
      store.Create(late);
      store.Write(late, 0, Version(late, round));
      store.Sync();
      FileHandle::Open(SyncedPath(), O_WRONLY | O_CREAT)
          .WriteAt(static_cast<std::int64_t>(round - 1), "x");
    }
    store.CloseFiles();
  }

  std::uint64_t SyncedRounds() const {
    return fs::exists(SyncedPath()) ? fs::file_size(SyncedPath()) : 0;
  }

  /// What is in the store when the next process opens it.
  void Inspect() const {
    const std::uint64_t synced = SyncedRounds();
    DurableStore store(Path(), test::SmallStoreOptions());
    EXPECT_EQ("", ProblemsOf(store));
    if (store.Catalogued().at("over").changing) {
      test::WriteFile(ChangingPath(), "");
    }
    ExpectOver(ReadAll(store, "over"), synced);
    bool anew = false;
    for (std::uint64_t round = synced; round <= std::min(synced + 1, kRounds); ++round) {
      anew = anew || ReadAll(store, "anew") == Version("anew", round);
    }
    EXPECT_TRUE(anew) << "it is none of its versions from the last synced one on";
    for (std::uint64_t round = 1; round <= kRounds; ++round) {
      const std::string late = "late " + std::to_string(round);
      const bool there = store.Catalogued().count(late) != 0;
      EXPECT_TRUE(there || round > synced) << late;
      if (there) {
        EXPECT_TRUE(ReadAll(store, late) == Version(late, round)) << late;
      }
    }
    // And it can be worked on.
    store.Write("over", 0, Version("over", 9));
    store.Sync();
    EXPECT_TRUE(ReadAll(store, "over") == Version("over", 9));
    EXPECT_EQ("", ProblemsOf(store));
    store.CloseFiles();
  }

  /// Every segment is whole: of the last synced round, or of a later one.
  static void ExpectOver(const std::string& bytes, std::uint64_t synced) {
    ASSERT_EQ(kBytes, bytes.size());
    for (std::size_t at = 0; at < kBytes; at += kSegment) {
      const bool written = at / kSegment % 2 == 0;
      bool known = false;
      for (std::uint64_t round = written ? synced : 0; round <= (written ? kRounds : 0) && !known;
           ++round) {
        known = bytes.compare(at, kSegment, Version("over", round), at, kSegment) == 0;
      }
      EXPECT_TRUE(known) << "segment at " << at;
    }
  }

  const test::SmallThresholds thresholds_{4, 20};
  const test::TempDir dir_;
};

TEST_P(DurableStoreCrash, WhatWasSyncedIsThereWhereverTheProcessDies) {
  int crashes = 0;
  for (int nth = 1;; nth += 1 + nth / 16) {
    Restore();
    const int status = test::RunInChild([&] {
      Faults::OnlyBelow(Path());
      Faults::KillNth(GetParam(), nth);
      Change();
    });
    if (test::EndedWell(status)) {
      break;
    }
    ASSERT_TRUE(test::DiedBy(status, SIGKILL)) << nth;
    ++crashes;
    ASSERT_TRUE(test::EndedWell(test::RunInChild([&] { Inspect(); })))
        << "after a crash at call " << nth;
  }
  EXPECT_GT(crashes, 0);
  EXPECT_TRUE(fs::exists(ChangingPath()) || GetParam() != Call::kMdbTxnCommit);
  EXPECT_EQ(kRounds, SyncedRounds());
  ASSERT_TRUE(test::EndedWell(test::RunInChild([&] { Inspect(); })));
}

std::string NameOfCall(const ::testing::TestParamInfo<Call>& tested) {
  switch (tested.param) {
    case Call::kFsync:
      return "Fsync";
    case Call::kMdbTxnCommit:
      return "Commit";
    case Call::kMdbPut:
      return "Put";
    case Call::kMdbCursorPut:
      return "CursorPut";
    case Call::kRename:
      return "Rename";
    case Call::kUnlink:
      return "Unlink";
    default:
      return "EnvOpen";
  }
}

INSTANTIATE_TEST_SUITE_P(Calls, DurableStoreCrash,
                         ::testing::Values(Call::kFsync, Call::kMdbTxnCommit, Call::kMdbPut,
                                           Call::kMdbCursorPut, Call::kRename, Call::kUnlink,
                                           Call::kMdbEnvOpen),
                         NameOfCall);

/// Failures of the disk, that the process outlives.
class DurableStoreFailure : public DurableStoreCrash {};

TEST_P(DurableStoreFailure, WhatWasSyncedIsThereWhicheverCallFails) {
  const LogRecorder quiet;
  for (int nth = 1;; nth += 1 + nth / 4) {
    Restore();
    const int status = test::RunInChild([&] {
      Faults::OnlyBelow(Path());
      Faults::FailNth(GetParam(), nth, EIO, /*forGood=*/true);
      try {
        Change();
      } catch (const std::exception&) {  // the store is closed in order then
      }
      ::_exit(Faults::Fired() ? 3 : 0);
    });
    ASSERT_TRUE(WIFEXITED(status)) << nth;
    ASSERT_TRUE(test::EndedWell(test::RunInChild([&] { Inspect(); }))) << "failure at " << nth;
    if (WEXITSTATUS(status) == 0) {
      break;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Calls, DurableStoreFailure,
                         ::testing::Values(Call::kFsync, Call::kMdbTxnCommit, Call::kMdbPut,
                                           Call::kMdbCursorPut),
                         NameOfCall);

}  // namespace
}  // namespace zefs::refhost
