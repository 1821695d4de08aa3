// Database files from which LMDB would die of a signal as it opens or reads them: what a load
// refuses, with which code and line, and what it opens all the same.

#include "tests/persistent/damaged_database.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <lmdb.h>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/persistent/lifecycle_fixture.h"
#include "tests/support/fault_injection.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::SizeIs;

/// Damage of both meta pages, and how a load refuses it.
struct MetaDamage {
  const char* name;
  std::size_t inMeta;
  fuzz::Field field;
  std::uint64_t number;
  int code;
  const char* what;
};

void PrintTo(const MetaDamage& damage, std::ostream* out) {
  *out << damage.name;
}

constexpr std::uint64_t kHuge = std::uint64_t{1} << 62;

class DamagedDatabaseTest : public LifecycleTest {
 protected:
  ~DamagedDatabaseTest() override { Faults::Reset(); }

  /// `count` extents of ten bytes side by side.
  static Records Many(std::int64_t count) {
    Records records;
    for (std::int64_t i = 0; i < count; ++i) {
      records.push_back(Stored(i * 10, i * 10 + 10, 70));
    }
    return records;
  }
  int CodeOfLoad() {
    CMappingLMDB& table = Make();
    const int code = CodeOf([&] { table.load(Directory().string(), false, ""); });
    Destroy();
    return code;
  }
  /// Leaves a full database whose last pages were taken and given back in one transaction, and so
  /// were never written. Returns how many bytes its pages would have.
  std::uintmax_t WriteWithoutItsLastPages() {
    MakeDirectory();
    MDB_env* env = nullptr;
    EXPECT_EQ(0, ::mdb_env_create(&env));
    EXPECT_EQ(0, ::mdb_env_open(env, Path("data.mdb").c_str(), MDB_NOSUBDIR, 0600));
    const Records records = Many(1500);
    Change(env, records, 0, 400, 400);
    Change(env, records, 0, 400, 200);  // pages come free, and are taken first from now on
    Change(env, records, 0, 250, 250);
    Change(env, records, 250, 1500, 250);
    MDB_envinfo info{};
    EXPECT_EQ(0, ::mdb_env_info(env, &info));
    ::mdb_env_close(env);
    fs::remove(Path("data.mdb-lock"));
    DamagedDatabase database(File("data.mdb"));
    database.SetMeta(fuzz::kMetaMainDb, fuzz::kDbFlags, 0);  // the order is the library's
    database.Store();
    return (info.me_last_pgno + 1) * fuzz::kPageBytes;
  }

 private:
  /// In one transaction puts the records [first, last), and deletes those from `keep` on, the last
  /// first.
  static void Change(MDB_env* env, Records records, std::size_t first, std::size_t last,
                     std::size_t keep) {
    MDB_txn* txn = nullptr;
    MDB_dbi dbi = 0;
    EXPECT_EQ(0, ::mdb_txn_begin(env, nullptr, 0, &txn));
    EXPECT_EQ(0, ::mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi));
    for (std::size_t i = first; i < last; ++i) {
      MDB_val key{sizeof(records[i].key), &records[i].key};
      MDB_val value{records[i].value.size(), records[i].value.data()};
      EXPECT_EQ(0, ::mdb_put(txn, dbi, &key, &value, 0));
    }
    for (std::size_t i = last; i > keep; --i) {
      MDB_val key{sizeof(records[i - 1].key), &records[i - 1].key};
      EXPECT_EQ(0, ::mdb_del(txn, dbi, &key, nullptr));
    }
    EXPECT_EQ(0, ::mdb_txn_commit(txn));
  }
};

class DamagedMetaTest : public DamagedDatabaseTest,
                        public testing::WithParamInterface<MetaDamage> {};

TEST_P(DamagedMetaTest, IsRefusedBeforeLmdbDiesOfIt) {
  const MetaDamage& damage = GetParam();
  Write("lsml0.mdb", Many(3));
  DamagedDatabase database(File("lsml0.mdb"));
  database.SetMeta(damage.inMeta, damage.field, damage.number);
  database.Store();
  const std::string before = BytesOf(File("lsml0.mdb"));
  EXPECT_EQ(damage.code, CodeOfLoad());
  const std::string code = std::to_string(damage.code);
  EXPECT_THAT(
      Lines(4),
      ElementsAre("8 db file " + Path("lsml0.mdb") + " is damaged: " + damage.what,
                  "8 Failed to open env for db " + Path("lsml0.mdb") + ", return value is " + code,
                  "8 Failed to setup env, return value is " + code));
  EXPECT_EQ(before, BytesOf(File("lsml0.mdb")));
  EXPECT_THAT(Files(), ElementsAre("lsml0.mdb"));
}

