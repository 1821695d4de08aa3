#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

#include "table/sys_exception.h"
#include "tests/persistent/lifecycle_faults.h"
#include "tests/persistent/merge_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/figures.h"
#include "tests/support/property.h"
#include "tests/system/power_cut/disk_recorder.h"
#include "tests/system/power_cut/model_disk.h"

namespace zefs::test {

inline void PrintTo(Names names, std::ostream* out) {
  *out << (names == Names::kInOrder ? "names in order" : "names without order");
}

/// The files lie in memory where there is a place for them: no disk is part of these tests. An
/// environment variable says otherwise.
inline const bool kInMemory =
    ::access("/dev/shm", W_OK) == 0 && ::setenv("TMPDIR", "/dev/shm", 0) == 0;

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

/// Power cuts at every point of a run of the library, and what the next process finds. The disk of
/// a test is all below dir_; the table lies in Directory() unless a test moves it.
class PowerCutTest : public MergeTest {
 protected:
  static constexpr const char* kNotLoaded = "the table cannot be loaded";
  static constexpr const char* kDenied = "the filter denies what is there";

  /// Records `life`, which runs in a process of its own and tells by Done() what is acknowledged,
  /// over the files that are there now. The record must account for every byte that it leaves.
  RecordedRun Record(const std::function<void()>& life) {
    RecordedRun run;
    run.before = ImageOf(dir_.path());
    const std::string log = (logDir_ / "events").string();
    InChild([&] {
      DiskRecorder::Begin(dir_.path().string());
      for (const std::string& name : forgotten_) {
        DiskRecorder::ForgetSyncsOf(name);
      }
      life();
      DiskRecorder::Save(DiskRecorder::End(), log);
    });
    run.events = DiskRecorder::Saved(log);
    ModelDisk disk(run.before, Names::kInOrder);
    for (const DiskEvent& event : run.events) {
      disk.Apply(event);
    }
    EXPECT_EQ(NamesAndSizes(WithoutLocks(ImageOf(dir_.path()))),
              NamesAndSizes(WithoutLocks(disk.Now())));
    EXPECT_TRUE(WithoutLocks(ImageOf(dir_.path())) == WithoutLocks(disk.Now()))
        << "a write that was not recorded";
    return run;
  }

  /// In a recorded life: what was asked for so far has returned.
  static void Done() { DiskRecorder::Mark("done"); }

  /// Cuts the power at every point of the run, rebuilds the disk in several ways, and has `allowed`
  /// judge what Look() shows of it. Leaves out what
  /// comes before `firstDone` steps are acknowledged.
  PowerCuts CutEverywhere(const RecordedRun& run, Names names, const std::string& kind,
                          const std::function<bool(Moment, const std::string&)>& allowed,
                          std::size_t firstDone = 0) {
    const int variants = Variants();
    std::cout << "ZEFS_TEST_SEED=" << PropertySeed() << " ZEFS_TEST_POWER_CUTS=" << variants
              << '\n';
    PowerCuts cuts;
    ModelDisk disk(run.before, names);
    std::size_t done = 0;
    for (std::size_t at = 0; at <= run.events.size(); ++at) {
      if (at > 0) {
        const DiskEvent& event = run.events[at - 1];
        disk.Apply(event);
        done += event.kind == DiskEvent::kMark ? 1 : 0;
        if (event.kind == DiskEvent::kClose) {
          continue;  // leaves the disk as it is
        }
      }
      if (done < firstDone) {
        continue;
      }
      for (int variant = 0; variant < variants; ++variant) {
        std::mt19937_64 random(PropertySeed() + at * 1000 + static_cast<std::uint64_t>(variant));
        const DiskImage image = disk.AfterPowerCut(variant, &random);
        const std::string outcome = OutcomeOf(image);
        ++cuts.disks;
        ++cuts.seen[outcome];
        if (!allowed({at, done}, outcome) && cuts.wrong.size() < kMostWrong) {
          cuts.wrong.push_back(
              "after " + std::to_string(at) + " of " + std::to_string(run.events.size()) +
              " calls, " + std::to_string(done) + " steps acknowledged, variant " +
              std::to_string(variant) + ": " + outcome +
              "\n  files:" + testing::PrintToString(NamesAndSizes(WithoutLocks(image))));
        }
      }
    }
    TellFigure("disks rebuilt after a power cut", cuts.disks);
    TellFigure("power cuts in " + kind, cuts.disks);
    return cuts;
  }

