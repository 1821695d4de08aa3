#include "refhost/store/file_store.h"

#include <limits>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/store/store_error.h"
#include "tests/refhost/store/store_fixture.h"

namespace zefs::refhost {
namespace {

using test::SmallStore;
using test::ThrownText;
using ::testing::StartsWith;

constexpr std::int64_t kMaxOffset = std::numeric_limits<std::int64_t>::max();

std::string Extents(MappingTable& table) {
  std::string text;
  const auto behind = table.end();
  for (auto it = table.begin(); it != behind; ++it) {
    text += "[" + std::to_string(it->getSOff()) + "," + std::to_string(it->getEOff()) + ")+" +
            std::to_string(it->getObjOff());
  }
  return text;
}

TEST(FileStore, NewFileIsEmpty) {
  SmallStore store;
  const auto id = store.files.Create();
  EXPECT_EQ(0, store.files.SizeOf(id));
  EXPECT_EQ("", store.ReadAll(id));
  char byte = '?';
  EXPECT_EQ(0U, store.files.Read(id, 100, &byte, 1));
  EXPECT_EQ('?', byte);
}

TEST(FileStore, WriteIsCutIntoOneExtentPerSegment) {
  SmallStore store;
  const auto id = store.files.Create();
  store.files.Write(id, 0, std::string(1100, 'a'));
  EXPECT_EQ("[0,512)+0[512,1024)+0[1024,1100)+0", Extents(store.files.TableOf(id)));
  EXPECT_EQ(512U + 76U, store.objects.storedBytes()) << "two segments are equal";
}

TEST(FileStore, EqualFilesShareTheirObjects) {
  SmallStore store;
  const auto a = store.files.Create();
  const auto b = store.files.Create();
  store.files.Write(a, 0, std::string(700, 'x') + "tail");
  const std::uint64_t stored = store.objects.storedBytes();
  store.files.Write(b, 0, std::string(700, 'x') + "tail");
  EXPECT_EQ(stored, store.objects.storedBytes());
  EXPECT_EQ(store.ReadAll(a), store.ReadAll(b));
}

TEST(FileStore, OverwriteAcrossABoundaryKeepsBothSides) {
  SmallStore store;
  const auto id = store.files.Create();
  store.files.Write(id, 0, std::string(512, 'a') + std::string(512, 'b'));
  store.files.Write(id, 500, std::string(24, 'X'));
  EXPECT_EQ("[0,500)+0[500,512)+0[512,524)+0[524,1024)+12", Extents(store.files.TableOf(id)));
  EXPECT_EQ(std::string(500, 'a') + std::string(24, 'X') + std::string(500, 'b'),
            store.ReadAll(id));
}

TEST(FileStore, WriteBehindTheEndLeavesAHoleOfZeros) {
  SmallStore store;
  const auto id = store.files.Create();
  store.files.Write(id, 0, "ab");
  store.files.Write(id, 1000, "cd");
  EXPECT_EQ(1002, store.files.SizeOf(id));
  EXPECT_EQ("ab" + std::string(998, '\0') + "cd", store.ReadAll(id));
  EXPECT_EQ(2, store.files.TableOf(id).size());
}

TEST(FileStore, WriteIntoAHoleFillsThatPartOnly) {
  SmallStore store;
  const auto id = store.files.Create();
  store.files.Truncate(id, 10);
  store.files.Write(id, 4, "xy");
  EXPECT_EQ(std::string(4, '\0') + "xy" + std::string(4, '\0'), store.ReadAll(id));
}

TEST(FileStore, WriteOfNothingChangesNothing) {
  SmallStore store;
  const auto id = store.files.Create();
  store.files.Write(id, 100, "");
  EXPECT_EQ(0, store.files.SizeOf(id));
  EXPECT_EQ(0, store.files.TableOf(id).size());
}

TEST(FileStore, TruncateInsideAnExtentKeepsItsFront) {
  SmallStore store;
  const auto id = store.files.Create();
  store.files.Write(id, 0, std::string(600, 'a'));
  store.files.Truncate(id, 100);
  EXPECT_EQ(std::string(100, 'a'), store.ReadAll(id));
  EXPECT_EQ("[0,100)+0", Extents(store.files.TableOf(id)));
}

TEST(FileStore, GrowingAfterACutGivesZerosAndNotTheOldBytes) {
  SmallStore store;
  const auto id = store.files.Create();
  store.files.Write(id, 0, std::string(600, 'a'));
  store.files.Truncate(id, 100);
  store.files.Truncate(id, 300);
  EXPECT_EQ(std::string(100, 'a') + std::string(200, '\0'), store.ReadAll(id));
}

TEST(FileStore, TruncateToNothingAndAgain) {
  SmallStore store;
  const auto id = store.files.Create();
  store.files.Write(id, 0, std::string(5000, 'a'));
  store.files.Truncate(id, 0);
  EXPECT_EQ("", store.ReadAll(id));
  EXPECT_EQ(0, store.files.TableOf(id).size());
  store.files.Write(id, 3, "b");
  EXPECT_EQ(std::string(3, '\0') + "b", store.ReadAll(id));
}

TEST(FileStore, ReadsBeginAndEndAnywhere) {
  SmallStore store;
  const auto id = store.files.Create();
  std::string model(2000, '\0');
  for (std::size_t i = 0; i < model.size(); ++i) {
    model[i] = static_cast<char>(i * 7 + i / 256);
  }
  store.files.Write(id, 0, model);
  for (const std::size_t from : {0U, 1U, 511U, 512U, 513U, 1999U, 2000U, 2001U}) {
    for (const std::size_t size : {0U, 1U, 2U, 512U, 1024U, 5000U}) {
      std::string bytes(size, '?');
      bytes.resize(store.files.Read(id, static_cast<std::int64_t>(from), bytes.data(), size));
      EXPECT_EQ(from < model.size() ? model.substr(from, size) : "", bytes) << from << " " << size;
    }
  }
}

TEST(FileStore, LastByteThereIsCanBeWrittenAndNoMore) {
  SmallStore store;
  const auto id = store.files.Create();
  store.files.Write(id, kMaxOffset - 1, "z");
  EXPECT_EQ(kMaxOffset, store.files.SizeOf(id));
  char byte = '?';
  EXPECT_EQ(1U, store.files.Read(id, kMaxOffset - 1, &byte, 1));
  EXPECT_EQ('z', byte);
  EXPECT_THROW(store.files.Write(id, kMaxOffset, "z"), std::invalid_argument);
  EXPECT_THROW(store.files.Write(id, -1, "z"), std::invalid_argument);
  EXPECT_THROW(store.files.Truncate(id, -1), std::invalid_argument);
  EXPECT_THROW(store.files.Read(id, -1, &byte, 1), std::invalid_argument);
}

TEST(FileStore, RemovedFileIsGoneAndItsNumberIsNotUsedAgain) {
  SmallStore store;
  const auto a = store.files.Create();
  store.files.Write(a, 0, "a");
  store.files.Remove(a);
  EXPECT_THROW(store.files.SizeOf(a), std::out_of_range);
  EXPECT_THROW(store.files.Write(a, 0, "x"), std::out_of_range);
  EXPECT_THROW(store.files.Remove(a), std::out_of_range);
  EXPECT_NE(a, store.files.Create());
  EXPECT_EQ(1U, store.files.size());
}

TEST(FileStore, FailedWriteKeepsTheSegmentsBeforeIt) {
  SmallStore store(512, 512);
  const auto id = store.files.Create();
  test::WriteFile(store.directory / "65", "in the way");
  const std::string text = ThrownText<StoreError>(
      [&] { store.files.Write(id, 0, std::string(512, 'a') + std::string(512, 'b')); });
  EXPECT_EQ("cannot create " + (store.directory / "65").string() + ": File exists (EEXIST)", text);
  EXPECT_EQ(std::string(512, 'a'), store.ReadAll(id));
  EXPECT_EQ("[0,512)+0", Extents(store.files.TableOf(id)));
}

TEST(FileStore, ExtentWithoutItsObjectIsDamageThatNamesTheRange) {
  SmallStore store;
  const auto id = store.files.Create();
  store.files.Write(id, 0, std::string(512, 'a'));
  DataCacheNode::ObjectID unknown;
  unknown.dcid = 64;
  unknown.fp.fill(7);
  store.files.TableOf(id).insert(10, 20, &unknown, 0, 0, nullptr, -1, nullptr);
  EXPECT_THAT(ThrownText<DamageError>([&] { store.ReadAll(id); }), StartsWith("extent [10, 20): "));
}

}  // namespace
}  // namespace zefs::refhost
