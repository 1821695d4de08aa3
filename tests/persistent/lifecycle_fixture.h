#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/persistent/persistent_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/file_bytes.h"
#include "tests/support/plain_lmdb.h"

// Table directories from outside: written and read without the code under test.

namespace zefs::test {

using Records = std::vector<PlainRecord>;

/// A fingerprint of this byte alone.
inline PlainDigest DigestOf(unsigned char byte) {
  PlainDigest digest;
  digest.fill(byte);
  return digest;
}

/// The fields of an extent that starts at `start`, in container `dcid`; the other fields follow
/// from these two, so that extents can be told apart by them.
inline EntryFields FieldsOf(std::int64_t start, std::uint64_t dcid) {
  EntryFields fields;
  fields.startOffset = start;
  fields.dcid = dcid;
  fields.fp = DigestOf(static_cast<unsigned char>(dcid));
  fields.objectOffset = static_cast<std::int32_t>(dcid * 1000);
  fields.dcOffset = static_cast<std::int32_t>(dcid * 10);
  return fields;
}

/// The record of the extent [start, end) in container `dcid`.
inline PlainRecord Stored(std::int64_t start, std::int64_t end, std::uint64_t dcid) {
  return {end, EntryBytes(FieldsOf(start, dcid))};
}

/// A record of the journal. `op` may be any number.
struct JournalFields {
  std::uint32_t op = 0;
  std::int64_t start = 0;
  std::int64_t end = 0;
  std::uint64_t dcid = 0;
  std::int64_t offset = 0;
  PlainDigest fp = DigestOf(static_cast<unsigned char>(dcid));
  std::uint64_t tag = 0;
};
inline constexpr std::uint32_t kOpAdd = 0;
inline constexpr std::uint32_t kOpDel = 1;

/// The bytes of a journal file.
inline std::string JournalBytes(const std::vector<JournalFields>& records) {
  constexpr std::size_t kRecordBytes = 80;
  std::string bytes(records.size() * kRecordBytes, '\0');
  char* at = bytes.data();
  for (const JournalFields& record : records) {
    std::memcpy(at, &record.tag, 8);
    std::memcpy(at + 8, &record.start, 8);
    std::memcpy(at + 16, &record.end, 8);
    std::memcpy(at + 24, &record.offset, 8);
    std::memcpy(at + 32, &record.dcid, 8);
    std::memcpy(at + 40, record.fp.data(), 32);
    std::memcpy(at + 72, &record.op, 4);
    at += kRecordBytes;
  }
  return bytes;
}

/// The record that the replay of a DEL record stores.
inline PlainRecord Replayed(const JournalFields& journal) {
  EntryFields fields;
  fields.startOffset = journal.start;
  fields.dcid = journal.dcid;
  fields.fp = journal.fp;
  fields.objectOffset = static_cast<std::int32_t>(journal.offset);
  return {journal.end, EntryBytes(fields)};
}

class LifecycleTest : public PersistentTableTest {
 protected:
  /// Makes the directory of the table, ahead of its first load.
  void MakeDirectory() { boost::filesystem::create_directories(Directory()); }

  /// Writes a database of the table without the library.
  void Write(const std::string& name, const Records& records) {
    MakeDirectory();
    WritePlainDatabase(File(name), records);
  }

  /// The names of all files of the table.
  std::set<std::string> Files() const {
    std::set<std::string> names;
    for (const auto& entry : boost::filesystem::directory_iterator(Directory())) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  /// Every extent from begin() to end(): "[start, end) dcid objectOffset dcOffset".
  static std::vector<std::string> Walk(CMappingLMDB& table) {
    std::vector<std::string> extents;
    for (auto at = table.begin(); at != table.end(); ++at) {
      extents.push_back(Shown(*at));
    }
    return extents;
  }
  static std::string Shown(const Aldenta::Qnd::Morene::Zefs::Ext& extent) {
    std::ostringstream text;
    text << '[' << extent.sOff << ", " << extent.eOff << ") " << extent.objectID.dcid << ' '
         << extent.objOff << ' ' << extent.dcOffset;
    return text.str();
  }

  /// Runs a life that leaves a database open, and expects it to end well.
  static void InChild(const std::function<void()>& life) {
    EXPECT_TRUE(EndedWell(RunInChild(life)));
  }

  /// The full path of a file of the table, as the log shows it.
  std::string Path(const std::string& name) const { return File(name).string(); }
};

}  // namespace zefs::test
