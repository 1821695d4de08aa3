// Table directories that a version of this library made once. They load with the same content for
// ever.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "persistent/transaction.h"
#include "tests/persistent/directory_dump.h"
#include "tests/persistent/lifecycle_fixture.h"
#include "tests/sidefiles/formats_page.h"

namespace zefs::test {
namespace {

using Aldenta::Qnd::Morene::Zefs::ExtLMDBEntry;
using Aldenta::Qnd::Morene::Zefs::LMDBContext;
using Aldenta::Qnd::Morene::Zefs::RecordKey;
using Aldenta::Qnd::Morene::Zefs::RecordVal;
using Aldenta::Qnd::Morene::Zefs::SPECIAL_KEY_COMMIT_COUNTER;
using Aldenta::Qnd::Morene::Zefs::SPECIAL_KEY_FILE_SIZE;
using Aldenta::Qnd::Morene::Zefs::SpecialValue;
using Aldenta::Qnd::Morene::Zefs::Transaction;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

/// An extent to be stored.
struct Range {
  long start;
  long end;
  std::uint64_t dcid;
  long objectOffset;
  int dcOffset;
};

class StoredDirectoryTest : public LifecycleTest {
 protected:
  static boost::filesystem::path DumpFile(const std::string& name) {
    return boost::filesystem::path(ZEFS_STORED_DIRECTORIES) / (name + ".dump");
  }

  void UnpackStored(const std::string& name) { Unpack(BytesOf(DumpFile(name)), Directory()); }

  /// Stores the extents in one transaction of the library.
  void Store(LMDBContext& db, const std::vector<Range>& ranges) {
    Transaction transaction(db, Transaction::kWrite, "");
    for (const Range& range : ranges) {
      const ObjectID oid = Oid(range.dcid, static_cast<unsigned int>(range.dcid * 0x01020304));
      ExtLMDBEntry entry{};
      entry.FillExtLMDBEntry(range.start, &oid, range.objectOffset, range.dcOffset);
      RecordKey key(range.end);
      MDB_val keyVal = key.Val();
      MDB_val value = RecordVal(entry);
      ASSERT_EQ(0, ::mdb_put(transaction.txn(), db.dbi, &keyVal, &value, 0));
    }
    ASSERT_EQ(0, transaction.Commit());
  }
  static void Store(LMDBContext& db, std::int64_t key, const SpecialValue& value) {
    Transaction transaction(db, Transaction::kWrite, "");
    ASSERT_EQ(0, transaction.Put(key, value));
    ASSERT_EQ(0, transaction.Commit());
  }

  /// Makes, in an empty directory, a table between two flushes and with a merge that was cut off.
  void MakeUnfinished() {
    InChild([&] {
      CMappingLMDB& table = Load("GENERIC");
      EXPECT_EQ(0, table.setFileSize(0x9000));
      ObjectID doid = Oid(0xabcd, 0x11223344);
      EXPECT_EQ(0, table.SetDOID(&doid));
      Peer p = peer();
      Store(p.fullDb(), {{0, 0x4000, 70, 0, 0x100}, {0x4000, 0x9000, 71, 0x1000, -1}});
      Store(p.smallDb(), {{0x2000, 0x3000, 72, 0x7fffffff, 0}, {0x6000, 0x7000, 73, 0, -2}});
      Store(p.smallDb(), SPECIAL_KEY_COMMIT_COUNTER, SpecialValue::OfNumber(17));
      EXPECT_EQ(0, p.SetupDBEnv(Path("tmp.mdb"), &p.tmpDb(), CMappingLMDB::kSmallMapSize));
      Store(p.tmpDb(), {{0x2800, 0x6800, 74, -1, -3}, {0x123456789000, 0x12345678a000, 75, 5, 6}});
      Store(p.tmpDb(), SPECIAL_KEY_FILE_SIZE, SpecialValue::OfNumber(0x12345678a000));
      EXPECT_EQ(0, p.journal()->Start());
      EXPECT_EQ(0, p.journal()->Add(0x2000, 0x3000, 0x7fffffff, 72, DigestOf(72), 0));
      EXPECT_EQ(0, p.journal()->Del(0x6000, 0x7000, 0, 73, DigestOf(73), 0));
      EXPECT_EQ(0, p.journal()->Add(0x6000, 0x7000, 0, 73, DigestOf(73), 0));
      for (const long key : {0x4000L, 0x6000L}) {
        EXPECT_EQ(0, p.dcOffsetStore()->CheckAndStore(key, 71, DigestOf(71), -1));
        EXPECT_EQ(0, p.dcOffsetStore()->Flush());
      }
      Destroy();
    });
  }
  void ExpectUnfinished() {
    EXPECT_THAT(Files(),
                UnorderedElementsAre("lsml0.mdb", "data.mdb", "tmp.mdb", "journal", "dcoffset"));
    InChild([&] {
      CMappingLMDB& table = Load("GENERIC");
      EXPECT_THAT(
          Walk(table),
          ElementsAre("[0, 10240) 70 0 256", "[10240, 26624) 74 -1 -3", "[26624, 28672) 73 2048 -1",
                      "[28672, 36864) 71 16384 -1", "[20015998341120, 20015998345216) 75 5 6"));
      const auto found = table.lower_bound(0, nullptr);
      EXPECT_EQ(Oid(70, 70 * 0x01020304U).fp, found->objectID.fp);
      EXPECT_EQ(Oid(70, 70 * 0x01020304U).attrByte, found->objectID.attrByte);
      EXPECT_EQ(Oid(70, 70 * 0x01020304U).attrWord, found->objectID.attrWord);
      EXPECT_EQ(Oid(70, 70 * 0x01020304U).attrFlag, found->objectID.attrFlag);
      EXPECT_EQ(0x12345678a000, table.getFileSize());
      EXPECT_EQ(2, table.getExtMapVersion().major);
      EXPECT_EQ(0, table.getExtMapVersion().minor);
      EXPECT_EQ(17, peer().commitCounter());
      ObjectID doid;
      EXPECT_EQ(0, table.GetDOID(&doid));
      EXPECT_EQ(0xabcdU, doid.dcid);
      EXPECT_EQ(Oid(1, 0x11223344).fp, doid.fp);
      std::vector<DCOffset> wanted;
      EXPECT_EQ(0, peer().dcOffsetStore()->Read(&wanted));
      ASSERT_EQ(2U, wanted.size());
      EXPECT_EQ(0x4000, wanted[0].key);
      EXPECT_EQ(0x6000, wanted[1].key);
    });
  }

