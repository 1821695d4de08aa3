// Plans over random extents in all the places of a table at once, against a model that knows of
// every byte what shows there. The seed is printed; ZEFS_TEST_SEED sets another.

#include <algorithm>
#include <array>
#include <limits>
#include <map>

#include "tests/persistent/prefetch_fixture.h"
#include "tests/support/property.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::ExpectToHold;
using zefs::test::Part;
using zefs::test::PlainRecord;
using zefs::test::RecordOf;
using zefs::test::RecordsOf;

constexpr long kDomain = 64;

/// Extents by place. Those of a database are disjoint and in order; the writes overlap at will.
/// Some are of containers that do not count.
struct Scenario {
  std::array<std::vector<Part>, 3> databases;  // full, small, tmp
  std::vector<Part> writes;
  bool tmpIsOpen = true;
};

void showValue(const Scenario& scenario, std::ostream& out) {
  out << "tmp open: " << scenario.tmpIsOpen;
  const auto show = [&out](const char* place, const std::vector<Part>& parts) {
    out << "\n  " << place << ": " << testing::PrintToString(parts);
  };
  show("full", scenario.databases[0]);
  show("small", scenario.databases[1]);
  show("tmp", scenario.databases[2]);
  show("writes", scenario.writes);
}

// --- the model -------------------------------------------------------------------------------

/// Of each byte of the domain: the container and the byte of the object that show there, if any.
class ShownBytes {
 public:
  explicit ShownBytes(const Scenario& scenario) {
    for (std::size_t i = 0; i < scenario.databases.size(); ++i) {
      if (i < 2 || scenario.tmpIsOpen) {
        Cover(scenario.databases.at(i));
      }
    }
    Cover(scenario.writes);
  }

  /// Every byte of `part` shows what the part says.
  bool Shows(const Part& part) const {
    for (long at = part.sOff; at < part.eOff; ++at) {
      const auto byte = bytes_.find(at);
      if (byte == bytes_.end() ||
          byte->second != std::make_pair(part.dcid, part.objOff + (at - part.sOff))) {
        return false;
      }
    }
    return part.sOff < part.eOff;
  }
  /// Nothing shows in [start, end).
  bool IsHole(long start, long end) const {
    return start >= end || bytes_.lower_bound(start) == bytes_.lower_bound(end);
  }
  bool IsHoleFrom(long start) const { return bytes_.lower_bound(start) == bytes_.end(); }

 private:
  void Cover(const std::vector<Part>& parts) {
    for (const Part& part : parts) {
      for (long at = part.sOff; at < part.eOff; ++at) {
        bytes_[at] = {part.dcid, part.objOff + (at - part.sOff)};
      }
    }
  }

  std::map<long, std::pair<std::uint64_t, long>> bytes_;
};

// --- generators ------------------------------------------------------------------------------

/// Up to `most` elements. The size that bounds their number does not narrow the elements' ranges.
template <typename T>
rc::Gen<std::vector<T>> UpTo(int most, const rc::Gen<T>& element) {
  return rc::gen::resize(
      most, rc::gen::container<std::vector<T>>(rc::gen::resize(rc::kNominalSize, element)));
}

using Numbers = std::vector<std::tuple<long, long, std::uint64_t, long>>;

rc::Gen<Numbers> AnyNumbers(long firsts, long lengths) {
  using rc::gen::inRange;
  return UpTo(8, rc::gen::tuple(inRange<long>(0, firsts), inRange<long>(1, lengths),
                                inRange<std::uint64_t>(62, 70), inRange<long>(0, 1000)));
}

rc::Gen<std::vector<Part>> AnyDisjoint() {
  return rc::gen::map(AnyNumbers(10, 20), [](const Numbers& numbers) {
    std::vector<Part> parts;
    long at = 0;
    for (const auto& [hole, length, dcid, objOff] : numbers) {
      const long start = at + (hole < 4 ? 0 : hole);
      const long end = std::min(start + length, kDomain);
      if (start < end) {
        parts.push_back({start, end, dcid, objOff});
      }
      at = end;
    }
    return parts;
  });
}

rc::Gen<std::vector<Part>> AnyWrites() {
  return rc::gen::map(AnyNumbers(kDomain, 16), [](const Numbers& numbers) {
    std::vector<Part> parts;
    for (const auto& [start, length, dcid, objOff] : numbers) {
      parts.push_back({start, std::min(start + length, kDomain), dcid, objOff});
    }
    return parts;
  });
}

rc::Gen<Scenario> AnyScenario() {
  return rc::gen::map(rc::gen::tuple(AnyDisjoint(), AnyDisjoint(), AnyDisjoint(), AnyWrites(),
                                     rc::gen::weightedElement<bool>({{3, true}, {1, false}})),
                      [](const auto& given) {
                        const auto& [full, small, tmp, writes, tmpIsOpen] = given;
                        return Scenario{{full, small, tmp}, writes, tmpIsOpen};
                      });
}

