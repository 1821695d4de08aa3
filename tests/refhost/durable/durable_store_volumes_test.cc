#include <array>
#include <string>

#include <gtest/gtest.h>

#include "refhost/durable/store_figures.h"
#include "refhost/store/store_error.h"
#include "tests/refhost/durable/other_file_system.h"
#include "tests/refhost/durable/whole_files_fixture.h"

namespace zefs::refhost {
namespace {

namespace fs = boost::filesystem;
using test::kSegment;
using test::NameOn;
using test::Pattern;
using test::ProblemsOf;
using test::ReadAll;
using test::TablesOf;
using test::ThrownText;
using TableMove = DurableStore::TableMove;

class DurableStoreVolumes : public test::DurableStoreTest {
 protected:
  DurableStoreVolumes() {
    for (const char* const name : {"v1", "v2"}) {
      fs::create_directory(dir_ / name);
      options_.format.volumes.push_back(fs::canonical(dir_ / name).string());
    }
  }
  void Put(const std::string& name, std::uint64_t seed, std::size_t size = 5000) {
    store().Create(name);
    store().Write(name, 0, Pattern(seed, size));
  }
  std::string On(std::size_t volume, const std::string& stem) {
    return NameOn(store().directory(), volume, stem);
  }
  std::string TableOfFile(const std::string& name) {
    return store().directory().table(store().Catalogued().at(name).table);
  }
  std::size_t VolumeOfFile(const std::string& name) {
    return VolumeOf(store().Catalogued().at(name).table);
  }
};

TEST_F(DurableStoreVolumes, TablesLieWhereTheirNamesSendThem) {
  for (int i = 0; i < 20; ++i) {
    Put(std::to_string(i), static_cast<std::uint64_t>(i));
  }
  SyncAndReopen();
  std::array<std::uint64_t, 2> tables{};
  for (int i = 0; i < 20; ++i) {
    const std::string name = std::to_string(i);
    EXPECT_EQ(store().directory().VolumeFor(name), VolumeOfFile(name));
    EXPECT_TRUE(fs::exists(TableOfFile(name))) << name;
    ++tables.at(VolumeOfFile(name));
  }
  EXPECT_GT(tables[0], 0U);
  EXPECT_GT(tables[1], 0U);
  EXPECT_EQ((std::vector<std::uint64_t>{tables[0], tables[1]}), FiguresOf(&store()).tables);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Pattern(static_cast<std::uint64_t>(i), 5000), ReadAll(store(), std::to_string(i)));
  }
  EXPECT_EQ("", ProblemsOf(store()));
  EXPECT_FALSE(fs::exists(Path() + "/tables"));
}

TEST_F(DurableStoreVolumes, ListBelongsToTheStore) {
  store();
  Close();
  const std::vector<std::string> volumes = options_.format.volumes;
  options_.format.volumes.clear();
  EXPECT_EQ(2U, store().directory().volumes()) << "it need not be given again";
  Close();
  options_.format.volumes = {volumes[1], volumes[0]};
  EXPECT_EQ("the store " + Path() + " has the volumes " + volumes[0] + ", " + volumes[1] +
                "; it cannot be opened with " + volumes[1] + ", " + volumes[0],
            ThrownText<StoreError>([&] { store(); }));
  options_.format.volumes = volumes;
  options_.format.volumes[0] += "/../v1/";  // another path to the same directory
  EXPECT_EQ(2U, store().directory().volumes());
}

TEST_F(DurableStoreVolumes, StoreWithoutVolumesDoesNotGetThemLater) {
  const std::vector<std::string> volumes = options_.format.volumes;
  options_.format.volumes.clear();
  Put("a", 1);
  SyncAndReopen();
  EXPECT_EQ(1U, store().directory().volumes());
  EXPECT_EQ(std::vector<std::uint64_t>{1}, FiguresOf(&store()).tables);
  Close();
  options_.format.volumes = volumes;
  EXPECT_EQ("the store " + Path() + " has the volumes (none); it cannot be opened with " +
                volumes[0] + ", " + volumes[1],
            ThrownText<StoreError>([&] { store(); }));
}

TEST_F(DurableStoreVolumes, VolumesThatThereAreNotAreRefused) {
  const std::vector<std::string> volumes = options_.format.volumes;
  options_.format.volumes = {volumes[0], volumes[0]};
  EXPECT_EQ("the volume " + volumes[0] + " is given twice",
            ThrownText<std::invalid_argument>([&] { store(); }));
  options_.format.volumes = {volumes[0] + "x"};
  EXPECT_EQ("cannot use the volume " + volumes[0] + "x: No such file or directory (ENOENT)",
            ThrownText<StoreError>([&] { store(); }));
  test::WriteFile(dir_ / "file", "");
  options_.format.volumes = {(dir_ / "file").string()};
  EXPECT_EQ("cannot use the volume " + (dir_ / "file").string() + ": Not a directory (ENOTDIR)",
            ThrownText<StoreError>([&] { store(); }));
  options_.format.volumes = volumes;
  EXPECT_EQ(2U, store().directory().volumes()) << "and no store was made before";
}

TEST_F(DurableStoreVolumes, StoreWhoseVolumeIsMissingIsNotOpened) {
  const std::string name = On(1, "f");
  Put(name, 1);
  store().Sync();
  const std::string tables = store().directory().tables(1);
  Close();
  fs::rename(options_.format.volumes[1], dir_ / "away");
  options_.format.volumes.clear();
  EXPECT_EQ("cannot find the volume " + tables + ": No such file or directory (ENOENT)",
            ThrownText<StoreError>([&] { store(); }));
  fs::rename(dir_ / "away", dir_ / "v2");
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), name));
}

