#pragma once

#include <cstddef>

#include <gtest/gtest.h>

#include "tests/support/vtable_slot.h"

namespace zefs::test {

/// Checks that the operations of every table stand in their slots in the class `T`, behind the two
/// of the destructor. Returns the slot behind the last of them.
template <typename T>
std::size_t ExpectSlotsOfTheTable() {
  const std::size_t slots[] = {
      SlotOf(&T::insert),
      SlotOf(&T::append),
      SlotOf(&T::setFileSize),
      SlotOf(&T::truncate),
      SlotOf(&T::getFileSize),
      SlotOf(&T::begin),
      SlotOf(&T::end),
      SlotOf(&T::find),
      SlotOf(&T::size),
      SlotOf(&T::getTableSize),
      SlotOf(&T::lower_bound),
      SlotOf(&T::lower_bound_in_cache),
      SlotOf(&T::needCommit),
      SlotOf(&T::setCommit),
      SlotOf(&T::load),
      SlotOf(&T::UpdateExtPath),
      SlotOf(&T::save),
      SlotOf(&T::remove),
      SlotOf(&T::checkAndBackfillObjectIDUnlock),
      SlotOf(&T::checkAndBackfillObjectID),
      SlotOf(&T::Snapshot),
      SlotOf(&T::SetObjectID),
      SlotOf(&T::GetObjectIdsAndOffsets),
      SlotOf(&T::UpdateObjectIdsByRange),
      SlotOf(&T::GetNewReferencedDCID),
      SlotOf(&T::GetReferencedFP),
      SlotOf(&T::GetDCIDAndFP),
      SlotOf(&T::GetDCIDAndFPs),
      SlotOf(&T::GetDCIDAndBloomFilter),
      SlotOf(&T::SetDOID),
      SlotOf(&T::GetDOID),
      SlotOf(&T::IsDataChanged),
      SlotOf(&T::GetWritingNodesCount),
      SlotOf(&T::GetWritingNodes),
      SlotOf(&T::GetDCInfoList),
      SlotOf(&T::GetEmptyDcOffsetList),
      SlotOf(&T::BackfillDcOffset),
      SlotOf(&T::AppendToRefreshDcOffsetList),
  };
  std::size_t expected = 2;
  for (const std::size_t slot : slots) {
    EXPECT_EQ(expected, slot) << "operation " << expected - 2;
    ++expected;
  }
  return expected;
}

}  // namespace zefs::test
