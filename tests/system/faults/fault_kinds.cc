#include "tests/system/faults/fault_kinds.h"

#include <cerrno>
#include <lmdb.h>

#include "tests/support/fault_injection.h"
#include "tests/system/faults/file_faults.h"
#include "tests/system/faults/memory_faults.h"

namespace zefs::test {
namespace {

FaultKind Kind(const char* name, Call call, std::vector<int> codes) {
  const Domain domain = call < Call::kMdbEnvCreate ? Domain::kFile : Domain::kLmdb;
  return {name, domain, std::move(codes),
          [call](int nth, int code, bool forGood) { Faults::FailNth(call, nth, code, forGood); },
          [call] { return Faults::Count(call); }};
}

FaultKind Kind(const char* name, FileCall call, std::vector<int> codes) {
  return {
      name, call == FileCall::kMdbEnvSync ? Domain::kLmdb : Domain::kFile, std::move(codes),
      [call](int nth, int code, bool forGood) { FileFaults::FailNth(call, nth, code, forGood); },
      [call] { return FileFaults::Count(call); }};
}

FaultKind Kind(const char* name, Allocator allocator) {
  return {name,
          Domain::kMemory,
          {ENOMEM},
          [allocator](int nth, int /*code*/, bool forGood) {
            MemoryFaults::FailNth(allocator, nth, forGood);
          },
          [allocator] { return MemoryFaults::Count(allocator); }};
}

/// A disk that fills up: half of one write gets there, and nothing of any other.
FaultKind FillingDisk() {
  return {"write, short and then none",
          Domain::kFile,
          {ENOSPC},
          [](int nth, int code, bool forGood) {
            constexpr std::size_t kSome = 40;
            Faults::ShortWriteNth(nth, kSome);
            Faults::FailNth(Call::kWrite, nth + 1, code, forGood);
          },
          [] { return Faults::Count(Call::kWrite); }};
}

std::vector<FaultKind> MakeKinds() {
  return {
      Kind("mdb_env_create", Call::kMdbEnvCreate, {ENOMEM}),
      Kind("mdb_env_set_mapsize", Call::kMdbEnvSetMapsize, {EINVAL}),
      Kind("mdb_env_set_maxdbs", Call::kMdbEnvSetMaxdbs, {EINVAL}),
      Kind("mdb_env_open", Call::kMdbEnvOpen, {EACCES, ENOSPC, EMFILE, MDB_VERSION_MISMATCH}),
      Kind("mdb_txn_begin", Call::kMdbTxnBegin, {MDB_READERS_FULL, ENOMEM}),
      Kind("mdb_txn_commit", Call::kMdbTxnCommit, {ENOSPC, EIO, MDB_MAP_FULL}),
      Kind("mdb_cursor_open", Call::kMdbCursorOpen, {ENOMEM}),
      Kind("mdb_cursor_get", Call::kMdbCursorGet, {MDB_CORRUPTED}),
      Kind("mdb_cursor_put", Call::kMdbCursorPut, {MDB_MAP_FULL, MDB_TXN_FULL}),
      Kind("mdb_cursor_del", Call::kMdbCursorDel, {MDB_MAP_FULL}),
      Kind("mdb_get", Call::kMdbGet, {MDB_PAGE_NOTFOUND}),
      Kind("mdb_put", Call::kMdbPut, {MDB_MAP_FULL}),
      Kind("mdb_del", Call::kMdbDel, {MDB_MAP_FULL}),
      Kind("mdb_stat", Call::kMdbStat, {MDB_BAD_TXN}),
      Kind("mdb_env_sync", FileCall::kMdbEnvSync, {EIO}),
      Kind("open", Call::kOpen, {EACCES, EMFILE, EINTR, ENOSPC}),
      Kind("write", Call::kWrite, {ENOSPC, EIO, EINTR}),
      Kind("close", Call::kClose, {EIO}),
      Kind("rename", Call::kRename, {EIO}),
      Kind("unlink", Call::kUnlink, {EACCES}),
      Kind("mkdir", Call::kMkdir, {ENOSPC}),
      Kind("stat of Boost", Call::kStat, {EACCES}),
      FillingDisk(),
      Kind("read", FileCall::kRead, {EIO, EINTR}),
      Kind("read of half", FileCall::kShortRead, {0}),
      Kind("fsync", FileCall::kFsync, {EIO, EINTR}),
      Kind("truncate", FileCall::kTruncate, {EIO}),
      Kind("stat", FileCall::kStatOfTheLibrary, {EACCES}),
      Kind("pthread_create", FileCall::kThread, {EAGAIN}),
      Kind("pread", FileCall::kPread, {EIO}),
      Kind("pwrite", FileCall::kPwrite, {ENOSPC, EIO}),
      Kind("pwrite of half", FileCall::kShortPwrite, {0}),
      Kind("writev", FileCall::kWritev, {ENOSPC}),
      Kind("fdatasync", FileCall::kFdatasync, {EIO}),
      Kind("mmap", FileCall::kMmap, {ENOMEM}),
      Kind("fstat", FileCall::kFstat, {EIO}),
      Kind("lstat", FileCall::kLstat, {EACCES}),
      Kind("chmod", FileCall::kChmod, {EROFS}),
      Kind("sendfile", FileCall::kSendfile, {ENOSPC}),
      Kind("copy_file_range", FileCall::kCopyFileRange, {ENOSPC}),
      Kind("opendir", FileCall::kOpendir, {EMFILE}),
      Kind("readdir", FileCall::kReaddir, {EIO}),
      Kind("rmdir", FileCall::kRmdir, {EIO}),
      Kind("statvfs", FileCall::kStatvfs, {EACCES}),
      Kind("operator new", Allocator::kNew),
      Kind("malloc", Allocator::kMalloc),
  };
}

}  // namespace

const std::vector<FaultKind>& FaultKinds() {
  static const std::vector<FaultKind> kinds = MakeKinds();
  return kinds;
}

FaultWatch::FaultWatch(const std::string& directory, bool memoryAlone) {
  if (!memoryAlone) {
    Faults::OnlyBelow(directory);
  }
  FileFaults::Start();
  MemoryFaults::Start();
}

FaultWatch::~FaultWatch() {
  MemoryFaults::Stop();
  FileFaults::Stop();
  Faults::Reset();
}

bool FaultWatch::Fired() {
  return Faults::Fired() || FileFaults::Fired() || MemoryFaults::Fired();
}

}  // namespace zefs::test
