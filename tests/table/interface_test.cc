#include <memory>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/vtable_slot.h"
#include "tests/table/code_of.h"
#include "tests/table/table_fixture.h"
#include "tests/table/table_slots.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::CodeOf;
using zefs::test::Oid;
using zefs::test::SlotOf;
using zefs::test::TableTest;

// --- slots -----------------------------------------------------------------------------------

/// One operation behind those of the table, and of a node: shows how many slots they have.
struct OneMoreTable : CMappingTable {
  virtual void more() {}
};
struct OneMoreNode : CMapNode {
  virtual void more() = 0;
};

TEST(InterfaceSlotTest, OperationsOfTheTableStandInTheirSlots) {
  const std::size_t slot = zefs::test::ExpectSlotsOfTheTable<CMappingTable>();
  EXPECT_EQ(slot, SlotOf(&OneMoreTable::more)) << "nothing stands behind";
}

/// One operation behind those of the base: shows how many slots the base has.
struct OneMorePosition : CMappingTable::iteratorbase {
  using iteratorbase::operator=;
  virtual void more() = 0;
};

TEST(InterfaceSlotTest, OperationsOfAnIteratorStandInTheirSlots) {
  using I = CMappingTable::iteratorbase;
  EXPECT_EQ(0U, SlotOf(&I::clone));
  EXPECT_EQ(1U, SlotOf(static_cast<I& (I::*)(const I&)>(&I::operator=)));
  EXPECT_EQ(2U, SlotOf(&I::operator*));
  EXPECT_EQ(3U, SlotOf(&I::operator->));
  EXPECT_EQ(4U, SlotOf(&I::operator--));
  EXPECT_EQ(5U, SlotOf(&I::operator++));
  EXPECT_EQ(6U, SlotOf(&I::operator==));
  EXPECT_EQ(7U, SlotOf(&I::operator!=));
  EXPECT_EQ(10U, SlotOf(&OneMorePosition::more)) << "the destructor's two slots come last";
}

TEST(InterfaceSlotTest, OperationsOfANodeStandInTheirSlots) {
  using N = CMapNode;
  std::size_t slot = 2;  // behind the destructor
  EXPECT_EQ(slot++, SlotOf(&N::addExt));
  EXPECT_EQ(slot++, SlotOf(&N::appendExt));
  EXPECT_EQ(slot++, SlotOf(&N::deleteExt));
  EXPECT_EQ(slot++, SlotOf(&N::lower_bound));
  EXPECT_EQ(slot++, SlotOf(&N::isKeyNode));
  EXPECT_EQ(slot++, SlotOf(&N::getStartOffset));
  EXPECT_EQ(slot++, SlotOf(&N::getEndOffset));
  EXPECT_EQ(slot++, SlotOf(&N::hasEnoughItems));
  EXPECT_EQ(slot++, SlotOf(&N::canBorrowItem));
  EXPECT_EQ(slot++, SlotOf(&N::hasTooManyItems));
  EXPECT_EQ(slot++, SlotOf(&N::moveItems));
  EXPECT_EQ(slot++, SlotOf(&N::getItemNum));
  EXPECT_EQ(slot++, SlotOf(&N::consist));
  EXPECT_EQ(slot++, SlotOf(&N::shadow));
  EXPECT_EQ(slot++, SlotOf(&N::checkNode));
  EXPECT_EQ(slot++, SlotOf(&N::dump));
  EXPECT_EQ(slot++, SlotOf(&N::deleteTree));
  EXPECT_EQ(slot++, SlotOf(&N::getTreeSize));
  EXPECT_EQ(slot++, SlotOf(&N::GetSize));
  EXPECT_EQ(slot, SlotOf(&OneMoreNode::more)) << "nothing stands behind";
}

