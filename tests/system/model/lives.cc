#include "tests/system/model/lives.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <exception>
#include <unistd.h>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <sys/wait.h>

#include "tests/support/fault_injection.h"
#include "tests/support/temp_dir.h"
#include "tests/system/model/child.h"
#include "tests/system/model/shared_memory.h"

namespace zefs::test {

namespace {

namespace fs = boost::filesystem;

constexpr std::size_t kChecks = 24;  // operations from one whole check to the next

/// What a life tells of itself, and what stays when it is killed.
struct Telling {
  std::atomic<std::size_t> begun{0};  ///< operations begun, and those before this life
  std::atomic<std::size_t> done{0};
  std::array<char, 8192> words{};
};

/// The process dies in place of one of its next calls.
void ArmCrash(const std::string& directory, std::uint32_t pick) {
  struct Point {
    Call call;
    int most;
  };
  static constexpr std::array<Point, 13> kPoints = {{{Call::kMdbTxnCommit, 12},
                                                     {Call::kMdbTxnBegin, 400},
                                                     {Call::kMdbPut, 20},
                                                     {Call::kMdbCursorPut, 60},
                                                     {Call::kMdbCursorDel, 20},
                                                     {Call::kMdbCursorGet, 400},
                                                     {Call::kMdbEnvOpen, 4},
                                                     {Call::kPwrite, 60},
                                                     {Call::kWritev, 12},
                                                     {Call::kWrite, 8},
                                                     {Call::kRename, 4},
                                                     {Call::kUnlink, 4},
                                                     {Call::kOpen, 12}}};
  const Point& point = kPoints.at(pick % kPoints.size());
  Faults::OnlyBelow(directory);
  Faults::KillNth(point.call, 1 + static_cast<int>(pick / kPoints.size() %
                                                   static_cast<std::uint32_t>(point.most)));
}

/// One life, in a process of its own.
class Life {
 public:
  Life(const Program& program, const TableMakers& makers, Telling* telling, Tally* tally)
      : program_(program), makers_(makers), telling_(*telling), tally_(tally) {}

  [[noreturn]] void Run(Model model, std::size_t from, const std::string& path) {
    BeQuiet();
    try {
      Live(&model, from, path);
      ::_exit(0);
    } catch (const std::exception& e) {
      Tell(e.what());
    } catch (...) {
      Tell("something that is no std::exception was thrown");
    }
    ::_exit(kDifferent);
  }

 private:
  void Live(Model* model, std::size_t from, const std::string& path) {
    Tables tables(makers_, path);
    Steps steps(model, &tables, tally_);
    steps.Begin();
    bool goesOn = true;
    std::size_t next = from;
    while (goesOn && next < program_.operations.size()) {
      const Operation& operation = program_.operations[next++];
      telling_.begun = next;
      if (operation.kind == Kind::kKill) {
        tally_->byKind.at(static_cast<std::size_t>(operation.kind)) += 1;
        ::raise(SIGKILL);
      } else if (operation.kind == Kind::kCrash) {
        ArmCrash(fs::path(path).parent_path().string(), operation.pick);
      }
      goesOn = steps.Take(operation);
      telling_.done = next;
      if (goesOn && (next % kChecks == 0 || next == program_.operations.size())) {
        steps.CheckAll();
      }
    }
    steps.End();
    Faults::Reset();
  }

  void Tell(const char* words) {
    Faults::Reset();
    std::strncpy(telling_.words.data(), words, telling_.words.size() - 1);
  }

  const Program& program_;
  const TableMakers& makers_;
  Telling& telling_;
  Tally* tally_;
};

/// Whether both show the same, byte by byte.
bool ShowTheSame(const Disk& one, const Disk& other) {
  const std::vector<Seen> left = AllOf(one.Chain());
  const std::vector<Seen> right = AllOf(other.Chain());
  auto a = left.begin();
  auto b = right.begin();
  long offset = 0;
  while (a != left.end() && b != right.end()) {
    offset = std::max(offset, std::min(a->piece.start, b->piece.start));
    if (std::max(a->piece.start, b->piece.start) > offset ||
        From(a->piece, offset) != From(b->piece, offset)) {
      return false;
    }
    offset = std::min(a->end, b->end);
    a += a->end == offset ? 1 : 0;
    b += b->end == offset ? 1 : 0;
  }
  return a == left.end() && b == right.end();
}

/// A program as a parent sees it: the model, and the files between two lives.
class Lives {
 public:
  Lives(const Program& program, const TableMakers& makers, Tally* tally)
      : program_(program), makers_(makers), tally_(*tally), model_(program.settings) {}

