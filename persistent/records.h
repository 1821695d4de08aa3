#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <lmdb.h>

#include "host/fingerprint.h"
#include "support/visibility.h"
#include "table/extent.h"

// What a database of a table holds: one record per extent, under the extent's end offset, and four
// special items under keys that sort before every extent. All databases of a table have this one
// format; docs/formats.md shows the bytes.

namespace Aldenta::Qnd::Morene::Zefs {

class CMappingLMDB;
class ExtLMDB;

/// Bytes of every value that is written, be it an extent or a special item.
inline constexpr std::size_t kRecordBytes = 72;

/// The record of one extent, in the databases and in the extent cache; its key is the extent's end
/// offset. Copied as raw bytes, in native byte order. Made by ReadRecord or value-initialised, so
/// that the gaps between the fields are zero: no stray byte of memory may reach a file.
struct ZEFS_EXTMAP_API ExtLMDBEntry {
  std::int64_t startOffset;   ///< logical start offset, bytes
  std::uint64_t dcid;         ///< data container of the object
  crfp_digest_t fp;           ///< fingerprint of the object
  std::int32_t objectOffset;  ///< offset of the extent's first byte inside the object, low 32 bits
  std::int32_t dcOffset;      ///< offset inside the data container; negative: not known
  std::uint8_t attrByte;      ///< of the object id, as the next two, carried unchanged
  std::uint8_t gap1[3];       ///< zero
  std::uint32_t attrWord;
  std::uint8_t attrFlag;
  std::uint8_t gap2[7];  ///< zero

  /// Sets start, object id, object offset (its low 32 bits) and container offset. A null `id` sets
  /// `dcid` to 0 and leaves fingerprint and attributes as they were.
  void FillExtLMDBEntry(long start, const ObjectID* id, long objectOff, int dcOff);

  /// Replaces the five fields of the object id and nothing else.
  void UpdateObjectID(const ObjectID& id);

  /// Moves the object offset by the low 32 bits of `delta`, wrapping around.
  void ModifyObjectOffset(long delta);

  /// Makes `*out` the extent that this record describes: `end` is its key, `data` its node or null,
  /// `owner` its table. The object offset is sign-extended, the checksum 0. Every field goes
  /// through the virtual setters, so that a derived class sees it.
  void FillExtLMDB(ExtLMDB* out, long end, void* data, CMappingLMDB* owner) const;

  /// The object id of the record.
  ObjectID GetObjectID() const;
};

static_assert(sizeof(ExtLMDBEntry) == kRecordBytes, "size of an extent value");
static_assert(offsetof(ExtLMDBEntry, startOffset) == 0);
static_assert(offsetof(ExtLMDBEntry, dcid) == 8);
static_assert(offsetof(ExtLMDBEntry, fp) == 16);
static_assert(offsetof(ExtLMDBEntry, objectOffset) == 48);
static_assert(offsetof(ExtLMDBEntry, dcOffset) == 52);
static_assert(offsetof(ExtLMDBEntry, attrByte) == 56);
static_assert(offsetof(ExtLMDBEntry, attrWord) == 60);
static_assert(offsetof(ExtLMDBEntry, attrFlag) == 64);

/// What stays of `entry` from the logical offset `start` on (its own start, or one inside it): the
/// object offset moves by the same distance, in 32 bits, and the byte and flag attributes, which
/// describe the extent as it was written, are dropped.
ExtLMDBEntry PieceFrom(const ExtLMDBEntry& entry, long start);

/// Format version of an extent map, passed by value. Only a `major` below 2 is told apart: values
/// of such a table may be shorter than kRecordBytes.
struct ExtMapVersion {
  std::int32_t major;
  std::int32_t minor;
};
static_assert(sizeof(ExtMapVersion) == 8, "passed as one unit");

inline constexpr ExtMapVersion kCurrentVersion = {2, 0};

// Keys of the special items: the four smallest numbers, while end offsets are never negative.
inline constexpr std::int64_t SPECIAL_KEY_LMDB_VERSION = INT64_MIN;
inline constexpr std::int64_t SPECIAL_KEY_FILE_SIZE = INT64_MIN + 1;
inline constexpr std::int64_t SPECIAL_KEY_COMMIT_COUNTER = INT64_MIN + 2;
inline constexpr std::int64_t SPECIAL_KEY_DOID = INT64_MIN + 3;

/// Order of keys, installed on every database: both are read as signed 64-bit numbers, `mv_size` is
/// ignored. 1, 0 or -1.
int LMDBKeyCompare(const MDB_val* a, const MDB_val* b);

/// A key on its way into LMDB. It must outlive the MDB_val.
class RecordKey {
 public:
  explicit RecordKey(std::int64_t value) : value_(value) {}
  MDB_val Val() { return {sizeof(value_), &value_}; }

 private:
  std::int64_t value_;
};

/// The number in a key that LMDB returned.
std::int64_t ReadKey(const MDB_val& key);

/// The extent in a value that LMDB returned. A value of fewer than kRecordBytes reads as if zeros
/// followed, whatever the version of the table: short values of an old table survive into a newer
/// one, and the map gives no promise of alignment or of bytes behind a value.
ExtLMDBEntry ReadRecord(const MDB_val& value);

/// `entry` as a value for LMDB. It must outlive the MDB_val.
inline MDB_val RecordVal(ExtLMDBEntry& entry) {
  return {sizeof(entry), &entry};
}

/// The value of a special item. Bytes without a meaning are zero.
class SpecialValue {
 public:
  SpecialValue() = default;  ///< all zero: a number 0, and the version 0.0
  /// From a value that LMDB returned; a short one reads as if zeros followed.
  explicit SpecialValue(const MDB_val& value);

  static SpecialValue OfNumber(std::int64_t number);
  static SpecialValue OfVersion(ExtMapVersion version);
  /// Of the object id only container and fingerprint are kept.
  static SpecialValue OfObjectID(const ObjectID& id);

  std::int64_t Number() const;
  ExtMapVersion Version() const;
  /// Sets container and fingerprint of `*id` and leaves the attributes alone.
  void GetObjectID(ObjectID* id) const;

  /// For LMDB. This object must outlive it.
  MDB_val Val() { return {bytes_.size(), bytes_.data()}; }

 private:
  template <typename T>
  void Store(std::size_t at, const T& field);
  template <typename T>
  T Load(std::size_t at) const;

  std::array<unsigned char, kRecordBytes> bytes_{};
};

}  // namespace Aldenta::Qnd::Morene::Zefs
