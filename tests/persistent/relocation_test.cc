// A table that is deleted, moved, and found.

#include <cerrno>
#include <climits>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "table/mapping_table.h"
#include "tests/persistent/relocation_fixture.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

// --- removal -------------------------------------------------------------------------------------

class RemovalTest : public RelocationTest {
 protected:
  int Remove() { return table().remove(Directory().string()); }
};

TEST_F(RemovalTest, TheTableIsEmptyAndTheDirectoryIsGone) {
  LoadTable("GENERIC");
  fs::create_directory(File("below"));
  WriteBytes(File("below") / "file", "bytes");
  DataCacheNode* const node = NotReady();
  WriteNode(500, 510, node);
  WriteKnown(600, 610, Oid(90));
  peer().prefetchExts().resize(2);
  log_.Take();
  EXPECT_EQ(0, Remove());
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_FALSE(fs::exists(Directory()));
  EXPECT_TRUE(fs::exists(dir_.path()));
  EXPECT_THAT(Cached(), IsEmpty());
  EXPECT_THAT(KeysWithNode(), IsEmpty());
  EXPECT_THAT(peer().toBeReleased(), IsEmpty());
  EXPECT_THAT(Pending(), IsEmpty());
  EXPECT_EQ(-1, CursorIndex());
  EXPECT_THAT(peer().prefetchExts(), IsEmpty());
  EXPECT_TRUE(peer().dataChanged());
}

TEST_F(RemovalTest, TheDatabasesStayOpenAndTheTableIsDestroyedNext) {
  LoadTable();
  EXPECT_EQ(0, Remove());
  EXPECT_TRUE(peer().smallDb().opened);
  EXPECT_TRUE(peer().fullDb().opened);
  EXPECT_EQ(small_, Small()) << "files without a name";
  log_.Take();
  Destroy();
  EXPECT_THAT(Lines(kLogStep), IsEmpty()) << "the lock files are not missed";
  EXPECT_FALSE(fs::exists(Directory()));
}

TEST_F(RemovalTest, ThePathCanBeLoadedAnewByAnotherProcess) {
  InChild([this] {
    LoadTable();
    EXPECT_EQ(0, Remove());
    Destroy();
  });
  InChild([this] {
    LoadOver();
    EXPECT_THAT(Walk(table()), IsEmpty());
    EXPECT_EQ(0, table().getFileSize());
    Destroy();
  });
}

TEST_F(RemovalTest, APathThatIsNotThereIsRemoved) {
  LoadTable();
  WriteKnown(500, 510, Oid(90));
  EXPECT_EQ(0, table().remove((dir_ / "missing").string()));
  EXPECT_THAT(Cached(), IsEmpty()) << "the table is empty all the same";
  EXPECT_EQ(Content(), Walk(table())) << "but for what is stored";
  EXPECT_EQ(0, Remove());
  EXPECT_EQ(0, Remove()) << "nor is it there the second time";
}

TEST_F(RemovalTest, ThePathDecidesAndNotWhereTheTableLies) {
  LoadTable();
  fs::create_directory(dir_ / "other");
  EXPECT_EQ(0, table().remove((dir_ / "other").string()));
  EXPECT_FALSE(fs::exists(dir_ / "other"));
  EXPECT_EQ(Content(), Walk(table()));
}

TEST_F(RemovalTest, AFileIsRemovedAndOfALinkTheLinkAlone) {
  LoadTable();
  WriteBytes(dir_ / "file", "bytes");
  EXPECT_EQ(0, table().remove((dir_ / "file").string()));
  EXPECT_FALSE(fs::exists(dir_ / "file"));
  fs::create_symlink(Directory(), dir_ / "link");
  EXPECT_EQ(0, table().remove((dir_ / "link").string()));
  EXPECT_FALSE(fs::exists(fs::symlink_status(dir_ / "link")));
  EXPECT_TRUE(fs::exists(File("data.mdb")));
  fs::create_symlink(dir_ / "nowhere", dir_ / "link");
  EXPECT_EQ(0, table().remove((dir_ / "link").string()));
  EXPECT_FALSE(fs::exists(fs::symlink_status(dir_ / "link"))) << "a dangling one is there too";
}

