#include <random>
#include <string>

#include <gtest/gtest.h>

#include "refhost/replay/replayer.h"
#include "refhost/replay/stored_unit_tables.h"
#include "tests/refhost/replay/trace_files.h"
#include "tests/refhost/table_settings.h"
#include "tests/support/temp_dir.h"

namespace zefs::refhost {
namespace {

/// A trace of overlapping writes and of reads on a few units.
std::string SomeTrace(int units, int requests) {
  std::mt19937 random(7);
  std::string trace;
  for (int i = 0; i < requests; ++i) {
    trace += std::string(random() % 4 == 0 ? "R " : "W ") + std::to_string(random() % 20000) + ' ' +
             std::to_string(1 + random() % 700) + ' ' +
             std::to_string(random() % static_cast<unsigned>(units)) + '\n';
  }
  return trace;
}

class ReplayerPersistent : public ::testing::Test {
 protected:
  ReplayReport ReplayOn(TableKind kind, const std::string& trace) {
    ReplayOptions options;
    options.path = (directory_ / "trace").string();
    test::WriteFile(options.path, trace);
    options.check = true;
    options.tables = kind;
    return Replay(options);
  }
  void ExpectTheSame(const std::string& trace, std::uint64_t leastMerges) {
    const ReplayReport persistent = ReplayOn(TableKind::kPersistent, trace);
    ASSERT_FALSE(persistent.difference.has_value()) << persistent.difference->where;
    const ReplayReport memory = ReplayOn(TableKind::kMemory, trace);
    EXPECT_EQ(memory.digest, persistent.digest);
    EXPECT_EQ(memory.runs, persistent.runs);
    EXPECT_EQ(memory.bytesFound, persistent.bytesFound);
    EXPECT_EQ(memory.units, persistent.units);
    EXPECT_GE(persistent.merges, leastMerges);
    EXPECT_EQ(0U, memory.flushes);
    EXPECT_GT(persistent.flushes, persistent.merges);
  }

  const test::SmallThresholds thresholds_{32, 60};
  test::TempDir directory_;
};

TEST_F(ReplayerPersistent, FlushesMergesAndALoadGiveTheDigestOfMemory) {
  ExpectTheSame(SomeTrace(2, 3000), 5);
}

TEST_F(ReplayerPersistent, MoreUnitsThanAreOpenAtATime) {
  ExpectTheSame(SomeTrace(80, 600), 0);
}

TEST_F(ReplayerPersistent, EveryNodeComesBackOnce) {
  boost::filesystem::create_directory(directory_ / "tables");
  StoredUnitTables tables((directory_ / "tables").string());
  DataCacheNode::ObjectID object;
  object.dcid = 64;
  for (long i = 0; i < 500; ++i) {
    object.fp.fill(static_cast<unsigned char>(i));
    tables.Insert(3, i * 7 % 1000, i * 7 % 1000 + 20, object, 0);
  }
  tables.EndWrites();
  EXPECT_EQ("", tables.Problem());
  EXPECT_GE(tables.flushes(), 2U);
}

}  // namespace
}  // namespace zefs::refhost
