// Random extents in all the places of a table at once, against a model that knows of every byte
// what shows there. The seed is printed; ZEFS_TEST_SEED sets another.

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <rapidcheck.h>
#include <sstream>

#include "tests/persistent/read_path_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::Cursors;
using zefs::test::Part;
using zefs::test::PartOf;
using zefs::test::PlainRecord;
using zefs::test::RecordOf;
using zefs::test::RecordsOf;

constexpr long kDomain = 64;
constexpr int kCases = 2500;

/// Extents by place. Those of a database and the prefetched ones are disjoint and in order; the
/// writes overlap at will.
struct Scenario {
  std::vector<Part> full;
  std::vector<Part> small;
  std::vector<Part> tmp;
  std::vector<Part> writes;
  std::vector<Part> prefetched;
  bool tmpIsOpen = true;
  bool prefetches = true;
  bool specialItems = true;
};

void Show(const char* place, const std::vector<Part>& parts, std::ostream& out) {
  out << "\n  " << place << ':';
  for (const Part& part : parts) {
    out << ' ';
    PrintTo(part, &out);
  }
}

void showValue(const Scenario& scenario, std::ostream& out) {
  out << "tmp open: " << scenario.tmpIsOpen << ", prefetching: " << scenario.prefetches
      << ", special items: " << scenario.specialItems;
  Show("full", scenario.full, out);
  Show("small", scenario.small, out);
  Show("tmp", scenario.tmp, out);
  Show("writes", scenario.writes, out);
  Show("prefetched", scenario.prefetched, out);
}

// --- the model -------------------------------------------------------------------------------

/// Of each byte of [0, kDomain): which extent shows there, if any, and which byte of its object.
/// Later layers hide earlier ones.
class ByteModel {
 public:
  void Add(const std::vector<Part>& layer) {
    for (const Part& part : layer) {
      ++lastExtent_;
      for (long at = part.sOff; at < part.eOff; ++at) {
        bytes_.at(static_cast<std::size_t>(at)) =
            Byte{lastExtent_, part.dcid, part.objOff + (at - part.sOff)};
      }
    }
  }

  /// The first visible piece that ends behind `offset`: all that shows in a row of one extent.
  std::optional<Part> Behind(long offset) const {
    const long first = FirstUsed(std::max(offset, 0L));
    if (first == kDomain) {
      return std::nullopt;
    }
    const Byte& byte = *At(first);
    long begin = first;
    while (begin > 0 && At(begin - 1) && At(begin - 1)->extent == byte.extent) {
      --begin;
    }
    long end = first;
    while (end < kDomain && At(end) && At(end)->extent == byte.extent) {
      ++end;
    }
    return Part{begin, end, byte.dcid, At(begin)->objectByte};
  }

 private:
  struct Byte {
    int extent;
    std::uint64_t dcid;
    long objectByte;
  };

  const std::optional<Byte>& At(long at) const { return bytes_.at(static_cast<std::size_t>(at)); }
  long FirstUsed(long at) const {
    while (at < kDomain && !At(at)) {
      ++at;
    }
    return std::min(at, kDomain);
  }

  std::vector<std::optional<Byte>> bytes_ = std::vector<std::optional<Byte>>(kDomain);
  int lastExtent_ = 0;
};

// --- generators ------------------------------------------------------------------------------

using Numbers = std::vector<std::tuple<long, long, long>>;

/// Up to `most` elements. The size that bounds their number does not narrow the elements' ranges.
template <typename T>
rc::Gen<std::vector<T>> UpTo(int most, const rc::Gen<T>& element) {
  return rc::gen::resize(
      most, rc::gen::container<std::vector<T>>(rc::gen::resize(rc::kNominalSize, element)));
}

/// Disjoint extents in order, from a list of holes and lengths. Neighbours often touch.
rc::Gen<std::vector<Part>> AnyDisjoint(std::uint64_t firstDcid) {
  using rc::gen::inRange;
  const auto step = rc::gen::tuple(
      rc::gen::weightedOneOf<long>({{1, rc::gen::just(0L)}, {2, inRange<long>(0, 12)}}),
      inRange<long>(1, 20), inRange<long>(0, 1000));
  return rc::gen::map(UpTo(8, step), [firstDcid](const Numbers& steps) {
    std::vector<Part> parts;
    long at = 0;
    for (const auto& [hole, length, objOff] : steps) {
      const long end = std::min(at + hole + length, kDomain);
      if (at + hole < end) {
        parts.push_back({at + hole, end, firstDcid + parts.size(), objOff});
      }
      at = end;
    }
    return parts;
  });
}

