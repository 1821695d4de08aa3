// Every operation of the table in memory with each of its allocations failing.

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "tests/support/figures.h"
#include "tests/support/held_lock.h"
#include "tests/support/vtable_slot.h"
#include "tests/system/faults/fault_fixture.h"
#include "tests/system/faults/memory_faults.h"
#include "tests/system/faults/operations.h"
#include "tests/system/faults/silent_output.h"
#include "tests/table/table_fixture.h"
#include "tests/table/table_slots.h"

namespace zefs::test {
namespace {

using Table = lib::CMappingTable;

/// Whether the table can be used when the operation has run out of memory.
enum class Afterwards { kUsable, kDestroyOnly };

struct TreeOperation {
  std::string name;
  std::size_t slot;
  Afterwards afterwards;
  std::function<void(Table& table)> run;
};

constexpr long kStep = 10;
constexpr long kExtents = 60;  // several levels of nodes

lib::CMappingTable::ObjectIDs NewIds() {
  lib::CMappingTable::ObjectIDs ids(1);
  ids[0].objectID = Oid(90);
  ids[0].startOffset = 0;
  ids[0].endOffset = kExtents * kStep;
  return ids;
}

#define ZEFS_TREE_OPERATION(name, afterwards, ...)                                      \
  {                                                                                     \
#name, SlotOf(&Table::name), Afterwards::afterwards, [](Table & t) { __VA_ARGS__; } \
  }

std::vector<TreeOperation> MakeTreeOperations() {
  return {
    ZEFS_TREE_OPERATION(insert, kDestroyOnly, const auto oid = Oid(80);
                        t.insert(95, 185, &oid, 0, 0, nullptr, -1, nullptr)),
        ZEFS_TREE_OPERATION(append, kDestroyOnly, const auto oid = Oid(81);
                            t.append(5000, 5010, &oid, 0, 0, nullptr, nullptr)),
        ZEFS_TREE_OPERATION(setFileSize, kUsable, t.setFileSize(7)),
        ZEFS_TREE_OPERATION(truncate, kDestroyOnly, t.truncate(305, nullptr)),
        ZEFS_TREE_OPERATION(getFileSize, kUsable, t.getFileSize()),
        ZEFS_TREE_OPERATION(begin, kUsable, t.begin()), ZEFS_TREE_OPERATION(end, kUsable, t.end()),
        ZEFS_TREE_OPERATION(find, kUsable, t.find(33, nullptr)),
        ZEFS_TREE_OPERATION(size, kUsable, t.size()),
        ZEFS_TREE_OPERATION(getTableSize, kUsable, long nodes = 0; long slots = 0;
                            t.getTableSize(&nodes, &slots)),
        ZEFS_TREE_OPERATION(lower_bound, kUsable, t.lower_bound(33, nullptr)),
        ZEFS_TREE_OPERATION(lower_bound_in_cache, kUsable, t.lower_bound_in_cache(33, nullptr)),
        ZEFS_TREE_OPERATION(needCommit, kUsable, t.needCommit()),
        ZEFS_TREE_OPERATION(setCommit, kUsable, t.setCommit(true)),
        ZEFS_TREE_OPERATION(load, kUsable, t.load("", false, "")),
        ZEFS_TREE_OPERATION(UpdateExtPath, kUsable, t.UpdateExtPath("")),
        ZEFS_TREE_OPERATION(save, kUsable, t.save("", 0)),
        ZEFS_TREE_OPERATION(remove, kUsable, t.remove("")),
        ZEFS_TREE_OPERATION(checkAndBackfillObjectIDUnlock, kUsable,
                            t.checkAndBackfillObjectIDUnlock(true)),
        ZEFS_TREE_OPERATION(checkAndBackfillObjectID, kUsable, std::set<void*> released;
                            t.checkAndBackfillObjectID(&released, true, "", "", nullptr, nullptr)),
        ZEFS_TREE_OPERATION(Snapshot, kUsable, t.Snapshot("", "")),
        ZEFS_TREE_OPERATION(SetObjectID, kDestroyOnly, auto at = t.find(33, nullptr);
                            t.SetObjectID(&*at, Oid(82, 9))),
        ZEFS_TREE_OPERATION(GetObjectIdsAndOffsets, kUsable, t.GetObjectIdsAndOffsets(0, 300)),
        ZEFS_TREE_OPERATION(UpdateObjectIdsByRange, kDestroyOnly,
                            t.UpdateObjectIdsByRange(0, 300, NewIds())),
        ZEFS_TREE_OPERATION(GetNewReferencedDCID, kUsable,
                            std::vector<std::pair<unsigned long, unsigned long>> dcids;
                            t.GetNewReferencedDCID(&dcids)),
        ZEFS_TREE_OPERATION(GetReferencedFP, kUsable, std::vector<FingerprintText> fps;
                            t.GetReferencedFP(&fps)),
        ZEFS_TREE_OPERATION(GetDCIDAndFP, kUsable,
                            std::vector<std::pair<unsigned long, unsigned long>> dcids;
                            std::vector<FingerprintText> fps; t.GetDCIDAndFP(&dcids, &fps)),
        ZEFS_TREE_OPERATION(GetDCIDAndFPs, kUsable,
                            std::unordered_map<unsigned long, unsigned long> dcids;
                            std::vector<crfp_digest_t> fps; t.GetDCIDAndFPs(&dcids, &fps)),
        ZEFS_TREE_OPERATION(GetDCIDAndBloomFilter, kUsable,
                            std::vector<std::pair<unsigned long, unsigned long>> dcids;
                            std::unique_ptr<BloomFilter> filter;
                            t.GetDCIDAndBloomFilter(&dcids, &filter)),
        ZEFS_TREE_OPERATION(SetDOID, kUsable, auto oid = Oid(83); t.SetDOID(&oid)),
        ZEFS_TREE_OPERATION(GetDOID, kUsable, lib::ObjectID oid; t.GetDOID(&oid)),
        ZEFS_TREE_OPERATION(IsDataChanged, kUsable, t.IsDataChanged()),
        ZEFS_TREE_OPERATION(GetWritingNodesCount, kUsable, t.GetWritingNodesCount()),
        ZEFS_TREE_OPERATION(GetWritingNodes, kUsable,
                            std::vector<lib::DataCacheNodePointerWithStatus> nodes;
                            t.GetWritingNodes(&nodes, false)),
        ZEFS_TREE_OPERATION(GetDCInfoList, kUsable, std::list<Table::DCInfo> plan;
                            t.GetDCInfoList({0, 100, 1}, &plan)),
        ZEFS_TREE_OPERATION(GetEmptyDcOffsetList, kUsable, std::vector<zefs::DCOffset> offsets;
                            t.GetEmptyDcOffsetList(&offsets)),
        ZEFS_TREE_OPERATION(BackfillDcOffset, kUsable, std::vector<zefs::DCOffset> offsets;
                            t.BackfillDcOffset(offsets)),
        ZEFS_TREE_OPERATION(AppendToRefreshDcOffsetList, kUsable,
                            t.AppendToRefreshDcOffsetList(0, 64, {})),
  };
}

/// What is taken while it lives may be lost, and the leak checker says nothing of it.
class LeaksAllowed {
#ifdef __SANITIZE_ADDRESS__
  __lsan::ScopedDisabler disabler_;
#endif
};

class TreeFaultsTest : public FaultTest {
 protected:
  static std::unique_ptr<Table> MakeTable() {
    auto table = std::make_unique<Table>(nullptr);
    for (long i = 0; i < kExtents; ++i) {
      const auto oid = Oid(64 + static_cast<std::uint64_t>(i % 7), static_cast<unsigned>(i % 5));
      table->append(i * kStep, (i + 1) * kStep, &oid, 0, 0, nullptr, nullptr);
    }
    return table;
  }