TEST_F(RemovalTest, TheObjectIdStaysAsItIsAndNothingIsStored) {
  // Emptying the table marks it as changed, so that this is not the first change any more.
  LoadTable();
  ObjectID id = Oid(70);
  table().SetDOID(&id);
  peer().dataChanged() = false;
  const Records before = All(peer().smallDb());
  EXPECT_EQ(0, table().remove((dir_ / "missing").string()));
  EXPECT_TRUE(peer().dataChanged());
  EXPECT_EQ(70U, peer().doid().dcid);
  EXPECT_EQ(before, All(peer().smallDb()));
}

TEST_F(RemovalTest, TakesNoLockOfTheTable) {
  LoadTable();
  const UniqueLock cache(peer().rwLock());
  const UniqueLock databases(peer().tableLock());
  const UniqueLock prefetched(peer().prefetchLock());
  EXPECT_EQ(0, Remove());
}

// --- moves ---------------------------------------------------------------------------------------

class MoveTest : public RelocationTest {
 protected:
  /// Moves the files, and tells the table.
  void Move() {
    fs::rename(Directory(), Target());
    table().UpdateExtPath(Target().string());
  }
};

TEST_F(MoveTest, TellsTheTableAndMovesNoFile) {
  LoadTable();
  const auto files = Files();
  EXPECT_NO_THROW(table().UpdateExtPath(Target().string()));
  EXPECT_EQ(Target().string(), peer().path());
  EXPECT_EQ(files, Files());
  EXPECT_FALSE(fs::exists(Target()));
  EXPECT_EQ(Held::kNot, TableLock());
  EXPECT_EQ(Path("lsml0.mdb"), peer().smallDb().path) << "the databases stay open as they are";
  EXPECT_EQ(Path("data.mdb"), peer().fullDb().path);
  EXPECT_EQ(Content(), Walk(table()));
}

TEST_F(MoveTest, ATableThatHasMovedGoesOn) {
  InChild([this] {
    LoadTable();
    Move();
    EXPECT_EQ(Content(), Walk(table()));
    WriteKnown(500, 510, Oid(90));
    Flush();
    EXPECT_EQ(6U, Walk(table()).size());
    Destroy();
  });
  EXPECT_FALSE(fs::exists(Directory()));
  InChild([this] {
    table_ = std::make_unique<CMappingLMDB>(&host_, "PROVISION");
    EXPECT_EQ(0, table_->load(Target().string(), false, ""));
    EXPECT_EQ(6U, Walk(table()).size());
    Destroy();
  });
}

TEST_F(MoveTest, TheNextMergeRunsUnderTheNewPath) {
  LoadTable();
  Move();
  peer().StartMergeThread();
  peer().WaitingForMerge();
  EXPECT_EQ(Content(), Walk(table()));
  EXPECT_THAT(Small(), IsEmpty());
  EXPECT_EQ(TargetFile("data.mdb"), peer().fullDb().path);
  EXPECT_FALSE(fs::exists(Directory()));
  Destroy();
  ExpectToLoad(Target());
}

TEST_F(MoveTest, TheJournalBeginsUnderTheNewPathAndAnOpenOneGoesOn) {
  LoadTable("GENERIC", "p.");
  // Without a journal yet: the next flush makes it at the new place.
  table().UpdateExtPath(Target().string());
  Set(&Config::objIdReadyThreshold, 0U);
  WriteNode(500, 510, Ready(Oid(90)));
  WriteNode(520, 530, Ready(Oid(90)));
  Flush(false);
  EXPECT_TRUE(fs::exists(TargetFile("p.journal")));
  EXPECT_FALSE(fs::exists(File("p.journal")));
  const auto size = fs::file_size(TargetFile("p.journal"));
  // With one that is open: its descriptor stays, whatever the path says.
  table().UpdateExtPath(Directory().string());
  WriteNode(540, 550, Ready(Oid(90)));
  WriteNode(560, 570, Ready(Oid(90)));
  Flush(false);
  EXPECT_FALSE(fs::exists(File("p.journal")));
  EXPECT_GT(fs::file_size(TargetFile("p.journal")), size);
  // A forced flush destroys what is at the path, which is not that one.
  Flush(true);
  EXPECT_TRUE(fs::exists(TargetFile("p.journal")));
}