rc::Gen<std::vector<Part>> AnyWrites(std::uint64_t firstDcid) {
  using rc::gen::inRange;
  const auto write =
      rc::gen::tuple(inRange<long>(0, kDomain), inRange<long>(1, 16), inRange<long>(0, 1000));
  return rc::gen::map(UpTo(8, write), [firstDcid](const Numbers& writes) {
    std::vector<Part> parts;
    for (const auto& [start, length, objOff] : writes) {
      parts.push_back({start, std::min(start + length, kDomain), firstDcid + parts.size(), objOff});
    }
    return parts;
  });
}

rc::Gen<Scenario> AnyScenario() {
  return rc::gen::build<Scenario>(
      rc::gen::set(&Scenario::full, AnyDisjoint(100)),
      rc::gen::set(&Scenario::small, AnyDisjoint(200)),
      rc::gen::set(&Scenario::tmp, AnyDisjoint(300)),
      rc::gen::set(&Scenario::writes, AnyWrites(400)),
      rc::gen::set(&Scenario::prefetched, AnyDisjoint(500)),
      rc::gen::set(&Scenario::tmpIsOpen, rc::gen::weightedElement<bool>({{3, true}, {1, false}})),
      rc::gen::set(&Scenario::prefetches, rc::gen::arbitrary<bool>()),
      rc::gen::set(&Scenario::specialItems, rc::gen::arbitrary<bool>()));
}

/// Records that no writer of this library leaves behind: they overlap, end before they start, and
/// their values are cut short.
rc::Gen<std::vector<PlainRecord>> AnyRecords() {
  using rc::gen::inRange;
  const auto end = rc::gen::weightedOneOf<long>(
      {{8, inRange<long>(0, kDomain)},
       {1, rc::gen::element<long>(-1, -2, INT64_MIN, INT64_MAX - 1, INT64_MAX)}});
  const auto start = rc::gen::weightedOneOf<long>(
      {{8, inRange<long>(-4, kDomain + 4)}, {1, rc::gen::arbitrary<long>()}});
  const auto record = rc::gen::map(
      rc::gen::tuple(start, end,
                     rc::gen::weightedOneOf<std::size_t>(
                         {{4, rc::gen::just<std::size_t>(72)}, {1, inRange<std::size_t>(0, 80)}})),
      [](const std::tuple<long, long, std::size_t>& given) {
        const auto& [sOff, eOff, bytes] = given;
        PlainRecord made = RecordOf({sOff, eOff, 70, INT32_MAX});
        made.value.resize(bytes, '\x5a');
        return made;
      });
  return UpTo(10, record);
}

// --- one run ---------------------------------------------------------------------------------

/// One table for all cases, without syncing and without log lines.
class ReadPathPropertyTest : public zefs::test::ReadPathTest {
 protected:
  void SetUp() override {
    LoadOver({}, {}, {});
    for (LMDBContext* db : peer().dbChain()) {
      ::mdb_env_set_flags(db->env, MDB_NOSYNC, 1);
    }
  }

  /// Puts these records, and no others, into an open database.
  static void Refill(LMDBContext& db, std::vector<PlainRecord> records, bool specialItems) {
    if (specialItems) {
      records.push_back({zefs::test::kPlainVersionKey, zefs::test::SpecialBytes(2, 0)});
      records.push_back({zefs::test::kPlainDoidKey, zefs::test::SpecialBytes(1L << 20)});
    }
    Clear(db);
    Put(db, records);
  }

  void OpenTmp(bool open) {
    auto& chain = peer().dbChain();
    chain.remove(&peer().tmpDb());
    if (open) {
      chain.push_front(&peer().tmpDb());
    }
  }

  void Fill(const Scenario& scenario) {
    Refill(peer().fullDb(), RecordsOf(scenario.full), scenario.specialItems);
    Refill(peer().smallDb(), RecordsOf(scenario.small), scenario.specialItems);
    Refill(peer().tmpDb(), RecordsOf(scenario.tmp), scenario.specialItems);
    OpenTmp(scenario.tmpIsOpen);
    peer().ResetCache();
    for (const Part& part : scenario.writes) {
      Cache(part);
    }
    for (const Part& part : scenario.prefetched) {
      Prefetch(part);
    }
    Set(&FileSystemDaemonConfig::prefetchEnabled, scenario.prefetches ? 1 : 0);
  }

