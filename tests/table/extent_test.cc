#include "table/extent.h"

#include <climits>
#include <cstddef>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "host/data_cache.h"
#include "table/fingerprint.h"
#include "tests/support/vtable_slot.h"
#include "tests/table/table_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::Oid;
using zefs::test::SlotOf;

TEST(ExtentLayoutTest, RecordsHaveTheirFieldsInOrder) {
  EXPECT_EQ(0U, offsetof(ObjectID, dcid));
  EXPECT_EQ(8U, offsetof(ObjectID, fp));
  EXPECT_EQ(40U, offsetof(ObjectID, attrByte));
  EXPECT_EQ(44U, offsetof(ObjectID, attrWord));
  EXPECT_EQ(48U, offsetof(ObjectID, attrFlag));
  EXPECT_EQ(56U, sizeof(ObjectID));

  const Ext ext;
  const auto offsetIn = [&ext](const void* field) {
    return static_cast<const char*>(field) - reinterpret_cast<const char*>(&ext);
  };
  EXPECT_EQ(8, offsetIn(&ext.objectID));
  EXPECT_EQ(64, offsetIn(&ext.objCksum));
  EXPECT_EQ(72, offsetIn(&ext.objOff));
  EXPECT_EQ(80, offsetIn(&ext.sOff));
  EXPECT_EQ(88, offsetIn(&ext.eOff));
  EXPECT_EQ(96, offsetIn(&ext.data));
  EXPECT_EQ(104, offsetIn(&ext.dcOffset));
  EXPECT_EQ(112U, sizeof(Ext));

  EXPECT_EQ(0U, offsetof(Key, sOff));
  EXPECT_EQ(8U, offsetof(Key, eOff));
  EXPECT_EQ(16U, offsetof(Key, rnode));
  EXPECT_EQ(24U, offsetof(Key, wnode));

  EXPECT_EQ(0U, offsetof(Extent, tag));
  EXPECT_EQ(8U, offsetof(Extent, start));
  EXPECT_EQ(16U, offsetof(Extent, end));
  EXPECT_EQ(24U, offsetof(Extent, offset));
  EXPECT_EQ(32U, offsetof(Extent, dcid));
  EXPECT_EQ(40U, offsetof(Extent, fp));
  EXPECT_EQ(72U, offsetof(Extent, op));
  EXPECT_EQ(80U, sizeof(Extent));
  EXPECT_EQ(4U, sizeof(op_t));
  EXPECT_EQ(0U, ADD);
  EXPECT_EQ(1U, DEL);

  using WithOffset = zefs::DataCacheNode::ObjectID_With_Offset;
  EXPECT_EQ(0U, offsetof(WithOffset, objectID));
  EXPECT_EQ(56U, offsetof(WithOffset, startOffset));
  EXPECT_EQ(64U, offsetof(WithOffset, endOffset));
  EXPECT_EQ(72U, sizeof(WithOffset));
  EXPECT_EQ(64U, sizeof(ObjectIDAndDCOff));
  EXPECT_EQ(72U, sizeof(DataCacheNodePointerWithStatus));
  EXPECT_EQ(0U, offsetof(ObjectIDAndDCOff, objectID));
  EXPECT_EQ(56U, offsetof(ObjectIDAndDCOff, dcOffset));
  EXPECT_EQ(0U, offsetof(DataCacheNodePointerWithStatus, node));
  EXPECT_EQ(8U, offsetof(DataCacheNodePointerWithStatus, status));
  EXPECT_EQ(16U, offsetof(DataCacheNodePointerWithStatus, objectID));
  EXPECT_EQ(0U, offsetof(zefs::DCOffset, key));
  EXPECT_EQ(8U, offsetof(zefs::DCOffset, dcid));
  EXPECT_EQ(16U, offsetof(zefs::DCOffset, fp));
  EXPECT_EQ(48U, offsetof(zefs::DCOffset, dcOffset));
  EXPECT_EQ(56U, sizeof(zefs::DCOffset));

  using Dci = zefs::DataCacheManagementInterface;
  EXPECT_EQ(0U, offsetof(Dci::PrefetchRange, start));
  EXPECT_EQ(8U, offsetof(Dci::PrefetchRange, end));
  EXPECT_EQ(16U, offsetof(Dci::PrefetchRange, rangeTag));
  EXPECT_EQ(0U, offsetof(Dci::DCInfo, dcid));
  EXPECT_EQ(8U, offsetof(Dci::DCInfo, extents));
  EXPECT_EQ(32U, offsetof(Dci::DCInfo, totalBytes));
  EXPECT_EQ(36U, offsetof(Dci::DCInfo, reserved));
  EXPECT_EQ(40U, offsetof(Dci::DCInfo, rangeTag));
  EXPECT_EQ(0U, offsetof(Dci::ExtInfo, objectID));
  EXPECT_EQ(56U, offsetof(Dci::ExtInfo, sOff));
  EXPECT_EQ(64U, offsetof(Dci::ExtInfo, objOff));
  EXPECT_EQ(68U, offsetof(Dci::ExtInfo, length));
  EXPECT_EQ(72U, offsetof(Dci::ExtInfo, dcOffset));
  EXPECT_EQ(80U, offsetof(Dci::ExtInfo, millis));
  EXPECT_EQ(88U, offsetof(Dci::ExtInfo, inRange));
  EXPECT_EQ(96U, sizeof(Dci::ExtInfo));
  EXPECT_EQ(24U, sizeof(Dci::PrefetchRange));
  EXPECT_EQ(48U, sizeof(Dci::DCInfo));
}