  /// The same, where `states` are what Look() shows before the first step and after each: of those
  /// that are acknowledged the last must be there, or the first that follows it whole. `lasting`
  /// tells of a step which one is the last that is promised; itself if not given.
  PowerCuts ExpectLasting(const RecordedRun& run, Names names, const std::string& kind,
                          const std::vector<std::string>& states,
                          const std::vector<std::size_t>& lasting = {}) {
    const PowerCuts cuts =
        CutEverywhere(run, names, kind, [&](Moment moment, const std::string& outcome) {
          const std::size_t from = lasting.empty() ? moment.done : lasting.at(moment.done);
          for (std::size_t i = from; i <= moment.done + 1 && i < states.size(); ++i) {
            if (states[i] == outcome) {
              return true;
            }
          }
          return false;
        });
    ExpectRight(cuts);
    EXPECT_GT(cuts.Seen(states.back()), 0);
    return cuts;
  }

  /// Whether a database is being made at this moment: it has a name, and has not been synced.
  static bool IsBeingMade(const RecordedRun& run, const std::string& path, Moment moment) {
    std::set<int> descriptors;
    std::size_t made = 0;
    for (std::size_t at = 0; at < run.events.size(); ++at) {
      const DiskEvent& event = run.events[at];
      if (event.kind == DiskEvent::kOpen && event.path == path) {
        made = made == 0 ? at + 1 : made;
        descriptors.insert(event.fd);
      } else if (event.kind == DiskEvent::kClose) {
        descriptors.erase(event.fd);
      } else if (event.kind == DiskEvent::kSync && descriptors.count(event.fd) != 0) {
        return made <= moment.calls && moment.calls <= at;
      }
    }
    return false;
  }

  /// Nothing was seen that was not allowed.
  static void ExpectRight(const PowerCuts& cuts) {
    std::string text;
    for (const std::string& wrong : cuts.wrong) {
      text += wrong + '\n';
    }
    for (const auto& [outcome, times] : cuts.seen) {
      text += text.empty() ? "" : std::to_string(times) + " times: " + outcome + '\n';
    }
    EXPECT_TRUE(text.empty()) << text;
  }

  /// Removes all files, ahead of another run.
  void Clear() { WriteImage({}, dir_.path()); }

  /// Loads the table in a process of its own, and tells all that it shows; and what is wrong when
  /// it is used further: a write, a forced flush, a merge, a walk.
  std::string Look() {
    try {
      table_ = std::make_unique<CMappingLMDB>(&host_, type_);
      const bool moved = !moved_.empty() && boost::filesystem::exists(moved_);
      const int loaded = table_->load((moved ? moved_ : loaded_).string(), false, "");
      if (loaded != 0) {
        return std::string(kNotLoaded) + ": result " + std::to_string(loaded);
      }
    } catch (const Aldenta::Qnd::Morene::Zefs::SysException& e) {
      return std::string(kNotLoaded) + ": " + std::to_string(e.code);
    }
    const std::string content = Content();
    std::string shown = content + (showOffsets_ ? OpenOffsets() : "");
    shown += Denied();
    shown += Unusable(content);
    return shown;
  }

  /// Size, version, object id and extents.
  std::string Content() {
    ObjectID doid;
    const int known = table().GetDOID(&doid);
    std::string content = "size " + std::to_string(table().getFileSize()) + ", version " +
                          std::to_string(table().getExtMapVersion().major) + '.' +
                          std::to_string(table().getExtMapVersion().minor) + ", do id " +
                          (known == 0 ? std::to_string(doid.dcid) : "none");
    for (const std::string& extent : Walk(table())) {
      content += ", " + extent;
    }
    return content;
  }

  /// Ends a life of a recorded run as a host does.
  void End() { Close(); }

  /// A loaded table of this process.
  CMappingLMDB& LoadTable() {
    table_ = std::make_unique<CMappingLMDB>(&host_, type_);
    EXPECT_EQ(0, table_->load(loaded_.string(), false, ""));
    return *table_;
  }

  std::string type_ = "PROVISION";
  boost::filesystem::path loaded_ = Directory();  ///< what Look() and LoadTable() load
  boost::filesystem::path moved_;                 ///< what Look() loads instead, if it is there
  bool showOffsets_ = false;                      ///< whether Look() tells of the open offsets
  std::vector<std::string> forgotten_;            ///< files whose syncs are left out

