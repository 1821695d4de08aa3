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

TEST_F(CatalogueTest, EntryThatCannotBeReadIsDamage) {
  for (const std::string& value : {std::string("short"), std::string(60, 'x')}) {
    { LmdbFile(Path(), 1 << 20).Apply({{"key", value}}); }
    EXPECT_EQ("the catalogue " + Path() + " has an entry that cannot be read",
              test::ThrownText<DamageError>([&] { Catalogue catalogue(Path()); }));
  }
}

}  // namespace
}  // namespace zefs::refhost