TEST(ExtentLayoutTest, DefaultsOfTheHostsRecords) {
  const ObjectID oid;
  EXPECT_EQ(0U, oid.dcid);
  EXPECT_EQ(0, oid.attrByte);
  EXPECT_EQ(0U, oid.attrWord);
  EXPECT_EQ(0, oid.attrFlag);
  const zefs::DCOffset entry;
  EXPECT_EQ(-1, entry.key);
  EXPECT_EQ(0U, entry.dcid);
  EXPECT_EQ(crfp_digest_t{}, entry.fp);
  EXPECT_EQ(-1, entry.dcOffset);
  EXPECT_EQ(0U, zefs::DataCacheManagementInterface::DCInfo{}.reserved);
}

/// One operation behind those of Ext: shows how many slots Ext has.
struct OneMore : Ext {
  virtual void more() {}
};

TEST(ExtentSlotTest, OperationsStandInTheirSlots) {
  EXPECT_EQ(0U, SlotOf(&Ext::getObjectID));
  EXPECT_EQ(1U, SlotOf(&Ext::setObjectID));
  EXPECT_EQ(2U, SlotOf(&Ext::getData));
  EXPECT_EQ(3U, SlotOf(&Ext::setData));
  EXPECT_EQ(4U, SlotOf(&Ext::getObjCksum));
  EXPECT_EQ(5U, SlotOf(&Ext::setObjCksum));
  EXPECT_EQ(6U, SlotOf(&Ext::getObjOff));
  EXPECT_EQ(7U, SlotOf(&Ext::setObjOff));
  EXPECT_EQ(8U, SlotOf(&Ext::getSOff));
  EXPECT_EQ(9U, SlotOf(&Ext::setSOff));
  EXPECT_EQ(10U, SlotOf(&Ext::getEOff));
  EXPECT_EQ(11U, SlotOf(&Ext::setEOff));
  EXPECT_EQ(12U, SlotOf(&Ext::getDCOffset));
  EXPECT_EQ(13U, SlotOf(&Ext::setDCOffset));
  EXPECT_EQ(14U, SlotOf(&Ext::update));
  EXPECT_EQ(17U, SlotOf(&OneMore::more)) << "the destructor's two slots come last";
}

TEST(ExtentTest, AccessorsReadAndWriteTheirFields) {
  Ext ext = Ext::Probe(0, 0);
  int node = 0;
  ext.setObjectID(Oid(70, 5));
  ext.setData(&node);
  ext.setObjCksum(11);
  ext.setObjOff(12);
  ext.setSOff(13);
  ext.setEOff(14);
  ext.setDCOffset(15);
  EXPECT_EQ(70U, ext.getObjectID().dcid);
  EXPECT_EQ(Oid(70, 5).fp, ext.getObjectID().fp);
  EXPECT_EQ(6, ext.getObjectID().attrByte);
  EXPECT_EQ(7U, ext.getObjectID().attrWord);
  EXPECT_EQ(8, ext.getObjectID().attrFlag);
  EXPECT_EQ(&node, ext.getData());
  EXPECT_EQ(11, ext.getObjCksum());
  EXPECT_EQ(12, ext.getObjOff());
  EXPECT_EQ(13, ext.getSOff());
  EXPECT_EQ(14, ext.getEOff());
  EXPECT_EQ(15, ext.getDCOffset());
  EXPECT_EQ(0, ext.update());
}

