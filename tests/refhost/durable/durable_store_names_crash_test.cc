#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <map>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "refhost/durable/store_figures.h"
#include "refhost/host/log_recorder.h"
#include "tests/refhost/durable/other_file_system.h"
#include "tests/refhost/durable/whole_files_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/support/killed_at_system_call.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::KilledAtSystemCall;
using test::kSegment;
using test::Pattern;
using test::ReadAll;

constexpr std::size_t kSegments = 48;
constexpr std::size_t kOver = 5;  // segments
constexpr std::size_t kFirstOver = 4 * kSegment;
constexpr std::size_t kSecondOver = 30 * kSegment;
constexpr std::int64_t kCutSize = 20 * kSegment + 100;

/// All files of a store by name, with their bytes.
using Files = std::map<std::string, std::string>;

/// Where the two volumes of a store are.
enum class Volumes { kNone, kOneFileSystem, kTwoFileSystems };

struct Operation {
  enum Kind { kCut, kRemove, kRename, kReplace, kSnapshot };
  const char* name;
  Kind kind;
  Volumes volumes;
};

/// A process that does one thing with a file, and dies somewhere in it. Afterwards the store has
/// all files as they were before, or all as they have to be after it.
class DurableStoreNamesCrash : public ::testing::TestWithParam<Operation> {
 protected:
  std::string Path() const { return (dir_ / "store").string(); }
  fs::path Marked(const char* mark) const { return dir_ / mark; }

  void SetUp() override {
    if (GetParam().volumes != Volumes::kNone) {
      fs::create_directory(dir_ / "v1");
      fs::create_directory(SecondVolume());
      options_.format.volumes = {(dir_ / "v1").string(), SecondVolume().string()};
      const StoreDirectory directory(Path(), StoreDirectory::Missing::kIsMade, options_.format);
      from_ = test::NameOn(directory, 0, "from");
      to_ = test::NameOn(directory, 1, "to");
    }
    MakeModels();
    ASSERT_TRUE(test::EndedWell(test::RunInChild([&] { MakeStore(); })));
    for (const fs::path& place : Places()) {
      test::CopyTree(place, place.string() + ".before");
    }
  }

  fs::path SecondVolume() const {
    return GetParam().volumes == Volumes::kTwoFileSystems ? other_.path() / "v2" : dir_ / "v2";
  }
  std::vector<fs::path> Places() const {
    if (GetParam().volumes == Volumes::kNone) {
      return {dir_ / "store"};
    }
    return {dir_ / "store", dir_ / "v1", SecondVolume()};
  }
  void Restore() const {
    for (const fs::path& place : Places()) {
      fs::remove_all(place);
      test::CopyTree(place.string() + ".before", place);
    }
    fs::remove(Marked("done"));
  }

  void MakeModels() {
    std::string bytes = Pattern(1, kSegments * kSegment);
    bytes.replace(kFirstOver, kOver * kSegment, Pattern(2, kOver * kSegment));
    bytes.replace(kSecondOver, kOver * kSegment, Pattern(3, kOver * kSegment));
    before_ = {{"bystander", Pattern(5, 3000)}, {from_, bytes}};
    after_ = before_;
    switch (GetParam().kind) {
      case Operation::kCut:
        after_[from_].resize(kCutSize);
        break;
      case Operation::kRemove:
        after_.erase(from_);
        break;
      case Operation::kReplace:
        before_[to_] = Pattern(7, 4000);
        [[fallthrough]];
      case Operation::kRename:
        after_.erase(from_);
        [[fallthrough]];
      case Operation::kSnapshot:
        after_[to_] = bytes;
        break;
    }
  }

  /// What is overwritten is in the full database, and what it is overwritten with in the small one.
  void MakeStore() const {
    DurableStore store(Path(), options_);
    {
      const test::SmallThresholds merging(1024, 20);
      for (const auto& [name, bytes] : before_) {
        store.Create(name);
        store.Write(name, 0, name == from_ ? Pattern(1, bytes.size()) : bytes);
      }
      store.Sync();
      store.CloseFiles();
    }
    store.Write(from_, kFirstOver, Pattern(2, kOver * kSegment));
    store.Write(from_, kSecondOver, Pattern(3, kOver * kSegment));
    store.Sync();
    store.CloseFiles();
    DatabaseRecords records;
    CountRecords(store.directory().table(store.Catalogued().at(from_).table), &records);
    EXPECT_EQ(kSegments, records.full);
    EXPECT_EQ(2 * kOver, records.small);
  }

  void Run(DurableStore* store) const {
    switch (GetParam().kind) {
      case Operation::kCut:
        store->Truncate(from_, kCutSize);
        break;
      case Operation::kRemove:
        store->Remove(from_);
        store->Sync();
        break;
      case Operation::kRename:
        store->Rename(from_, to_, false);
        break;
      case Operation::kReplace:
        store->Rename(from_, to_, true);
        break;
      case Operation::kSnapshot:
        store->Snapshot(from_, to_);
        break;
    }
  }

  /// A life with all files open, as the operation finds them.
  void Live(const std::function<void()>& begin) const {
    DurableStore store(Path(), options_);
    for (const auto& [name, bytes] : before_) {
      ReadAll(store, name);
    }
    begin();
    Run(&store);
    test::WriteFile(Marked("done"), "");
    store.CloseFiles();
  }