using namespace fuzz;  // NOLINT(google-build-using-namespace): the names of the fields
INSTANTIATE_TEST_SUITE_P(
    Fields, DamagedMetaTest,
    testing::Values(
        MetaDamage{"PagesOfNoBytes", kMetaFreeDb, kDbPad, 0, MDB_INVALID, "page size"},
        MetaDamage{"PagesOfNoPowerOfTwo", kMetaFreeDb, kDbPad, 4097, MDB_INVALID, "page size"},
        MetaDamage{"PagesTooSmall", kMetaFreeDb, kDbPad, 256, MDB_INVALID, "page size"},
        MetaDamage{"PagesTooLarge", kMetaFreeDb, kDbPad, 131072, MDB_INVALID, "page size"},
        MetaDamage{"FreePagesWithSortedValues", kMetaFreeDb, kDbFlags, MDB_DUPSORT | 8,
                   MDB_CORRUPTED, "flags of the free pages"},
        MetaDamage{"RecordsWithSortedValues", kMetaMainDb, kDbFlags, MDB_DUPSORT, MDB_INCOMPATIBLE,
                   "flags of the records"},
        MetaDamage{"NoPages", 0, kMetaLastPage, 0, MDB_CORRUPTED, "last page"},
        MetaDamage{"PagesBehindTheMap", 0, kMetaLastPage, kHuge, MDB_CORRUPTED, "last page"},
        MetaDamage{"FreePagesInAMetaPage", kMetaFreeDb, kDbRoot, 1, MDB_CORRUPTED,
                   "tree of the free pages"},
        MetaDamage{"FreePagesBehindTheFile", kMetaFreeDb, kDbRoot, 100, MDB_CORRUPTED,
                   "tree of the free pages"},
        MetaDamage{"RecordsInAMetaPage", kMetaMainDb, kDbRoot, 0, MDB_CORRUPTED,
                   "tree of the records"},
        MetaDamage{"RecordsBehindTheFile", kMetaMainDb, kDbRoot, kHuge, MDB_CORRUPTED,
                   "tree of the records"},
        MetaDamage{"TooDeep", kMetaMainDb, kDbDepth, 33, MDB_CORRUPTED, "tree of the records"},
        MetaDamage{"MoreRecordsThanBytes", kMetaMainDb, kDbEntries, kHuge, MDB_CORRUPTED,
                   "number of records"}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_F(DamagedDatabaseTest, TwoPageSizesAreRefused) {
  Write("lsml0.mdb", Many(3));
  DamagedDatabase database(File("lsml0.mdb"));
  database.Set(1, {kMetaFreeDb + kDbPad.at, kDbPad.width}, 3);
  database.Store();
  EXPECT_EQ(MDB_INVALID, CodeOfLoad());
}

// So LMDB leaves the older meta page when it cannot write it: the new roots under the old last
// page.
TEST_F(DamagedDatabaseTest, TheOlderMetaPageMayBeWhatAFailedCommitHasLeft) {
  Write("data.mdb", Many(3));  // one commit: the first page is the older one
  DamagedDatabase database(File("data.mdb"));
  database.Set(0, {kMetaMainDb + kDbRoot.at, kDbRoot.width}, 100);
  database.Set(0, {kMetaFreeDb + kDbRoot.at, kDbRoot.width}, 101);
  database.Store();
  CMappingLMDB& table = Load();
  EXPECT_THAT(Lines(2), SizeIs(0));
  EXPECT_THAT(Walk(table), SizeIs(3));
  EXPECT_EQ(0, table.setFileSize(5000)) << "it can be written to";
  Destroy();
  EXPECT_THAT(Walk(Load()), SizeIs(3));
  Destroy();
}

TEST_F(DamagedDatabaseTest, WhatLmdbRefusesItselfKeepsItsCodeAndHasNoLineOfItsOwn) {
  struct Refused {
    Field field;
    int code;
  };
  for (const Refused& refused :
       {Refused{kMetaMagic, MDB_INVALID}, Refused{kMetaVersion, MDB_VERSION_MISMATCH},
        Refused{kPageFlags, MDB_INVALID}}) {
    fs::remove_all(Directory());
    Write("lsml0.mdb", Many(3));
    DamagedDatabase database(File("lsml0.mdb"));
    database.SetMeta(0, refused.field, 0);
    database.Store();
    EXPECT_EQ(refused.code, CodeOfLoad());
    EXPECT_THAT(Lines(4), SizeIs(2));
  }
  fs::remove_all(Directory());
  Write("lsml0.mdb", Many(3));
  DamagedDatabase database(File("lsml0.mdb"));
  database.Set(1, kMetaMagic, 0);  // one page of the two
  database.Store();
  EXPECT_EQ(MDB_INVALID, CodeOfLoad());
  EXPECT_THAT(Lines(4), SizeIs(2));
  fs::remove_all(Directory());
  MakeDirectory();
  fs::create_directory(File("lsml0.mdb"));
  EXPECT_EQ(EISDIR, CodeOfLoad());
  EXPECT_THAT(Lines(4), SizeIs(2));
}

// Cut at a page, a file would have LMDB die of SIGBUS at the first look at what is missing.
TEST_F(DamagedDatabaseTest, AFileCutShortShowsWhatItHasAndGivesAnErrorForTheRest) {
  Records records = Many(200);
  records.push_back({kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)});  // nothing to store
  Write("data.mdb", records);
  const std::size_t last = DamagedDatabase(File("data.mdb")).LastLeaf();
  const std::uintmax_t whole = fs::file_size(File("data.mdb"));
  ASSERT_EQ(whole, (last + 1) * kPageBytes) << "the leaf that is cut off is the last page";
  fs::resize_file(File("data.mdb"), last * kPageBytes);
  CMappingLMDB& table = Load();
  EXPECT_THAT(Lines(2),
              ElementsAre("2 db file " + Path("data.mdb") + " is shorter than its pages, size " +
                          std::to_string(last * kPageBytes) + " to " + std::to_string(whole)));
  EXPECT_EQ(whole, fs::file_size(File("data.mdb")));
  EXPECT_EQ(10, table.lower_bound(0, nullptr)->eOff);
  EXPECT_EQ(MDB_CORRUPTED, CodeOf([&] { table.lower_bound(1995, nullptr); }));
  Destroy();
}

TEST_F(DamagedDatabaseTest, AFileWhoseLastPagesWereNeverWrittenIsSound) {
  const std::uintmax_t pages = WriteWithoutItsLastPages();
  ASSERT_LT(fs::file_size(File("data.mdb")), pages);
  CMappingLMDB& table = Load();
  EXPECT_THAT(Walk(table), SizeIs(250));
  EXPECT_THAT(Lines(2), SizeIs(1));
  EXPECT_EQ(pages, fs::file_size(File("data.mdb")));
  EXPECT_EQ(0, table.setFileSize(5000)) << "it can be written to";
  Destroy();
  EXPECT_THAT(Walk(Load()), SizeIs(250));
  EXPECT_THAT(Lines(2), SizeIs(0));
  Destroy();
}

TEST_F(DamagedDatabaseTest, AFileThatCannotBeMadeLongerIsRefused) {
  WriteWithoutItsLastPages();
  CMappingLMDB& table = Make();
  Faults::OnlyBelow(Directory().string());
  Faults::FailNth(Call::kFtruncate, 2, ENOSPC);  // the first is of a lock file
  EXPECT_EQ(ENOSPC, CodeOf([&] { table.load(Directory().string(), false, ""); }));
  Destroy();
  EXPECT_THAT(
      Lines(4),
      ElementsAre("8 Failed to lengthen db file " + Path("data.mdb") + ", errno: 28",
                  "8 Failed to open env for db " + Path("data.mdb") + ", return value is 28",
                  "8 Failed to setup env, return value is 28"));
}

}  // namespace
}  // namespace zefs::test
