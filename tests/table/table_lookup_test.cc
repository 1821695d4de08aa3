#include <climits>

#include <boost/thread/lock_types.hpp>
#include <gtest/gtest.h>

#include "tests/table/table_fixture.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::TableTest;

class LookupTest : public TableTest {};

TEST_F(LookupTest, OnAnEmptyTableEverythingIsTheEnd) {
  EXPECT_TRUE(table_.begin() == table_.end());
  EXPECT_TRUE(table_.find(0, nullptr) == table_.end());
  EXPECT_TRUE(table_.lower_bound(0, nullptr) == table_.end());
  EXPECT_TRUE(table_.lower_bound_in_cache(0, nullptr) == table_.end());
  EXPECT_TRUE(table_._find(0) == table_.end());
  EXPECT_EQ(0, table_.size());
}

TEST_F(LookupTest, InAHoleTheExtentBehindItIsFound) {
  Append(10, 20);
  Append(30, 40);
  EXPECT_TRUE(Holds(table_.find(20, nullptr), 30, 40));
  EXPECT_TRUE(Holds(table_.find(25, nullptr), 30, 40));
  EXPECT_TRUE(Holds(table_.find(29, nullptr), 30, 40));
  EXPECT_TRUE(Holds(table_.find(0, nullptr), 10, 20));
  EXPECT_TRUE(Holds(table_.find(-5, nullptr), 10, 20));
}

TEST_F(LookupTest, AtAnEndTheNextAndAtAStartTheExtentItself) {
  AppendRow(20);
  for (long i = 1; i < 20; ++i) {
    EXPECT_TRUE(Holds(table_.find(i * 10, nullptr), i * 10, i * 10 + 10));
    EXPECT_TRUE(Holds(table_.find(i * 10 + 9, nullptr), i * 10, i * 10 + 10));
    EXPECT_TRUE(Holds(table_.find(i * 10 + 10, nullptr), i * 10 + 10, i * 10 + 20));
  }
}

TEST_F(LookupTest, BehindTheLastExtentIsTheEnd) {
  AppendRow(20);
  EXPECT_TRUE(Holds(table_.find(209, nullptr), 200, 210));
  EXPECT_TRUE(table_.find(210, nullptr) == table_.end());
  EXPECT_TRUE(table_.find(LONG_MAX - 1, nullptr) == table_.end());
}

TEST_F(LookupTest, AtTheLargestOffsetNothingIsFound) {
  EXPECT_TRUE(table_.lower_bound(LONG_MAX, nullptr) == table_.end());
  Insert(0, LONG_MAX);
  EXPECT_TRUE(table_.find(LONG_MAX, nullptr) == table_.end());
  EXPECT_TRUE(table_.lower_bound(LONG_MAX, nullptr) == table_.end());
  EXPECT_TRUE(Holds(table_.find(LONG_MAX - 1, nullptr), 0, LONG_MAX));
  for (long i = 0; i < 100; i += 2) {
    Insert(i, i + 1);  // interior nodes above it
  }
  EXPECT_TRUE(table_.find(LONG_MAX, nullptr) == table_.end());
  EXPECT_TRUE(Holds(table_.find(LONG_MAX - 1, nullptr), 99, LONG_MAX));
}

TEST_F(LookupTest, TheSmallestOffsetFindsTheFirst) {
  Insert(LONG_MIN, LONG_MIN + 10);
  EXPECT_TRUE(Holds(table_.find(LONG_MIN, nullptr), LONG_MIN, LONG_MIN + 10));
}

TEST_F(LookupTest, AllFindersAgree) {
  AppendRow(50, 10, 7);
  for (long offset = 0; offset < 520; ++offset) {
    const auto found = table_.find(offset, nullptr);
    EXPECT_TRUE(found == table_.lower_bound(offset, nullptr)) << offset;
    EXPECT_TRUE(found == table_.lower_bound_in_cache(offset, nullptr)) << offset;
    EXPECT_TRUE(found == table_._find(offset)) << offset;
  }
}

