#pragma once

namespace zefs::test {

/// The calls with which files are copied and trees removed, where Faults does not know them.
enum class FileCall {
  kFstat,
  kLstat,
  kChmod,
  kCopyFileRange,
  kSendfile,
  kFdatasync,
  kOpendir,
  kReaddir,
  kRmdir
};
inline constexpr int kFileCalls = static_cast<int>(FileCall::kRmdir) + 1;

/// The `nth` such call from now on (1: the next), on whatever file, fails with `error` and has no
/// effect. One failure at a time is set; 0 for `nth` takes it back. For programs that compile
/// file_calls.cc, and one thread that makes these calls.
void FailFileCall(FileCall call, int nth, int error);

/// The process dies by SIGKILL in place of it.
void DieAtFileCall(FileCall call, int nth);

/// Whether the failure set last has taken effect.
bool FileCallFailed();

}  // namespace zefs::test
