#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zefs::test {

/// One call that changed files, or a mark between them. Paths are relative to the recorded
/// directory, which itself is the empty path.
struct DiskEvent {
  enum Kind : std::int32_t {
    kMark,       ///< the run has come to `path`, a word of the test
    kOpen,       ///< `fd` stands for `path` from now on; made, or emptied, as `flags` say
    kClose,      ///< `fd` no longer stands for a file
    kWrite,      ///< `bytes` at `offset` of the file of `fd`
    kSyncWrite,  ///< the write just before this event has come to the disk
    kTruncate,   ///< the file of `fd`, or of `path` if `fd` is -1, has `offset` bytes
    kSync,       ///< the file or directory of `fd` is synced
    kRename,     ///< `path` is called `bytes` from now on
    kUnlink,
    kMkdir,
    kRmdir
  };
  Kind kind = kMark;
  std::int32_t fd = -1;
  std::int32_t flags = 0;
  std::uint64_t offset = 0;
  std::string path;
  std::string bytes;
};

/// Records what this process does to the files below one directory, whoever makes the calls: the
/// library, LMDB, Boost.Filesystem, the test. A program that links zefs_power_cut defines the calls
/// itself, hands them on to the C library and notes those that succeeded, in the order in which
/// they took effect. Such a program does not link zefs_fault_injection, which defines them too.
///
/// No sync of such a program reaches the real disk: what a sync is worth is told by ModelDisk. What
/// is written through a memory map is not seen: LMDB does so to its lock files only, of which
/// nothing outlives a process.
///
/// One state for the process; safe from any thread.
class DiskRecorder {
 public:
  /// Begins anew, with the files below `directory` as they are.
  static void Begin(const std::string& directory);

  /// Notes that the run has come to this point.
  static void Mark(const std::string& word);

  /// From now on syncs of files of this name are left out, as though the caller had forgotten them:
  /// also those that LMDB makes by a write to a descriptor that syncs. For tests of the tests.
  static void ForgetSyncsOf(const std::string& fileName);

  /// Ends the recording.
  static std::vector<DiskEvent> End();

  /// Keeps events in a file, and reads them back, for another process.
  static void Save(const std::vector<DiskEvent>& events, const std::string& file);
  static std::vector<DiskEvent> Saved(const std::string& file);
};

}  // namespace zefs::test
