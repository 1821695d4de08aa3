#pragma once

#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

#include "sidefiles/bloom_persist.h"
#include "tests/persistent/flush_fixture.h"
#include "tests/support/held_lock.h"

namespace zefs::test {

/// What stays of Stored(whole, ..., dcid) between `start` and `end`.
inline PlainRecord CutOf(std::int64_t whole, std::int64_t start, std::int64_t end,
                         std::uint64_t dcid) {
  EntryFields fields = FieldsOf(whole, dcid);
  fields.startOffset = start;
  fields.objectOffset += static_cast<std::int32_t>(start - whole);
  return {end, EntryBytes(fields)};
}

/// A record of which only the first `bytes` bytes of the value are there.
inline PlainRecord Shortened(PlainRecord record, std::size_t bytes) {
  record.value.resize(bytes);
  return record;
}

/// What a bloom file holds.
struct StoredBloom {
  std::unique_ptr<BloomFilter> filter;
  std::unordered_map<unsigned long, unsigned long> refs;
};

inline StoredBloom ReadBloomFile(const boost::filesystem::path& path) {
  StoredBloom stored;
  Aldenta::Qnd::Morene::Zefs::BloomPersist file(path.string(), true);
  EXPECT_EQ(0, file.Reset(false));
  EXPECT_EQ(0, file.ReadBloom(&stored.filter, &stored.refs));
  return stored;
}

/// A table over a full, a small and perhaps a tmp database, which merges when it is told to.
class MergeTest : public FlushTest {
 protected:
  MergeTest() {
    Set(&Config::mergeCommitBatchSize, 1000U);
    Set(&Config::mergeWaitEntriesThreshold, 1000U);  // also sizes the filter of a merge
  }
  ~MergeTest() override { Set(&Config::mergeCommitBatchSize, batch_); }

  /// A loaded table over these records, and no log lines of that. Without `tmp` there is no tmp
  /// database.
  CMappingLMDB& LoadBoth(const Records& full, const Records& small,
                         const std::optional<Records>& tmp = std::nullopt) {
    Write("data.mdb", full);
    if (tmp) {
      Write("tmp.mdb", *tmp);
    }
    return LoadOver(small);
  }

  /// Ends the life of the table and closes a tmp database that it leaves open.
  void Close() {
    peer().WaitingForMerge();
    if (peer().tmpDb().env != nullptr) {
      peer().ClearDBEnv(&peer().tmpDb());
    }
    Destroy();
  }

  Records Full() { return Extents(peer().fullDb()); }
  Records Tmp() { return Extents(peer().tmpDb()); }

  /// The chain of databases, newest first.
  std::string Chain() {
    std::string names;
    for (const LMDBContext* db : peer().dbChain()) {
      names += db == &peer().tmpDb()     ? "tmp "
               : db == &peer().smallDb() ? "small "
               : db == &peer().fullDb()  ? "full "
                                         : "? ";
    }
    return names;
  }
  Held TableLock() { return HowIsHeld(peer().tableLock()); }

  /// Lines of this process's memory map that name a file of the table.
  int MapsOf(const std::string& name) const {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
      count += line.find(Path(name)) != std::string::npos ? 1 : 0;
    }
    return count;
  }

  /// No merge is under way, and the last one has left the table as it is without one.
  void ExpectNoMerge() {
    EXPECT_FALSE(peer().merging());
    EXPECT_EQ(Held::kNot, TableLock());
    EXPECT_EQ("small full ", Chain());
    EXPECT_FALSE(peer().tmpDb().opened);
    EXPECT_EQ(nullptr, peer().tmpDb().env);
    EXPECT_TRUE(peer().smallDb().opened);
    EXPECT_TRUE(peer().fullDb().opened);
    ExpectNoFile({"tmp.mdb", "tmp.mdb-lock", "mergedb", "mergedb-lock", "bloom.merge"});
  }

  /// A merge has failed before it switched: the tmp database takes the flushes.
  void ExpectFailedMerge() {
    EXPECT_FALSE(peer().merging());
    EXPECT_EQ(Held::kNot, TableLock());
    EXPECT_EQ("tmp small full ", Chain());
    EXPECT_TRUE(peer().tmpDb().opened);
    EXPECT_TRUE(peer().smallDb().opened);
    EXPECT_TRUE(peer().fullDb().opened);
    EXPECT_EQ(0, MapsOf("mergedb")) << "the database that was being written is closed";
  }

  void ExpectNoFile(const std::set<std::string>& names) const {
    const std::set<std::string> files = Files();
    for (const std::string& name : names) {
      EXPECT_EQ(0U, files.count(name)) << name;
    }
  }

 private:
  const std::uint32_t batch_ = Config::GetInstance().Get(&Config::mergeCommitBatchSize);
};

}  // namespace zefs::test
