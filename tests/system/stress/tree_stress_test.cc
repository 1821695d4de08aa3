// Whatever host threads may do at the same time with a table in memory, done at random by several,
// on two tables of one process at once.

#include <algorithm>
#include <climits>
#include <iostream>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/figures.h"
#include "tests/support/oid.h"
#include "tests/support/property.h"
#include "tests/system/stress/stress.h"
#include "tests/table/table_fixture.h"

namespace zefs::test::stress {
namespace {

using namespace Aldenta::Qnd::Morene::Zefs;

constexpr int kThreads = 4;
constexpr int kSteps = 300;
constexpr int kUsualRounds = 15;

/// Random operations on one table in memory. Each thread writes a stripe of its own, at the
/// objects' own offsets; the last one also adds at the end of the file and cuts that off again.
class TreeStress final : public Stress {
 public:
  TreeStress(std::uint64_t seed, int threads) : Stress(TreeOperations(), seed, threads) {
    for (int i = 0; i < threads; ++i) {
      stripes_.push_back(std::make_unique<Stripe>(i * kStripe));
    }
    // Rooms for what the last thread adds.
    stripes_.back()->dcid.resize(kStripe + kTail);
  }

  void ExpectTheModel() {
    EXPECT_TRUE(peer_.rroot()->checkNode(true));
    unsigned long bytes = 0;
    for (const auto& stripe : stripes_) {
      ReadStripe(*stripe);
      bytes += static_cast<unsigned long>(
          std::count_if(stripe->dcid.begin(), stripe->dcid.end(), [](auto id) { return id != 0; }));
    }
    unsigned long counted = 0;
    for (const auto& [dcid, ofContainer] : peer_.dcids()) {
      counted += ofContainer;
    }
    EXPECT_EQ(bytes, counted);
  }

 private:
  using Random = std::mt19937_64;
  static constexpr long kStripe = 256;
  static constexpr long kTail = 4096;

  struct Stripe {
    explicit Stripe(long start) : begin(start), dcid(kStripe, 0) {}
    long end() const { return begin + static_cast<long>(dcid.size()); }
    long begin;
    std::vector<std::uint64_t> dcid;  // of each byte; 0: none
    std::uint64_t writes = 0;
    std::vector<Ext*> places;  // its extents, while they stay where they are
  };

  std::vector<std::string> Favourites() const override {
    return {"insert", "append", "truncate", "lower_bound", "SetObjectID", "UpdateObjectIdsByRange"};
  }
  unsigned int WeightOf(const std::string& operation) const override {
    static const std::vector<std::string> usual{"insert",
                                                "append",
                                                "truncate",
                                                "begin",
                                                "find",
                                                "size",
                                                "lower_bound",
                                                "lower_bound_in_cache",
                                                "SetObjectID",
                                                "GetDCIDAndFP",
                                                "GetObjectIdsAndOffsets",
                                                "UpdateObjectIdsByRange",
                                                "GetNewReferencedDCID",
                                                "GetReferencedFP",
                                                "GetWritingNodes"};
    return std::find(usual.begin(), usual.end(), operation) != usual.end() ? 16 : 1;
  }

  void Prepare(const Round& round) override {
    for (const auto& stripe : stripes_) {
      stripe->places.clear();
      if (round.all.count("SetObjectID") == 0) {
        continue;
      }
      const auto end = table_.end();
      for (auto it = table_.lower_bound(stripe->begin, nullptr);
           it != end && it->sOff < stripe->end(); ++it) {
        stripe->places.push_back(it.operator->());
      }
    }
  }
  bool Beside(Random* /*random*/) override { return false; }
  void Alone(Random* /*random*/) override { ExpectTheModel(); }

  /// Objects of different threads and writes differ.
  static ObjectID NewObject(Stripe* stripe) {
    const std::uint64_t id =
        64 + static_cast<std::uint64_t>(stripe->begin / kStripe) * 10000000 + ++stripe->writes;
    return Oid(id, static_cast<unsigned int>(id));
  }
  static void Mark(Stripe* stripe, long sOff, long eOff, std::uint64_t dcid) {
    std::fill(stripe->dcid.begin() + (sOff - stripe->begin),
              stripe->dcid.begin() + (eOff - stripe->begin), dcid);
  }

  void Step(int thread, const std::string& operation, Random* random) override {
    Stripe* const stripe = stripes_[static_cast<std::size_t>(thread)].get();
    const bool last = thread == threads() - 1;
    const long at = stripe->begin + static_cast<long>((*random)() % kStripe);
    if (operation == "insert") {
      const long end =
          std::min(stripe->begin + kStripe, at + 1 + static_cast<long>((*random)() % 20));
      const ObjectID oid = NewObject(stripe);
      ASSERT_EQ(0, table_.insert(at, end, &oid, at, 0, nullptr, -1, nullptr));
      Mark(stripe, at, end, oid.dcid);
    } else if (operation == "append") {
      if (last) {
        Append(stripe);
      }
    } else if (operation == "truncate") {
      if (last) {
        const long size = stripe->begin + kStripe + static_cast<long>((*random)() % 64);
        ASSERT_EQ(0, table_.truncate(size, nullptr));
        Mark(stripe, size, stripe->end(), 0);
      }
    } else if (operation == "SetObjectID") {
      if (!stripe->places.empty()) {
        Ext* const ext = stripe->places[(*random)() % stripe->places.size()];
        const ObjectID oid = NewObject(stripe);
        table_.SetObjectID(ext, oid);
        Mark(stripe, ext->sOff, ext->eOff, oid.dcid);
      }
    } else if (operation == "UpdateObjectIdsByRange") {
      // An object that nobody has: every extent behind is looked at.
      ASSERT_EQ(0, table_.UpdateObjectIdsByRange(0, 0, {{Oid(70, 7), at, at + 1}}));
    } else {
      Look(*stripe, operation, at, random);
    }
  }

