// How the seeds of table_directory_fuzz were made: real lives, packed. table_directory_seeds
// DIRECTORY writes one file for each.

#include <cstdio>
#include <exception>
#include <functional>
#include <set>

#include <boost/filesystem/operations.hpp>

#include "fuzz/fuzz_support.h"
#include "fuzz/table_directory/case.h"
#include "fuzz/table_directory/watched_child.h"
#include "host/config.h"
#include "persistent/mapping_lmdb.h"
#include "refhost/host/log.h"
#include "refhost/store/no_data_cache.h"
#include "tests/support/file_bytes.h"
#include "tests/support/plain_lmdb.h"
#include "tests/support/temp_dir.h"

namespace {

using Aldenta::Qnd::Morene::Zefs::CMappingLMDB;
using Aldenta::Qnd::Morene::Zefs::ObjectID;
using zefs::fuzz::Require;
using zefs::test::EntryBytes;
using zefs::test::EntryFields;
using zefs::test::PlainRecord;

constexpr long kBlock = 4096;

template <typename T>
void Set(T FileSystemDaemonConfig::*field, T value) {
  FileSystemDaemonConfig::GetInstance().Set(field, value);
}

/// A table that is written to and flushed.
class Writer {
 public:
  Writer(const std::string& directory, const char* type) : table_(&cache_, type) {
    Set(&FileSystemDaemonConfig::bigTableMapSizeGiB, 1U);
    Set(&FileSystemDaemonConfig::batchUpdateThreshold, 1U);
    Set(&FileSystemDaemonConfig::persistBloom, std::uint8_t{1});
    Set(&FileSystemDaemonConfig::dcOffsetTrackingEnabled, true);
    Require(table_.load(directory, false, "") == 0, "a seed cannot be loaded");
  }

  void Write(long first, long count, unsigned int container) {
    for (long i = first; i < first + count; ++i) {
      ObjectID oid;
      oid.dcid = container + static_cast<unsigned long>(i) % 3;
      oid.fp[0] = static_cast<unsigned char>(i + 1);
      oid.fp[9] = static_cast<unsigned char>(container);
      table_.insert(i * kBlock, (i + 1) * kBlock, &oid, 0, 0, nullptr, i % 4 == 0 ? -1 : 3,
                    nullptr);
    }
  }
  void Flush() {
    std::set<void*> released;
    table_.checkAndBackfillObjectID(&released, true, "", "", nullptr, nullptr);
  }
  /// A flush after which the journal stays.
  void FlushAndGoOn() { table_.checkAndBackfillObjectIDUnlock(true); }
  void Merge() { table_.GetObjectIdsAndOffsets(0, 1UL << 60); }
  CMappingLMDB& table() { return table_; }

 private:
  zefs::refhost::NoDataCache cache_;
  CMappingLMDB table_;
};

PlainRecord Extent(long start, long end, std::size_t bytes = 72) {
  EntryFields fields;
  fields.startOffset = start;
  fields.dcid = 70;
  std::string value = EntryBytes(fields);
  value.resize(bytes, '\0');
  return {end, value};
}

void Fresh(const std::string& directory) {
  const Writer writer(directory, "PROVISION");
}

void OneFlush(const std::string& directory) {
  Writer writer(directory, "GENERIC");
  writer.Write(0, 10, 64);
  writer.FlushAndGoOn();
  writer.Write(5, 3, 80);
  writer.FlushAndGoOn();
}

void Merged(const std::string& directory) {
  Writer writer(directory, "INGEST");
  writer.Write(0, 130, 64);
  writer.Flush();
  writer.Merge();
  writer.Write(20, 20, 90);
  writer.Flush();
}

/// A merge that has failed, and a bloom file from one that has not.
void MergeLeft(const std::string& directory) {
  {
    Writer writer(directory, "GENERIC");
    writer.Write(0, 60, 64);
    writer.Flush();
    writer.Merge();
    writer.Write(10, 8, 70);
    writer.Flush();
  }
  std::vector<PlainRecord> records;
  for (long i = 12; i < 20; ++i) {
    records.push_back(Extent(i * kBlock, (i + 1) * kBlock));
  }
  zefs::test::WritePlainDatabase(directory + "/tmp.mdb", records);
  zefs::test::WritePlainDatabase(directory + "/mergedb", records);
  zefs::test::WriteBytes(directory + "/bloom.merge", "a beginning");
}

/// Only the rename of the merged database is missing, and values are as old tables have them.
void MergeDone(const std::string& directory) {
  boost::filesystem::create_directories(directory);
  std::vector<PlainRecord> records = {
      {zefs::test::kPlainVersionKey, zefs::test::SpecialBytes(1, 0).substr(0, 8)}};
  for (long i = 0; i < 20; ++i) {
    records.push_back(Extent(i * 2 * kBlock, i * 2 * kBlock + kBlock, i % 2 == 0 ? 64 : 72));
  }
  records.push_back(Extent(60 * kBlock, 61 * kBlock, 9000));  // pages of its own
  zefs::test::WritePlainDatabase(directory + "/mergedb", records);
  zefs::test::WritePlainDatabase(directory + "/lsml0.mdb",
                                 {Extent(kBlock, 3 * kBlock), Extent(9 * kBlock, 90 * kBlock)});
}

/// Pages have come free, so that there is a list of them.
void FreePages(const std::string& directory) {
  Writer writer(directory, "GENERIC");
  for (int i = 0; i < 4; ++i) {
    writer.Write(0, 100, static_cast<unsigned int>(64 + i));
    writer.FlushAndGoOn();
  }
  writer.table().truncate(20 * kBlock + 100, nullptr);
  writer.Write(30, 20, 80);
  writer.Flush();
  ObjectID oid;
  oid.dcid = 99;
  oid.fp.fill(9);
  writer.table().SetDOID(&oid);
}

void Make(const std::string& name, const std::function<void(const std::string&)>& life,
          const std::string& target) {
  const zefs::test::TempDir directory;
  const std::string table = directory.path().string() + "/table";
  const zefs::fuzz::Ending ending = zefs::fuzz::RunWatched([&] {
    life(table);
    return std::string();
  });
  Require(ending.culprit == zefs::fuzz::Culprit::kNone, ending.what.c_str());
  zefs::fuzz::Case seed;
  seed.plan.options = 4 | 8 | 16;
  seed.archive = PackDirectory(zefs::fuzz::ReadDirectory(table));
  zefs::test::WriteBytes(target + '/' + name, WriteCase(seed));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Require(argc == 2, "usage: table_directory_seeds DIRECTORY");
    const std::string target = argv[1];
    boost::filesystem::create_directories(target);
    Make("fresh", &Fresh, target);
    Make("one_flush", &OneFlush, target);
    Make("merged", &Merged, target);
    Make("merge_left", &MergeLeft, target);
    Make("merge_done", &MergeDone, target);
    Make("free_pages", &FreePages, target);
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
    return 2;
  }
}
