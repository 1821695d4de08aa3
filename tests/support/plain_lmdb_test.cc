#include "tests/support/plain_lmdb.h"

#include <algorithm>
#include <limits>
#include <lmdb.h>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

class PlainLmdbTest : public testing::Test {
 protected:
  TempDir dir_;
  const fs::path file_ = dir_ / "database";
  const fs::path lock_ = dir_ / "database-lock";
};

PlainDigest Counting(unsigned char first) {
  PlainDigest digest{};
  for (unsigned char& byte : digest) {
    byte = first++;
  }
  return digest;
}

TEST_F(PlainLmdbTest, RecordsComeBackInTheOrderOfSignedKeys) {
  const std::vector<PlainRecord> ordered{{kPlainVersionKey, SpecialBytes(2, 0)},
                                         {kPlainFileSizeKey, SpecialBytes(4096)},
                                         {kPlainCommitCounterKey, SpecialBytes(1)},
                                         {kPlainDoidKey, SpecialBytes(65, Counting(1))},
                                         {-256, "b"},
                                         {-1, "a"},
                                         {0, ""},
                                         {1, "short"},
                                         {255, std::string(72, 'x')},
                                         {256, std::string(100000, '\0')},
                                         {std::numeric_limits<std::int64_t>::max(), "last"}};
  std::vector<PlainRecord> records = ordered;
  std::reverse(records.begin(), records.end());
  WritePlainDatabase(file_, records);
  EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(file_).permissions());
  EXPECT_EQ(ordered, ReadPlainDatabase(file_));
  EXPECT_FALSE(fs::exists(lock_));
}

TEST_F(PlainLmdbTest, ASecondWriteAddsAndReplaces) {
  WritePlainDatabase(file_, {{1, "one"}, {3, "three"}});
  WritePlainDatabase(file_, {{2, "two"}, {3, "III"}});
  EXPECT_EQ((std::vector<PlainRecord>{{1, "one"}, {2, "two"}, {3, "III"}}),
            ReadPlainDatabase(file_));
}

TEST_F(PlainLmdbTest, NoRecordsMakeAnEmptyDatabase) {
  WritePlainDatabase(file_, {});
  EXPECT_TRUE(fs::exists(file_));
  EXPECT_EQ(std::vector<PlainRecord>{}, ReadPlainDatabase(file_));
}

TEST_F(PlainLmdbTest, ReadingLeavesALockFileThatWasThere) {
  WritePlainDatabase(file_, {{1, "one"}});
  fs::copy_file(file_, dir_ / "other");
  WritePlainDatabase(dir_ / "other", {{2, "two"}});
  MDB_env* env = nullptr;
  ASSERT_EQ(0, mdb_env_create(&env));
  ASSERT_EQ(0, mdb_env_open(env, file_.c_str(), MDB_NOSUBDIR, 0600));
  mdb_env_close(env);
  ASSERT_TRUE(fs::exists(lock_));
  EXPECT_EQ(1U, ReadPlainDatabase(file_).size());
  EXPECT_TRUE(fs::exists(lock_));
  EXPECT_EQ(2U, ReadPlainDatabase(dir_ / "other").size());
}

TEST_F(PlainLmdbTest, FailuresNameTheCallAndItsCode) {
  const auto thrown = [](const auto& call) -> std::string {
    try {
      call();
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  };
  EXPECT_THAT(thrown([&] { ReadPlainDatabase(file_); }),
              testing::StartsWith("mdb_env_open returns 2:"));
  EXPECT_THAT(thrown([&] { WritePlainDatabase(dir_ / "no" / "file", {}); }),
              testing::StartsWith("mdb_env_open returns 2:"));
  EXPECT_TRUE(fs::is_empty(dir_.path()));
}

TEST(PlainLmdbBytes, EveryFieldOfAnExtentLiesAtItsPlace) {
  const EntryFields fields{0x0102030405060708,
                           0x1112131415161718,
                           Counting(0x20),
                           0x41424344,
                           -2,
                           0x51,
                           0x61626364,
                           0x71};
  const std::string expected = std::string(
      "\x08\x07\x06\x05\x04\x03\x02\x01\x18\x17\x16\x15\x14\x13\x12\x11"
      "\x20\x21\x22\x23\x24\x25\x26\x27\x28\x29\x2a\x2b\x2c\x2d\x2e\x2f"
      "\x30\x31\x32\x33\x34\x35\x36\x37\x38\x39\x3a\x3b\x3c\x3d\x3e\x3f"
      "\x44\x43\x42\x41\xfe\xff\xff\xff\x51\0\0\0\x64\x63\x62\x61"
      "\x71\0\0\0\0\0\0\0",
      72);
  EXPECT_EQ(expected, EntryBytes(fields));
}

TEST(PlainLmdbBytes, SpecialValuesHoldTheirFieldsAndZeros) {
  const auto padded = [](std::string fields) {
    fields.resize(72, '\0');
    return fields;
  };
  EXPECT_EQ(padded(std::string("\0\x10\0\0\0\0\0\0", 8)), SpecialBytes(4096));
  EXPECT_EQ(padded(std::string(8, '\xff')), SpecialBytes(-1));
  EXPECT_EQ(padded(std::string("\x02\0\0\0\x01\0\0\0", 8)), SpecialBytes(2, 1));
  const PlainDigest digest = Counting(0x80);
  EXPECT_EQ(
      padded(std::string("\x41\0\0\0\0\0\0\0", 8) + std::string(digest.begin(), digest.end())),
      SpecialBytes(65, digest));
}

TEST(PlainLmdbBytes, ARecordPrintsAsKeyAndHexadecimal) {
  EXPECT_EQ("-5: 00 0a ff", testing::PrintToString(PlainRecord{-5, std::string("\0\x0a\xff", 3)}));
}

}  // namespace
}  // namespace zefs::test