TEST(InterfaceSlotTest, APlainMemberHasNoSlot) {
  EXPECT_EQ(static_cast<std::size_t>(-1), SlotOf(&CMappingTable::consist));
  EXPECT_EQ(static_cast<std::size_t>(-1), SlotOf(&CMappingTable::_find));
  EXPECT_EQ(static_cast<std::size_t>(-1), SlotOf(&CMappingTable::InnerAddReference));
}

// --- what has no meaning in memory -----------------------------------------------------------

class NeutralTest : public TableTest {};

TEST_F(NeutralTest, TheFileSizeIsNotRecorded) {
  EXPECT_EQ(0, table_.setFileSize(4096));
  EXPECT_EQ(0, table_.getFileSize());
}

TEST_F(NeutralTest, DataCountsAsChangedEvenIfItNeverWas) {
  EXPECT_TRUE(table_.IsDataChanged());
}

TEST_F(NeutralTest, TheCommitFlagStartsFalseAndIsKept) {
  EXPECT_FALSE(table_.needCommit());
  table_.setCommit(true);
  EXPECT_TRUE(table_.needCommit());
  Append(0, 10);
  EXPECT_TRUE(table_.needCommit()) << "the library never writes it";
  table_.setCommit(false);
  EXPECT_FALSE(table_.needCommit());
}

TEST_F(NeutralTest, NothingHappensAndNothingIsFilled) {
  Append(0, 10);
  EXPECT_EQ(0, table_.load("/nowhere", true, "prefix"));
  table_.UpdateExtPath("/elsewhere");
  EXPECT_EQ(0, table_.save("/nowhere", 1));
  EXPECT_EQ(0, table_.remove("/nowhere"));
  table_.checkAndBackfillObjectIDUnlock(true);
  int node = 0;
  std::set<void*> released{&node};
  table_.checkAndBackfillObjectID(&released, true, "scope", "share", nullptr, nullptr);
  EXPECT_EQ(std::set<void*>{&node}, released);
  EXPECT_EQ(0, table_.Snapshot("/from", "/to"));
  std::unordered_map<unsigned long, unsigned long> dcids{{1, 2}};
  std::vector<crfp_digest_t> digests(3);
  EXPECT_EQ(0, table_.GetDCIDAndFPs(&dcids, &digests));
  EXPECT_EQ(1U, dcids.size());
  EXPECT_EQ(3U, digests.size());
  std::vector<std::pair<unsigned long, unsigned long>> pairs{{1, 2}};
  std::unique_ptr<BloomFilter> filter;
  table_.GetDCIDAndBloomFilter(&pairs, &filter);
  EXPECT_EQ(1U, pairs.size());
  EXPECT_EQ(nullptr, filter);
  ObjectID oid = Oid(80);
  EXPECT_EQ(0, table_.SetDOID(&oid));
  oid = Oid(90);
  EXPECT_EQ(0, table_.GetDOID(&oid));
  EXPECT_EQ(90U, oid.dcid);
  std::list<zefs::DataCacheManagementInterface::DCInfo> plan;
  table_.GetDCInfoList({}, &plan);
  EXPECT_TRUE(plan.empty());
  std::vector<zefs::DCOffset> offsets;
  EXPECT_EQ(0, table_.GetEmptyDcOffsetList(&offsets));
  EXPECT_TRUE(offsets.empty());
  offsets.resize(1);
  EXPECT_EQ(0, table_.BackfillDcOffset(offsets));
  EXPECT_EQ(1U, offsets.size());
  EXPECT_EQ(0, table_.AppendToRefreshDcOffsetList(0, 64, crfp_digest_t{}));
  EXPECT_TRUE(table_.checkTable());
  EXPECT_EQ(1, table_.size());
  ExpectSound();
}

// --- iterators as values ---------------------------------------------------------------------

class IteratorValueTest : public TableTest {};