TEST_F(DurableStoreVolumes, TwoStoresShareVolumes) {
  Put("a", 1);
  SyncAndReopen();
  {
    DurableStore other((dir_ / "other").string(), options_);
    other.Create("a");
    other.Write("a", 0, "other");
    other.Sync();
  }
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), "a"));
  DurableStore other((dir_ / "other").string(), options_);
  EXPECT_EQ("other", ReadAll(other, "a"));
}

TEST_F(DurableStoreVolumes, OrphansAreRemovedFromAllVolumes) {
  Put(On(0, "x"), 1);
  Put(On(1, "x"), 2);
  store().Sync();
  fs::create_directory(store().directory().tables(0) + "/900");
  fs::create_directory(store().directory().tables(1) + "/901");
  fs::create_directory(store().directory().tables(1) + "/no number");
  const std::uint64_t table = store().Catalogued().begin()->second.table;
  const std::uint64_t twin = TableOn(1 - VolumeOf(table), NumberOf(table));
  fs::create_directory(store().directory().table(twin));
  Close();
  EXPECT_EQ(3U, TablesOf(store().directory())) << "the number alone does not make it known";
  EXPECT_TRUE(fs::exists(store().directory().tables(1) + "/no number"));
}

/// A table that is open is renamed under its object, which goes on: reads, flushes and merges.
TEST_F(DurableStoreVolumes, RenamedTableGoesOnFromItsNewPlace) {
  const test::SmallThresholds merging(4, 16);
  const std::string from = On(0, "from");
  const std::string to = On(1, "to");
  std::string model = Pattern(1, 60 * kSegment);
  Put(from, 1, model.size());
  EXPECT_EQ(TableMove::kRenamed, store().Rename(from, to, false));
  const std::uint64_t merges = store().merges();
  EXPECT_EQ(1U, VolumeOfFile(to));
  EXPECT_TRUE(fs::exists(TableOfFile(to)));
  EXPECT_EQ(model, ReadAll(store(), to));
  for (std::uint64_t round = 2; round < 8; ++round) {
    const std::string bytes = Pattern(round, 20 * kSegment);
    model.replace(round * 3 * kSegment, bytes.size(), bytes);
    store().Write(to, static_cast<std::int64_t>(round * 3 * kSegment), bytes);
    store().Sync();
  }
  store().CloseFiles();
  EXPECT_GT(store().merges(), merges);
  EXPECT_EQ(model, ReadAll(store(), to)) << "loaded again by this process";
  EXPECT_EQ(TableMove::kRenamed, store().Rename(to, from, false)) << "and back";
  Close();
  EXPECT_EQ(model, ReadAll(store(), from));
  EXPECT_EQ(1U, TablesOf(store().directory()));
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreVolumes, TableWithAJournalGoesOnFromItsNewPlace) {
  options_.format.tableType = "GENERIC";
  const std::string from = On(0, "from");
  const std::string to = On(1, "to");
  Put(from, 1, 40 * kSegment);
  EXPECT_EQ(TableMove::kRenamed, store().Rename(from, to, false));
  store().Write(to, 0, Pattern(2, 40 * kSegment));
  Close();
  EXPECT_EQ(Pattern(2, 40 * kSegment), ReadAll(store(), to));
}

TEST_F(DurableStoreVolumes, NameOnTheSameVolumeLeavesTheTableWhereItIs) {
  const std::string from = On(1, "from");
  Put(from, 1);
  store().Sync();
  const std::string table = TableOfFile(from);
  EXPECT_EQ(TableMove::kStays, store().Rename(from, On(1, "to"), false));
  EXPECT_EQ(table, TableOfFile(On(1, "to")));
}

TEST_F(DurableStoreVolumes, ReplacedTableOnAnotherVolumeIsGone) {
  const std::string from = On(0, "from");
  const std::string to = On(1, "to");
  Put(from, 1);
  Put(to, 2);
  EXPECT_EQ(TableMove::kRenamed, store().Rename(from, to, true));
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), to));
  Close();
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), to));
  EXPECT_EQ(1U, TablesOf(store().directory()));
}

TEST_F(DurableStoreVolumes, SnapshotGoesToTheVolumeOfItsName) {
  const std::string file = On(0, "file");
  const std::string snap = On(1, "snap");
  Put(file, 1);
  store().Snapshot(file, snap);
  EXPECT_EQ(0U, VolumeOfFile(file));
  EXPECT_EQ(1U, VolumeOfFile(snap));
  store().Write(file, 0, "changed");
  SyncAndReopen();
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), snap));
  EXPECT_EQ("", ProblemsOf(store()));
}

TEST_F(DurableStoreVolumes, OtherFileSystemsGetCopies) {
  const test::OtherFileSystem other(dir_.path());
  options_.format.volumes[1] = other.path().string();
  const std::string from = On(0, "from");
  const std::string to = On(1, "to");
  Put(from, 1);
  EXPECT_EQ(TableMove::kCopied, store().Rename(from, to, false));
  EXPECT_EQ(Pattern(1, 5000), ReadAll(store(), to));
  store().Write(to, 4000, Pattern(2, 3000));
  const std::string expected = ReadAll(store(), to);
  store().Snapshot(to, On(0, "snap"));
  EXPECT_EQ(2U, TablesOf(store().directory())) << "what was copied is gone";
  Close();
  EXPECT_EQ(expected, ReadAll(store(), to));
  EXPECT_EQ(expected, ReadAll(store(), On(0, "snap")));
  EXPECT_EQ(0U, VolumeOfFile(On(0, "snap")));
  EXPECT_EQ("", ProblemsOf(store()));
}

}  // namespace
}  // namespace zefs::refhost
