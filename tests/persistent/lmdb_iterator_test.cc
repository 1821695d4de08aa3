// The iterator of the persistent table, and the extent that it holds.

#include "persistent/lmdb_iterator.h"

#include <memory>

#include <gmock/gmock.h>

#include "table/tree_iterator.h"
#include "tests/persistent/read_path_fixture.h"
#include "tests/table/code_of.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using testing::ElementsAre;
using testing::IsEmpty;
using zefs::test::CodeOf;
using zefs::test::Part;
using zefs::test::PartOf;

const Part kFirst{0, 10, 70};
const Part kSecond{20, 30, 71, 5};
const Part kThird{30, 40, 72};

class LmdbIteratorTest : public zefs::test::ReadPathTest {
 protected:
  using Iterator = Peer::Iterator;
  using Base = CMappingTable::iteratorbase;

  static ExtLMDB ExtOf(const Part& part) {
    ExtLMDB ext;
    ext.sOff = part.sOff;
    ext.eOff = part.eOff;
    ext.objectID = zefs::test::OidOf(part);
    ext.objOff = part.objOff;
    return ext;
  }
  Iterator On(const Part& part) { return Iterator(ExtOf(part), &table()); }

  CMappingLMDB& LoadThree() { return LoadOver({kFirst}, {kSecond, kThird}); }
};

// --- copies
// ----------------------------------------------------------------------------------------

TEST_F(LmdbIteratorTest, ACloneIsACopyOfItsOwn) {
  LoadThree();
  Iterator it = On(kFirst);
  const std::unique_ptr<Base> clone(it.clone());
  EXPECT_TRUE(*clone == it);
  EXPECT_EQ(kFirst, PartOf(**clone));
  EXPECT_NE(&*it, &**clone);
  ++*clone;
  EXPECT_EQ(kSecond, PartOf(**clone));
  EXPECT_EQ(kFirst, PartOf(*it)) << "the original has not moved";
}

TEST_F(LmdbIteratorTest, AnAssignmentTakesPositionExtentAndTable) {
  LoadThree();
  CMappingLMDB other(&cache_, "PROVISION");
  ExtLMDB ext = ExtOf(kSecond);
  int node = 0;
  ext.data = &node;
  ext.owner_ = &other;
  const Iterator from(ext, &table());
  Iterator to(&other);
  Base& base = to;
  EXPECT_EQ(&base, &(base = static_cast<const Base&>(from)));
  EXPECT_TRUE(to == from);
  EXPECT_EQ(kSecond, PartOf(*to));
  EXPECT_EQ(&node, to->data);
  EXPECT_EQ(&other, dynamic_cast<ExtLMDB&>(*to).owner_);
  ++to;
  EXPECT_EQ(kThird, PartOf(*to)) << "it walks the table that it has taken over";
}

TEST_F(LmdbIteratorTest, AnAssignmentToItselfChangesNothing) {
  LoadThree();
  Iterator it = On(kSecond);
  Base& base = it;
  EXPECT_EQ(&base, &(base = static_cast<const Base&>(it)));
  EXPECT_EQ(kSecond, PartOf(*it));
  EXPECT_TRUE(it == On(kSecond));
}

TEST_F(LmdbIteratorTest, AnAssignmentFromAnotherKindIsRefusedAndChangesNothing) {
  LoadThree();
  CMappingTable::iteratorimp ofTree(nullptr, 0);
  Iterator it = On(kSecond);
  Base& base = it;
  EXPECT_EQ(22, CodeOf([&] { base = static_cast<const Base&>(ofTree); }));
  EXPECT_EQ(kSecond, PartOf(*it));
  EXPECT_TRUE(it == On(kSecond));
  Base& treeBase = ofTree;
  EXPECT_EQ(14, CodeOf([&] { treeBase = static_cast<const Base&>(it); })) << "and the other way";
}