  /// Every look-up at every offset, the ends of the domain and beyond them included.
  void CheckAgainstModel(const Scenario& scenario) {
    ByteModel databases;
    databases.Add(scenario.full);
    databases.Add(scenario.small);
    if (scenario.tmpIsOpen) {
      databases.Add(scenario.tmp);
    }
    ByteModel cache;
    cache.Add(scenario.writes);
    ByteModel all = databases;
    all.Add(scenario.writes);
    ByteModel prefetched;
    prefetched.Add(scenario.prefetched);

    // A prefetched extent shows to those who ask for a byte of it, and hides nothing from others.
    const auto shown = [&](long offset) {
      const auto ahead = scenario.prefetches ? prefetched.Behind(offset) : std::nullopt;
      return ahead && ahead->sOff <= offset ? ahead : all.Behind(offset);
    };
    Cursors cursors(peer().dbChain());
    for (long offset = -2; offset <= kDomain + 1; ++offset) {
      RC_ASSERT(At(offset) == shown(offset));
      RC_ASSERT(Shown(table().find(offset, nullptr)) == shown(offset));
      RC_ASSERT(Shown(peer().lower_bound_unlocked(offset)) == shown(offset));
      RC_ASSERT(InCacheAt(offset) == cache.Behind(offset));
      CheckDatabases(databases.Behind(offset), offset, cursors);
    }
    CheckWalk(shown);
  }

  void CheckDatabases(const std::optional<Part>& expected, long offset, Cursors& cursors) {
    ExtLMDB own;
    ExtLMDB given;
    auto& chain = peer().dbChain();
    const int result = expected ? 0 : -1;
    RC_ASSERT(peer().lowerBoundDB(offset, &own) == result);
    RC_ASSERT(peer().GetNextExtInDBChain(chain, chain.begin(), cursors.begin(), offset, &given) ==
              result);
    if (expected) {
      RC_ASSERT(PartOf(own) == *expected);
      RC_ASSERT(PartOf(given) == *expected);
    }
  }

  template <typename ShownAt>
  void CheckWalk(const ShownAt& shown) {
    RC_ASSERT(table().begin() == table().lower_bound(0, nullptr));
    const auto end = table().end();
    auto it = table().begin();
    auto expected = shown(0);
    for (; expected; expected = shown(expected->eOff), ++it) {
      RC_ASSERT(it != end);
      RC_ASSERT(PartOf(*it) == *expected);
    }
    RC_ASSERT(it == end);
  }

  template <typename Property>
  static void ExpectToHold(const char* description, const Property& property) {
    const char* given = std::getenv("ZEFS_TEST_SEED");
    rc::detail::TestParams params;
    params.seed = given == nullptr ? 20240917 : std::strtoull(given, nullptr, 10);
    params.maxSuccess = kCases;
    rc::detail::TestMetadata metadata;
    metadata.id = "read path";
    metadata.description = description;
    const auto result = rc::detail::checkTestable(property, metadata, params);
    std::ostringstream message;
    rc::detail::printResultMessage(result, message);
    std::cout << "seed " << params.seed << ", " << params.maxSuccess << " tables\n";
    EXPECT_TRUE(result.template is<rc::detail::SuccessResult>()) << message.str();
  }

  const zefs::refhost::LogRecorder quiet_{zefs::kLogFailure};
};

TEST_F(ReadPathPropertyTest, EveryLookUpShowsWhatTheByteModelSays) {
  std::size_t extents = 0;
  int full = 0;
  ExpectToHold("every look-up shows what the byte model says", [&] {
    const Scenario scenario = *AnyScenario();
    Fill(scenario);
    CheckAgainstModel(scenario);
    full += At(kDomain - 1) ? 1 : 0;
    extents += scenario.full.size() + scenario.small.size() + scenario.tmp.size() +
               scenario.writes.size() + scenario.prefetched.size();
  });
  EXPECT_GE(extents, std::size_t{8} * kCases) << "the tables are crowded";
  EXPECT_GE(full, kCases / 4) << "and not only at their beginning";
}

TEST_F(ReadPathPropertyTest, AWalkOverAnyRecordsAdvancesAndEnds) {
  long steps = 0;
  ExpectToHold("a walk over any records advances and ends", [&] {
    Fill({{}, {}, {}, *AnyWrites(400), {}, true, false, false});
    for (LMDBContext* db : peer().dbChain()) {
      Put(*db, *AnyRecords());
    }
    long offset = -1;
    auto it = table().end();
    const auto end = it;
    for (++it; it != end; ++it, ++steps) {
      RC_ASSERT(it->eOff > offset);
      offset = it->eOff;
    }
  });
  EXPECT_GE(steps, 4L * kCases) << "the walks are not empty";
}

}  // namespace
