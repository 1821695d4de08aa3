#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace zefs::test {

/// The system calls and the calls of LMDB that a test can count, fail or die at. A call that is not
/// listed is one enumerator here and one line in fault_injection.cc.
enum class Call {
  kOpen,
  kRead,
  kWrite,
  kFsync,
  kClose,
  kRename,
  kUnlink,
  kMkdir,
  kStat,
  kPwrite,
  kWritev,
  kFdatasync,
  kFtruncate,
  kMdbEnvCreate,
  kMdbEnvSetMapsize,
  kMdbEnvSetMaxdbs,
  kMdbEnvOpen,
  kMdbEnvCopy2,
  kMdbTxnBegin,
  kMdbTxnCommit,
  kMdbDbiOpen,
  kMdbSetCompare,
  kMdbCursorOpen,
  kMdbCursorGet,
  kMdbCursorPut,
  kMdbCursorDel,
  kMdbGet,
  kMdbPut,
  kMdbDel,
  kMdbStat
};
inline constexpr std::size_t kCalls = static_cast<std::size_t>(Call::kMdbStat) + 1;

/// Faults of the system calls and of the LMDB calls of this process. A test program that links
/// fault_injection.cc defines the calls itself and hands them on to the C library or to LMDB,
/// whoever makes them: the library, the host, Boost.Filesystem. Only system calls on files of one
/// directory tree are counted and can fail, so that the test framework and the log stay out of it.
/// LMDB calls count wherever their database lies, unless OnlyDatabase says which; those that LMDB
/// makes of itself never do. Until OnlyBelow names a directory nothing happens at all.
///
/// One state for the process. Safe from any thread.
class Faults {
 public:
  /// Watches the calls on `directory`, which exists, and on everything below it: those that take a
  /// path by its text (either path of a rename), those that take a descriptor by the file behind
  /// it. Watches all calls of LMDB. Forgets the faults and counts so far.
  static void OnlyBelow(const std::string& directory);

  /// Of the LMDB calls, from now on until OnlyBelow or Reset, only those are watched whose
  /// environment lies in a file of this name, in whichever directory. A call on an environment that
  /// is not open yet is not, save the one that opens it.
  static void OnlyDatabase(const std::string& fileName);

  /// The `nth` watched call from now on (1: the next) fails with `error`, and, if `forGood`, so do
  /// all after it. A system call sets errno to it, a call of LMDB returns it. A failing call has no
  /// effect, save that close still closes the descriptor, and mdb_txn_commit still ends the
  /// transaction, by an abort. Several faults may be set at once.
  static void FailNth(Call call, int nth, int error, bool forGood = false);

  /// The `nth` watched write from now on writes `bytes` bytes and says so.
  static void ShortWriteNth(int nth, std::size_t bytes);

  /// The process dies by SIGKILL in place of the `nth` watched call from now on.
  static void KillNth(Call call, int nth);

  /// Watched calls since OnlyBelow, those that failed included.
  static int Count(Call call);

  /// Bytes asked of each watched write and read since OnlyBelow, in their order.
  static std::vector<std::size_t> WriteSizes();
  static std::vector<std::size_t> ReadSizes();

  /// Whether any fault took effect since OnlyBelow or the last UntilNoneFires step.
  static bool Fired();

  /// Forgets the faults that are set; goes on watching, and keeps the counts and Fired.
  static void Disarm();

  /// Stops watching and forgets everything.
  static void Reset();

  /// Calls `run(1)`, `run(2)`, ... until a run in which no fault fired; `run` sets a fault at the
  /// nth call that it is given. Disarms after each run. Returns the number of runs in which one
  /// fired. Throws std::runtime_error when it does not end.
  static int UntilNoneFires(const std::function<void(int nth)>& run);
};

/// Faults::OnlyBelow for the life of this object.
class WatchCalls {
 public:
  explicit WatchCalls(const std::string& directory) { Faults::OnlyBelow(directory); }
  ~WatchCalls() { Faults::Reset(); }
  WatchCalls(const WatchCalls&) = delete;
  WatchCalls& operator=(const WatchCalls&) = delete;
};

}  // namespace zefs::test