TEST_F(MoveTest, AJournalThatMovesAlongIsDestroyedAtItsNewPlace) {
  LoadTable("GENERIC");
  WriteKnown(500, 510, Oid(90));
  WriteKnown(520, 530, Oid(90));
  Flush(false);
  EXPECT_TRUE(fs::exists(File("journal")));
  Move();
  WriteBytes(TargetFile("journal.rep"), "left");
  Flush(true);
  EXPECT_FALSE(fs::exists(TargetFile("journal")));
  EXPECT_FALSE(fs::exists(TargetFile("journal.rep"))) << "the other path moves with it";
}

TEST_F(MoveTest, TheOffsetStoreWritesWhatItHasAtTheOldPlaceAndTheRestAtTheNew) {
  LoadTable("PROVISION", "p.");
  fs::create_directory(Target());
  Set(&Config::dcOffsetTrackingEnabled, true);
  Set(&Config::dcOffsetStoreThreshold, 1000U);
  EXPECT_EQ(0, table().AppendToRefreshDcOffsetList(5, 70, Oid(70).fp));
  EXPECT_FALSE(fs::exists(File("p.dcoffset")));
  log_.Take();
  table().UpdateExtPath(Target().string());
  EXPECT_EQ(OffsetBytes(5, Oid(70), -1), BytesOf(File("p.dcoffset")));
  const auto lines = Lines(kLogStep);
  ASSERT_THAT(lines, testing::Not(IsEmpty()));
  EXPECT_EQ("1 DcOffsetStore::Destory, file: " + TargetFile("p.dcoffset"), lines.back());
  EXPECT_FALSE(fs::exists(TargetFile("p.dcoffset")));
  EXPECT_EQ(0, table().AppendToRefreshDcOffsetList(6, 71, Oid(71).fp));
  Destroy();
  EXPECT_EQ(OffsetBytes(6, Oid(71), -1), BytesOf(TargetFile("p.dcoffset")));
  EXPECT_EQ(OffsetBytes(5, Oid(70), -1), BytesOf(File("p.dcoffset")));
}

TEST_F(MoveTest, ATableWithoutAJournalOrAStoreOnlyTakesThePath) {
  Make("GENERIC");  // not loaded: neither is there yet
  table().UpdateExtPath("/some/where");
  EXPECT_EQ("/some/where", peer().path());
  EXPECT_THAT(Lines(kLogStep), IsEmpty());
}

TEST_F(MoveTest, ASnapshotAfterTheMoveTakesThePathItIsGiven) {
  LoadTable();
  Move();
  EXPECT_EQ(0, table().Snapshot(Target().string(), (dir_ / "copy").string()));
  Destroy();
  ExpectToLoad(dir_ / "copy");
}

// --- finding tables ------------------------------------------------------------------------------

class FindTablesTest : public RelocationTest {
 protected:
  static std::vector<std::string> TraceOf(const std::string& path, const std::string& name) {
    return {"0 CMappingLMDB::GetMapAbsolutePath(), srcPath=" + path, "0 filename=" + name};
  }
};

TEST_F(FindTablesTest, TheDirectoryOfAFullDatabaseIsItsPathWithoutTheName) {
  for (const auto& [path, directory] :
       std::vector<std::pair<std::string, std::string>>{{"/volume/table/data.mdb", "/volume/table"},
                                                        {"volume/data.mdb", "volume"},
                                                        {"/data.mdb", "/"},
                                                        {"data.mdb", ""}}) {
    for (const auto find : {&CMappingLMDB::GetMapAbsolutePath, &CMappingLMDB::GetMapRelativePath}) {
      std::string out = "before";
      EXPECT_EQ(0, find(path, &out));
      EXPECT_EQ(directory, out);
      auto lines = TraceOf(path, "data.mdb");
      lines.push_back("0 new filePath=" + directory);
      EXPECT_EQ(lines, Lines());
    }
  }
}