  /// Makes, in an empty directory, a table at rest whose files have a prefix.
  void MakePrefixed() {
    CMappingLMDB& table = Load("PROVISION", "t1-");
    EXPECT_EQ(0, table.setFileSize(300));
    Store(peer().fullDb(), {{0, 100, 70, 0, 1}, {200, 300, 71, 9, -1}});
    Store(peer().smallDb(), {{50, 250, 72, 4, 2}});
    EXPECT_EQ(0, peer().dcOffsetStore()->CheckAndStore(200, 71, DigestOf(71), -1));
    Destroy();
  }
  void ExpectPrefixed() {
    EXPECT_THAT(Files(), UnorderedElementsAre("t1-lsml0.mdb", "t1-data.mdb", "t1-dcoffset"));
    CMappingLMDB& table = Load("PROVISION", "t1-");
    EXPECT_THAT(Walk(table),
                ElementsAre("[0, 50) 70 0 1", "[50, 250) 72 4 2", "[250, 300) 71 59 -1"));
    EXPECT_EQ(300, table.getFileSize());
    ObjectID doid;
    EXPECT_EQ(-1, table.GetDOID(&doid));
    std::vector<DCOffset> wanted;
    EXPECT_EQ(0, peer().dcOffsetStore()->Read(&wanted));
    EXPECT_EQ(1U, wanted.size());
    Destroy();
  }

  /// The content of each file: the records of a database, the bytes of a side file.
  std::vector<std::string> Contents() {
    std::vector<std::string> contents;
    for (const std::string& name : Files()) {
      std::ostringstream text;
      text << name;
      if (name.find("mdb") == std::string::npos) {
        text << ' ' << HexOf(BytesOf(File(name)));
      } else if (name.find("-lock") == std::string::npos) {
        for (const PlainRecord& record : ReadPlainDatabase(File(name))) {
          text << ' ' << record.key << ':' << HexOf(record.value);
        }
      } else {
        continue;
      }
      contents.push_back(text.str());
    }
    return contents;
  }

  void ExpectTheSameContentsAsMadeBy(const std::function<void()>& make, const std::string& name) {
    UnpackStored(name);
    const std::vector<std::string> stored = Contents();
    boost::filesystem::remove_all(Directory());
    make();
    EXPECT_EQ(stored, Contents());
  }

  /// Writes a dump of the table directory and makes the directory anew of it.
  void DumpAndUnpack(const std::string& name) {
    const char* const wanted = std::getenv("ZEFS_NEW_DUMPS");
    const boost::filesystem::path dumps = wanted == nullptr ? dir_.path() : wanted;
    const boost::filesystem::path dump = dumps / (name + ".dump");
    WriteBytes(dump, Head(name) + DumpOf(Directory()));
    boost::filesystem::remove_all(Directory());
    Unpack(BytesOf(dump), Directory());
  }