TEST(ExtentTest, ConstructionFromANullObjectIdIsAllZero) {
  int node = 0;
  const Ext ext(1, 2, nullptr, 3, 4, &node);
  EXPECT_EQ(0U, ext.objectID.dcid);
  EXPECT_EQ(crfp_digest_t{}, ext.objectID.fp);
  EXPECT_EQ(0, ext.objectID.attrByte);
  EXPECT_EQ(0U, ext.objectID.attrWord);
  EXPECT_EQ(0, ext.objectID.attrFlag);
  EXPECT_EQ(1, ext.sOff);
  EXPECT_EQ(2, ext.eOff);
  EXPECT_EQ(3, ext.objOff);
  EXPECT_EQ(4, ext.objCksum);
  EXPECT_EQ(&node, ext.data);
  EXPECT_EQ(-1, ext.dcOffset);
}

TEST(ExtentTest, AProbeIsZeroButForItsRange) {
  const Ext probe = Ext::Probe(5, 6);
  EXPECT_EQ(5, probe.sOff);
  EXPECT_EQ(6, probe.eOff);
  EXPECT_EQ(0U, probe.objectID.dcid);
  EXPECT_EQ(0, probe.objOff);
  EXPECT_EQ(0, probe.objCksum);
  EXPECT_EQ(nullptr, probe.data);
  EXPECT_EQ(-1, probe.dcOffset);
}

/// Counts the changes of the node pointer that it is told of.
struct Watching : Ext {
  using Ext::Ext;
  Watching(const Watching&) = default;
  Watching& operator=(const Watching&) = default;
  void setData(void* node) override {
    ++changes;
    Ext::setData(node);
  }
  int changes = 0;
};

TEST(ExtentTest, CopyingSharesTheNodeAndDestroyingEitherLeavesItAlone) {
  int node = 7;
  const ObjectID oid = Oid(99, 3);
  auto first = std::make_unique<Ext>(1, 2, &oid, 3, 4, &node);
  first->dcOffset = 9;
  auto second = std::make_unique<Ext>(*first);
  const Ext third(*second);
  for (const Ext* copy : {static_cast<const Ext*>(second.get()), &third}) {
    EXPECT_EQ(99U, copy->objectID.dcid);
    EXPECT_EQ(oid.fp, copy->objectID.fp);
    EXPECT_EQ(oid.attrByte, copy->objectID.attrByte);
    EXPECT_EQ(oid.attrWord, copy->objectID.attrWord);
    EXPECT_EQ(oid.attrFlag, copy->objectID.attrFlag);
    EXPECT_EQ(4, copy->objCksum);
    EXPECT_EQ(3, copy->objOff);
    EXPECT_EQ(1, copy->sOff);
    EXPECT_EQ(2, copy->eOff);
    EXPECT_EQ(9, copy->dcOffset);
    EXPECT_EQ(&node, copy->data);
  }
  second.reset();
  EXPECT_EQ(&node, first->data) << "the copy went first";
  first.reset();
  EXPECT_EQ(&node, third.data);
  EXPECT_EQ(7, node);
}

TEST(ExtentTest, CopyConstructionTellsNobody) {
  int node = 0;
  const Watching original(1, 2, nullptr, 3, 4, &node);
  const Watching copy(original);
  EXPECT_EQ(0, copy.changes);
  EXPECT_EQ(&node, copy.data);
}

TEST(ExtentTest, AssignmentCopiesAllFieldsAndTellsADerivedClassOfTheNode) {
  int node = 0;
  const ObjectID oid = Oid(99, 3);
  Ext source(1, 2, &oid, 3, 4, &node);
  source.dcOffset = 5;
  Watching target(0, 0, nullptr, 0, 0, nullptr);
  static_cast<Ext&>(target) = source;
  EXPECT_EQ(1, target.changes);
  EXPECT_EQ(&node, target.data);
  EXPECT_EQ(99U, target.objectID.dcid);
  EXPECT_EQ(oid.fp, target.objectID.fp);
  EXPECT_EQ(oid.attrByte, target.objectID.attrByte);
  EXPECT_EQ(oid.attrWord, target.objectID.attrWord);
  EXPECT_EQ(oid.attrFlag, target.objectID.attrFlag);
  EXPECT_EQ(1, target.sOff);
  EXPECT_EQ(2, target.eOff);
  EXPECT_EQ(3, target.objOff);
  EXPECT_EQ(4, target.objCksum);
  EXPECT_EQ(5, target.dcOffset);
}

