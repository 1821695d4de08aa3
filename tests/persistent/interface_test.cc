// The shape of the class that other binaries rely on, and what is not in this version.

#include <cerrno>

#include <gmock/gmock.h>

#include "tests/persistent/persistent_fixture.h"
#include "tests/support/vtable_slot.h"
#include "tests/table/code_of.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::CodeOf;
using zefs::test::SlotOf;

class MappingLMDBInterfaceTest : public zefs::test::PersistentTableTest {};

TEST_F(MappingLMDBInterfaceTest, OverridesKeepTheSlotsOfTheInterface) {
  EXPECT_EQ(SlotOf(&CMappingTable::insert), SlotOf(&CMappingLMDB::insert));
  EXPECT_EQ(SlotOf(&CMappingTable::AppendToRefreshDcOffsetList),
            SlotOf(&CMappingLMDB::AppendToRefreshDcOffsetList));
}

TEST_F(MappingLMDBInterfaceTest, ItsOwnThreeOperationsStandBehindThoseOfEveryTable) {
  const std::size_t last = SlotOf(&CMappingTable::AppendToRefreshDcOffsetList);
  EXPECT_EQ(last + 1, SlotOf(&CMappingLMDB::GetExtentData));
  EXPECT_EQ(last + 2, SlotOf(&CMappingLMDB::setExtMapVersion));
  EXPECT_EQ(last + 3, SlotOf(&CMappingLMDB::getExtMapVersion));
}

TEST_F(MappingLMDBInterfaceTest, WhatIsNotInThisVersionThrowsAndSaysSo) {
  CMappingLMDB& table = Load();
  log_.Take();
  EXPECT_EQ(ENOSYS, CodeOf([&] { table.truncate(0, nullptr); }));
  EXPECT_THAT(Lines(8), testing::ElementsAre(
                            "8 CMappingLMDB::truncate() is not in this version of the library"));
  EXPECT_EQ(ENOSYS, CodeOf([&] { table.remove("x"); }));
  EXPECT_EQ(ENOSYS, CodeOf([&] { table.IsDataChanged(); }));
  EXPECT_EQ(0, table.size()) << "nothing was touched";
}

TEST_F(MappingLMDBInterfaceTest, ANewDirectoryLoadsEmptyAndAWriteIsReadBack) {
  CMappingLMDB& table = Load();
  EXPECT_EQ(0, table.size());
  EXPECT_EQ(table.end(), table.begin());
  const ObjectID oid = zefs::test::Oid(70);
  EXPECT_EQ(0, table.insert(10, 20, &oid, 5, 9, nullptr, 7, nullptr));
  const auto found = table.lower_bound(12, nullptr);
  ASSERT_NE(table.end(), found);
  EXPECT_EQ(10, found->getSOff());
  EXPECT_EQ(20, found->getEOff());
  EXPECT_EQ(5, found->getObjOff());
  EXPECT_EQ(70U, found->getObjectID().dcid);
  EXPECT_EQ(0, found->getObjCksum());
  EXPECT_EQ(7, found->getDCOffset());
}

}  // namespace
