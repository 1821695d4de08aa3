#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bench/cache_writes.h"
#include "bench/peers/lmdb_peers.h"
#include "bench/peers/std_map_cache.h"
#include "bench/persistent_subject.h"
#include "bench/stored_extents.h"
#include "tests/bench/block_model.h"
#include "tests/bench/rows.h"
#include "tests/persistent/mapping_lmdb_peer.h"
#include "tests/support/plain_lmdb.h"
#include "tests/support/temp_dir.h"

// The persistent table and the peers that it is measured beside show the same extents.

namespace zefs_bench {
namespace {

using Aldenta::Qnd::Morene::Zefs::MappingLMDBTestPeer;
using zefs::test::TempDir;
using Persistent = PersistentSubject::Persistent;
using Model = BlockModel<kPieceUnit>;

/// The row that holds each offset; there is one.
std::vector<Row> RowsAt(const std::vector<Row>& rows, const std::vector<std::int64_t>& offsets) {
  std::vector<Row> at;
  for (const std::int64_t offset : offsets) {
    at.push_back(*std::find_if(rows.begin(), rows.end(), [&](const Row& row) {
      return std::get<0>(row) <= offset && offset < std::get<1>(row);
    }));
  }
  return at;
}

// --- writes into the cache -----------------------------------------------------------------------

constexpr std::size_t kHeld = 200;
constexpr std::size_t kBatch = kHeld / 10;

class BenchCacheWrites : public testing::TestWithParam<Meeting> {
 protected:
  BenchCacheWrites() : writes_(MakeCacheWrites(GetParam(), kHeld)) {
    writes_.held = WithoutChecksums(writes_.held);
    writes_.batch = WithoutChecksums(writes_.batch);
  }

  /// Does to `cache` what the benchmark does, with a node for each write if `nodes` is not null.
  template <typename Cache>
  void Fill(Cache& cache, std::vector<zefs::DataCacheNode>* nodes = nullptr) {
    std::size_t used = 0;
    const auto next = [&]() -> void* { return nodes != nullptr ? &nodes->at(used++) : nullptr; };
    for (const Write& write : writes_.held) {
      cache.Put(write, next());
    }
    for (const Write& write : writes_.batch) {
      if (Overlaps(GetParam())) {
        cache.Insert(write, next());
      } else {
        cache.Put(write, next());
      }
    }
  }

  std::vector<Row> Expected() const {
    Model model;
    for (const auto* writes : {&writes_.held, &writes_.batch}) {
      for (const Write& write : *writes) {
        model.Insert(write);
      }
    }
    return model.Rows();
  }

  CacheWrites writes_;
  const TempDir directory_;
};

TEST_P(BenchCacheWrites, LeaveTheSameExtentsInTableAndMap) {
  const auto expected = Expected();
  PersistentSubject table(directory_ / "table");
  Fill(table);
  EXPECT_EQ(expected, WalkedBy(table));
  StdMapCache<Record> map;
  Fill(map);
  EXPECT_EQ(expected, WalkedBy(map));
  const auto offsets = UniformOffsets(1000, writes_.held.front().eOff);
  EXPECT_EQ(FoundBy(table, offsets), FoundBy(map, offsets));
}

TEST_P(BenchCacheWrites, LeaveTheSameExtentsWithNodes) {
  const auto expected = Expected();
  std::vector<zefs::DataCacheNode> nodes(kHeld + kBatch);
  PersistentSubject table(directory_ / "table");
  Fill(table, &nodes);
  EXPECT_EQ(expected, WalkedBy(table));
  EXPECT_EQ(expected.size(), MappingLMDBTestPeer(table.table()).extDataPointers().size());
  StdMapCache<RecordWithNode> map;
  Fill(map, &nodes);
  EXPECT_EQ(expected, WalkedBy(map));
}

TEST(BenchEmptyTable, HasNothingLeftToStoreForALoad) {
  const TempDir directory;
  const auto path = directory / "table";
  WriteEmptyTable(path);
  const auto content = [&] {
    return std::pair(zefs::test::ReadPlainDatabase(path / Persistent::FULLDB),
                     zefs::test::ReadPlainDatabase(path / Persistent::LSML0DB));
  };
  const auto before = content();
  {
    PersistentSubject table(path);
    EXPECT_EQ(2, table.table().getExtMapVersion().major);
    EXPECT_EQ(0, table.table().getFileSize());
    EXPECT_TRUE(WalkedBy(table).empty());
  }
  EXPECT_EQ(before, content());
}

TEST_P(BenchCacheWrites, MeetWhatTheyAreNamedFor) {
  ASSERT_EQ(kHeld, writes_.held.size());
  ASSERT_EQ(kBatch, writes_.batch.size());
  StdMapCache<Record> map;
  Fill(map);
  std::size_t added = 0;  // extents that each write of the batch leaves more
  switch (GetParam()) {
    case Meeting::kSame:
      added = 0;
      break;
    case Meeting::kAscending:
    case Meeting::kBetween:
    case Meeting::kTail:
      added = 1;
      break;
    case Meeting::kInside:
      added = 2;
      break;
  }
  EXPECT_EQ(kHeld + added * kBatch, map.size());
}

INSTANTIATE_TEST_SUITE_P(, BenchCacheWrites, testing::ValuesIn(kMeetings),
                         [](const auto& meeting) { return std::string(NameOf(meeting.param)); });

// --- databases -----------------------------------------------------------------------------------

constexpr std::size_t kVisible = 400;

struct Case {
  const char* name;
  Layers (*make)();
  std::size_t shown;  ///< extents and pieces of them that are visible
};

const Case kCases[] = {
    {"Empty", [] { return Layers(); }, 0},
    {"One", [] { return Alternating(kVisible, 1); }, kVisible},
    {"TwoAlternating", [] { return Alternating(kVisible, 2); }, kVisible},
    {"ThreeAlternating", [] { return Alternating(kVisible, 3); }, kVisible},
    {"TwoOverlapping", [] { return Overlapping(kVisible, 2); }, kVisible},
    {"ThreeOverlapping", [] { return Overlapping(kVisible, 3); }, kVisible},
    {"FullBetweenSmall", [] { return FullBetweenOthers(kVisible, 2); }, kVisible * 11 / 10},
    {"FullBetweenSmallAndTmp", [] { return FullBetweenOthers(kVisible, 3); }, kVisible * 12 / 10},
};

void PrintTo(const Case& shown, std::ostream* out) {
  *out << shown.name;
}

class BenchDatabases : public testing::TestWithParam<Case> {
 protected:
  BenchDatabases() : layers_(GetParam().make()) {
    for (const Extents* extents : {&layers_.full, &layers_.small, &layers_.tmp}) {
      for (const StoredExtent& extent : *extents) {
        const Record& record = extent.record;
        writes_.push_back(
            {record.startOffset, extent.eOff, record.objectOffset, 0, record.GetObjectID()});
      }
    }
  }

