#pragma once

namespace zefs::test {

/// The process dies by SIGKILL in place of the `nth` time from now on that LMDB writes to a file or
/// syncs one, as it does inside a commit; 0: not at all. For programs that compile lmdb_writes.cc.
void DieAtLmdbWrite(int nth);

}  // namespace zefs::test