  /// What the stored directories are made of, for whoever opens one of the files.
  static std::string Head(const std::string& name) {
    return "# A table directory, \"" + name +
           "\", as tests/persistent/directory_dump.h describes.\n" +
           "# Made by StoredDirectoryTest.AFreshDumpLoadsToo; not to be edited.\n";
  }
};

TEST_F(StoredDirectoryTest, AnUnfinishedTableLoadsWithItsContent) {
  UnpackStored("unfinished");
  ExpectUnfinished();
}

TEST_F(StoredDirectoryTest, ATableWithAPrefixLoadsWithItsContent) {
  UnpackStored("prefixed");
  ExpectPrefixed();
}

TEST_F(StoredDirectoryTest, ThisVersionMakesTheSameRecordsAndSideFiles) {
  ExpectTheSameContentsAsMadeBy([&] { MakeUnfinished(); }, "unfinished");
  boost::filesystem::remove_all(Directory());
  ExpectTheSameContentsAsMadeBy([&] { MakePrefixed(); }, "prefixed");
}

// How the stored directories were made. The new dumps go to a temporary directory, or to the one
// that ZEFS_NEW_DUMPS names: that is for a directory of a new kind, as those that are stored stay.
TEST_F(StoredDirectoryTest, AFreshDumpLoadsToo) {
  MakeUnfinished();
  DumpAndUnpack("unfinished");
  ExpectUnfinished();
  boost::filesystem::remove_all(Directory());
  MakePrefixed();
  DumpAndUnpack("prefixed");
  ExpectPrefixed();
}

TEST_F(StoredDirectoryTest, ADumpUnpacksToTheBytesThatItWasMadeOf) {
  MakeDirectory();
  const std::string sparse = std::string(100, '\0') + "in the middle" + std::string(5000, '\0');
  WriteBytes(File("a"), sparse);
  WriteBytes(File("b"), "\xff");
  WriteBytes(File("c"), "");
  WriteBytes(File("d-lock"), "not kept");
  const std::string dump = DumpOf(Directory());
  Unpack("# a remark\n" + dump, dir_ / "copy");
  EXPECT_EQ(dump, DumpOf(dir_ / "copy"));
  EXPECT_EQ(sparse, BytesOf(dir_ / "copy/a"));
  EXPECT_EQ("\xff", BytesOf(dir_ / "copy/b"));
  EXPECT_EQ("", BytesOf(dir_ / "copy/c"));
  EXPECT_TRUE(boost::filesystem::exists(dir_ / "copy/c"));
  EXPECT_FALSE(boost::filesystem::exists(dir_ / "copy/d-lock"));
  EXPECT_THROW(Unpack("neither\n", dir_ / "copy"), std::runtime_error);
}

TEST_F(StoredDirectoryTest, TheExampleInTheDescriptionIsWhatATableHolds) {
  CMappingLMDB& table = Load();
  EXPECT_EQ(0, table.setFileSize(0x3000));
  ObjectID doid = Oid(0x46);
  for (std::size_t i = 0; i < doid.fp.size(); ++i) {
    doid.fp.at(i) = static_cast<unsigned char>(0xa0 + i);
  }
  EXPECT_EQ(0, table.SetDOID(&doid));
  ObjectID oid = doid;
  oid.dcid = 0x41;
  oid.attrByte = 0xb1;
  oid.attrWord = 0xd4d3d2d1;
  oid.attrFlag = 0xf1;
  {
    ExtLMDBEntry entry{};
    entry.FillExtLMDBEntry(0x1000, &oid, 0x200, -1);
    RecordKey key(0x3000);
    MDB_val keyVal = key.Val();
    MDB_val value = RecordVal(entry);
    Transaction transaction(peer().fullDb(), Transaction::kWrite, "");
    ASSERT_EQ(0, ::mdb_put(transaction.txn(), peer().fullDb().dbi, &keyVal, &value, 0));
    ASSERT_EQ(0, transaction.Commit());
  }
  Destroy();
  std::string made;
  for (const std::string name : {"data.mdb", "lsml0.mdb"}) {
    for (const PlainRecord& record : ReadPlainDatabase(File(name))) {
      made.append(reinterpret_cast<const char*>(&record.key), sizeof(record.key));
      made += record.value;
    }
  }
  EXPECT_EQ(HexOf(made), HexOfThePage("## Databases"));
}

}  // namespace
}  // namespace zefs::test
