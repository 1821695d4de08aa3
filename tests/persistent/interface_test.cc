// The shape of the class that other binaries rely on, and what is not in this version.

#include <cerrno>
#include <cstddef>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/persistent_fixture.h"
#include "tests/support/vtable_slot.h"
#include "tests/table/code_of.h"
#include "tests/table/table_slots.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::SlotOf;

class MappingLMDBInterfaceTest : public zefs::test::PersistentTableTest {
 protected:
  /// A member, and where it lies in the table.
  struct Place {
    std::string name;
    std::size_t offset;
    std::size_t size;
    std::size_t alignment;
  };
  template <typename Member>
  Place PlaceOf(const std::string& name, const Member& member) {
    const auto* const start = reinterpret_cast<const char*>(&table());
    return {name, static_cast<std::size_t>(reinterpret_cast<const char*>(&member) - start),
            sizeof(member), alignof(Member)};
  }
};

// --- slots -------------------------------------------------------------------------------------

/// One operation behind those of the table: shows how many slots it has.
struct OneMoreLMDB : CMappingLMDB {
  virtual void more() {}
};

TEST_F(MappingLMDBInterfaceTest, OperationsStandInTheirSlots) {
  using T = CMappingLMDB;
  std::size_t slot = zefs::test::ExpectSlotsOfTheTable<T>();
  EXPECT_EQ(slot++, SlotOf(&T::GetExtentData));
  EXPECT_EQ(slot++, SlotOf(&T::setExtMapVersion));
  EXPECT_EQ(slot++, SlotOf(&T::getExtMapVersion));
  EXPECT_EQ(slot, SlotOf(&OneMoreLMDB::more)) << "nothing stands behind";
}

TEST_F(MappingLMDBInterfaceTest, OverridesKeepTheSlotsOfTheInterface) {
  EXPECT_EQ(SlotOf(&CMappingTable::insert), SlotOf(&CMappingLMDB::insert));
  EXPECT_EQ(SlotOf(&CMappingTable::load), SlotOf(&CMappingLMDB::load));
  EXPECT_EQ(SlotOf(&CMappingTable::AppendToRefreshDcOffsetList),
            SlotOf(&CMappingLMDB::AppendToRefreshDcOffsetList));
}

template <typename Class, typename Result, typename... Arguments>
constexpr bool IsInherited(Result (Class::*)(Arguments...)) {
  return std::is_same_v<Class, CMappingTable>;
}
template <typename Class, typename Result, typename... Arguments>
constexpr bool IsInherited(Result (Class::*)(Arguments...) const) {
  return std::is_same_v<Class, CMappingTable>;
}

TEST_F(MappingLMDBInterfaceTest, FourOperationsAreThoseOfTheTableInMemory) {
  EXPECT_TRUE(IsInherited(&CMappingLMDB::needCommit));
  EXPECT_TRUE(IsInherited(&CMappingLMDB::setCommit));
  EXPECT_TRUE(IsInherited(&CMappingLMDB::GetDCIDAndFP));
  EXPECT_TRUE(IsInherited(&CMappingLMDB::GetWritingNodesCount));
  EXPECT_FALSE(IsInherited(&CMappingLMDB::append));
  CMappingLMDB& table = Make();
  EXPECT_FALSE(table.needCommit());
  table.setCommit(true);
  EXPECT_TRUE(table.needCommit());
  EXPECT_EQ(0U, table.GetWritingNodesCount());
}

// --- members -----------------------------------------------------------------------------------

TEST_F(MappingLMDBInterfaceTest, MembersLieInTheirOrderAndNothingBetweenThem) {
  Make();
  Peer p = peer();
  const std::vector<Place> places = {
      PlaceOf("tmpDb_", p.tmpDb()),
      PlaceOf("smallDb_", p.smallDb()),
      PlaceOf("fullDb_", p.fullDb()),
      PlaceOf("dbChain_", p.dbChain()),
      PlaceOf("lmdbApi_", p.lmdbApiMember()),
      PlaceOf("bigTableMapSize_", p.bigTableMapSize()),
      PlaceOf("extCache_", p.extCache()),
      PlaceOf("extDataPointers_", p.extDataPointers()),
      PlaceOf("sharedDataPointers_", p.sharedDataPointers()),
      PlaceOf("toBeReleased_", p.toBeReleased()),
      PlaceOf("objList_", p.objList()),
      PlaceOf("objListCount_", p.objListCount()),
      PlaceOf("fileSize_", p.fileSize()),
      PlaceOf("committedFileSize_", p.committedFileSize()),
      PlaceOf("extMapVersion_", p.extMapVersion()),
      PlaceOf("truncatePending_", p.truncatePending()),
      PlaceOf("path_", p.path()),
      PlaceOf("prefix_", p.prefix()),
      PlaceOf("merging_", p.merging()),
      PlaceOf("mergeThreads_", p.mergeThreads()),
      PlaceOf("mergeSwitched_", p.mergeSwitched()),
      PlaceOf("newDcidRefs_", p.newDcidRefs()),
      PlaceOf("commitCounter_", p.commitCounter()),
      PlaceOf("dataChanged_", p.dataChanged()),
      PlaceOf("doid_", p.doid()),
      PlaceOf("rwLock_", p.rwLock()),
      PlaceOf("mergeMutex_", p.mergeMutex()),
      PlaceOf("prefetchExts_", p.prefetchExts()),
      PlaceOf("prefetchLock_", p.prefetchLock()),
      PlaceOf("objListScanned_", p.objListScanned()),
      PlaceOf("objListCursor_", p.objListCursor()),
      PlaceOf("journal_", p.journalMember()),
      PlaceOf("tableType_", p.tableType()),
      PlaceOf("dcOffsetStore_", p.dcOffsetStoreMember()),
      PlaceOf("noMmap_", p.noMmap()),
  };
  const auto aligned = [](std::size_t offset, std::size_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
  };
  std::size_t end = sizeof(CMappingTable);
  for (const Place& place : places) {
    EXPECT_EQ(aligned(end, place.alignment), place.offset) << place.name;
    end = place.offset + place.size;
  }
  EXPECT_EQ(aligned(end, alignof(CMappingLMDB)), sizeof(CMappingLMDB)) << "nothing behind noMmap_";
}