 private:
  static constexpr std::size_t kMostWrong = 3;
  static constexpr long kLater = 1000000;

  /// How many ways to rebuild the disk at each point.
  static int Variants() {
    constexpr int kUsual = ModelDisk::kCorners + 4;
    constexpr int kMany = ModelDisk::kCorners + 60;
    const char* const given = std::getenv("ZEFS_TEST_POWER_CUTS");
    if (given != nullptr) {
      return std::atoi(given);
    }
    return std::getenv("ZEFS_TEST_EVERY_CALL") != nullptr ? kMany : kUsual;
  }

  static DiskImage WithoutLocks(DiskImage image) {
    for (auto at = image.begin(); at != image.end();) {
      const std::string_view path = at->first;
      constexpr std::string_view kLock = "-lock";
      const bool isLock =
          path.size() > kLock.size() && path.substr(path.size() - kLock.size()) == kLock;
      at = isLock ? image.erase(at) : std::next(at);
    }
    return image;
  }

  static std::map<std::string, long> NamesAndSizes(const DiskImage& image) {
    std::map<std::string, long> sizes;
    for (const auto& [path, bytes] : image) {
      sizes[path] = bytes ? static_cast<long>(bytes->size()) : -1;
    }
    return sizes;
  }

  /// What Look() shows of a disk. Disks that are the same are looked at once.
  std::string OutcomeOf(const DiskImage& image) {
    std::string key;
    for (const auto& [path, bytes] : image) {
      key += path + '\n' +
             (bytes ? std::to_string(bytes->size()) + ' ' +
                          std::to_string(std::hash<std::string>()(*bytes))
                    : "/") +
             '\n';
    }
    const auto known = outcomes_.find(key);
    if (known != outcomes_.end()) {
      return known->second;
    }
    WriteImage(image, dir_.path());
    int status = 0;
    std::string outcome = FromChild([this] { return Look(); }, &status);
    if (!EndedWell(status)) {
      outcome += " THE PROCESS DIED";
    }
    return outcomes_[key] = outcome;
  }

  std::string OpenOffsets() {
    std::vector<DCOffset> offsets;
    EXPECT_EQ(0, table().GetEmptyDcOffsetList(&offsets));
    std::set<std::string> shown;
    for (const DCOffset& offset : offsets) {
      shown.insert(std::to_string(offset.key) + '/' + std::to_string(offset.dcid));
    }
    std::string text = ", open";
    for (const std::string& offset : shown) {
      text += ' ' + offset;
    }
    return text;
  }

  std::string Denied() {
    if (FileSystemDaemonConfig::GetInstance().Get(&Config::persistBloom) == 0) {
      return "";
    }
    std::vector<std::pair<unsigned long, unsigned long>> dcids;
    std::unique_ptr<BloomFilter> filter;
    table().GetDCIDAndBloomFilter(&dcids, &filter);
    for (auto at = table().begin(); at != table().end(); ++at) {
      if (!filter->Contains(at->objectID.fp)) {
        return std::string(", ") + kDenied;
      }
    }
    return "";
  }

  std::string Unusable(const std::string& content) {
    Lines();
    try {
      const auto more = Walk(table()).size() + 1;
      Set(&Config::mergeCommitCountThreshold, 0U);
      WriteKnown(kLater, kLater + 10, Oid(99, 9));
      Flush();
      peer().WaitingForMerge();
      const std::vector<std::string> after = Walk(table());
      const std::string lastSize = "size " + std::to_string(kLater + 10);
      if (after.size() != more || after.back() != "[1000000, 1000010) 99 0 -3" ||
          Content().find(lastSize) != 0) {
        return ", of no use: " + content + " became " + Content();
      }
      if (peer().tmpDb().opened || peer().merging()) {
        return ", and does not merge";
      }
      const std::vector<std::string> lines = Lines(kLogRecoverable);
      return lines.empty() ? Denied() : ", and complains: " + lines.front();
    } catch (const Aldenta::Qnd::Morene::Zefs::SysException& e) {
      return ", of no use: " + std::to_string(e.code);
    }
  }

  const TempDir logDir_;
  std::map<std::string, std::string> outcomes_;
};

}  // namespace zefs::test