  /// What the next process finds.
  void Inspect() const {
    DurableStore store(Path(), options_);
    EXPECT_EQ("", test::ProblemsOf(store));
    Files found;
    for (const auto& [name, entry] : store.Catalogued()) {
      found[name] = ReadAll(store, name);
    }
    EXPECT_TRUE(found == after_ || (found == before_ && !fs::exists(Marked("done"))));
    test::WriteFile(Marked(found == after_ ? "after" : "before"), "");
    EXPECT_EQ(found.size(), test::TablesOf(store.directory())) << "tables of no file";
    // And it can be worked on.
    for (auto& [name, bytes] : found) {
      bytes.replace(100, 1000, Pattern(9, 1000));
      store.Write(name, 100, Pattern(9, 1000));
    }
    store.Sync();
    for (const auto& [name, bytes] : found) {
      EXPECT_TRUE(bytes == ReadAll(store, name)) << name;
    }
    EXPECT_EQ("", test::ProblemsOf(store));
    store.CloseFiles();
  }

  const test::SmallThresholds thresholds_{1024, 100000};
  const test::TempDir dir_;
  const test::OtherFileSystem other_{dir_.path()};
  DurableStoreOptions options_ = test::SmallStoreOptions();
  std::string from_ = "from";
  std::string to_ = "to";
  Files before_;
  Files after_;
};

TEST_P(DurableStoreNamesCrash, AllIsAsBeforeOrAsAfterWhereverTheProcessDies) {
  ASSERT_TRUE(KilledAtSystemCall::IsPossible())
      << "no process may trace another here, which the leak check needs as well: allow ptrace";
  int crashes = 0;
  const int steps = GetParam().volumes == Volumes::kTwoFileSystems ? 2 : 1;  // one is a disk
  for (int nth = 1;; nth = KilledAtSystemCall::Next(nth, steps)) {
    Restore();
    const int status =
        KilledAtSystemCall::Run(nth, [&](const std::function<void()>& begin) { Live(begin); });
    if (test::EndedWell(status)) {
      break;
    }
    ASSERT_TRUE(test::DiedBy(status, SIGKILL)) << nth;
    ++crashes;
    ASSERT_TRUE(test::EndedWell(test::RunInChild([&] { Inspect(); })))
        << "after a crash at system call " << nth;
  }
  RecordProperty("crashes", crashes);
  EXPECT_TRUE(fs::exists(Marked("before")));
  EXPECT_TRUE(fs::exists(Marked("after")));
  ASSERT_TRUE(fs::exists(Marked("done")));
  ASSERT_TRUE(test::EndedWell(test::RunInChild([&] { Inspect(); })));
}

constexpr Operation kOperations[] = {
    {"Cut", Operation::kCut, Volumes::kNone},
    {"Remove", Operation::kRemove, Volumes::kNone},
    {"Rename", Operation::kRename, Volumes::kNone},
    {"Replace", Operation::kReplace, Volumes::kNone},
    {"Snapshot", Operation::kSnapshot, Volumes::kNone},
    {"RenameToAnotherVolume", Operation::kRename, Volumes::kOneFileSystem},
    {"ReplaceOnAnotherVolume", Operation::kReplace, Volumes::kOneFileSystem},
    {"SnapshotOnAnotherVolume", Operation::kSnapshot, Volumes::kOneFileSystem},
    {"RenameToAnotherFileSystem", Operation::kRename, Volumes::kTwoFileSystems},
    {"ReplaceOnAnotherFileSystem", Operation::kReplace, Volumes::kTwoFileSystems},
    {"SnapshotOnAnotherFileSystem", Operation::kSnapshot, Volumes::kTwoFileSystems},
};

std::string NameOfOperation(const ::testing::TestParamInfo<Operation>& tested) {
  return tested.param.name;
}

INSTANTIATE_TEST_SUITE_P(Operations, DurableStoreNamesCrash, ::testing::ValuesIn(kOperations),
                         NameOfOperation);

/// Failures of the disk, that the process outlives.
class DurableStoreNamesFailure : public DurableStoreNamesCrash {};

TEST_P(DurableStoreNamesFailure, AllIsAsBeforeOrAsAfterWhicheverCallFails) {
  using test::Call;
  using test::Faults;
  const LogRecorder quiet;
  for (const Call call : {Call::kFsync, Call::kMdbTxnCommit, Call::kRename, Call::kOpen}) {
    for (int nth = 1;; nth += 1 + nth / 3) {
      Restore();
      const int status = test::RunInChild([&] {
        try {
          Live([&] {
            Faults::OnlyBelow(dir_.path().string());
            Faults::FailNth(call, nth, EIO, /*forGood=*/true);
          });
        } catch (const std::exception&) {  // the store is closed in order then
        }
        ::_exit(Faults::Fired() ? 3 : 0);
      });
      ASSERT_TRUE(WIFEXITED(status)) << nth;
      fs::remove(Marked("done"));
      ASSERT_TRUE(test::EndedWell(test::RunInChild([&] { Inspect(); })))
          << "call " << static_cast<int>(call) << ", failure at " << nth;
      if (WEXITSTATUS(status) == 0) {
        break;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Operations, DurableStoreNamesFailure, ::testing::ValuesIn(kOperations),
                         NameOfOperation);

}  // namespace
}  // namespace zefs::refhost
