#include <cerrno>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/config.h"
#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "refhost/host/log_recorder.h"
#include "table/mapping_table.h"
#include "tests/persistent/mapping_lmdb_peer.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::refhost::LogRecorder;

class FactoryTest : public testing::Test {
 protected:
  FactoryTest() { ZefsConfig::GetInstance().useLmdbTable = 0; }
  ~FactoryTest() override { ZefsConfig::GetInstance().useLmdbTable = 0; }

  /// "level text" of each line so far.
  std::vector<std::string> Lines() {
    std::vector<std::string> lines;
    for (const auto& record : log_.Take()) {
      lines.push_back(std::to_string(record.level) + ' ' + record.text);
    }
    return lines;
  }

  LogRecorder log_;
};

TEST_F(FactoryTest, WithoutTheSettingTheTableIsInMemoryAndReadyAtOnce) {
  const std::unique_ptr<CMappingTable> table(CreateMappingTable(nullptr, "GENERIC"));
  ASSERT_NE(nullptr, table);
  const CMappingTable& made = *table;
  EXPECT_EQ(typeid(CMappingTable), typeid(made));
  EXPECT_THAT(Lines(), testing::ElementsAre("0 CreateMappingTable()"));
  EXPECT_EQ(0, table->append(0, 10, nullptr, 0, 0, nullptr, nullptr));
  EXPECT_EQ(1, table->size());
}

TEST_F(FactoryTest, WithoutTheSettingThePathFunctionsReturnZeroAndTouchNothing) {
  std::string out = "as it was";
  std::set<std::string> indices{"as", "it", "was"};
  EXPECT_EQ(0, GetMapAbsolutePath("/volume/file", &out));
  EXPECT_EQ(0, GetMapRelativePath("/volume/file", &out));
  EXPECT_EQ("as it was", out);
  EXPECT_EQ(0, GetMapIndexSet("/volume/file", &indices));
  EXPECT_THAT(indices, testing::ElementsAre("as", "it", "was"));
  EXPECT_THAT(Lines(), testing::IsEmpty());
}

TEST_F(FactoryTest, WithTheSettingTheTableIsPersistent) {
  ZefsConfig::GetInstance().useLmdbTable = 1;
  const std::unique_ptr<CMappingTable> table(CreateMappingTable(nullptr, "GENERIC"));
  const CMappingTable& made = *table;
  EXPECT_EQ(typeid(CMappingLMDB), typeid(made));
  EXPECT_THAT(Lines(), testing::ElementsAre("0 CreateMappingTable()", "0 using CMappingLMDB"));
}

TEST_F(FactoryTest, AnyNumberButZeroIsTheSettingAndTheTypeReachesTheTable) {
  const std::vector<std::pair<std::string, int>> types = {
      {"GENERIC", 0}, {"PROVISION", 2}, {"INGEST", 1}};
  for (const std::uint32_t setting : {1U, 2U, 0x80000000U, 0xffffffffU}) {
    ZefsConfig::GetInstance().useLmdbTable = setting;
    for (const auto& [type, number] : types) {
      const std::unique_ptr<CMappingTable> table(CreateMappingTable(nullptr, type));
      auto* const persistent = dynamic_cast<CMappingLMDB*>(table.get());
      ASSERT_NE(nullptr, persistent) << setting;
      EXPECT_EQ(number, MappingLMDBTestPeer(*persistent).tableType());
    }
  }
}

TEST_F(FactoryTest, WithTheSettingThePathFunctionsAreThoseOfThePersistentTable) {
  ZefsConfig::GetInstance().useLmdbTable = 1;
  const testing::Matcher<std::vector<std::string>> lines = testing::ElementsAre(
      "0 using CMappingLMDB", "0 CMappingLMDB::GetMapAbsolutePath(), srcPath=/volume/data.mdb",
      "0 filename=data.mdb", "0 new filePath=/volume");
  std::string out;
  EXPECT_EQ(0, GetMapRelativePath("/volume/data.mdb", &out));
  EXPECT_EQ("/volume", out);
  EXPECT_THAT(Lines(), lines);
  out.clear();
  EXPECT_EQ(0, GetMapAbsolutePath("/volume/data.mdb", &out));
  EXPECT_EQ("/volume", out);
  EXPECT_THAT(Lines(), lines);
  EXPECT_EQ(-1, GetMapAbsolutePath("/volume/another.mdb", &out));
  EXPECT_EQ(-1, GetMapRelativePath("/volume/another.mdb", &out));
  EXPECT_EQ("/volume", out);
  Lines();
  std::set<std::string> indices;
  EXPECT_EQ(-1, GetMapIndexSet("/volume/that/is/not/there", &indices));
  EXPECT_THAT(indices, testing::IsEmpty());
  EXPECT_THAT(Lines(), testing::IsEmpty()) << "this one does not tell its choice";
}

}  // namespace