/// Mostly within the domain, some of no byte, some reaching far beyond it.
rc::Gen<CMappingTable::PrefetchRange> AnyRange() {
  using rc::gen::inRange;
  const auto end = rc::gen::weightedOneOf<long>(
      {{6, inRange<long>(-2, kDomain + 4)}, {1, rc::gen::just(std::numeric_limits<long>::max())}});
  return rc::gen::resize(
      rc::kNominalSize,
      rc::gen::map(
          rc::gen::tuple(inRange<long>(-2, kDomain + 4), end, rc::gen::arbitrary<std::uint32_t>()),
          [](const std::tuple<long, long, std::uint32_t>& given) {
            const auto& [one, other, tag] = given;
            return CMappingTable::PrefetchRange{std::min(one, other), std::max(one, other), tag};
          }));
}

/// Records that no writer of this library leaves behind: they overlap, end before they start, and
/// their values are cut short.
rc::Gen<std::vector<PlainRecord>> AnyRecords() {
  using rc::gen::inRange;
  const auto end = rc::gen::weightedOneOf<long>(
      {{8, inRange<long>(0, kDomain)},
       {1, rc::gen::element<long>(-1, INT64_MIN, INT64_MAX - 1, INT64_MAX)}});
  const auto start = rc::gen::weightedOneOf<long>(
      {{8, inRange<long>(-4, kDomain + 4)}, {1, rc::gen::arbitrary<long>()}});
  const auto bytes = rc::gen::weightedOneOf<std::size_t>(
      {{4, rc::gen::just<std::size_t>(72)}, {1, inRange<std::size_t>(0, 80)}});
  return UpTo(
      10,
      rc::gen::map(rc::gen::tuple(start, end, bytes),
                   [](const std::tuple<long, long, std::size_t>& given) {
                     PlainRecord made = RecordOf({std::get<0>(given), std::get<1>(given), 70, 5});
                     made.value.resize(std::get<2>(given), '\x5a');
                     return made;
                   }));
}

// --- one run ---------------------------------------------------------------------------------

/// One table for all cases, without syncing and without log lines.
class PrefetchPlanPropertyTest : public zefs::test::PrefetchTest {
 protected:
  void SetUp() override {
    LoadOver({}, {}, {});
    for (LMDBContext* db : peer().dbChain()) {
      ::mdb_env_set_flags(db->env, MDB_NOSYNC, 1);
    }
  }

  void Fill(const Scenario& scenario) {
    const std::array<LMDBContext*, 3> places = {&peer().fullDb(), &peer().smallDb(),
                                                &peer().tmpDb()};
    for (std::size_t i = 0; i < places.size(); ++i) {
      Clear(*places.at(i));
      Put(*places.at(i), RecordsOf(scenario.databases.at(i)));
    }
    auto& chain = peer().dbChain();
    chain.remove(&peer().tmpDb());
    if (scenario.tmpIsOpen) {
      chain.push_front(&peer().tmpDb());
    }
    peer().ResetCache();
    for (const Part& part : scenario.writes) {
      Cache(part);
    }
  }

  /// Where the records lie no longer; what was fetched ahead stays.
  void EmptyAllButThePrefetched() {
    for (LMDBContext* db : peer().dbChain()) {
      Clear(*db);
    }
    peer().extCache().clear();
  }

  Plan PlanOf(const CMappingTable::PrefetchRange& range) {
    Plan plan;
    table().GetDCInfoList(range, &plan);
    return plan;
  }

  /// The steps of a walk are what shows, one behind the other, with nothing left out between them.
  static void CheckSteps(const std::vector<Part>& steps, const CMappingTable::PrefetchRange& range,
                         const ShownBytes& shown) {
    long offset = range.start;
    for (std::size_t i = 0; i < steps.size(); ++i) {
      const Part& step = steps[i];
      RC_ASSERT(i == 0 || offset < range.end - 1);
      RC_ASSERT(shown.Shows(step));
      RC_ASSERT(step.eOff > offset);
      RC_ASSERT(shown.IsHole(offset, step.sOff));
      RC_ASSERT(i == 0 || step.sOff >= offset);
      offset = step.eOff;
    }
    RC_ASSERT(range.start >= range.end || shown.IsHoleFrom(offset) || offset >= range.end - 1);
    RC_ASSERT(range.start < range.end || steps.empty());
  }

