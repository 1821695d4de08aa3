#include "refhost/cache/data_cache.h"

#include <cerrno>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "refhost/cache/node_ledger.h"

namespace zefs::refhost {
namespace {

class DataCacheTest : public ::testing::Test {
 protected:
  DataCacheTest()
      : cache([this](const std::string& share) {
          shares += share + ";";
          return protectResult;
        }),
        ledger(&cache.counts()),
        node(ledger.Make(std::make_shared<const std::string>("x"))) {}

  std::string shares;
  int protectResult = 0;
  DataCache cache;
  NodeLedger ledger;
  CacheNode* node;
  DataCacheNode::ObjectID id;
};

TEST_F(DataCacheTest, NodeHasAnObjectOnceItIsStored) {
  EXPECT_EQ(ENOENT, cache.GetNodeObjectID(node->ForTable(), &id, true));
  DataCacheNode::ObjectID stored;
  stored.dcid = 77;
  stored.fp.fill(3);
  node->SetStored(stored, 123);
  EXPECT_EQ(0, cache.GetNodeObjectID(node->ForTable(), &id, true));
  EXPECT_EQ(77U, id.dcid);
  EXPECT_EQ(stored.fp, id.fp);
  EXPECT_EQ(123, static_cast<DataCacheNode*>(node->ForTable())->dcOffset);
  EXPECT_EQ("", cache.counts().Problem());
}

TEST_F(DataCacheTest, QuestionAfterTheReleaseIsCounted) {
  node->SetStored({}, 0);
  ledger.Release({node->ForTable()});
  EXPECT_EQ(0, cache.GetNodeObjectID(node->ForTable(), &id, true));
  EXPECT_EQ(1U, cache.counts().askedAfterRelease);
}

TEST_F(DataCacheTest, FlushIsCountedAndItsShareAndResultHandedOn) {
  EXPECT_EQ(0, cache.ProtectShare(nullptr, "scope", "a"));
  protectResult = EIO;
  EXPECT_EQ(EIO, cache.ProtectShare(nullptr, "scope", "b"));
  EXPECT_EQ("a;b;", shares);
  EXPECT_EQ(2U, cache.flushes());
}

}  // namespace
}  // namespace zefs::refhost
