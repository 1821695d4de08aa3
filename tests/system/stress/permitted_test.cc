// Which operations may run together is told for every operation of both tables.

#include "tests/system/stress/permitted.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "persistent/mapping_lmdb.h"
#include "tests/support/figures.h"
#include "tests/support/vtable_slot.h"
#include "tests/table/table_slots.h"

namespace zefs::test::stress {
namespace {

using Aldenta::Qnd::Morene::Zefs::CMappingLMDB;
using Aldenta::Qnd::Morene::Zefs::CMappingTable;

#define SLOT_OF(operation) \
  { #operation, SlotOf(&T::operation) }

template <typename T>
std::vector<std::pair<std::string, std::size_t>> Slots() {
  return {SLOT_OF(insert),
          SLOT_OF(append),
          SLOT_OF(setFileSize),
          SLOT_OF(truncate),
          SLOT_OF(getFileSize),
          SLOT_OF(begin),
          SLOT_OF(end),
          SLOT_OF(find),
          SLOT_OF(size),
          SLOT_OF(getTableSize),
          SLOT_OF(lower_bound),
          SLOT_OF(lower_bound_in_cache),
          SLOT_OF(needCommit),
          SLOT_OF(setCommit),
          SLOT_OF(load),
          SLOT_OF(UpdateExtPath),
          SLOT_OF(save),
          SLOT_OF(remove),
          SLOT_OF(checkAndBackfillObjectIDUnlock),
          SLOT_OF(checkAndBackfillObjectID),
          SLOT_OF(Snapshot),
          SLOT_OF(SetObjectID),
          SLOT_OF(GetObjectIdsAndOffsets),
          SLOT_OF(UpdateObjectIdsByRange),
          SLOT_OF(GetNewReferencedDCID),
          SLOT_OF(GetReferencedFP),
          SLOT_OF(GetDCIDAndFP),
          SLOT_OF(GetDCIDAndFPs),
          SLOT_OF(GetDCIDAndBloomFilter),
          SLOT_OF(SetDOID),
          SLOT_OF(GetDOID),
          SLOT_OF(IsDataChanged),
          SLOT_OF(GetWritingNodesCount),
          SLOT_OF(GetWritingNodes),
          SLOT_OF(GetDCInfoList),
          SLOT_OF(GetEmptyDcOffsetList),
          SLOT_OF(BackfillDcOffset),
          SLOT_OF(AppendToRefreshDcOffsetList)};
}

/// The operations stand in the order of their slots; the destructor, which comes first, takes two.
void ExpectAllSlots(const std::vector<Operation>& operations,
                    const std::vector<std::pair<std::string, std::size_t>>& slots) {
  ASSERT_EQ(slots.size() + 1, operations.size());
  EXPECT_EQ("~", operations.front().name);
  for (std::size_t i = 0; i < slots.size(); ++i) {
    EXPECT_EQ(slots[i].first, operations[i + 1].name);
    EXPECT_EQ(i + 2, slots[i].second) << slots[i].first;
  }
}

TEST(PermittedTest, EveryVirtualOperationOfTheTableInMemoryIsJudged) {
  ExpectAllSlots(TreeOperations(), Slots<CMappingTable>());
  EXPECT_EQ(ExpectSlotsOfTheTable<CMappingTable>(), TreeOperations().size() + 1);
}

/// One operation behind those of the stored table: shows how many there are.
struct OneMoreLMDB : CMappingLMDB {
  virtual void more() {}
};

TEST(PermittedTest, EveryVirtualOperationOfTheStoredTableIsJudged) {
  using T = CMappingLMDB;
  auto slots = Slots<T>();
  slots.emplace_back("GetExtentData", SlotOf(&T::GetExtentData));
  slots.emplace_back("setExtMapVersion", SlotOf(&T::setExtMapVersion));
  slots.emplace_back("getExtMapVersion", SlotOf(&T::getExtMapVersion));
  ExpectAllSlots(StoredOperations(), slots);
  EXPECT_EQ(SlotOf(&OneMoreLMDB::more), StoredOperations().size() + 1);
}

class PermittedPairsTest : public testing::TestWithParam<bool> {
 protected:
  static const std::vector<Operation>& Operations() {
    return GetParam() ? StoredOperations() : TreeOperations();
  }
  static Verdict Judge(const std::string& one, const std::string& other) {
    return MayRunTogether(Find(Operations(), one), Find(Operations(), other));
  }
};

TEST_P(PermittedPairsTest, TheVerdictIsTheSameFromBothSidesAndHasAReason) {
  long permitted = 0;
  for (const Operation& one : Operations()) {
    for (const Operation& other : Operations()) {
      const Verdict verdict = MayRunTogether(one, other);
      EXPECT_EQ(verdict.permitted, MayRunTogether(other, one).permitted)
          << one.name << ' ' << other.name;
      EXPECT_FALSE(verdict.reason.empty());
      permitted += verdict.permitted ? 1 : 0;
    }
  }
  TellFigure("pairs of operations that may run together", permitted);
}

TEST_P(PermittedPairsTest, NothingRunsBesideTheDestructor) {
  for (const Operation& other : Operations()) {
    EXPECT_FALSE(MayRunTogether(Find(Operations(), "~"), other).permitted) << other.name;
  }
}

INSTANTIATE_TEST_SUITE_P(BothTables, PermittedPairsTest, testing::Bool());

TEST(PermittedTest, WhatTheStoredTableSaysOfItselfHolds) {
  const auto& all = StoredOperations();
  const auto permitted = [&](const std::string& one, const std::string& other) {
    return MayRunTogether(Find(all, one), Find(all, other)).permitted;
  };
  for (const std::string alone : {"truncate", "load", "remove"}) {
    for (const Operation& other : all) {
      EXPECT_FALSE(permitted(alone, other.name)) << alone << ' ' << other.name;
    }
  }
  EXPECT_TRUE(permitted("insert", "insert"));
  EXPECT_TRUE(permitted("insert", "lower_bound"));
  EXPECT_TRUE(permitted("insert", "checkAndBackfillObjectID"));
  EXPECT_TRUE(permitted("checkAndBackfillObjectID", "GetDCIDAndFPs"));
  EXPECT_TRUE(permitted("checkAndBackfillObjectID", "GetDCInfoList"));
  EXPECT_TRUE(permitted("getFileSize", "insert"));
  EXPECT_FALSE(permitted("GetWritingNodes", "insert"));
  EXPECT_FALSE(permitted("GetExtentData", "lower_bound"));
  EXPECT_FALSE(permitted("GetExtentData", "checkAndBackfillObjectID"));
  EXPECT_FALSE(permitted("Snapshot", "checkAndBackfillObjectID"));
  EXPECT_FALSE(permitted("UpdateObjectIdsByRange", "checkAndBackfillObjectID"));
  EXPECT_FALSE(permitted("SetDOID", "GetDOID"));
}

TEST(PermittedTest, WhatTheTableInMemorySaysOfItselfHolds) {
  const auto& all = TreeOperations();
  const auto permitted = [&](const std::string& one, const std::string& other) {
    return MayRunTogether(Find(all, one), Find(all, other)).permitted;
  };
  EXPECT_TRUE(permitted("insert", "insert"));
  EXPECT_TRUE(permitted("insert", "find"));
  EXPECT_TRUE(permitted("truncate", "GetDCIDAndFP"));
  EXPECT_TRUE(permitted("lower_bound", "begin"));
  EXPECT_FALSE(permitted("lower_bound", "insert"));
  EXPECT_FALSE(permitted("begin", "SetObjectID"));
  EXPECT_FALSE(permitted("size", "append"));
}

}  // namespace
}  // namespace zefs::test::stress