  /// One run on a table of its own. Whether the fault took effect.
  static bool Run(const TreeOperation& operation, int nth, bool forGood,
                  const std::vector<Seen>& after) {
    [[maybe_unused]] const LeaksAllowed allowed{};  // where they are counted below, there are none
    const long blocks = MemoryFaults::Live();
    bool fired = false;
    bool lost = false;
    {
      const std::unique_ptr<Table> table = MakeTable();
      const std::vector<Seen> before = Forward(*table);
      const SilentOutput silent;
      MemoryFaults::Start();
      MemoryFaults::FailNth(Allocator::kNew, nth, forGood);
      const std::string end = EndOf(
          [&] {
            operation.run(*table);
            return 0;
          },
          0);
      MemoryFaults::Stop();
      fired = MemoryFaults::Fired();
      EXPECT_TRUE(end == "0" || (fired && end == "throws bad_alloc")) << end;
      EXPECT_EQ(Held::kNot, HowIsHeld(lib::MappingTableTestPeer(*table).lock()));
      // Nothing is rolled back: nodes of the change that are not in the tree yet stay behind.
      lost = end != "0" && operation.afterwards == Afterwards::kDestroyOnly;
      if (end == "0") {
        EXPECT_EQ(after, Forward(*table));
      } else if (operation.afterwards == Afterwards::kUsable) {
        EXPECT_EQ(before, Forward(*table));
        operation.run(*table);
        EXPECT_EQ(after, Forward(*table)) << "once more";
      }
    }
    EXPECT_TRUE(lost || blocks == MemoryFaults::Live())
        << MemoryFaults::Live() - blocks << " blocks of memory are lost";
    return fired;
  }
};

TEST_F(TreeFaultsTest, OfEveryOperation) {
  long failed = 0;
  for (const TreeOperation& operation : MakeTreeOperations()) {
    std::vector<Seen> after;
    {
      const SilentOutput silent;
      const std::unique_ptr<Table> table = MakeTable();
      operation.run(*table);
      after = Forward(*table);
    }
    for (const bool forGood : {false, true}) {
      for (int nth = 1;; ++nth, ++failed) {
        SCOPED_TRACE(operation.name + ", allocation " + std::to_string(nth));
        if (!Run(operation, nth, forGood, after)) {
          break;
        }
      }
    }
  }
  TellFigure("faults injected into allocations of the table in memory", failed);
}

TEST_F(TreeFaultsTest, LeaveOutNoVirtualOperation) {
  std::set<std::size_t> slots;
  for (const TreeOperation& operation : MakeTreeOperations()) {
    slots.insert(operation.slot);
  }
  EXPECT_EQ(ExpectSlotsOfTheTable<Table>() - 2, slots.size());
}

}  // namespace
}  // namespace zefs::test
