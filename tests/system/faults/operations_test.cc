// No operation is left out of the sweeps.

#include "tests/system/faults/operations.h"

#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "persistent/mapping_lmdb.h"
#include "tests/support/vtable_slot.h"

namespace zefs::test {
namespace {

using Table = Aldenta::Qnd::Morene::Zefs::CMappingLMDB;

#define ZEFS_SLOT(name) \
  { #name, SlotOf(&Table::name) }

const std::vector<std::pair<std::string, std::size_t>> kSlots = {
    ZEFS_SLOT(insert),
    ZEFS_SLOT(append),
    ZEFS_SLOT(setFileSize),
    ZEFS_SLOT(truncate),
    ZEFS_SLOT(getFileSize),
    ZEFS_SLOT(begin),
    ZEFS_SLOT(end),
    ZEFS_SLOT(find),
    ZEFS_SLOT(size),
    ZEFS_SLOT(getTableSize),
    ZEFS_SLOT(lower_bound),
    ZEFS_SLOT(lower_bound_in_cache),
    ZEFS_SLOT(needCommit),
    ZEFS_SLOT(setCommit),
    ZEFS_SLOT(load),
    ZEFS_SLOT(UpdateExtPath),
    ZEFS_SLOT(save),
    ZEFS_SLOT(remove),
    ZEFS_SLOT(checkAndBackfillObjectIDUnlock),
    ZEFS_SLOT(checkAndBackfillObjectID),
    ZEFS_SLOT(Snapshot),
    ZEFS_SLOT(SetObjectID),
    ZEFS_SLOT(GetObjectIdsAndOffsets),
    ZEFS_SLOT(UpdateObjectIdsByRange),
    ZEFS_SLOT(GetNewReferencedDCID),
    ZEFS_SLOT(GetReferencedFP),
    ZEFS_SLOT(GetDCIDAndFP),
    ZEFS_SLOT(GetDCIDAndFPs),
    ZEFS_SLOT(GetDCIDAndBloomFilter),
    ZEFS_SLOT(SetDOID),
    ZEFS_SLOT(GetDOID),
    ZEFS_SLOT(IsDataChanged),
    ZEFS_SLOT(GetWritingNodesCount),
    ZEFS_SLOT(GetWritingNodes),
    ZEFS_SLOT(GetDCInfoList),
    ZEFS_SLOT(GetEmptyDcOffsetList),
    ZEFS_SLOT(BackfillDcOffset),
    ZEFS_SLOT(AppendToRefreshDcOffsetList),
    ZEFS_SLOT(GetExtentData),
    ZEFS_SLOT(setExtMapVersion),
    ZEFS_SLOT(getExtMapVersion)};

/// One operation behind those of the table: shows how many slots it has.
struct OneMore : Table {
  virtual void more() {}
};

std::set<std::string> Swept() {
  std::set<std::string> names;
  for (const Operation& operation : PersistentOperations()) {
    names.insert(operation.name.substr(0, operation.name.find(',')));
  }
  return names;
}

TEST(SweptOperationsTest, EveryVirtualOperationIsAmongThem) {
  std::set<std::size_t> slots;
  for (const auto& [name, slot] : kSlots) {
    EXPECT_EQ(1U, Swept().count(name)) << name;
    slots.insert(slot);
  }
  std::set<std::size_t> all;
  for (std::size_t slot = 2; slot < SlotOf(&OneMore::more); ++slot) {  // behind the destructor's
    all.insert(slot);
  }
  EXPECT_EQ(all, slots);
}

TEST(SweptOperationsTest, AreThoseBesideTheVirtualOnes) {
  EXPECT_THAT(Swept(), testing::IsSupersetOf({"constructor", "destructor", "merge", "iterator",
                                              "LmdbWriteExtentTxn", "GetExtentPathInMVolume",
                                              "GetMapAbsolutePath", "GetMapRelativePath",
                                              "GetMapIndexSet", "ExtLMDB::update"}));
}

TEST(SweptOperationsTest, HaveNamesOfTheirOwn) {
  std::set<std::string> names;
  for (const Operation& operation : PersistentOperations()) {
    EXPECT_TRUE(names.insert(operation.name).second) << operation.name;
  }
}

}  // namespace
}  // namespace zefs::test
