#pragma once

namespace zefs::test {

/// Calls that zefs::test::Faults does not know, or not as they are wanted here.
enum class FileCall {
  kRead,       ///< of the library and the host
  kShortRead,  ///< the same, of which a failure is a read of half the bytes
  kFsync,      ///< of the library and the host, never carried out
  kTruncate,
  kStatOfTheLibrary,
  kThread,  ///< pthread_create of the library
  kPread,   ///< this and the next five: of LMDB
  kPwrite,
  kShortPwrite,
  kWritev,
  kFdatasync,  ///< never carried out
  kMmap,
  kFstat,  ///< this and the next seven: of Boost.Filesystem
  kLstat,
  kChmod,
  kSendfile,
  kCopyFileRange,
  kOpendir,
  kReaddir,
  kRmdir,
  kStatvfs,
  kMdbEnvSync
};
inline constexpr int kFileCalls = static_cast<int>(FileCall::kMdbEnvSync) + 1;

/// Faults of these calls, on whatever file, for programs that compile file_faults.cc and are linked
/// with kFileFaultLinks of its CMakeLists. One state for the process; nothing fails or counts while
/// nothing is watched. Start, Stop and FailNth are for when no other thread makes such calls.
class FileFaults {
 public:
  /// Calls count from now on. Forgets the fault and the counts so far.
  static void Start();
  static void Stop();

  /// The `nth` such call from Start on fails with `error` and has no effect, and so do, if
  /// `forGood`, all after it.
  static void FailNth(FileCall call, int nth, int error, bool forGood);

  static int Count(FileCall call);  ///< since Start
  static bool Fired();              ///< since Start
};

}  // namespace zefs::test