TEST_F(LmdbIteratorTest, TheValueClassCopiesAndAssignsAcrossKinds) {
  CMappingLMDB& stored = LoadThree();
  CMappingTable inMemory(nullptr);
  inMemory.insert(3, 4, nullptr, 0, 0, nullptr, -1, nullptr);

  auto it = stored.begin();
  const auto copy = it;
  ++it;
  EXPECT_EQ(kFirst, PartOf(*copy));
  EXPECT_EQ(kSecond, PartOf(*it));
  copy->objOff = 77;
  EXPECT_EQ(0, stored.begin()->objOff) << "an iterator shows a copy";

  auto other = inMemory.begin();
  other = it;
  EXPECT_EQ(kSecond, PartOf(*other));
  EXPECT_EQ(it, other);
  it = inMemory.begin();
  EXPECT_EQ(3, it->sOff);
}

// --- comparison
// ------------------------------------------------------------------------------------

TEST_F(LmdbIteratorTest, TableAndEndOffsetMakeTwoEqual) {
  CMappingLMDB& table = LoadThree();
  CMappingLMDB otherTable(&cache_, "PROVISION");
  const Iterator it = On(kSecond);
  EXPECT_TRUE(it == it);
  EXPECT_TRUE(it == On(kSecond));
  EXPECT_FALSE(it != On(kSecond));
  EXPECT_TRUE(it == On({25, kSecond.eOff, 99, 1})) << "the rest of the extent plays no part";
  EXPECT_FALSE(it == On(kThird));
  EXPECT_TRUE(it != On(kThird));
  EXPECT_FALSE(it == Iterator(ExtOf(kSecond), &otherTable));
  EXPECT_TRUE(it != Iterator(ExtOf(kSecond), &otherTable));
  EXPECT_TRUE(Iterator(&table) == Iterator(&table)) << "ends";
  EXPECT_FALSE(Iterator(&table) == Iterator(&otherTable));
}

TEST_F(LmdbIteratorTest, EveryIteratorThatIsAtTheEndEqualsTheEnd) {
  CMappingLMDB& table = LoadThree();
  auto it = table.lower_bound(35, nullptr);
  ++it;
  EXPECT_EQ(table.end(), it) << "though it still shows an extent";
  EXPECT_EQ(table.end(), table.lower_bound(40, nullptr));
  EXPECT_NE(table.end(), table.begin());
}

TEST_F(LmdbIteratorTest, AnotherKindIsNeverEqual) {
  CMappingLMDB& stored = LoadThree();
  CMappingTable inMemory(nullptr);
  const CMappingTable::iterator none;
  EXPECT_FALSE(stored.begin() == inMemory.begin());
  EXPECT_TRUE(stored.begin() != inMemory.begin());
  EXPECT_FALSE(stored.end() == inMemory.end());
  EXPECT_TRUE(stored.end() != inMemory.end());
  EXPECT_FALSE(stored.end() == none);
  EXPECT_TRUE(stored.end() != none);
  EXPECT_EQ(14, CodeOf([&] { (void)(none == stored.end()); })) << "nothing to ask";
  EXPECT_EQ(14, CodeOf([&] { (void)(inMemory.end() == stored.end()); })) << "the tree refuses";
  EXPECT_EQ(14, CodeOf([&] { (void)(inMemory.end() != stored.end()); }));
}

// --- steps
// -----------------------------------------------------------------------------------------

TEST_F(LmdbIteratorTest, StepsForwardShowTheExtentsInOrder) {
  CMappingLMDB& table = LoadThree();
  Cache({5, 25, 73, 100});
  std::vector<Part> seen;
  for (auto it = table.begin(); it != table.end(); ++it) {
    seen.push_back(PartOf(*it));
  }
  EXPECT_THAT(seen, ElementsAre(Part{0, 5, 70, 0}, Part{5, 25, 73, 100}, Part{25, 30, 71, 10},
                                Part{30, 40, 72, 0}));
}

TEST_F(LmdbIteratorTest, AStepReturnsTheIteratorAndIsALookUpFromItsEnd) {
  LoadThree();
  Iterator it = On(kSecond);
  EXPECT_EQ(&it, &++it);
  EXPECT_EQ("0 CMappingLMDB::GetNextExtent(), vOffset=30", Lines().front());
  EXPECT_TRUE(it == On(kThird));
}

