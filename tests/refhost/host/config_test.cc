#include "host/config.h"

#include <gtest/gtest.h>

namespace {

TEST(ConfigTest, TablesAreInMemoryUnlessTheHostSaysOtherwise) {
  EXPECT_EQ(ZefsConfig::GetInstance().useLmdbTable, 0U);
  EXPECT_EQ(&ZefsConfig::GetInstance(), &ZefsConfig::GetInstance());
}

TEST(ConfigTest, DefaultsFitTogether) {
  using Config = FileSystemDaemonConfig;
  const Config& config = Config::GetInstance();
  EXPECT_GT(config.Get(&Config::bigTableMapSizeGiB), 4U);  // the small database's own map size
  EXPECT_GT(config.Get(&Config::objIdReadyThreshold), 0U);
  EXPECT_LE(config.Get(&Config::objIdReadyThreshold), config.Get(&Config::batchUpdateThreshold));
  EXPECT_GT(config.Get(&Config::mergeEntriesThreshold), config.Get(&Config::batchUpdateThreshold));
  EXPECT_GT(config.Get(&Config::mergeWaitEntriesThreshold),
            config.Get(&Config::mergeEntriesThreshold));
  EXPECT_GT(config.Get(&Config::mergeCommitCountThreshold), 0U);
  EXPECT_GT(config.Get(&Config::mergeCommitTimeThreshold), 0U);
  EXPECT_GT(config.Get(&Config::mergeCommitBatchSize), 0U);
  EXPECT_GT(config.Get(&Config::dcOffsetStoreThreshold), 0U);
  EXPECT_GT(config.Get(&Config::prefetchSpanBytes), 0U);
  EXPECT_EQ(config.Get(&Config::persistBloom), 1);
  EXPECT_EQ(config.Get(&Config::prefetchEnabled), 0);
  EXPECT_TRUE(config.Get(&Config::dcOffsetTrackingEnabled));
}

TEST(ConfigTest, AChangeIsSeenByTheNextRead) {
  using Config = FileSystemDaemonConfig;
  Config& config = Config::GetInstance();
  const std::uint32_t before = config.Get(&Config::batchUpdateThreshold);
  config.Set(&Config::batchUpdateThreshold, before + 1);
  EXPECT_EQ(Config::GetInstance().Get(&Config::batchUpdateThreshold), before + 1);
  config.Set(&Config::batchUpdateThreshold, before);
}

}  // namespace
