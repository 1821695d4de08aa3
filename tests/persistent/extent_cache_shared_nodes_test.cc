// Random writes that use a few nodes again and again, against a slow cache that goes through the
// same steps over plain lists: entries, nodes, shares, released nodes, keys to flush, questions and
// log lines are the same after every step. The seed is printed; ZEFS_TEST_SEED sets another.

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <utility>

#include "tests/persistent/extent_cache_fixture.h"
#include "tests/persistent/extent_cache_operations.h"
#include "tests/persistent/extent_cache_steps.h"
#include "tests/support/property.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::DataCacheNode;
using zefs::test::Cached;
using zefs::test::CacheOperation;
using zefs::test::Oid;

/// What is true of nodes with one write each, and how often it was not so here.
struct Exceptions {
  std::uint64_t releasedInUse = 0;   // a node to be released, though an entry still points to it
  std::uint64_t releasedAgain = 0;   // a node went back once more, without a write in between
  std::uint64_t keptForGood = 0;     // a node without an entry is not to be released: shared still
  std::uint64_t sharesOfOthers = 0;  // a share with a key that points to another node or to none
  std::uint64_t outsideShare = 0;    // an entry whose node has a share without it
};

class TwinRun {
 public:
  static constexpr long kDomain = 48;

  explicit TwinRun(Exceptions* seen) : seen_(*seen) {
    for (auto& node : nodes_) {
      node = cache_.NewNode();
    }
  }

  void Apply(const CacheOperation& op) {
    DataCacheNode* const node = nodes_[op.node % nodes_.size()];
    const ObjectID oid = Oid(op.dcid, op.tag);
    switch (op.kind) {
      case CacheOperation::kWrite:
        Write(op, node, oid);
        break;
      case CacheOperation::kReady:
        Forget(node);
        cache_.MakeReady(node, oid, op.dcOffset);
        slow_.ready_.push_back({node, {oid, op.dcOffset}});
        break;
      case CacheOperation::kNotReady:
        Forget(node);
        cache_.MakeNotReady(node);
        break;
      case CacheOperation::kRecycle:
        Recycle();
        break;
      case CacheOperation::kGetExtentData:
        GetExtentData();
        break;
    }
    Check();
    Count();
  }

 private:
  void Forget(const DataCacheNode* node) {
    auto& ready = slow_.ready_;
    ready.erase(std::remove_if(ready.begin(), ready.end(),
                               [&](const auto& item) { return item.first == node; }),
                ready.end());
  }

  void Write(const CacheOperation& op, DataCacheNode* node, const ObjectID& oid) {
    const ObjectID* const given = op.hasOid ? &oid : nullptr;
    DataCacheNode* const data = op.hasNode ? node : nullptr;
    const long eOff = op.offset + op.length;
    RC_ASSERT(table_.insert(op.offset, eOff, given, op.objOff, 0, data, op.dcOffset, nullptr) == 0);
    slow_.Insert(op.offset, eOff, given, op.objOff, data, op.dcOffset);
    if (eOff > op.offset) {
      handedBack_.erase(data);
    }
  }

  void Recycle() {
    std::set<void*> released;
    peer_.RecycleDanglingPointer(&released);
    RC_ASSERT((released == std::set<void*>(slow_.released_.begin(), slow_.released_.end())));
    slow_.Recycle();
    for (void* const node : released) {
      seen_.releasedAgain += handedBack_.insert(node).second ? 0U : 1U;
    }
  }

  void GetExtentData() {
    std::set<void*> expected;
    for (const auto& [key, node] : slow_.nodes_) {
      expected.insert(node);
    }
    std::set<void*> released;
    table_.GetExtentData(&released);
    RC_ASSERT((released == expected));
    slow_.GetExtentData();
    handedBack_.insert(released.begin(), released.end());
  }

