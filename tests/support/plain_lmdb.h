#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>
#include <limits>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

// Databases of a stored table, written and read by LMDB's own calls and without the code under
// test. A database is one file with one unnamed main database. Its keys are 8 bytes, signed, in
// native order, and sort as numbers.

namespace zefs::test {

/// The keys below all extents.
inline constexpr std::int64_t kPlainVersionKey = std::numeric_limits<std::int64_t>::min();
inline constexpr std::int64_t kPlainFileSizeKey = kPlainVersionKey + 1;
inline constexpr std::int64_t kPlainCommitCounterKey = kPlainVersionKey + 2;
inline constexpr std::int64_t kPlainDoidKey = kPlainVersionKey + 3;

using PlainDigest = std::array<unsigned char, 32>;

struct PlainRecord {
  std::int64_t key;
  std::string value;

  bool operator==(const PlainRecord& other) const {
    return key == other.key && value == other.value;
  }
};

/// For the messages of failed checks: the key, and the value in hexadecimal.
void PrintTo(const PlainRecord& record, std::ostream* out);

/// The fields of an extent's value. Its end is the key.
struct EntryFields {
  std::int64_t startOffset = 0;
  std::uint64_t dcid = 0;
  PlainDigest fp{};
  std::int32_t objectOffset = 0;
  std::int32_t dcOffset = -1;
  std::uint8_t attrByte = 0;
  std::uint32_t attrWord = 0;
  std::uint8_t attrFlag = 0;
};

/// The 72 bytes of an extent's value, zero where there is no field.
std::string EntryBytes(const EntryFields& fields);

/// The 72 bytes of a special value, zero behind the fields: the file size or the commit counter;
/// the version; the id of the table's data object.
std::string SpecialBytes(std::int64_t number);
std::string SpecialBytes(std::int32_t major, std::int32_t minor);
std::string SpecialBytes(std::uint64_t dcid, const PlainDigest& digest);

/// Writes the records in one transaction, in any order, into a file that it makes (mode 0600) or
/// adds to; a record replaces one of the same key. Removes the lock file afterwards. The caller has
/// no environment of this file open. Throws std::runtime_error with the call and its code.
void WritePlainDatabase(const boost::filesystem::path& file,
                        const std::vector<PlainRecord>& records);

/// All records in the order of their keys, the special ones first. Changes nothing; removes the
/// lock file if there was none before. The caller has no environment of this file open. Throws
/// std::runtime_error with the call and its code, and for a key that is not 8 bytes long.
std::vector<PlainRecord> ReadPlainDatabase(const boost::filesystem::path& file);

}  // namespace zefs::test
