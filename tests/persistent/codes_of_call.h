#pragma once

#include <cerrno>
#include <lmdb.h>
#include <vector>

#include "tests/support/fault_injection.h"

namespace zefs::test {

/// Codes that a call of LMDB may well return.
inline std::vector<int> CodesOf(Call call) {
  switch (call) {
    case Call::kMdbTxnBegin:
      return {ENOMEM, EIO, MDB_PANIC, MDB_READERS_FULL, MDB_MAP_RESIZED};
    case Call::kMdbCursorOpen:
      return {ENOMEM, EINVAL, MDB_BAD_TXN};
    case Call::kMdbCursorGet:
      return {EINVAL, EIO, MDB_CORRUPTED, MDB_PAGE_NOTFOUND, MDB_BAD_TXN};
    case Call::kMdbGet:
      return {EINVAL, MDB_CORRUPTED, MDB_PAGE_NOTFOUND, MDB_BAD_TXN, MDB_KEYEXIST};
    case Call::kMdbPut:
      return {MDB_MAP_FULL, MDB_TXN_FULL, ENOMEM, EACCES, MDB_NOTFOUND};
    default:
      return {ENOSPC, EIO, MDB_MAP_FULL, MDB_PANIC};
  }
}

}  // namespace zefs::test