  std::vector<Row> Expected() const {
    Model model;
    for (const Write& write : writes_) {  // oldest first
      model.Insert(write);
    }
    return model.Rows();
  }

  const Layers layers_;
  std::vector<Write> writes_;
  const TempDir directory_;
};

/// A table whose tmp database is closed at its end, for the leak checker.
class ClosedSubject : public PersistentSubject {
 public:
  using PersistentSubject::PersistentSubject;
  ~ClosedSubject() {
    MappingLMDBTestPeer peer(table());
    if (peer.tmpDb().opened) {
      peer.ClearDBEnv(&peer.tmpDb());
    }
  }
};

TEST_P(BenchDatabases, ShowTheSameToTheTableAndToMergedCursors) {
  const auto expected = Expected();
  EXPECT_EQ(GetParam().shown, expected.size());
  WriteDatabases(directory_.path(), layers_);
  {
    LmdbMergePeer merge(directory_.path());
    EXPECT_EQ(expected, WalkedBy(merge));
  }
  ClosedSubject table(directory_.path());
  EXPECT_EQ(!layers_.tmp.empty(), MappingLMDBTestPeer(table.table()).tmpDb().opened);
  EXPECT_EQ(expected, WalkedBy(table));
}

TEST_P(BenchDatabases, AreEachReadAsTheyWereWritten) {
  WriteDatabases(directory_.path(), layers_);
  auto write = writes_.begin();
  for (const auto& [name, extents] : {std::pair(Persistent::FULLDB, &layers_.full),
                                      std::pair(Persistent::LSML0DB, &layers_.small),
                                      std::pair(Persistent::TMPDB, &layers_.tmp)}) {
    if (!boost::filesystem::exists(directory_ / name)) {
      continue;
    }
    EXPECT_FALSE(boost::filesystem::exists(directory_ / (std::string(name) + "-lock")));
    Model model;
    for (std::size_t i = 0; i < extents->size(); ++i) {
      model.Insert(*write++);
    }
    LmdbCursorPeer cursor(directory_ / name);
    EXPECT_EQ(model.Rows(), WalkedBy(cursor));
  }
  EXPECT_EQ(writes_.end(), write);
}

INSTANTIATE_TEST_SUITE_P(, BenchDatabases, testing::ValuesIn(kCases),
                         [](const auto& shown) { return std::string(shown.param.name); });

class BenchLookups : public BenchDatabases {};

TEST_P(BenchLookups, MeetTheSameExtentInTheTableAndInTheDatabaseThatAnswers) {
  constexpr std::size_t kLookups = 1000;
  auto offsets = OffsetsIn(layers_.full, kLookups);
  for (const StoredExtent& extent : layers_.full) {  // where the one before ends
    offsets.push_back(extent.record.startOffset);
  }
  const auto expected = RowsAt(Expected(), offsets);
  WriteDatabases(directory_.path(), layers_);
  {
    LmdbBegunPeer begun(directory_ / Persistent::FULLDB);
    EXPECT_EQ(expected, FoundBy(begun, offsets));
  }
  {
    LmdbRenewedPeer renewed(directory_ / Persistent::FULLDB);
    EXPECT_EQ(expected, FoundBy(renewed, offsets));
  }
  ClosedSubject table(directory_.path());
  EXPECT_EQ(expected, FoundBy(table, offsets));
}

TEST_P(BenchLookups, MeetNothingInAHole) {
  const std::vector<std::int64_t> behind{writes_.back().eOff + (std::int64_t{1} << 40)};
  WriteDatabases(directory_.path(), layers_);
  {
    LmdbBegunPeer begun(directory_ / Persistent::FULLDB);
    EXPECT_TRUE(FoundBy(begun, behind).empty());
    LmdbRenewedPeer renewed(directory_ / Persistent::LSML0DB);
    EXPECT_TRUE(FoundBy(renewed, behind).empty());
  }
  ClosedSubject table(directory_.path());
  EXPECT_TRUE(FoundBy(table, behind).empty());
}

// Those whose full database is not hidden anywhere.
INSTANTIATE_TEST_SUITE_P(, BenchLookups,
                         testing::Values(kCases[1], kCases[2], kCases[6], kCases[7]),
                         [](const auto& shown) { return std::string(shown.param.name); });

}  // namespace
}  // namespace zefs_bench
