#include <algorithm>
#include <cstdlib>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/refhost/durable/durable_fixture.h"
#include "tests/support/child_process.h"

namespace zefs::refhost {
namespace {

using test::kSegment;
using test::Pattern;
using test::ProblemsOf;
using test::ReadAll;

constexpr int kStores = 12;
constexpr int kLives = 4;
constexpr int kStepsPerLife = 40;

/// The files as they have to be.
using Model = std::map<std::string, std::string>;

struct Step {
  enum Kind {
    kWrite,
    kAppend,
    kTruncate,
    kCreate,
    kRemove,
    kRename,
    kSnapshot,
    kSync,
    kReopen,
    kReadBack
  };
  Kind kind;
  std::string name;
  std::string other;
  std::size_t offset;
  std::string bytes;
};

std::vector<Step> PlanLife(std::mt19937_64& random) {
  const auto below = [&random](std::size_t bound) { return random() % bound; };
  std::vector<Step> steps;
  for (int i = 0; i < kStepsPerLife; ++i) {
    constexpr Step::Kind kKinds[] = {
        Step::kWrite,  Step::kWrite,    Step::kWrite,    Step::kWrite,  Step::kAppend,
        Step::kAppend, Step::kAppend,   Step::kTruncate, Step::kCreate, Step::kRemove,
        Step::kSync,   Step::kReadBack, Step::kTruncate, Step::kRename, Step::kSnapshot};
    const auto anyName = [&] { return std::string(1, static_cast<char>('a' + below(3))); };
    Step step{kKinds[below(std::size(kKinds))], anyName(), anyName(), below(40 * kSegment),
              Pattern(below(50), 1 + below(4 * kSegment))};
    if (step.kind == Step::kSync && below(3) == 0) {
      step.kind = Step::kReopen;
    }
    steps.push_back(std::move(step));
  }
  return steps;
}

/// Applies the step to the model, and to a store if there is one.
void Apply(const Step& step, Model* model, std::unique_ptr<DurableStore>* store,
           const std::string& path) {
  const bool exists = model->count(step.name) != 0;
  const bool needsFile = step.kind == Step::kWrite || step.kind == Step::kAppend ||
                         step.kind == Step::kTruncate || step.kind == Step::kCreate;
  if (needsFile && (!exists || step.kind == Step::kCreate)) {
    (*model)[step.name].clear();
    if (store != nullptr) {
      (*store)->Create(step.name);
    }
  }
  std::string* const file = needsFile ? &(*model)[step.name] : nullptr;
  switch (step.kind) {
    case Step::kWrite:
    case Step::kAppend: {
      const std::size_t at = step.kind == Step::kAppend ? file->size() : step.offset;
      file->resize(std::max(file->size(), at + step.bytes.size()), '\0');
      file->replace(at, step.bytes.size(), step.bytes);
      if (store != nullptr) {
        (*store)->Write(step.name, static_cast<std::int64_t>(at), step.bytes);
      }
      break;
    }
    case Step::kTruncate:
      file->resize(step.offset, '\0');
      if (store != nullptr) {
        (*store)->Truncate(step.name, static_cast<std::int64_t>(step.offset));
      }
      break;
    case Step::kRemove:
      if (exists && store != nullptr) {
        (*store)->Remove(step.name);
      }
      model->erase(step.name);
      break;
    case Step::kCreate:
      break;
    case Step::kRename:
      if (exists && step.name != step.other) {
        if (store != nullptr) {
          (*store)->Rename(step.name, step.other, /*replace=*/true);
        }
        (*model)[step.other] = (*model)[step.name];
        model->erase(step.name);
      }
      break;
    case Step::kSnapshot:
      if (exists && model->count(step.other) == 0) {
        if (store != nullptr) {
          (*store)->Snapshot(step.name, step.other);
        }
        (*model)[step.other] = (*model)[step.name];
      }
      break;
    case Step::kSync:
    case Step::kReopen:
      if (store != nullptr) {
        (*store)->Sync();
        if (step.kind == Step::kReopen) {
          (*store)->CloseFiles();
          store->reset();
          *store = std::make_unique<DurableStore>(path, test::SmallStoreOptions());
        }
      }
      break;
    case Step::kReadBack:
      if (store != nullptr && exists) {
        EXPECT_EQ((*model)[step.name], ReadAll(**store, step.name));
      }
      break;
  }
}

void Live(const std::string& path, const std::vector<Step>& steps, Model model) {
  auto store = std::make_unique<DurableStore>(path, test::SmallStoreOptions());
  for (const auto& [name, bytes] : model) {
    EXPECT_EQ(bytes, ReadAll(*store, name)) << name << " at the start of a life";
  }
  EXPECT_EQ(model.size(), store->Catalogued().size());
  for (const Step& step : steps) {
    Apply(step, &model, &store, path);
  }
  store->Sync();
  for (const auto& [name, bytes] : model) {
    EXPECT_EQ(bytes, ReadAll(*store, name)) << name << " at the end of a life";
  }
  EXPECT_EQ("", ProblemsOf(*store));
  store->CloseFiles();
  EXPECT_EQ(store->nodes().made, store->nodes().released + store->nodes().dropped);
  EXPECT_EQ(store->nodes().made, store->nodes().freed);
}

/// Each life in a process of its own, so that tables may be loaded whatever the last one left.
TEST(DurableStoreProperty, LivesOfAnyChangesLeaveWhatTheModelHas) {
  const char* const given = std::getenv("ZEFS_TEST_SEED");
  const std::uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 10) : 20240601;
  for (int number = 0; number < kStores; ++number) {
    SCOPED_TRACE("ZEFS_TEST_SEED=" + std::to_string(seed) + ", store " + std::to_string(number));
    std::mt19937_64 random(seed + static_cast<std::uint64_t>(number));
    const test::TempDir dir;
    const std::string path = (dir / "store").string();
    const test::SmallThresholds thresholds(8, number % 2 == 0 ? 24 : 100000);
    Model model;
    for (int life = 0; life < kLives; ++life) {
      const std::vector<Step> steps = PlanLife(random);
      ASSERT_TRUE(test::EndedWell(test::RunInChild([&] { Live(path, steps, model); })))
          << "life " << life;
      for (const Step& step : steps) {
        Apply(step, &model, nullptr, path);
      }
    }
  }
}

}  // namespace
}  // namespace zefs::refhost
