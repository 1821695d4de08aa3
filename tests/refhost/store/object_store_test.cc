#include "refhost/store/object_store.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "refhost/host/sha256.h"
#include "refhost/store/store_error.h"
#include "tests/refhost/store/store_fixture.h"

namespace zefs::refhost {
namespace {

using test::SmallStore;
using test::ThrownText;
using ::testing::EndsWith;
using ::testing::HasSubstr;

std::string ReadBack(const ObjectStore& objects, const DataCacheNode::ObjectID& id,
                     std::int64_t from, std::uint32_t size) {
  std::string bytes(size, '?');
  objects.Read(id, from, size, bytes.data());
  return bytes;
}

TEST(ObjectStore, EqualPiecesAreStoredOnce) {
  SmallStore store;
  const auto first = store.objects.Put("same");
  const auto other = store.objects.Put("another");
  const auto again = store.objects.Put("same");
  EXPECT_EQ(first.objectID.fp, again.objectID.fp);
  EXPECT_EQ(first.objectID.dcid, again.objectID.dcid);
  EXPECT_EQ(first.dcOffset, again.dcOffset);
  EXPECT_NE(first.objectID.fp, other.objectID.fp);
  EXPECT_EQ(4, other.dcOffset);
  EXPECT_EQ(15U, store.objects.putBytes());
  EXPECT_EQ(11U, store.objects.storedBytes());
  EXPECT_EQ(2U, store.index.size());
}

TEST(ObjectStore, FingerprintIsTheDigestOfTheBytes) {
  SmallStore store;
  EXPECT_EQ(Sha256("abc", 3), store.objects.Put("abc").objectID.fp);
}

TEST(ObjectStore, PieceThatIsAPrefixOfAnotherIsAnother) {
  SmallStore store;
  const auto longer = store.objects.Put(std::string(100, 'a'));
  const auto shorter = store.objects.Put(std::string(99, 'a'));
  EXPECT_NE(longer.objectID.fp, shorter.objectID.fp);
  EXPECT_EQ(199U, store.objects.storedBytes());
}

TEST(ObjectStore, ReadsAnyPartOfAnObject) {
  SmallStore store;
  const auto id = store.objects.Put("0123456789").objectID;
  EXPECT_EQ("0123456789", ReadBack(store.objects, id, 0, 10));
  EXPECT_EQ("9", ReadBack(store.objects, id, 9, 1));
  EXPECT_EQ("", ReadBack(store.objects, id, 10, 0));
}

TEST(ObjectStore, PartThatReachesBeyondTheObjectIsDamage) {
  SmallStore store;
  store.objects.Put("in front");
  const auto id = store.objects.Put("0123456789").objectID;
  store.objects.Put("behind");
  EXPECT_THAT(ThrownText<DamageError>([&] { ReadBack(store.objects, id, 9, 2); }),
              EndsWith("has 10 bytes; [9, 11) of it are wanted"));
  EXPECT_THAT(ThrownText<DamageError>([&] { ReadBack(store.objects, id, -1, 2); }),
              EndsWith("has 10 bytes; [-1, 1) of it are wanted"));
}

TEST(ObjectStore, UnknownFingerprintIsDamage) {
  SmallStore store;
  auto id = store.objects.Put("abc").objectID;
  id.fp[31] ^= 1;
  EXPECT_THAT(ThrownText<DamageError>([&] { ReadBack(store.objects, id, 0, 3); }),
              EndsWith("is not stored"));
}

TEST(ObjectStore, WrongContainerIsDamage) {
  SmallStore store;
  auto id = store.objects.Put("abc").objectID;
  id.dcid = 99;
  EXPECT_THAT(ThrownText<DamageError>([&] { ReadBack(store.objects, id, 0, 3); }),
              HasSubstr("looked for in container 99 but lies in 64"));
}

}  // namespace
}  // namespace zefs::refhost