/// Tells whether the in-cache look-up goes through the virtual one.
struct OwnLowerBound : CMappingTable {
  using CMappingTable::CMappingTable;
  iterator lower_bound(long offset, SharedLock* lock) override {
    asked = offset;
    givenLock = lock;
    return end();
  }
  long asked = 0;
  SharedLock* givenLock = nullptr;
};

TEST(LookupSlotTest, InCacheCallsTheVirtualLowerBoundWithoutALock) {
  OwnLowerBound table(nullptr);
  CMappingTable::SharedLock lock;
  table.lower_bound_in_cache(77, &lock);
  EXPECT_EQ(77, table.asked);
  EXPECT_EQ(nullptr, table.givenLock);
}

TEST_F(LookupTest, FindTakesTheTableLockSharedAndIgnoresTheCallers) {
  AppendRow(3);
  CMappingTable::SharedLock callers;
  {
    const CMappingTable::SharedLock reader(peer_.lock());
    EXPECT_TRUE(Holds(table_.find(10, &callers), 10, 20)) << "beside another reader";
  }
  EXPECT_FALSE(callers.owns_lock());
  EXPECT_EQ(nullptr, callers.mutex());
  EXPECT_TRUE(peer_.lock().try_lock()) << "released again";
  EXPECT_TRUE(Holds(table_.lower_bound(10, &callers), 10, 20)) << "takes no lock at all";
  EXPECT_TRUE(Holds(table_.begin(), 10, 20));
  EXPECT_TRUE(table_.end() == table_.end());
  peer_.lock().unlock();
}

class WalkTest : public TableTest {};

TEST_F(WalkTest, ForwardVisitsEachOnceAndReachesTheEnd) {
  for (const int n : {1, 2, 3, 4, 5, 10, 11, 50, 500}) {
    CMappingTable table(nullptr);
    for (long i = 0; i < n; ++i) {
      table.append(i * 10, i * 10 + 5, nullptr, 0, 0, nullptr, nullptr);
    }
    EXPECT_EQ(n, table.size());
    auto it = table.begin();
    for (long i = 0; i < n; ++i, ++it) {
      ASSERT_TRUE(it != table.end());
      EXPECT_EQ(i * 10, it->sOff);
    }
    EXPECT_TRUE(it == table.end());
    ++it;
    EXPECT_TRUE(it == table.end()) << "stepping on from the end stays there";
  }
}

TEST_F(WalkTest, BackwardVisitsEachOnceAndReachesTheEnd) {
  AppendRow(50);
  auto it = table_.find(500, nullptr);
  for (long i = 50; i >= 1; --i, --it) {
    ASSERT_TRUE(it != table_.end());
    EXPECT_EQ(i * 10, it->sOff);
  }
  EXPECT_TRUE(it == table_.end());
}

TEST_F(WalkTest, BackFromTheFirstIsTheEnd) {
  AppendRow(2);
  auto it = table_.begin();
  --it;
  EXPECT_TRUE(it == table_.end());
}

TEST_F(WalkTest, BackFromTheEndStaysThere) {
  AppendRow(2);
  auto it = table_.end();
  --it;
  EXPECT_TRUE(it == table_.end());
}

TEST_F(WalkTest, PositionsInOneLeafDiffer) {
  AppendRow(2);
  auto first = table_.begin();
  auto second = table_.begin();
  ++second;
  EXPECT_FALSE(first == second);
  EXPECT_TRUE(first != second);
  ++first;
  EXPECT_TRUE(first == second);
  EXPECT_FALSE(first != second);
}

TEST_F(WalkTest, EmptyLeavesArePassedOver) {
  CExtNode a(false);
  CExtNode empty(false);
  CExtNode b(false);
  a.next = &empty;
  empty.prev = &a;
  empty.next = &b;
  b.prev = &empty;
  a.extents.push_back(Ext::Probe(0, 10));
  b.extents.push_back(Ext::Probe(20, 30));
  CMappingTable::iteratorimp it(&a, 0);
  ++it;
  EXPECT_EQ(&b, it.node);
  EXPECT_EQ(0, it.index);
  --it;
  EXPECT_EQ(&a, it.node);
  EXPECT_EQ(0, it.index);
}

}  // namespace