  std::optional<std::string> Run() {
    Apply(program_.settings);
    while (at_ < program_.operations.size() && !difference_) {
      LiveOnce();
    }
    tally_.programs += 1;
    return difference_;
  }

 private:
  void LiveOnce() {
    telling_->begun = at_;
    telling_->done = at_;
    telling_->words.fill('\0');
    const std::string path = Path();
    const int status =
        StatusOfChild([&] { Life(program_, makers_, &*telling_, &tally_).Run(model_, at_, path); });
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
      FollowWell();
    } else if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
      FollowCrash();
    } else if (WIFEXITED(status) && WEXITSTATUS(status) == kDifferent) {
      Differ(telling_->words.data());
    } else {
      Differ("the process has died, with the status " + std::to_string(status));
    }
    at_ = telling_->begun;
  }

  /// The life has ended by itself: the files are what the model says.
  void FollowWell() {
    Steps steps(&model_, nullptr, &tally_);
    Follow(&steps);
    steps.End();
    const std::string difference = Difference(model_.disk(), ReadDisk(Path()));
    if (!difference.empty()) {
      Differ("on disk, " + difference);
    }
  }

  /// It was killed: the files show what was there before the operation in flight, or behind it, or
  /// what it passes through.
  void FollowCrash() {
    tally_.crashes += 1;
    Steps steps(&model_, nullptr, &tally_);
    Follow(&steps);
    std::vector<Disk> allowed = {model_.disk()};
    std::vector<long> sizes = {model_.SizeOnDisk(), model_.FileSize().stored};
    bool anything = false;
    if (telling_->begun > telling_->done) {
      const Operation& inFlight = program_.operations[telling_->begun - 1];
      Model behind = model_;
      behind.KeepWaypoints();
      Steps(&behind, nullptr, &tally_).Take(inFlight);
      allowed.insert(allowed.end(), behind.waypoints().begin(), behind.waypoints().end());
      allowed.push_back(behind.disk());
      // What a removal has left is removed, and what a replay has not finished is undefined.
      if (inFlight.kind == Kind::kRemove) {
        fs::remove_all(Path());
        model_ = behind;
        return;
      }
      anything = inFlight.kind == Kind::kReload && model_.HasJournal();
    }
    Disk found = ReadDisk(Path());
    const bool isAllowed =
        anything || std::any_of(allowed.begin(), allowed.end(),
                                [&](const Disk& disk) { return ShowTheSame(disk, found); });
    if (!isAllowed) {
      Differ("after the kill in operation " + std::to_string(telling_->begun - 1) + ", on disk, " +
             Difference(allowed.back(), found));
    }
    model_.Adopt(std::move(found));
  }

  void Follow(Steps* steps) {
    steps->Begin();
    for (std::size_t i = at_; i < telling_->done; ++i) {
      steps->Take(program_.operations[i]);
    }
  }

  /// Where the table lies: it moves now and then.
  std::string Path() const {
    const std::string path = (directory_ / "table").string();
    return fs::exists(path + '2') ? path + '2' : path;
  }

  void Differ(const std::string& words) {
    difference_ = "operation " + std::to_string(telling_->begun) + ": " + words;
  }

  const Program& program_;
  const TableMakers& makers_;
  Tally& tally_;
  const TempDir directory_;
  Model model_;
  std::size_t at_ = 0;
  SharedWithChildren<Telling> telling_;
  std::optional<std::string> difference_;
};

}  // namespace

std::optional<std::string> RunProgram(const Program& program, const TableMakers& makers,
                                      Tally* tally) {
  try {
    return Lives(program, makers, tally).Run();
  } catch (const std::exception& e) {
    return std::string("thrown: ") + e.what();
  }
}

}  // namespace zefs::test
