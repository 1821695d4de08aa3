#include "refhost/durable/catalogue.h"

#include <string>

#include <gtest/gtest.h>

#include "refhost/store/store_error.h"
#include "tests/refhost/store/store_fixture.h"

namespace zefs::refhost {
namespace {

class CatalogueTest : public ::testing::Test {
 protected:
  std::string Path() const { return (dir / "catalogue.mdb").string(); }

  static CatalogueEntry Entry(std::uint64_t table) {
    CatalogueEntry entry;
    entry.table = table;
    entry.size = static_cast<std::int64_t>(table * 10);
    entry.digest.fill(static_cast<unsigned char>(table));
    entry.changing = table % 2 == 1;
    return entry;
  }
  test::TempDir dir;
};

TEST_F(CatalogueTest, EntriesLastAndComeByName) {
  {
    Catalogue catalogue(Path());
    catalogue.Commit({{"b", Entry(2)}, {"a", Entry(1)}, {"c", Entry(3)}});
    catalogue.Commit({{"b", Entry(4)}}, {"c", "none"});
    EXPECT_EQ(4U, catalogue.Find("b")->table);
  }
  const Catalogue catalogue(Path());
  ASSERT_EQ(2U, catalogue.entries().size());
  EXPECT_EQ("a", catalogue.entries().begin()->first);
  EXPECT_EQ(nullptr, catalogue.Find("c"));
  const CatalogueEntry* const entry = catalogue.Find("b");
  ASSERT_NE(nullptr, entry);
  EXPECT_EQ(4U, entry->table);
  EXPECT_EQ(40, entry->size);
  EXPECT_EQ(Entry(4).digest, entry->digest);
  EXPECT_FALSE(entry->changing);
  EXPECT_TRUE(catalogue.Find("a")->changing);
}

TEST_F(CatalogueTest, IntentsLastAndGoWithTheEntryThatReplacesThem) {
  CatalogueEntry entry = Entry(2);
  entry.cut = true;
  entry.movingTo = 0;
  CatalogueEntry far = Entry(3);
  far.movingTo = 999;
  Catalogue(Path()).Commit({{"a", entry}, {"b", far}, {"c", Entry(2)}});
  {
    Catalogue catalogue(Path());
    EXPECT_TRUE(catalogue.Find("a")->cut);
    EXPECT_FALSE(catalogue.Find("a")->changing);
    EXPECT_EQ(0U, catalogue.Find("a")->movingTo);
    EXPECT_FALSE(catalogue.Find("b")->cut);
    EXPECT_TRUE(catalogue.Find("b")->changing);
    EXPECT_EQ(999U, catalogue.Find("b")->movingTo);
    EXPECT_FALSE(catalogue.Find("c")->movingTo.has_value());
    catalogue.Commit({{"a", Entry(2)}});
  }
  const Catalogue catalogue(Path());
  EXPECT_FALSE(catalogue.Find("a")->cut);
  EXPECT_FALSE(catalogue.Find("a")->movingTo.has_value());
}

TEST_F(CatalogueTest, StateOfAnotherVersionIsDamage) {
  std::string value;
  {
    Catalogue(Path()).Commit({{"a", Entry(2)}});
    LmdbFile file(Path(), 1 << 20);
    std::string key;
    file.ForEach([&](std::string_view k, std::string_view v) {
      key = k;
      value = v;
    });
    constexpr std::size_t kState = 48;  // its second byte has no meaning
    value[kState + 1] = 1;
    file.Apply({{key, value}});
  }
  EXPECT_EQ("the catalogue " + Path() + " has an entry that cannot be read",
            test::ThrownText<DamageError>([&] { Catalogue catalogue(Path()); }));
}

TEST_F(CatalogueTest, EntryThatCannotBeReadIsDamage) {
  for (const std::string& value : {std::string("short"), std::string(60, 'x')}) {
    { LmdbFile(Path(), 1 << 20).Apply({{"key", value}}); }
    EXPECT_EQ("the catalogue " + Path() + " has an entry that cannot be read",
              test::ThrownText<DamageError>([&] { Catalogue catalogue(Path()); }));
  }
}

}  // namespace
}  // namespace zefs::refhost
