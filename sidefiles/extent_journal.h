#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "host/zefs_log.h"
#include "table/extent.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Bytes of a journal record in the file. docs/formats.md shows them one by one.
inline constexpr std::size_t kJournalRecordSize = 80;

/// Writes the first 76 of the kJournalRecordSize bytes at `out`; the last four, which no field
/// lies in, are left as they are: zero in every buffer that goes to a file.
void EncodeJournalRecord(const Extent& record, unsigned char* out);

/// The record in the kJournalRecordSize bytes at `bytes`, whatever they are.
Extent DecodeJournalRecord(const unsigned char* bytes);

/// An append-only file beside the databases of one persistent table, with a record of each extent
/// that a flush stored and of each overlap that it resolved. It begins with the first flushed
/// extent and ends with the next forced flush, which destroys it. A journal that is found when a
/// table is loaded is handed back by Get, and a new one begins.
///
/// States: idle (neither flag set, no file), running (both set, file open), stopped (neither set,
/// file stays). Records are accepted only while running.
///
/// Results are 0, or -1, or an error number where told; every failure is logged. Boost's
/// filesystem_error passes through HasJournal, Get, Replay and Destroy when a path cannot be looked
/// at or the replay file cannot be removed; the lock is then free.
///
/// `mutex_` is the only lock and the innermost of a table. Add, Flush, Start and Destroy may be
/// called from any thread at any time at which the table does not move: log lines read the path
/// without the lock, and the table lock, which a move takes exclusively, keeps it in place. Get,
/// Replay, Read and Close touch the descriptor or the files without the lock: nobody else may be
/// using the journal.
class ExtentJournal {
 public:
  static constexpr char JOURNAL_FILENAME[] = "journal";  ///< behind the prefix of the table
  static constexpr char REPLAY_EXTENTION[] = ".rep";     ///< behind the path of the journal

  /// Touches no file. `path` is the full path of the journal; with `noMmap` the host is asked to
  /// keep the files out of memory mappings.
  ExtentJournal(const std::string& path, bool noMmap);

  ExtentJournal(const ExtentJournal&) = delete;
  ExtentJournal& operator=(const ExtentJournal&) = delete;

  /// Writes, syncs and closes a journal that is open. The files stay.
  virtual ~ExtentJournal();

  /// Makes the directory if it is missing and opens the file for appending; does not start. Returns
  /// 0, the error number of the directory's creation, -2 if Boost threw on the way, or -1 if the
  /// file cannot be opened. The caller holds `mutex_` and has seen `opened_` false.
  int Open();

  /// Opens the file unless it is open, and from then on accepts records. Returns 0 or what Open
  /// returned. Takes `mutex_`.
  int Start() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!opened_) {
      const int ret = Open();
      if (ret != 0) {
        return ret;
      }
    }
    started_ = true;
    ZEFS_LOG(zefs::kLogStep, "extent journal start, path=%s", path_.c_str());
    return 0;
  }

  /// Appends one record: the range, offset, container and fingerprint of `e` with the given `op`
  /// and `tag`. -1 while the journal is not running. The record that fills the buffer flushes it
  /// without a sync, and a failure of that flush is returned. Takes `mutex_` for the record, and
  /// again for the flush.
  int Add(const Extent& e, op_t op, unsigned long tag);

  /// The same for the extent [start, end) at `offset` of an object, with op ADD and DEL.
  int Add(long start, long end, long offset, unsigned long dcid, std::array<unsigned char, 32> fp,
          unsigned long tag);
  int Del(long start, long end, long offset, unsigned long dcid, std::array<unsigned char, 32> fp,
          unsigned long tag);

  /// Writes the buffered records, syncs the file if `sync`, be the buffer empty or not, and empties
  /// the buffer. -1 while not started. After a failed write or sync, whose result is returned, the
  /// buffer keeps its records and the next flush appends all of them again: records that are there
  /// twice do no harm in a replay, but behind a piece of a record all are misread. Takes `mutex_`.
  int Flush(bool sync);

  /// Writes `records` behind the file in chunks of 16384. Returns -1 at the first chunk that is not
  /// written whole; those before it stay in the file. The caller holds `mutex_`.
  int Write(const std::vector<Extent>& records);

  /// Syncs the file. Returns -1 if it is not open, else the result. Takes no lock.
  int Sync();

  /// Sets `*out` to the records of the replay file, without those whose `end` is 0 or below their
  /// `start`. A cut last record reads as if zeros followed. -1 if the file cannot be opened; a read
  /// error ends the file. Takes no lock.
  int Read(std::vector<Extent>* out);

  /// Stops, renames the journal over any older replay file, reads that into `*out` and removes it,
  /// and starts a new, empty journal. Buffered records stay in the buffer. Returns 0, -1 if the
  /// rename or the reading failed, or what Open returned; the journal is then stopped. Takes
  /// `mutex_` for the new start only.
  int Replay(std::vector<Extent>* out);

  /// What a former life left: sets `*out` to the records of the journal file, if there is one,
  /// through Flush(true) and Replay, so the journal must be started. Without a file returns 0 and
  /// an empty list. -1 if `out` is null, else the first failure.
  int Get(std::vector<Extent>* out);

  /// Whether there is a file at `path_`.
  bool HasJournal();

  /// Stops and closes; buffered records stay in the buffer. Always 0. Takes no lock.
  int Close();

  /// Stops, closes, drops the buffered records and removes both files, those that exist, and syncs
  /// their directory, so that they are gone for good when this returns: no power cut brings them
  /// back. Returns 0, or -1 from the first unlink that failed or from the sync. Holds `mutex_`
  /// throughout.
  int Destroy();

  /// Empties the buffer and touches no file. Takes no lock.
  void Reset() { buffer_.clear(); }

 private:
  friend class CMappingLMDB;  // tests the flags; moves the paths with the table, under mutex_
  friend struct ExtentJournalTestPeer;

  int fd_ = -1;                        // the journal file; -1 when closed
  std::string path_;                   // full path of the journal file
  std::string replayPath_;             // path_ + REPLAY_EXTENTION
  std::atomic<bool> started_ = false;  // records may be accepted
  std::atomic<bool> opened_ = false;   // fd_ is open
  bool noMmap_;                        // as the table's
  std::vector<Extent> buffer_;         // records not yet written
  std::mutex mutex_;                   // guards buffer_, the file, starting and stopping
};

}  // namespace Aldenta::Qnd::Morene::Zefs