TEST_F(IteratorValueTest, CopiesAndAssignmentsAreIndependent) {
  AppendRow(5);
  auto first = table_.begin();
  auto copy = first;
  ++copy;
  EXPECT_EQ(10, first->sOff);
  EXPECT_EQ(20, copy->sOff);
  EXPECT_TRUE(first != copy);
  auto assigned = table_.end();
  assigned = copy;
  ++copy;
  EXPECT_EQ(20, assigned->sOff);
  EXPECT_EQ(30, copy->sOff);
  auto& self = assigned;
  assigned = self;
  EXPECT_EQ(20, assigned->sOff);
  EXPECT_EQ(20, (*assigned).sOff);
}

TEST_F(IteratorValueTest, SteppingReturnsTheIteratorItself) {
  AppendRow(3);
  auto it = table_.begin();
  EXPECT_EQ(&it, &++it);
  EXPECT_EQ(&it, &--it);
  EXPECT_EQ(10, it->sOff);
}

/// An iterator of no table.
struct Foreign : CMappingTable::iteratorbase {
  iteratorbase* clone() const override { return new Foreign(*this); }
  iteratorbase& operator=(const iteratorbase&) override { return *this; }
  Foreign() = default;
  Foreign(const Foreign&) = default;
  Foreign& operator=(const Foreign&) { return *this; }
  Ext& operator*() const override { throw SysException(1); }
  Ext* operator->() const override { throw SysException(1); }
  iteratorbase& operator--() override { return *this; }
  iteratorbase& operator++() override { return *this; }
  bool operator==(const iteratorbase&) const override { return true; }
  bool operator!=(const iteratorbase&) const override { return false; }
};

TEST_F(IteratorValueTest, AForeignOperandThrowsFourteen) {
  AppendRow(1);
  const auto mine = table_.begin();
  const CMappingTable::iterator foreign(std::make_unique<Foreign>());
  EXPECT_EQ(14, CodeOf([&] { (void)(mine == foreign); }));
  EXPECT_EQ(14, CodeOf([&] { (void)(mine != foreign); }));
  CMappingTable::iteratorimp position(nullptr, 0);
  CMappingTable::iteratorbase& base = position;
  const Foreign other;
  EXPECT_EQ(14, CodeOf([&] { base = static_cast<const CMappingTable::iteratorbase&>(other); }));
}

TEST_F(IteratorValueTest, AnEmptyRightSideCountsAsForeign) {
  AppendRow(1);
  const auto mine = table_.begin();
  const CMappingTable::iterator empty;
  EXPECT_EQ(14, CodeOf([&] { (void)(mine == empty); }));
  EXPECT_EQ(14, CodeOf([&] { (void)(mine != empty); }));
}

TEST_F(IteratorValueTest, AnEmptyLeftSideThrowsFourteen) {
  AppendRow(1);
  const auto mine = table_.begin();
  CMappingTable::iterator empty;
  EXPECT_EQ(14, CodeOf([&] { (void)(empty == mine); }));
  EXPECT_EQ(14, CodeOf([&] { (void)(empty != mine); }));
  EXPECT_EQ(14, CodeOf([&] { (void)*empty; }));
  EXPECT_EQ(14, CodeOf([&] { (void)empty->sOff; }));
  EXPECT_EQ(14, CodeOf([&] { ++empty; }));
  EXPECT_EQ(14, CodeOf([&] { --empty; }));
  const CMappingTable::iterator copy(empty);
  empty = mine;
  EXPECT_TRUE(empty == mine);
  empty = copy;
  EXPECT_EQ(14, CodeOf([&] { (void)(empty == mine); }));
}

TEST_F(IteratorValueTest, PositionsOfOneKindAssignAndCompareThroughTheBase) {
  AppendRow(2);
  CMappingTable::iteratorimp a(&Leaf(0), 0);
  CMappingTable::iteratorimp b(&Leaf(0), 1);
  CMappingTable::iteratorbase& baseA = a;
  const CMappingTable::iteratorbase& baseB = b;
  EXPECT_TRUE(baseA != baseB);
  baseA = baseB;
  EXPECT_TRUE(baseA == baseB);
  EXPECT_EQ(1, a.index);
}

}  // namespace
