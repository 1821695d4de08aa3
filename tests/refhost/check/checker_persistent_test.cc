#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/check/checker.h"
#include "tests/refhost/durable/durable_fixture.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::Pattern;
using ::testing::HasSubstr;

/// A check on persistent tables that flush and merge all along.
class CheckerPersistent : public ::testing::Test {
 protected:
  CheckerPersistent() {
    fs::create_directories(dir / "tree");
    test::WriteFile(dir / "tree/empty", "");
    test::WriteFile(dir / "tree/large", Pattern(1, 50000));
    test::WriteFile(dir / "tree/zcopy", Pattern(1, 50000));
    options.paths = {(dir / "tree").string()};
    options.storeDirectory = (dir / "store").string();
    options.segmentSize = 512;
    options.containerBytes = 8192;
  }

  static constexpr Files::FileId kLarge = 1;

  const test::SmallThresholds thresholds{8, 30};
  test::TempDir dir;
  CheckOptions options;
};

TEST_F(CheckerPersistent, IsEqualAndCountsAsTheCheckInMemory) {
  const CheckResult persistent = RunCheck(options);
  ASSERT_FALSE(persistent.difference.has_value()) << persistent.difference->text;
  EXPECT_GE(persistent.activity.flushes, 5U);
  EXPECT_GE(persistent.activity.merges, 1U);
  EXPECT_GT(persistent.activity.nodes, 200U);
  EXPECT_FALSE(fs::exists(dir / "store"));
  options.tables = TableKind::kMemory;
  const CheckResult memory = RunCheck(options);
  EXPECT_EQ(memory.files, persistent.files);
  EXPECT_EQ(memory.sourceBytes, persistent.sourceBytes);
  EXPECT_EQ(memory.storedSourceBytes, persistent.storedSourceBytes);
  EXPECT_EQ(memory.logicalBytes, persistent.logicalBytes);
  EXPECT_EQ(memory.writtenBytes, persistent.writtenBytes);
  EXPECT_EQ(memory.storedBytes, persistent.storedBytes);
  EXPECT_EQ(memory.extents, persistent.extents);
  EXPECT_EQ(memory.fingerprintsReferenced, persistent.fingerprintsReferenced);
  EXPECT_EQ(0U, memory.activity.flushes);
}

TEST_F(CheckerPersistent, WrongByteIsFoundWhereItIs) {
  const CheckResult result = RunCheck(options, {}, [](Files* store) {
    char byte = 0;
    store->Read(kLarge, 12345, &byte, 1);
    byte = static_cast<char>(byte ^ 1);
    store->Write(kLarge, 12345, std::string_view(&byte, 1));
  });
  ASSERT_TRUE(result.difference.has_value());
  EXPECT_EQ((dir / "tree/large").string(), result.difference->path);
  EXPECT_EQ(12345, result.difference->offset);
}

TEST_F(CheckerPersistent, VanishedContainerIsADifference) {
  const CheckResult result = RunCheck(options, {}, [&](Files* store) {
    store->SizeOf(kLarge);
    fs::remove(dir / "store/store/containers/64");
  });
  ASSERT_TRUE(result.difference.has_value());
  EXPECT_THAT(result.difference->text, HasSubstr("containers/64 is gone"));
}

TEST_F(CheckerPersistent, KeptStoreCanBeOpened) {
  options.keep = true;
  const CheckResult result = RunCheck(options);
  DurableStoreOptions existing;
  existing.missing = StoreDirectory::Missing::kIsAnError;
  DurableStore store((dir / "store/store").string(), existing);
  EXPECT_EQ(result.files, store.Catalogued().size());
  EXPECT_EQ("", test::ProblemsOf(store));
}

}  // namespace
}  // namespace zefs::refhost