TEST_F(LmdbIteratorTest, AStepBehindTheLastExtentGoesOnShowingIt) {
  CMappingLMDB& table = LoadThree();
  Iterator it = On(kThird);
  ++it;
  EXPECT_TRUE(it == Iterator(&table));
  EXPECT_EQ(kThird, PartOf(*it));
}

TEST_F(LmdbIteratorTest, AStepFromTheEndWrapsToTheFirstExtent) {
  CMappingLMDB& table = LoadThree();
  auto it = table.end();
  log_.Take();
  ++it;
  EXPECT_EQ("0 CMappingLMDB::GetNextExtent(), vOffset=-1", Lines().front());
  EXPECT_EQ(kFirst, PartOf(*it));
  EXPECT_EQ(table.begin(), it);
}

TEST_F(LmdbIteratorTest, AStepFromTheEndOfAnEmptyTableStaysThere) {
  CMappingLMDB& table = LoadOver({});
  auto it = table.end();
  ++it;
  EXPECT_EQ(table.end(), it);
}

TEST_F(LmdbIteratorTest, AStepTakesNoLockOfTheCache) {
  LoadThree();
  const CMappingTable::UniqueLock writer(peer().rwLock());
  Iterator it = On(kFirst);
  ++it;
  EXPECT_EQ(kSecond, PartOf(*it));
}

TEST_F(LmdbIteratorTest, ItGoesOnFromItsEndOffsetWhenTheTableHasChanged) {
  CMappingLMDB& table = LoadThree();
  auto it = table.begin();
  Cache({0, 25, 73});
  EXPECT_EQ(kFirst, PartOf(*it)) << "stale, and still there";
  ++it;
  EXPECT_EQ((Part{0, 25, 73}), PartOf(*it)) << "the extent that now holds its end offset";
}

TEST_F(LmdbIteratorTest, AStepBackIsRefusedAnywhereAndSaysSo) {
  CMappingLMDB& table = LoadThree();
  Iterator it = On(kSecond);
  EXPECT_EQ(-1, CodeOf([&] { --it; }));
  EXPECT_THAT(Lines(), ElementsAre("0 CMappingLMDB::GetPreviousExtent()"));
  EXPECT_EQ(kSecond, PartOf(*it));
  EXPECT_TRUE(it == On(kSecond));
  auto end = table.end();
  EXPECT_EQ(-1, CodeOf([&] { --end; }));
}

