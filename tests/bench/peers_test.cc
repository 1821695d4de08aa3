#include <array>
#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bench/peers/counts.h"
#include "bench/peers/end_keyed_peer.h"
#include "bench/peers/icl_peer.h"
#include "bench/table_subject.h"
#include "bench/workload.h"
#include "tests/bench/block_model.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Sees what the table counts.
struct MappingTableTestPeer {
  static const DcidReferences& ByDcid(const CMappingTable& table) { return table.refsByDcid_; }
  static const FingerprintReferences& ByFp(const CMappingTable& table) { return table.refsByFp_; }
};

}  // namespace Aldenta::Qnd::Morene::Zefs

namespace zefs_bench {
namespace {

using Aldenta::Qnd::Morene::Zefs::MappingTableTestPeer;

using ContainerCounts = std::map<std::uint64_t, std::uint64_t>;
using FingerprintCounts = std::map<FingerprintText, std::uint64_t>;

template <typename Map>
std::vector<Row> RowsOf(const Map& map) {
  std::vector<Row> rows;
  map.Walk([&](std::int64_t sOff, std::int64_t eOff, const auto& value) {
    rows.push_back(MakeRow(sOff, eOff, value));
  });
  return rows;
}

template <typename Map>
ContainerCounts ContainersOf(const Map& map) {
  return map.counts().by_container();
}
template <typename Map>
FingerprintCounts FingerprintsOf(const Map& map) {
  return map.counts().by_fingerprint();
}
template <>
ContainerCounts ContainersOf(const TableSubject& map) {
  const auto& counts = MappingTableTestPeer::ByDcid(map.table());
  return {counts.begin(), counts.end()};
}
template <>
FingerprintCounts FingerprintsOf(const TableSubject& map) {
  const auto& counts = MappingTableTestPeer::ByFp(map.table());
  return {counts.begin(), counts.end()};
}

using Model = BlockModel<kBlock>;

template <typename Map>
class BenchMaps : public ::testing::Test {};

using AllMaps =
    ::testing::Types<TableSubject, EndKeyedPeer<StdMapStore, ReferenceCounts>,
                     EndKeyedPeer<BtreeStore, ReferenceCounts>,
                     EndKeyedPeer<BtreePointerStore, ReferenceCounts>, IclPeer<ReferenceCounts>>;
TYPED_TEST_SUITE(BenchMaps, AllMaps, );

/// Counts what `rows` refer to from scratch.
void Recount(const std::vector<Row>& rows, ContainerCounts* containers,
             FingerprintCounts* fingerprints) {
  for (const Row& row : rows) {
    (*containers)[std::get<4>(row)] +=
        static_cast<std::uint64_t>(std::get<1>(row) - std::get<0>(row));
    FingerprintText text{};
    CRFPDigestToString_r(std::get<5>(row).data(), kCrfpDigestKind, text.data(), text.size());
    ++(*fingerprints)[text];
  }
}

template <typename Map>
void ExpectSame(const Map& map, const Model& model) {
  const std::vector<Row> expected = model.Rows();
  EXPECT_EQ(map.size(), expected.size());
  ASSERT_EQ(RowsOf(map), expected);
  ContainerCounts containers;
  FingerprintCounts fingerprints;
  Recount(expected, &containers, &fingerprints);
  EXPECT_EQ(ContainersOf(map), containers);
  EXPECT_EQ(FingerprintsOf(map), fingerprints);
}

constexpr std::size_t kWrites = 4000;
constexpr std::int64_t kSmallRange = 16 << 20;
constexpr std::uint64_t kFewObjects = 2000;

TYPED_TEST(BenchMaps, AgreeWithTheModelUnderCollidingWrites) {
  const auto writes = RandomWrites(kWrites, Containers::kReal, kSmallRange, kFewObjects);
  TypeParam map;
  Model model;
  for (std::size_t i = 0; i < writes.size(); ++i) {
    map.Insert(writes[i]);
    model.Insert(writes[i]);
    if (i % 500 == 0) {
      ExpectSame(map, model);
    }
  }
  ExpectSame(map, model);
}

TYPED_TEST(BenchMaps, TruncateInsideAnExtentKeepsItsFront) {
  const auto writes = RandomWrites(kWrites, Containers::kReal, kSmallRange, kFewObjects);
  TypeParam map;
  Model model;
  for (const Write& write : writes) {
    map.Insert(write);
    model.Insert(write);
  }
  const Row last = model.Rows().back();
  for (const std::int64_t size :
       {std::get<1>(last) - kBlock, kSmallRange / 2 + kBlock, kBlock, std::int64_t{0}}) {
    map.Truncate(size);
    model.Truncate(size);
    ExpectSame(map, model);
  }
}

TYPED_TEST(BenchMaps, AppendKeepsEveryWriteWhole) {
  const auto writes = AppendWrites(kWrites, Containers::kReal);
  TypeParam map;
  Model model;
  for (const Write& write : writes) {
    map.Append(write);
    model.Insert(write);
  }
  ExpectSame(map, model);
}

TYPED_TEST(BenchMaps, FindMeetsTheExtentAndNoHole) {
  const auto writes = RandomWrites(kWrites / 20, Containers::kReal, kSmallRange, kFewObjects);
  TypeParam map;
  Model model;
  for (const Write& write : writes) {
    map.Insert(write);
    model.Insert(write);
  }
  const auto rows = model.Rows();
  for (std::int64_t at = 0; at < kSmallRange; at += kBlock / 2) {
    std::int64_t expected = -1;
    for (const Row& row : rows) {
      if (std::get<0>(row) <= at && at < std::get<1>(row)) {
        expected = std::get<0>(row);
      }
    }
    std::int64_t found = -1;
    map.Find(at, [&](std::int64_t sOff, const auto&) { found = sOff; });
    ASSERT_EQ(found, expected) << "offset " << at;
  }
}

TEST(BenchTable, ObjectsWithoutContainerAreNotCounted) {
  TableSubject map;
  for (const Write& write : RandomWrites(100, Containers::kNone)) {
    map.Insert(write);
  }
  EXPECT_TRUE(ContainersOf(map).empty());
  EXPECT_TRUE(FingerprintsOf(map).empty());
}

TEST(Workload, BeginsAlikeAtEveryLength) {
  const auto few = RandomWrites(10, Containers::kReal);
  const auto many = RandomWrites(100, Containers::kReal);
  for (std::size_t i = 0; i < few.size(); ++i) {
    EXPECT_EQ(few[i].sOff, many[i].sOff);
    EXPECT_EQ(few[i].objectID.fp, many[i].objectID.fp);
  }
}

TEST(Workload, StaysInItsBounds) {
  for (const Write& write : RandomWrites(10000, Containers::kReal)) {
    ASSERT_GE(write.sOff, 0);
    ASSERT_LT(write.sOff, kRandomRange);
    ASSERT_EQ(write.sOff % kBlock, 0);
    ASSERT_GE(write.eOff - write.sOff, kBlock);
    ASSERT_LE(write.eOff - write.sOff, 32 * kBlock);
    ASSERT_GE(write.objectID.dcid, 64U);
  }
}

}  // namespace
}  // namespace zefs_bench