  void Check() {
    std::vector<Cached> entries = slow_.entries_;
    std::sort(entries.begin(), entries.end(),
              [](const Cached& a, const Cached& b) { return a.eOff < b.eOff; });
    RC_ASSERT(zefs::test::CachedIn(peer_.extCache()) == entries);
    for (std::size_t i = 1; i < entries.size(); ++i) {
      RC_ASSERT(entries[i - 1].eOff <= entries[i].sOff);
    }
    for (const auto& [key, node] : peer_.extDataPointers()) {
      RC_ASSERT(peer_.extCache().count(key) == 1U);
    }
    RC_ASSERT(
        (std::map<long, void*>(peer_.extDataPointers().begin(), peer_.extDataPointers().end()) ==
         std::map<long, void*>(slow_.nodes_.begin(), slow_.nodes_.end())));
    std::map<void*, std::set<long>> shares;
    for (const auto& [node, keys] : slow_.shares_) {
      shares[node] = {keys.begin(), keys.end()};
    }
    RC_ASSERT((peer_.sharedDataPointers() == shares));
    RC_ASSERT(
        (peer_.toBeReleased() == std::set<void*>(slow_.released_.begin(), slow_.released_.end())));
    RC_ASSERT(
        (std::vector<long>(peer_.objList().begin(), peer_.objList().end()) == slow_.pending_));
    RC_ASSERT(peer_.objListCount() == slow_.pending_.size());
    RC_ASSERT(peer_.fileSize() == slow_.fileSize_);
    RC_ASSERT((cache_.asked_ == slow_.asked_));
    RC_ASSERT(cache_.allFlagged_);
    CheckLines();
    ForgetStep();
  }

  void CheckLines() {
    std::vector<std::string> lines;
    for (const auto& record : log_.Take()) {
      lines.push_back(std::to_string(record.level) + ' ' + record.text);
    }
    RC_ASSERT(lines == slow_.lines_);
  }

  void ForgetStep() {
    slow_.lines_.clear();
    slow_.asked_.clear();
    slow_.pending_.clear();
    cache_.asked_.clear();
    peer_.objList().clear();
    peer_.objListCount() = 0;
  }

  void Count() {
    const auto& pointers = peer_.extDataPointers();
    const auto& shares = peer_.sharedDataPointers();
    for (void* const node : peer_.toBeReleased()) {
      seen_.releasedInUse += slow_.HasNode(node) ? 1U : 0U;
    }
    for (const auto& [node, keys] : shares) {
      seen_.keptForGood += slow_.HasNode(node) ? 0U : 1U;
      for (const long key : keys) {
        const auto pointer = pointers.find(key);
        seen_.sharesOfOthers += pointer == pointers.end() || pointer->second != node ? 1U : 0U;
      }
    }
    for (const auto& [key, node] : pointers) {
      const auto share = shares.find(node);
      seen_.outsideShare += share != shares.end() && share->second.count(key) == 0 ? 1U : 0U;
    }
  }

  Exceptions& seen_;
  zefs::refhost::LogRecorder log_;
  zefs::test::FakeCache cache_;
  std::array<DataCacheNode*, 4> nodes_{};
  CMappingLMDB table_{&cache_, ZEFS_PROVISION_STR};
  MappingLMDBTestPeer peer_{table_};
  zefs::test::SlowExtentCache slow_;
  std::set<void*> handedBack_;
};

TEST(ExtentCacheSharedNodesTest, NodesOfSeveralWritesGoTheWayOfTheSteps) {
  Exceptions seen;
  std::uint64_t steps = 0;
  zefs::test::ExpectToHold("nodes of several writes go the way of the steps", 320, [&] {
    const auto operations = *zefs::test::AnyCacheOperations(TwinRun::kDomain);
    TwinRun run(&seen);
    for (const CacheOperation& op : operations) {
      run.Apply(op);
      ++steps;
    }
  });
  std::cout << steps << " steps; nodes released in use " << seen.releasedInUse << ", again "
            << seen.releasedAgain << ", never " << seen.keptForGood << "; keys of others in shares "
            << seen.sharesOfOthers << ", entries outside " << seen.outsideShare << '\n';
  EXPECT_GE(steps, 100000U);
  EXPECT_GT(seen.releasedInUse, 0U);
  EXPECT_GT(seen.releasedAgain, 0U);
  EXPECT_GT(seen.keptForGood, 0U);
  EXPECT_GT(seen.sharesOfOthers, 0U);
  EXPECT_GT(seen.outsideShare, 0U);
}

}  // namespace