TEST_F(LmdbIteratorTest, WithoutATableNothingMoves) {
  LoadThree();
  Iterator it(ExtOf(kSecond), nullptr);
  EXPECT_EQ(&it, &++it);
  EXPECT_EQ(&it, &--it);
  EXPECT_EQ(kSecond, PartOf(*it));
  EXPECT_TRUE(it == Iterator(ExtOf(kSecond), nullptr));
  EXPECT_FALSE(it == On(kSecond));
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(LmdbIteratorTest, BothAccessesGiveTheOneExtentThatItHolds) {
  LoadThree();
  const Iterator it = On(kSecond);
  EXPECT_EQ(&*it, it.operator->());
  it->objOff = 9;
  EXPECT_EQ(9, (*it).objOff);
  EXPECT_TRUE(it == On(kSecond)) << "the position is not in the extent";
}

// --- the extent
// ------------------------------------------------------------------------------------

TEST_F(LmdbIteratorTest, ADefaultExtentIsZeroWithoutContainerOffsetAndTable) {
  const ExtLMDB ext;
  EXPECT_EQ((Part{0, 0, 0, 0}), PartOf(ext));
  EXPECT_EQ(ObjectID().fp, ext.objectID.fp);
  EXPECT_EQ(0, ext.objectID.attrByte);
  EXPECT_EQ(0U, ext.objectID.attrWord);
  EXPECT_EQ(0, ext.objectID.attrFlag);
  EXPECT_EQ(0, ext.objCksum);
  EXPECT_EQ(nullptr, ext.data);
  EXPECT_EQ(-1, ext.dcOffset);
  EXPECT_EQ(nullptr, ext.owner_);
}

/// Counts what goes through setData.
struct CountingExt : ExtLMDB {
  CountingExt() = default;
  CountingExt(const CountingExt&) = default;
  CountingExt& operator=(const CountingExt&) = default;
  void setData(void* node) override {
    ++sets;
    ExtLMDB::setData(node);
  }
  int sets = 0;
};

TEST_F(LmdbIteratorTest, AnExtentIsCopiedWithoutAndAssignedThroughItsVirtualOperation) {
  LoadThree();
  int node = 0;
  CountingExt from;
  static_cast<ExtLMDB&>(from) = ExtOf(kSecond);
  from.data = &node;
  from.dcOffset = 8;
  from.objCksum = 9;
  from.owner_ = &table();
  from.sets = 0;

  const CountingExt copy(from);
  EXPECT_EQ(0, copy.sets);
  CountingExt assigned;
  static_cast<ExtLMDB&>(assigned) = from;
  EXPECT_EQ(1, assigned.sets);
  for (const ExtLMDB* ext :
       {static_cast<const ExtLMDB*>(&copy), static_cast<const ExtLMDB*>(&assigned)}) {
    EXPECT_EQ(kSecond, PartOf(*ext));
    EXPECT_EQ(&node, ext->data);
    EXPECT_EQ(8, ext->dcOffset);
    EXPECT_EQ(9, ext->objCksum);
    EXPECT_EQ(&table(), ext->owner_);
  }
}

TEST_F(LmdbIteratorTest, AnExtentWithoutATableIsNotWrittenBack) {
  ExtLMDB ext = ExtOf(kSecond);
  log_.Take();
  EXPECT_EQ(-1, ext.update());
  EXPECT_THAT(Lines(), ElementsAre("0 ExtLMDB::update()"));
}

TEST_F(LmdbIteratorTest, AChangedExtentIsWrittenBackIntoTheCacheOfItsTable) {
  CMappingLMDB& table = LoadThree();
  int node = 0;
  auto found = table.lower_bound(20, nullptr);
  found->setDCOffset(50);
  found->setObjCksum(60);
  found->setObjOff(7);
  found->setSOff(22);
  found->setEOff(26);
  found->setData(&node);
  log_.Take();
  EXPECT_EQ(0, found->update());
  std::ostringstream address;
  address << static_cast<const void*>(&node);
  EXPECT_THAT(Lines(), ElementsAre("0 ExtLMDB::update()",
                                   "0 CMappingLMDB::insert2Cache(), start=22, end=26, "
                                   "offset=7, data=" +
                                       address.str()));
  const auto changed = table.lower_bound(22, nullptr);
  EXPECT_EQ((Part{22, 26, 71, 7}), PartOf(*changed));
  EXPECT_EQ(zefs::test::OidOf(kSecond).attrWord, changed->objectID.attrWord);
  EXPECT_EQ(&node, changed->data);
  EXPECT_EQ(0, changed->objCksum);
  EXPECT_EQ(-1, changed->dcOffset);
  EXPECT_EQ((Part{26, 30, 71, 11}), PartOf(*table.lower_bound(26, nullptr))) << "the rest stays";
}

/// Notes the write and hands out a code of its own.
struct RefusingTable : CMappingLMDB {
  using CMappingLMDB::CMappingLMDB;
  int insert(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum, void* data,
             int dcOffset, FILE* trace) override {
    written = {sOff, eOff, oid->dcid, objOff};
    checksum = objCksum;
    node = data;
    containerOffset = dcOffset;
    traced = trace != nullptr;
    return 33;
  }
  Part written{};
  long checksum = -1;
  void* node = nullptr;
  int containerOffset = 0;
  bool traced = true;
};

TEST_F(LmdbIteratorTest, WritingBackGoesThroughTheTablesOwnInsert) {
  RefusingTable refusing(&cache_, "PROVISION");
  int node = 0;
  ExtLMDB ext = ExtOf(kSecond);
  ext.objCksum = 4;
  ext.dcOffset = 5;
  ext.data = &node;
  ext.owner_ = &refusing;
  EXPECT_EQ(33, ext.update());
  EXPECT_EQ(kSecond, refusing.written);
  EXPECT_EQ(0, refusing.checksum);
  EXPECT_EQ(&node, refusing.node);
  EXPECT_EQ(-1, refusing.containerOffset);
  EXPECT_FALSE(refusing.traced);
}

}  // namespace
