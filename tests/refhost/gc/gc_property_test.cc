#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "tests/refhost/gc/gc_fixture.h"
#include "tests/support/child_process.h"

namespace zefs::refhost {
namespace {

using test::Files;
using test::kSegment;
using test::Pattern;

constexpr int kStores = 8;
constexpr int kLives = 3;
constexpr const char* kVolumes[] = {"-volume-1", "-volume-2", "-volume-3"};
constexpr int kStepsPerLife = 40;

struct Step {
  enum Kind {
    kPut,
    kCopy,
    kSnapshot,
    kRename,
    kOverwrite,
    kCut,
    kRemove,
    kSync,
    kGc,
    kCompact,
    kVerify,
    kReopen
  };
  Kind kind;
  std::string name;
  std::string other;  ///< of a copy, a snapshot, or the new name
  std::size_t offset;
  std::string bytes;
  unsigned below;
};

std::string NameOf(std::size_t number) {
  return "file " + std::to_string(number);
}

std::vector<Step> PlanLife(std::mt19937_64& random) {
  const auto below = [&random](std::size_t bound) { return random() % bound; };
  constexpr Step::Kind kKinds[] = {
      Step::kPut,       Step::kPut,     Step::kPut,      Step::kPut,      Step::kCopy,
      Step::kOverwrite, Step::kCut,     Step::kSnapshot, Step::kSnapshot, Step::kRename,
      Step::kRemove,    Step::kRemove,  Step::kSync,     Step::kGc,       Step::kGc,
      Step::kGc,        Step::kCompact, Step::kCompact,  Step::kVerify,   Step::kReopen};
  std::vector<Step> steps;
  for (int i = 0; i < kStepsPerLife; ++i) {
    // Few different patterns, so that files share segments, and segments come back after they went.
    steps.push_back({kKinds[below(std::size(kKinds))], NameOf(below(6)), NameOf(below(6)),
                     below(30 * kSegment), Pattern(below(12), 1 + below(40 * kSegment)),
                     static_cast<unsigned>(1 + below(100))});
  }
  return steps;
}

/// The change of the plain copies. False for a step that needs a file that is not there.
bool Apply(const Step& step, Files* files) {
  const auto file = files->find(step.name);
  switch (step.kind) {
    case Step::kPut:
      (*files)[step.name] = step.bytes;
      return true;
    case Step::kCopy:
      if (file == files->end()) {
        return false;
      }
      (*files)[step.other] = std::string(file->second);
      return true;
    case Step::kSnapshot:
      return file != files->end() && files->emplace(step.other, std::string(file->second)).second;
    case Step::kRename:
      if (file == files->end() || step.other == step.name) {
        return false;
      }
      (*files)[step.other] = std::string(file->second);
      files->erase(step.name);
      return true;
    case Step::kOverwrite:
      if (file == files->end()) {
        return false;
      }
      file->second.resize(std::max(file->second.size(), step.offset + step.bytes.size()), '\0');
      file->second.replace(step.offset, step.bytes.size(), step.bytes);
      return true;
    case Step::kCut:
      if (file == files->end()) {
        return false;
      }
      file->second.resize(std::min(file->second.size(), step.offset));
      return true;
    case Step::kRemove:
      return files->erase(step.name) != 0;
    default:
      return true;
  }
}

/// A store whose path has volumes beside it spreads its tables over them.
DurableStoreOptions OptionsOf(const std::string& path) {
  DurableStoreOptions options = test::SmallStoreOptions();
  for (const char* volume : kVolumes) {
    if (boost::filesystem::exists(path + volume)) {
      options.format.volumes.push_back(path + volume);
    }
  }
  return options;
}

/// The same on a store; `files` is how it has to be afterwards.
void Apply(const Step& step, const Files& files, std::unique_ptr<DurableStore>* store,
           const std::string& path) {
  switch (step.kind) {
    case Step::kPut:
    case Step::kCopy: {
      const std::string& name = step.kind == Step::kPut ? step.name : step.other;
      (*store)->Create(name);
      (*store)->Write(name, 0, files.at(name));
      break;
    }
    case Step::kSnapshot:
      (*store)->Snapshot(step.name, step.other);
      break;
    case Step::kRename:
      (*store)->Rename(step.name, step.other, /*replace=*/true);
      break;
    case Step::kOverwrite:
      (*store)->Write(step.name, static_cast<std::int64_t>(step.offset), step.bytes);
      break;
    case Step::kCut:
      (*store)->Truncate(step.name, static_cast<std::int64_t>(files.at(step.name).size()));
      break;
    case Step::kRemove:
      (*store)->Remove(step.name);
      break;
    case Step::kSync:
      (*store)->Sync();
      break;
    case Step::kGc:
      CollectGarbage(store->get(), {});
      break;
    case Step::kCompact:
      EXPECT_EQ(0U, Compact(store->get(), step.below, {}).damaged.size());
      break;
    case Step::kVerify:
      (*store)->Sync();
      test::ExpectSound(**store, files, "in between");
      break;
    case Step::kReopen:
      (*store)->Sync();
      (*store)->CloseFiles();
      store->reset();
      *store = std::make_unique<DurableStore>(path, OptionsOf(path));
      break;
  }
}

/// In the end nothing is left that no file has, but for what filters take for used.
void ExpectTidy(DurableStore& store, const Files& files) {
  Compact(&store, 100, {});
  CollectGarbage(&store, {});
  test::ExpectSound(store, files, "when it is tidy");
  StoreVerification verified;
  StoreVerifier(&store, {}).Run(&verified);
  EXPECT_LE(store.objects().objects(), verified.objects + verified.objects / 4 + 10);
}

void Live(const std::string& path, const std::vector<Step>& steps, Files files, bool last) {
  auto store = std::make_unique<DurableStore>(path, OptionsOf(path));
  test::ExpectSound(*store, files, "at the start of a life");
  for (const Step& step : steps) {
    if (Apply(step, &files)) {
      Apply(step, files, &store, path);
    }
  }
  store->Sync();
  test::ExpectSound(*store, files, "at the end of a life");
  if (last) {
    ExpectTidy(*store, files);
  }
  store->CloseFiles();
  EXPECT_EQ("", store->nodes().Problem());
}

/// Each life in a process of its own, so that tables may be loaded whatever the last one left.
TEST(GcProperty, LivesOfAnyChangesCollectionsAndCompactionsLeaveThePlainCopies) {
  const char* const given = std::getenv("ZEFS_TEST_SEED");
  const std::uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 10) : 20241121;
  for (int number = 0; number < kStores; ++number) {
    SCOPED_TRACE("ZEFS_TEST_SEED=" + std::to_string(seed) + ", store " + std::to_string(number));
    std::mt19937_64 random(seed + static_cast<std::uint64_t>(number));
    const test::TempDir dir;
    const std::string path = (dir / "store").string();
    if (number % 4 >= 2) {
      for (const char* volume : kVolumes) {
        boost::filesystem::create_directory(path + volume);
      }
    }
    const test::SmallThresholds thresholds(8, number % 2 == 0 ? 24 : 100000);
    Files files;
    for (int life = 0; life < kLives; ++life) {
      const std::vector<Step> steps = PlanLife(random);
      ASSERT_TRUE(test::EndedWell(test::RunInChild([&] {
        Live(path, steps, files, life == kLives - 1);
      }))) << "life "
           << life;
      for (const Step& step : steps) {
        Apply(step, &files);
      }
    }
  }
}

}  // namespace
}  // namespace zefs::refhost
