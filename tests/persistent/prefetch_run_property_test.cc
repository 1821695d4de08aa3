// Runs of any extents, also such as no plan makes, merged step by step in the slowest way. The seed
// is printed; ZEFS_TEST_SEED sets another.

#include <cmath>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "persistent/prefetch_run.h"
#include "tests/support/property.h"

namespace {

using Aldenta::Qnd::Morene::Zefs::ExtLMDB;
using Aldenta::Qnd::Morene::Zefs::MergePrefetched;
using Aldenta::Qnd::Morene::Zefs::PrefetchRun;
using zefs::test::ExpectToHold;

/// An extent of a run: its range, and a number that tells it from all others.
struct Item {
  long sOff;
  long eOff;
  long name;

  bool operator==(const Item& other) const {
    return std::tie(sOff, eOff, name) == std::tie(other.sOff, other.eOff, other.name);
  }
};

void showValue(const Item& item, std::ostream& out) {
  out << item.name << ": " << item.sOff << '-' << item.eOff;
}

using Items = std::vector<Item>;

/// Exact for any two 64-bit numbers: the mantissa has 64 bits at least.
long double Distance(long a, long b) {
  static_assert(std::numeric_limits<long double>::digits >= 64);
  return std::fabs(static_cast<long double>(a) - static_cast<long double>(b));
}

/// What stays of an old and a new run, one decision after the other.
Items Merged(const Items& older, const Items& newer, std::uint32_t span) {
  if (older.empty()) {
    return newer;
  }
  const long oldStart = older.front().sOff;
  const long oldEnd = older.back().eOff;
  const long newStart = newer.front().sOff;
  const long newEnd = newer.back().eOff;
  if (oldEnd < newStart || newEnd < oldStart) {
    return newer;
  }
  if (oldStart <= newStart && newEnd <= oldEnd) {
    return older;
  }
  Items merged;
  const Items* second = &newer;
  if (oldStart < newStart) {
    for (const Item& item : older) {
      if (Distance(item.sOff, newStart) <= static_cast<long double>(span)) {
        merged.push_back(item);
      }
    }
    if (merged.empty()) {
      return newer;
    }
  } else if (oldEnd <= newEnd) {
    return newer;
  } else {
    merged = newer;
    second = &older;
  }
  const long lastStart = merged[merged.size() - 1].sOff;
  for (const Item& item : *second) {
    if (Distance(item.sOff, newStart) <= static_cast<long double>(span) && item.sOff > lastStart) {
      merged.push_back(item);
    }
  }
  return merged;
}

PrefetchRun RunOf(const Items& items) {
  PrefetchRun run;
  for (const Item& item : items) {
    ExtLMDB ext;
    ext.sOff = item.sOff;
    ext.eOff = item.eOff;
    ext.objOff = item.name;
    run.push_back(ext);
  }
  return run;
}

Items ItemsOf(const PrefetchRun& run) {
  Items items;
  for (const ExtLMDB& ext : run) {
    items.push_back({ext.sOff, ext.eOff, ext.objOff});
  }
  return items;
}

// --- generators ------------------------------------------------------------------------------

/// Disjoint extents in order, as a plan fetches them.
rc::Gen<Items> AnyRun(int least, long firstName) {
  using rc::gen::inRange;
  const auto step = rc::gen::resize(
      rc::kNominalSize,
      rc::gen::pair(rc::gen::weightedOneOf<long>({{2, rc::gen::just(0L)}, {1, inRange(0L, 9L)}}),
                    inRange(1L, 12L)));
  const auto begin = rc::gen::resize(rc::kNominalSize, inRange(0L, 60L));
  return rc::gen::mapcat(inRange(least, 9), [=](int count) {
    const auto steps = rc::gen::container<std::vector<std::pair<long, long>>>(
        static_cast<std::size_t>(count), step);
    return rc::gen::map(rc::gen::pair(begin, steps), [=](const auto& given) {
      Items items;
      long at = given.first;
      for (const auto& [hole, length] : given.second) {
        items.push_back(
            {at + hole, at + hole + length, firstName + static_cast<long>(items.size())});
        at += hole + length;
      }
      return items;
    });
  });
}

/// Extents of any two numbers, in any order.
rc::Gen<Items> AnyItems(int least, long firstName) {
  const auto number = rc::gen::resize(
      rc::kNominalSize, rc::gen::oneOf(rc::gen::inRange(-9L, 9L), rc::gen::arbitrary<long>(),
                                       rc::gen::element(std::numeric_limits<long>::min(),
                                                        std::numeric_limits<long>::max(),
                                                        0xffffffffL, 0x100000000L)));
  return rc::gen::mapcat(rc::gen::inRange(least, 6), [=](int count) {
    const auto ranges = rc::gen::container<std::vector<std::pair<long, long>>>(
        static_cast<std::size_t>(count), rc::gen::pair(number, number));
    return rc::gen::map(ranges, [=](const std::vector<std::pair<long, long>>& given) {
      Items items;
      for (const auto& [sOff, eOff] : given) {
        items.push_back({sOff, eOff, firstName + static_cast<long>(items.size())});
      }
      return items;
    });
  });
}

rc::Gen<std::uint32_t> AnySpan() {
  return rc::gen::resize(
      rc::kNominalSize,
      rc::gen::oneOf(rc::gen::inRange<std::uint32_t>(0, 60), rc::gen::arbitrary<std::uint32_t>(),
                     rc::gen::just(std::numeric_limits<std::uint32_t>::max())));
}

void CheckMerge(const Items& older, const Items& newer, std::uint32_t span) {
  PrefetchRun run = RunOf(older);
  MergePrefetched(RunOf(newer), span, &run);
  RC_ASSERT(ItemsOf(run) == Merged(older, newer, span));
}

// --- properties ------------------------------------------------------------------------------

TEST(PrefetchRunProperty, RunsOfPlansMergeAsStepByStep) {
  int mixed = 0;
  ExpectToHold("runs merge", 20000, [&mixed] {
    const Items older = *AnyRun(0, 100);
    const Items newer = *AnyRun(1, 200);
    const auto span = *AnySpan();
    CheckMerge(older, newer, span);
    const Items merged = Merged(older, newer, span);
    mixed += merged.front().name / 100 != merged.back().name / 100 ? 1 : 0;
  });
  EXPECT_GT(mixed, 1000) << "both runs have a part in many of the results";
}

TEST(PrefetchRunProperty, RunsOfGarbageMergeAsStepByStep) {
  ExpectToHold("any extents merge", 20000,
               [] { CheckMerge(*AnyItems(0, 100), *AnyItems(1, 200), *AnySpan()); });
}

// Where no extents differ between the two, no byte is there twice.
TEST(PrefetchRunProperty, TwoRunsOfOneTableStayInOrderAndDisjoint) {
  ExpectToHold("runs of one table", 20000, [] {
    const Items all = *AnyRun(1, 0);
    const auto size = static_cast<long>(all.size());
    const auto piece = [&] {
      const long first = *rc::gen::inRange(0L, size);
      const long last = *rc::gen::inRange(first, size) + 1;
      return Items(all.begin() + first, all.begin() + last);
    };
    const Items older = piece();
    const Items newer = piece();
    PrefetchRun run = RunOf(older);
    MergePrefetched(RunOf(newer), *AnySpan(), &run);
    RC_ASSERT(!run.empty());
    for (std::size_t i = 1; i < run.size(); ++i) {
      RC_ASSERT(run[i - 1].eOff <= run[i].sOff);
    }
  });
}

}  // namespace
