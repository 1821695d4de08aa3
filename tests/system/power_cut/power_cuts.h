#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/filesystem/path.hpp>

#include "tests/support/temp_dir.h"
#include "tests/system/power_cut/disk_recorder.h"
#include "tests/system/power_cut/model_disk.h"

// Power cuts at every point of a run, and what the next process finds.

namespace zefs::test {

/// For the messages of failed checks and the names of tests.
void PrintTo(Names names, std::ostream* out);

/// A run that was recorded: the files before it, and what it did to them.
struct RecordedRun {
  DiskImage before;
  std::vector<DiskEvent> events;
};

/// A point of a run at which the power is cut.
struct Moment {
  std::size_t calls = 0;  ///< made
  std::size_t done = 0;   ///< steps acknowledged
};

/// What was seen after the power cuts of a run.
struct PowerCuts {
  int disks = 0;                    ///< rebuilt
  std::map<std::string, int> seen;  ///< how many of them showed this
  std::vector<std::string> wrong;   ///< the first that were not allowed, with where they come from

  int Seen(std::string_view part) const {
    int count = 0;
    for (const auto& [outcome, times] : seen) {
      count += outcome.find(part) != std::string::npos ? times : 0;
    }
    return count;
  }
};

/// Nothing was seen that was not allowed.
void ExpectRight(const PowerCuts& cuts);

/// In a recorded life: what was asked for so far has returned.
inline void Done() {
  DiskRecorder::Mark("done");
}

/// Whether the LMDB file of this name is being made at this moment: it has a name, and has not been
/// synced.
bool IsBeingMade(const RecordedRun& run, const std::string& path, Moment moment);

/// Records runs on the files below one directory, and looks at what power cuts leave of them. With
/// no other process in that directory meanwhile, and no LMDB environment open.
class PowerCutter {
 public:
  /// `look` is called in a process of its own and tells what it finds in the directory.
  PowerCutter(boost::filesystem::path directory, std::function<std::string()> look)
      : directory_(std::move(directory)), look_(std::move(look)) {}

  /// Records `life`, which runs in a process of its own and tells by Done() what is acknowledged,
  /// over the files that are there now. The record must account for every byte that it leaves. The
  /// syncs of files called as in `forgotten` are left out.
  RecordedRun Record(const std::function<void()>& life,
                     const std::vector<std::string>& forgotten = {});

  /// Cuts the power at every point of the run from `firstDone` acknowledged steps on, rebuilds the
  /// disk in several ways, and has `allowed` judge what is found there. ZEFS_TEST_POWER_CUTS is the
  /// number of ways, of which the first are the corners; ZEFS_TEST_EVERY_CALL takes many.
  PowerCuts CutEverywhere(const RecordedRun& run, Names names, const std::string& kind,
                          const std::function<bool(Moment, const std::string&)>& allowed,
                          std::size_t firstDone = 0);

 private:
  std::string OutcomeOf(const DiskImage& image);

  const boost::filesystem::path directory_;
  const std::function<std::string()> look_;
  const TempDir logDir_;
  std::map<std::string, std::string> outcomes_;  // of disks that were looked at, by their contents
};

}  // namespace zefs::test