TEST_F(MappingLMDBInterfaceTest, ANewTableIsClosedAndEmptyAndHasTouchedNoDisk) {
  Set(&FileSystemDaemonConfig::bigTableMapSizeGiB, 5U);
  Make("GENERIC");
  EXPECT_THAT(Lines(), testing::IsEmpty());
  EXPECT_FALSE(boost::filesystem::exists(Directory()));
  Peer p = peer();
  for (const LMDBContext* db : {&p.tmpDb(), &p.smallDb(), &p.fullDb()}) {
    EXPECT_EQ(nullptr, db->env);
    EXPECT_EQ(0U, db->dbi);
    EXPECT_EQ("", db->path);
    EXPECT_FALSE(db->opened);
  }
  EXPECT_THAT(p.dbChain(), testing::ElementsAre(&p.smallDb(), &p.fullDb()));
  ASSERT_NE(nullptr, p.lmdbApi());
  const storage::utils::LmdbCApiWrapper& api = *p.lmdbApi();
  EXPECT_EQ(typeid(storage::utils::LmdbCApiWrapper), typeid(api));
  EXPECT_EQ(5ULL << 30, p.bigTableMapSize());
  EXPECT_TRUE(p.extCache().empty());
  EXPECT_TRUE(p.extDataPointers().empty());
  EXPECT_TRUE(p.sharedDataPointers().empty());
  EXPECT_TRUE(p.toBeReleased().empty());
  EXPECT_TRUE(p.objList().empty());
  EXPECT_EQ(0U, p.objListCount());
  EXPECT_EQ(-1, p.fileSize());
  EXPECT_EQ(-1, p.committedFileSize());
  EXPECT_EQ(2, p.extMapVersion().major);
  EXPECT_EQ(0, p.extMapVersion().minor);
  EXPECT_FALSE(p.truncatePending());
  EXPECT_EQ("", p.path());
  EXPECT_EQ("", p.prefix());
  EXPECT_FALSE(p.merging());
  EXPECT_TRUE(p.mergeThreads().empty());
  EXPECT_FALSE(p.mergeSwitched());
  EXPECT_TRUE(p.newDcidRefs().empty());
  EXPECT_EQ(0, p.commitCounter());
  EXPECT_TRUE(p.dataChanged());
  EXPECT_EQ(0U, p.doid().dcid);
  EXPECT_EQ(crfp_digest_t{}, p.doid().fp);
  EXPECT_EQ(0, p.doid().attrByte);
  EXPECT_EQ(0U, p.doid().attrWord);
  EXPECT_EQ(0, p.doid().attrFlag);
  EXPECT_TRUE(p.prefetchExts().empty());
  EXPECT_EQ(0, p.objListScanned());
  EXPECT_EQ(p.objList().end(), p.objListCursor());
  EXPECT_EQ(nullptr, p.journal());
  EXPECT_EQ(nullptr, p.dcOffsetStore());
  EXPECT_FALSE(p.noMmap());
}

TEST_F(MappingLMDBInterfaceTest, TheLargestSettingOfTheMapSizeIsNotCutShort) {
  Set(&FileSystemDaemonConfig::bigTableMapSizeGiB, 0xffffffffU);
  Make();
  EXPECT_EQ(0xffffffffULL << 30, peer().bigTableMapSize());
}

TEST_F(MappingLMDBInterfaceTest, TheTypeIsComparedExactlyAndAnUnknownOneIsNoError) {
  const std::vector<std::pair<std::string, int>> numbers = {
      {"GENERIC", 0},    {"PROVISION", 2}, {"INGEST", 1},
      {"", 1},           {"generic", 1},   {"GENERIC ", 1},
      {"PROVISION2", 1}, {"PROVISIO", 1},  {std::string("GENERIC\0", 8), 1}};
  for (const auto& [type, number] : numbers) {
    Make(type);
    EXPECT_EQ(number, peer().tableType()) << '"' << type << '"';
  }
  EXPECT_STREQ("GENERIC", ZEFS_GENERIC_STR);
  EXPECT_STREQ("PROVISION", ZEFS_PROVISION_STR);
  EXPECT_STREQ("INGEST", ZEFS_INGEST_STR);
}

}  // namespace