TEST_F(FindTablesTest, EveryOtherNameIsRefusedAndThatOfATableWithAPrefixToo) {
  for (const auto& [path, name] :
       std::vector<std::pair<std::string, std::string>>{{"/volume/lsml0.mdb", "lsml0.mdb"},
                                                        {"/volume/p.data.mdb", "p.data.mdb"},
                                                        {"/volume/data.mdb-lock", "data.mdb-lock"},
                                                        {"/volume/Data.mdb", "Data.mdb"},
                                                        {"/volume/data.mdb/", "."},
                                                        {"/data.mdb/x", "x"},
                                                        {"", ""}}) {
    for (const auto find : {&CMappingLMDB::GetMapAbsolutePath, &CMappingLMDB::GetMapRelativePath}) {
      std::string out = "before";
      EXPECT_EQ(-1, find(path, &out)) << path;
      EXPECT_EQ("before", out);
      EXPECT_EQ(TraceOf(path, name), Lines());
    }
  }
}

TEST_F(FindTablesTest, WithoutAPlaceForTheAnswerThereIsNone) {
  for (const auto find : {&CMappingLMDB::GetMapAbsolutePath, &CMappingLMDB::GetMapRelativePath}) {
    EXPECT_EQ(EINVAL, CodeOf([&] { find("/volume/data.mdb", nullptr); }));
    EXPECT_THAT(Lines(),
                ElementsAre("0 CMappingLMDB::GetMapAbsolutePath(), srcPath=/volume/data.mdb",
                            "8 Invalid arguments, the targetPath should not be nullptr"));
  }
}

TEST_F(FindTablesTest, EveryTableOfADirectoryIsListedOnceByItsPrefix) {
  LoadTable();
  std::set<std::string> found = {"before"};
  EXPECT_TRUE(fs::exists(File("data.mdb-lock")));
  EXPECT_EQ(0, CMappingLMDB::GetMapIndexSet(Directory().string(), &found));
  EXPECT_EQ((std::set<std::string>{"", "before"}), found) << "file and lock file are one table";
  for (const char* name : {"a.data.mdb", "a.data.mdb-lock", "b.data.mdb-lock", "c.lsml0.mdb",
                           "data.mdbdata.mdb", "xdata.mdb.old.data.mdb", "Data.mdb", "data"}) {
    WriteBytes(File(name), "");
  }
  fs::create_directory(File("d.data.mdb"));
  found.clear();
  EXPECT_EQ(0, CMappingLMDB::GetMapIndexSet(Directory().string(), &found));
  EXPECT_EQ((std::set<std::string>{"", "a.", "b.", "d.", "x"}), found);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(FindTablesTest, ADirectoryThatIsNotThereHasNoTables) {
  std::set<std::string> found = {"before"};
  EXPECT_EQ(-1, CMappingLMDB::GetMapIndexSet((dir_ / "missing").string(), &found));
  EXPECT_EQ((std::set<std::string>{"before"}), found);
  EXPECT_EQ(0, CMappingLMDB::GetMapIndexSet(dir_.path().string(), &found)) << "an empty one";
  EXPECT_EQ((std::set<std::string>{"before"}), found);
}

TEST_F(FindTablesTest, AFileInsteadOfADirectoryIsNotTaken) {
  WriteBytes(dir_ / "file", "");
  std::set<std::string> found;
  EXPECT_THROW(CMappingLMDB::GetMapIndexSet((dir_ / "file").string(), &found),
               fs::filesystem_error);
  EXPECT_THAT(found, IsEmpty());
}

}  // namespace
}  // namespace zefs::test