  /// The plan holds the steps, by container in the order met, and nothing else.
  static void CheckPlan(const Plan& plan, const std::vector<Part>& steps,
                        const CMappingTable::PrefetchRange& range) {
    std::vector<std::uint64_t> met;
    std::map<std::uint64_t, std::vector<Part>> byContainer;
    for (const Part& step : steps) {
      if (step.dcid >= 64) {
        if (byContainer[step.dcid].empty()) {
          met.push_back(step.dcid);
        }
        byContainer[step.dcid].push_back(step);
      }
    }
    RC_ASSERT(plan.size() == met.size());
    auto at = met.begin();
    for (const DCInfo& info : plan) {
      RC_ASSERT(info.dcid == *at++);
      RC_ASSERT(info.rangeTag == range.rangeTag);
      RC_ASSERT(info.reserved == 0U);
      const std::vector<Part>& parts = byContainer[info.dcid];
      RC_ASSERT(info.extents.size() == parts.size());
      long total = 0;
      for (std::size_t i = 0; i < parts.size(); ++i) {
        const auto& extent = info.extents[i];
        RC_ASSERT((Part{extent.sOff, extent.sOff + extent.length, extent.objectID.dcid,
                        extent.objOff}) == parts[i]);
        RC_ASSERT(extent.objectID.fp == OidOf(parts[i]).fp);
        RC_ASSERT(extent.inRange == (extent.sOff < range.end));
        total += extent.length;
      }
      RC_ASSERT(info.totalBytes == total);
    }
  }

  /// A look-up at every offset finds what shows there, or the next that shows.
  void CheckLookUps(const ShownBytes& shown) {
    for (long offset = -2; offset <= kDomain + 1; ++offset) {
      const auto found = At(offset);
      RC_ASSERT(found || shown.IsHoleFrom(offset));
      if (found) {
        RC_ASSERT(found->eOff > offset);
        RC_ASSERT(shown.Shows(*found));
        RC_ASSERT(shown.IsHole(offset, found->sOff));
      }
    }
  }

  const zefs::refhost::LogRecorder quiet_{zefs::kLogFailure};
};

TEST_F(PrefetchPlanPropertyTest, APlanHoldsEveryVisibleByteOnceAndLookUpsReadWhatItFetched) {
  constexpr int kCases = 4000;
  long steps = 0;
  long hidden = 0;
  ExpectToHold("a plan holds every visible byte once", kCases, [&] {
    const Scenario scenario = *AnyScenario();
    const auto range = *AnyRange();
    Fill(scenario);
    const ShownBytes shown(scenario);

    const Plan plan = PlanOf(range);
    const std::vector<Part> kept = Kept();
    CheckSteps(kept, range, shown);
    CheckPlan(plan, kept, range);
    CheckLookUps(shown);

    Set(&FileSystemDaemonConfig::prefetchEnabled, 0);
    RC_ASSERT(Shown(PlanOf(range)) == Shown(plan));
    RC_ASSERT(Kept() == kept);
    Set(&FileSystemDaemonConfig::prefetchEnabled, 1);

    EmptyAllButThePrefetched();
    for (const Part& step : kept) {
      for (long offset = step.sOff; offset < step.eOff; ++offset) {
        RC_ASSERT(At(offset) == step);
      }
      hidden += step.dcid < 64 ? 1 : 0;
    }
    steps += static_cast<long>(kept.size());
  });
  EXPECT_GT(steps, 3L * kCases) << "the plans are not empty";
  EXPECT_GT(hidden, kCases / 4);
}

TEST_F(PrefetchPlanPropertyTest, PlansOfATableThatStandsStillNeverMakeALookUpWrong) {
  constexpr int kCases = 2000;
  ExpectToHold("several plans leave the look-ups right", kCases, [&] {
    const Scenario scenario = *AnyScenario();
    Fill(scenario);
    const ShownBytes shown(scenario);
    for (int i = 0; i < 3; ++i) {
      Set(&FileSystemDaemonConfig::prefetchSpanBytes, *rc::gen::inRange<std::uint32_t>(0, 70));
      PlanOf(*AnyRange());
      const std::vector<Part> kept = Kept();
      for (std::size_t at = 0; at < kept.size(); ++at) {
        RC_ASSERT(shown.Shows(kept[at]));
        if (at > 0) {
          RC_ASSERT(kept[at - 1].eOff <= kept[at].sOff);
        }
      }
      CheckLookUps(shown);
    }
  });
}

TEST_F(PrefetchPlanPropertyTest, APlanOverAnyRecordsAdvancesAndEnds) {
  constexpr int kCases = 3000;
  long steps = 0;
  ExpectToHold("a plan over any records advances and ends", kCases, [&] {
    Fill({{}, *AnyWrites(), true});
    for (LMDBContext* db : peer().dbChain()) {
      Put(*db, *AnyRecords());
    }
    const auto range = *rc::gen::weightedOneOf<CMappingTable::PrefetchRange>(
        {{3, AnyRange()},
         {1, rc::gen::just(CMappingTable::PrefetchRange{INT64_MIN, INT64_MAX, 0})}});
    PlanOf(range);
    const std::vector<Part> kept = Kept();
    long offset = range.start;
    for (const Part& step : kept) {
      RC_ASSERT(step.eOff > offset);
      offset = step.eOff;
    }
    steps += static_cast<long>(kept.size());
    PlanOf(*AnyRange());  // and so do two runs of them, merged
    for (long at = -2; at <= kDomain; ++at) {
      At(at);
    }
  });
  EXPECT_GT(steps, 2L * kCases) << "the walks are not empty";
}

}  // namespace
