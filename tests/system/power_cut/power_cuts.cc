#include "tests/system/power_cut/power_cuts.h"

#include <cstdlib>
#include <iostream>
#include <iterator>
#include <random>
#include <set>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/persistent/lifecycle_faults.h"
#include "tests/support/child_process.h"
#include "tests/support/figures.h"
#include "tests/support/property.h"

namespace zefs::test {

namespace {

constexpr std::size_t kMostWrong = 3;  // that are told of one run

/// How many ways to rebuild the disk at each point.
int Variants() {
  constexpr int kUsual = ModelDisk::kCorners + 4;
  constexpr int kMany = ModelDisk::kCorners + 60;
  const char* const given = std::getenv("ZEFS_TEST_POWER_CUTS");
  if (given != nullptr) {
    return std::atoi(given);
  }
  return std::getenv("ZEFS_TEST_EVERY_CALL") != nullptr ? kMany : kUsual;
}

DiskImage WithoutLocks(DiskImage image) {
  for (auto at = image.begin(); at != image.end();) {
    const std::string_view path = at->first;
    constexpr std::string_view kLock = "-lock";
    const bool isLock =
        path.size() > kLock.size() && path.substr(path.size() - kLock.size()) == kLock;
    at = isLock ? image.erase(at) : std::next(at);
  }
  return image;
}

std::map<std::string, long> NamesAndSizes(const DiskImage& image) {
  std::map<std::string, long> sizes;
  for (const auto& [path, bytes] : image) {
    sizes[path] = bytes ? static_cast<long>(bytes->size()) : -1;
  }
  return sizes;
}

}  // namespace

void PrintTo(Names names, std::ostream* out) {
  *out << (names == Names::kInOrder ? "names in order" : "names without order");
}

bool IsBeingMade(const RecordedRun& run, const std::string& path, Moment moment) {
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

void ExpectRight(const PowerCuts& cuts) {
  std::string text;
  for (const std::string& wrong : cuts.wrong) {
    text += wrong + '\n';
  }
  for (const auto& [outcome, times] : cuts.seen) {
    text += text.empty() ? "" : std::to_string(times) + " times: " + outcome + '\n';
  }
  EXPECT_TRUE(text.empty()) << text;
}

RecordedRun PowerCutter::Record(const std::function<void()>& life,
                                const std::vector<std::string>& forgotten) {
  RecordedRun run;
  run.before = ImageOf(directory_);
  const std::string log = (logDir_ / "events").string();
  EXPECT_TRUE(EndedWell(RunInChild([&] {
    DiskRecorder::Begin(directory_.string());
    for (const std::string& name : forgotten) {
      DiskRecorder::ForgetSyncsOf(name);
    }
    life();
    DiskRecorder::Save(DiskRecorder::End(), log);
  })));
  run.events = DiskRecorder::Saved(log);
  ModelDisk disk(run.before, Names::kInOrder);
  for (const DiskEvent& event : run.events) {
    disk.Apply(event);
  }
  EXPECT_EQ(NamesAndSizes(WithoutLocks(ImageOf(directory_))),
            NamesAndSizes(WithoutLocks(disk.Now())));
  EXPECT_TRUE(WithoutLocks(ImageOf(directory_)) == WithoutLocks(disk.Now()))
      << "a write that was not recorded";
  return run;
}

PowerCuts PowerCutter::CutEverywhere(const RecordedRun& run, Names names, const std::string& kind,
                                     const std::function<bool(Moment, const std::string&)>& allowed,
                                     std::size_t firstDone) {
  const int variants = Variants();
  std::cout << "ZEFS_TEST_SEED=" << PropertySeed() << " ZEFS_TEST_POWER_CUTS=" << variants << '\n';
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

std::string PowerCutter::OutcomeOf(const DiskImage& image) {
  std::string key;
  for (const auto& [path, bytes] : image) {
    key += path + '\n' +
           (bytes ? std::to_string(bytes->size()) + ' ' +
                        std::to_string(std::hash<std::string>()(*bytes))
                  : "/") +
           '\n';
  }
  // Disks that are the same are looked at once.
  const auto known = outcomes_.find(key);
  if (known != outcomes_.end()) {
    return known->second;
  }
  WriteImage(image, directory_);
  int status = 0;
  std::string outcome = FromChild(look_, &status);
  if (!EndedWell(status)) {
    outcome += " THE PROCESS DIED";
  }
  return outcomes_[key] = outcome;
}

}  // namespace zefs::test
