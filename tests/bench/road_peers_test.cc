#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bench/peers/stores.h"
#include "bench/road_table.h"
#include "bench/workload.h"
#include "tests/bench/block_model.h"
#include "tests/bench/rows.h"
#include "tests/persistent/mapping_lmdb_peer.h"
#include "tests/support/temp_dir.h"

// The persistent table, with its flushes and merges, and the stores that it is measured beside show
// what was written, batch by batch.

namespace zefs_bench {
namespace {

using Aldenta::Qnd::Morene::Zefs::MappingLMDBTestPeer;
using zefs::test::TempDir;
using Model = BlockModel<kBlock>;

constexpr std::size_t kWrites = 2000;
constexpr std::size_t kBatch = 150;  // the last one is shorter
constexpr std::int64_t kRange = 2000 * kBlock;
constexpr std::uint64_t kTestObjects = 50;

const std::vector<Write>& Overwrites() {
  static const auto writes =
      WithoutChecksums(RandomWrites(kWrites, Containers::kReal, kRange, kTestObjects));
  return writes;
}

const std::vector<Write>& Appends() {
  static const auto writes = WithoutChecksums(AppendWrites(kWrites, Containers::kReal));
  return writes;
}

/// Calls `take(begin, end)` for each batch in turn.
template <typename Take>
void ForEachBatch(const std::vector<Write>& writes, Take take) {
  for (std::size_t first = 0; first < writes.size(); first += kBatch) {
    const Write* const begin = &writes[first];
    take(begin, begin + std::min(kBatch, writes.size() - first));
  }
}

template <typename Subject>
std::vector<Row> ShownBy(Subject& subject) {
  typename Subject::View view(subject);
  return WalkedBy(view);
}

template <typename Subject>
void ExpectOverwritesShown() {
  const TempDir directory;
  Subject subject(directory.path());
  Model model;
  ForEachBatch(Overwrites(), [&](const Write* begin, const Write* end) {
    subject.WriteBatch(begin, end);
    for (const Write* write = begin; write != end; ++write) {
      model.Insert(*write);
    }
    EXPECT_EQ(model.Rows(), ShownBy(subject));
  });
  subject.Settle();
  EXPECT_EQ(model.Rows(), ShownBy(subject));
}

template <typename Subject>
void ExpectAppendsShown() {
  const TempDir directory;
  Subject subject(directory.path());
  Model model;
  ForEachBatch(Appends(), [&](const Write* begin, const Write* end) {
    subject.AppendBatch(begin, end);
    for (const Write* write = begin; write != end; ++write) {
      model.Insert(*write);
    }
  });
  subject.Settle();
  EXPECT_EQ(model.Rows(), ShownBy(subject));
}

template <typename Subject>
void ExpectLookupsMeetTheirExtent() {
  const TempDir directory;
  Subject subject(directory.path());
  Model model;
  for (std::size_t i = 0; i < kBatch; ++i) {
    model.Insert(Overwrites()[i]);
  }
  subject.WriteBatch(Overwrites().data(), Overwrites().data() + kBatch);
  std::vector<Row> expected;
  const auto rows = model.Rows();
  const auto offsets = UniformOffsets(kWrites, 2 * kRange);  // also in holes and behind the end
  for (const std::int64_t offset : offsets) {
    const auto row = std::find_if(rows.begin(), rows.end(), [&](const Row& candidate) {
      return std::get<0>(candidate) <= offset && offset < std::get<1>(candidate);
    });
    if (row != rows.end()) {
      expected.push_back(*row);
    }
  }
  ASSERT_LT(expected.size(), offsets.size());
  typename Subject::View view(subject);
  EXPECT_EQ(expected, FoundBy(view, offsets));
}

struct AllOf {
  template <typename Subject>
  void operator()(const std::string& name) const {
    SCOPED_TRACE(name);
    ExpectOverwritesShown<Subject>();
    ExpectAppendsShown<Subject>();
    ExpectLookupsMeetTheirExtent<Subject>();
  }
};

TEST(BenchRoadPeers, ShowWhatWasWrittenAfterEachBatch) {
  ForEachStorePeer(AllOf());
}

TEST(BenchRoadTable, ShowsWhatWasWrittenWithoutMerges) {
  AllOf().operator()<RoadTable>("table");
}

TEST(BenchRoadTable, ShowsWhatWasWrittenWithMergesBesideTheBatches) {
  const MergeAfter few(kBatch);
  AllOf().operator()<RoadTable>("table");
}

TEST(BenchRoadTable, StoresEachBatchAndLeavesNothingInItsCache) {
  const TempDir directory;
  RoadTable table(directory.path());
  table.WriteBatch(Overwrites().data(), Overwrites().data() + kBatch);
  MappingLMDBTestPeer peer(table.table());
  EXPECT_TRUE(peer.extCache().empty());
  EXPECT_TRUE(peer.objList().empty());
  EXPECT_TRUE(peer.extDataPointers().empty());
  EXPECT_EQ(1, peer.commitCounter());
}

TEST(BenchRoadTable, MergesAllIntoTheFullDatabaseWhenItSettles) {
  const MergeAfter oneRecord(0);
  const TempDir directory;
  RoadTable table(directory.path());
  table.AppendBatch(Appends().data(), Appends().data() + kBatch);
  table.Settle();
  MappingLMDBTestPeer peer(table.table());
  EXPECT_FALSE(boost::filesystem::exists(directory / RoadTable::Persistent::TMPDB));
  EXPECT_FALSE(peer.tmpDb().opened);
  MDB_stat stat{};
  ASSERT_EQ(0, ::mdb_env_stat(peer.fullDb().env, &stat));
  EXPECT_LT(kBatch, stat.ms_entries);  // and special items
}

TEST(BenchRoadSettings, AreAsBeforeWhenTheirScopeEnds) {
  auto& config = FileSystemDaemonConfig::GetInstance();
  const auto before = config.Get(&FileSystemDaemonConfig::mergeEntriesThreshold);
  {
    const MergeAfter other(before + 1);
    EXPECT_EQ(before + 1, config.Get(&FileSystemDaemonConfig::mergeEntriesThreshold));
  }
  EXPECT_EQ(before, config.Get(&FileSystemDaemonConfig::mergeEntriesThreshold));
}

}  // namespace
}  // namespace zefs_bench