// --- orderings -------------------------------------------------------------------------------

struct Order {
  const char* name;
  std::pair<long, long> a;
  std::pair<long, long> b;
  bool less;     // a before b
  bool greater;  // b before a
};

class OrderTest : public testing::TestWithParam<Order> {};

TEST_P(OrderTest, OfExtentsAndOfKeys) {
  const Order& row = GetParam();
  const Ext extA = Ext::Probe(row.a.first, row.a.second);
  const Ext extB = Ext::Probe(row.b.first, row.b.second);
  EXPECT_EQ(row.less, compareExt(extA, extB)) << row.name;
  EXPECT_EQ(row.greater, compareExt(extB, extA)) << row.name;
  const Key keyA{row.a.first, row.a.second, nullptr, nullptr};
  const Key keyB{row.b.first, row.b.second, nullptr, nullptr};
  EXPECT_EQ(row.less, compareKey(keyA, keyB)) << row.name;
  EXPECT_EQ(row.greater, compareKey(keyB, keyA)) << row.name;
}

INSTANTIATE_TEST_SUITE_P(
    Edges, OrderTest,
    testing::Values(
        Order{"an extent and itself", {10, 20}, {10, 20}, false, false},
        Order{"a probe at the start of an extent", {10, 20}, {10, 11}, false, false},
        Order{"a probe inside an extent", {10, 20}, {15, 16}, false, false},
        Order{"a probe on the last byte of an extent", {10, 20}, {19, 20}, false, false},
        Order{"an extent that ends at the probe", {10, 20}, {20, 21}, true, false},
        Order{"an extent that starts one behind the probe", {10, 20}, {9, 10}, false, true},
        Order{"an extent far before the probe", {10, 20}, {100, 101}, true, false},
        Order{"two that overlap and neither covers", {0, 10}, {5, 15}, true, true},
        Order{"two that touch", {0, 10}, {10, 20}, true, false},
        Order{"one that covers the other", {0, 100}, {10, 20}, false, false},
        Order{"one that covers from the same start", {0, 100}, {0, 20}, false, false},
        Order{"one that covers to the same end", {0, 100}, {20, 100}, false, false},
        Order{"a range without bytes inside another", {0, 10}, {5, 5}, false, false},
        Order{"a range without bytes at the start", {5, 10}, {5, 5}, false, false},
        Order{"a range without bytes at the end", {5, 10}, {10, 10}, false, false},
        Order{"a range without bytes behind another", {5, 10}, {11, 11}, true, false},
        Order{"below zero", {-20, -10}, {-10, 5}, true, false},
        Order{"at the ends of the numbers", {LONG_MIN, 0}, {0, LONG_MAX}, true, false}));

/// Calls of virtual operations would be seen here.
struct Loud : Ext {
  using Ext::Ext;
  long getSOff() override { throw 1; }
  long getEOff() override { throw 1; }
};

TEST(OrderOfDerivedTest, ComparingReadsTheFields) {
  const Loud a(0, 10, nullptr, 0, 0, nullptr);
  const Loud b(10, 20, nullptr, 0, 0, nullptr);
  EXPECT_TRUE(compareExt(a, b));
}

// --- fingerprints ----------------------------------------------------------------------------

TEST(FingerprintTest, CompareGivesTheDifferenceOfTheFirstBytesThatDiffer) {
  crfp_digest_t a{};
  crfp_digest_t b{};
  EXPECT_EQ(0, CRFPDigestCompare(a.data(), b.data(), kCrfpDigestKind));
  a[31] = 1;
  EXPECT_EQ(1, CRFPDigestCompare(a.data(), b.data(), kCrfpDigestKind));
  EXPECT_EQ(-1, CRFPDigestCompare(b.data(), a.data(), kCrfpDigestKind));
  b[4] = 0xff;
  EXPECT_EQ(-255, CRFPDigestCompare(a.data(), b.data(), kCrfpDigestKind));
  EXPECT_EQ(255, CRFPDigestCompare(b.data(), a.data(), kCrfpDigestKind));
  a[0] = 0x80;
  EXPECT_EQ(0x80, CRFPDigestCompare(a.data(), b.data(), kCrfpDigestKind)) << "unsigned";
}

TEST(FingerprintTest, TextIsSixtyFourCharactersAndANul) {
  const FingerprintText text = TextOf(Oid(64, 0xa1).fp);
  EXPECT_EQ("a1" + std::string(62, '0'), std::string(text.data()));
  EXPECT_EQ('\0', text[64]);
}

}  // namespace