  void Append(Stripe* stripe) {
    long at = stripe->end();
    while (at > stripe->begin + kStripe &&
           stripe->dcid[static_cast<std::size_t>(at - stripe->begin - 1)] == 0) {
      --at;
    }
    const long end = at + 3;
    if (end > stripe->end()) {
      return;
    }
    const ObjectID oid = NewObject(stripe);
    ASSERT_EQ(0, table_.append(at, end, &oid, at, 0, nullptr, nullptr));
    Mark(stripe, at, end, oid.dcid);
  }

  void Look(const Stripe& stripe, const std::string& operation, long at, Random* random) {
    std::vector<std::pair<unsigned long, unsigned long>> dcids;
    std::vector<FingerprintText> digests;
    if (operation == "find") {
      table_.find(at, nullptr);
      // What it finds may be looked at under the lock only.
      const CMappingTable::SharedLock lock(peer_.lock());
      ReadStripe(stripe);
    } else if (operation == "begin" || operation == "lower_bound" ||
               operation == "lower_bound_in_cache") {
      ReadStripe(stripe);
      table_.lower_bound_in_cache(at, nullptr);
    } else if (operation == "size") {
      ASSERT_GE(table_.size(), 0);
    } else if (operation == "GetObjectIdsAndOffsets") {
      const auto start = static_cast<unsigned long>(at);
      for (const auto& id : table_.GetObjectIdsAndOffsets(start, start + 100)) {
        ASSERT_LT(id.startOffset, id.endOffset);
      }
    } else if (operation == "GetDCIDAndFP") {
      table_.GetDCIDAndFP(&dcids, &digests);
      ASSERT_EQ(dcids.size(), digests.size()) << "each object has a container of its own";
    } else if (operation == "GetNewReferencedDCID") {
      table_.GetNewReferencedDCID(&dcids);
    } else if (operation == "GetReferencedFP") {
      table_.GetReferencedFP(&digests);
    } else if (operation == "GetWritingNodes") {
      std::vector<DataCacheNodePointerWithStatus> nodes;
      table_.GetWritingNodes(&nodes, (*random)() % 2 == 0);
      ASSERT_TRUE(nodes.empty());
    } else if (operation == "setCommit") {
      table_.setCommit((*random)() % 2 == 0);
    } else if (operation == "needCommit") {
      table_.needCommit();
    } else {
      ASSERT_EQ(0, table_.save("", 0)) << "nothing to do for " << operation;
    }
  }

  /// The caller holds the lock, or knows that the tree stands still.
  void ReadStripe(const Stripe& stripe) {
    const auto end = table_.end();
    long at = stripe.begin;
    for (auto it = table_.lower_bound(at, nullptr); it != end && it->sOff < stripe.end(); ++it) {
      for (; at < it->sOff; ++at) {
        ASSERT_EQ(0U, stripe.dcid[static_cast<std::size_t>(at - stripe.begin)]) << "at " << at;
      }
      ASSERT_EQ(at, it->sOff);
      ASSERT_EQ(it->sOff, it->objOff);
      for (; at < it->eOff; ++at) {
        ASSERT_EQ(stripe.dcid[static_cast<std::size_t>(at - stripe.begin)], it->objectID.dcid)
            << "at " << at;
      }
    }
    for (; at < stripe.end(); ++at) {
      ASSERT_EQ(0U, stripe.dcid[static_cast<std::size_t>(at - stripe.begin)]) << "at " << at;
    }
  }

  CMappingTable table_{nullptr};
  MappingTableTestPeer peer_{table_};
  std::vector<std::unique_ptr<Stripe>> stripes_;
};

TEST(TreeStressTest, PermittedOperationsOfSeveralThreadsLeaveWhatEachHasWritten) {
  std::cout << "ZEFS_TEST_SEED=" << PropertySeed() << '\n';
  TreeStress first(PropertySeed(), kThreads);
  TreeStress second(PropertySeed() + 1, kThreads);
  {
    const Watchdog watchdog({&first, &second});
    std::thread other([&] { second.Run(Rounds(kUsualRounds), kSteps); });
    first.Run(Rounds(kUsualRounds), kSteps);
    other.join();
  }
  first.ExpectTheModel();
  second.ExpectTheModel();
  TellFigure("operations of a stress of tables in memory", first.steps() + second.steps());
}

}  // namespace
}  // namespace zefs::test::stress
