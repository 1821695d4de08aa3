#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "table/sys_exception.h"
#include "tests/persistent/merge_fixture.h"
#include "tests/system/power_cut/power_cuts.h"

namespace zefs::test {

/// The files lie in memory where there is a place for them: no disk is part of these tests. An
/// environment variable says otherwise.
inline const bool kInMemory =
    ::access("/dev/shm", W_OK) == 0 && ::setenv("TMPDIR", "/dev/shm", 0) == 0;

/// Power cuts at every point of a run of the library, and what the next process finds. The disk of
/// a test is all below dir_; the table lies in Directory() unless a test moves it.
class PowerCutTest : public MergeTest {
 protected:
  static constexpr const char* kNotLoaded = "the table cannot be loaded";
  static constexpr const char* kDenied = "the filter denies what is there";

  RecordedRun Record(const std::function<void()>& life) { return cutter_.Record(life, forgotten_); }
  PowerCuts CutEverywhere(const RecordedRun& run, Names names, const std::string& kind,
                          const std::function<bool(Moment, const std::string&)>& allowed,
                          std::size_t firstDone = 0) {
    return cutter_.CutEverywhere(run, names, kind, allowed, firstDone);
  }

  /// The same, where `states` are what Look() shows before the first step and after each: of those
  /// that are acknowledged the last must be there, or the first that follows it whole. `lasting`
  /// tells of a step which one is the last that is promised; itself if not given.
  PowerCuts ExpectLasting(const RecordedRun& run, Names names, const std::string& kind,
                          const std::vector<std::string>& states,
                          const std::vector<std::size_t>& lasting = {}) {
    PowerCuts cuts =
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
  static constexpr long kLater = 1000000;

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

  PowerCutter cutter_{dir_.path(), [this] { return Look(); }};
};

}  // namespace zefs::test
