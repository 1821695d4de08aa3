#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "host/data_cache.h"
#include "support/visibility.h"
#include "table/extent.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// What the name of the store file ends in; in a table directory the table's prefix comes first.
inline constexpr char kOffsetStoreName[] = "dcoffset";
/// Added to the store's path: the list that is out with the host.
inline constexpr char kOffsetStoreTmpSuffix[] = ".tmp";

/// Bytes of one zefs::DCOffset in the file: `key`, `dcid`, `fp` and `dcOffset` one after the other,
/// little-endian.
inline constexpr std::size_t kDcOffsetRecordBytes = 56;

/// Writes one record to the kDcOffsetRecordBytes at `bytes`.
void EncodeDcOffset(const zefs::DCOffset& record, unsigned char* bytes);

/// The record whose file form begins with the `size` bytes at `bytes`. Of a longer array only one
/// record is read; what a shorter one leaves out is as in a default-built record.
zefs::DCOffset DecodeDcOffset(const unsigned char* bytes, std::size_t size);

/// Hash of what a record is about: container, start offset and fingerprint, but not `dcOffset`.
struct DcOffsetHash {
  std::size_t operator()(const zefs::DCOffset& record) const;
};

/// Equality of all four fields.
struct DcOffsetEqual {
  bool operator()(const zefs::DCOffset& a, const zefs::DCOffset& b) const;
};

using DcOffsetSet = std::unordered_set<zefs::DCOffset, DcOffsetHash, DcOffsetEqual>;

/// The durable to-do list of one table: extents whose offset inside their data container is not
/// known yet. New records gather in memory and are appended to the store file in synced batches.
/// Read hands the list out to the host and sets the file aside under the suffix ".tmp";
/// MergeDcOffset takes it back, keeps what is still open, and removes the file set aside.
///
/// `dcOffset` of a record: 0 and more is known and never stored, -1 is wanted, -2 is given up and
/// not stored again once it was handed out, -3 is never tracked; any other negative value is as -1.
///
/// A record in memory is not lost by a failure of writing, and may then stand in the file twice:
/// the host looks up each on its own. A list that could not be taken back is still out: the host
/// hands it back again. A reading that fails loses records, see Read, and of a record that was torn
/// in the middle by a failed write, those after it in the same file are misread.
///
/// Threads: any number. One mutex guards the records in memory and the file, file work included;
/// the path, which UpdatePath changes, is told under one of its own. It is the innermost lock but
/// for the configuration's, which is taken and released around each single read. Write, Open and
/// Destory expect it held: from outside they are for a caller that has the object to itself.
class DcOffsetStore {
 public:
  /// Touches no file. `path` is the full path of the store file; with `noMmap` each descriptor goes
  /// through EnableNommap. `storeName` is kOffsetStoreName, `tmpSuffix` kOffsetStoreTmpSuffix.
  DcOffsetStore(const std::string& path, bool noMmap, const std::string& storeName,
                const std::string& tmpSuffix);
  /// Flushes, and closes the file. Records that cannot be written now are lost.
  ~DcOffsetStore();
  DcOffsetStore(const DcOffsetStore&) = delete;
  DcOffsetStore& operator=(const DcOffsetStore&) = delete;

  /// Records the extent that starts at `key`, unless its `dcOffset` is known (0 and more) or not to
  /// be tracked (-3), or tracking is switched off. From `dcOffsetStoreThreshold` records on all of
  /// them are written. Returns 0, or the code of a failed write; the records then stay in memory
  /// and go out with the next attempt.
  int CheckAndStore(long key, unsigned long dcid, std::array<unsigned char, 32> fp, int dcOffset);

  /// Appends `offsets` to the file and syncs it; the file stays open. Returns 0, the `errno` of a
  /// failed open, or -1; what a failed write has left in the file stays there. Caller holds
  /// `mutex_`.
  int Write(DcOffsetSet offsets);

  /// Opens the file for appending if it is not open, and creates it with the rights 0600 if need
  /// be. Returns 0, or the `errno` of the failed open. Caller holds `mutex_`.
  int Open();

  /// Writes what is in memory, syncs and closes the file. With nothing in memory it does nothing
  /// and leaves an open file open. Returns the result of the last sync, 0 or -1: a failed write is
  /// only logged, and keeps the records.
  int Flush();

  /// Replaces `*out` by the valid records of the file, in file order, and sets the file aside in
  /// place of any earlier one; a file without a valid record is removed. Records still in memory
  /// are not part of the list. A record is valid if `key` is 0 or more and `dcid` at least
  /// kFirstDcid; a torn last record counts with what has arrived of it.
  ///
  /// Returns 0; also, with `*out` untouched, when there is no file. Returns -1 if the file cannot
  /// be opened, or cannot be renamed: `*out` then holds the records, and so does the file. A
  /// failing read counts as the end of the file, and what lies behind it is not handed out any
  /// more. Passes boost::filesystem::filesystem_error through.
  int Read(std::vector<zefs::DCOffset>* out);

  /// Takes a list back that Read gave out: appends the records that are still wanted (negative, and
  /// not -2) and removes the file set aside. Returns 0, or the code of a failed write; the file set
  /// aside then stays. Passes boost::filesystem::filesystem_error through.
  int MergeDcOffset(std::vector<zefs::DCOffset> offsets);

  /// Closes the file if it is open. Neither the file nor the records in memory are touched. Caller
  /// holds `mutex_`.
  void Destory();

  /// Flushes under the old path and goes on under `path`; records whose flush failed go there. The
  /// files themselves are not moved.
  void UpdatePath(const std::string& path);

  /// Accepts what printf does, and does nothing with it.
  static void TraceLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

 private:
  friend class CMappingLMDB;
  friend struct DcOffsetStoreTestPeer;

  int FlushUnlocked();
  void CloseUnlocked();

  /// Calls `use` with the path, for a caller that does not hold mutex_.
  template <typename Use>
  void WithPath(Use use) const;
  void LogEntry(const char* operation) const;

  std::string path_;     ///< full path of the store file; changes under mutex_ and ObjectLock(this)
  int fd_ = -1;          ///< its descriptor, -1: closed
  DcOffsetSet offsets_;  ///< not yet on file
  std::mutex mutex_;     ///< guards all of the above, and the writing of the file
  bool noMmap_;
  std::string storeName_;
  std::string tmpSuffix_;
};

/// Whether the directory `path` itself, not what lies below, holds a regular file whose whole name
/// is the end of "dcoffset": that name, "offset", "t" and so on, but no longer name and no name
/// with a prefix. Passes boost::filesystem::filesystem_error through, as for a missing directory.
ZEFS_EXTMAP_API bool DcOffsetAviliable(const std::string& path);

}  // namespace Aldenta::Qnd::Morene::Zefs
