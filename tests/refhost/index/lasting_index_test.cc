#include "refhost/index/lasting_index.h"

#include <string>

#include <gtest/gtest.h>

#include "refhost/store/store_error.h"
#include "tests/refhost/store/store_fixture.h"

namespace zefs::refhost {
namespace {

crfp_digest_t Fingerprint(unsigned char seed) {
  crfp_digest_t fp{};
  fp.fill(seed);
  return fp;
}

class LastingIndexTest : public ::testing::Test {
 protected:
  std::string Path() const { return (dir / "index.mdb").string(); }
  test::TempDir dir;
};

TEST_F(LastingIndexTest, ObjectIsFoundBeforeAndAfterTheCommit) {
  LastingIndex index(Path());
  EXPECT_FALSE(index.Find(Fingerprint(1)).has_value());
  index.Insert(Fingerprint(1), {64, 5, 7});
  for (int i = 0; i < 2; ++i) {
    const auto where = index.Find(Fingerprint(1));
    ASSERT_TRUE(where.has_value());
    EXPECT_EQ(64U, where->dcid);
    EXPECT_EQ(5U, where->offset);
    EXPECT_EQ(7U, where->length);
    EXPECT_EQ(1U, index.size());
    index.Commit();
  }
}

TEST_F(LastingIndexTest, OnlyWhatWasCommittedLasts) {
  {
    LastingIndex index(Path());
    index.Insert(Fingerprint(1), {64, 0, 1});
    index.Commit();
    index.Insert(Fingerprint(2), {64, 1, 1});
  }
  const LastingIndex index(Path());
  EXPECT_TRUE(index.Find(Fingerprint(1)).has_value());
  EXPECT_FALSE(index.Find(Fingerprint(2)).has_value());
}

TEST_F(LastingIndexTest, EntryOfAnotherLengthIsDamage) {
  {
    const crfp_digest_t fp = Fingerprint(1);
    LmdbFile(Path(), 1 << 20).Apply({{std::string(fp.begin(), fp.end()), "short"}});
  }
  const LastingIndex index(Path());
  EXPECT_EQ(0U, test::ThrownText<DamageError>([&] {
                  index.Find(Fingerprint(1));
                }).find("the index entry of 0101"));
}

TEST_F(LastingIndexTest, ReplacedLocationCountsBeforeAndAfterTheCommit) {
  LastingIndex index(Path());
  index.Insert(Fingerprint(1), {64, 5, 7});
  index.Commit();
  index.Replace(Fingerprint(1), {65, 9, 7});
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(65U, index.Find(Fingerprint(1))->dcid);
    index.Commit();
  }
  EXPECT_EQ(1U, index.size());
}

TEST_F(LastingIndexTest, RemovedObjectsAreForgottenForGood) {
  {
    LastingIndex index(Path());
    for (unsigned char i = 1; i <= 3; ++i) {
      index.Insert(Fingerprint(i), {64, i, 1});
    }
    index.Remove({Fingerprint(1), Fingerprint(3), Fingerprint(9)});
    EXPECT_FALSE(index.Find(Fingerprint(1)).has_value()) << "though it was not committed";
    EXPECT_EQ(1U, index.size());
  }
  const LastingIndex index(Path());
  EXPECT_TRUE(index.Find(Fingerprint(2)).has_value()) << "a removal commits the rest";
  EXPECT_EQ(1U, index.size());
}

TEST_F(LastingIndexTest, AllThatIsCommittedIsVisited) {
  LastingIndex index(Path());
  index.Insert(Fingerprint(2), {65, 1, 4});
  index.Insert(Fingerprint(1), {64, 0, 3});
  index.Commit();
  index.Insert(Fingerprint(3), {66, 0, 3});
  std::string seen;
  index.ForEach([&seen](const crfp_digest_t& fp, const Location& where) {
    seen += std::to_string(fp[0]) + ":" + std::to_string(where.dcid) + "+" +
            std::to_string(where.length) + " ";
  });
  EXPECT_EQ("1:64+3 2:65+4 ", seen);
}

}  // namespace
}  // namespace zefs::refhost
