#pragma once

namespace zefs::test::locks {

// The order in which a thread takes the locks of the system, written once. Each is above all that
// may be held when it is taken. mergeMutex_ is held while the merge thread is joined, so it stands
// before everything that the merge takes. The transactions that write a database are a lock each:
// those of a chain are begun newest first, and a merge holds one on its own database, which nobody
// else opens, while it takes tableLock_.
enum Rank {
  kRankRwLock = 1,
  kRankMergeMutex,
  kRankMergeWriters,
  kRankTableLock,
  kRankTmpWriters,
  kRankSmallWriters,
  kRankFullWriters,
  kRankPrefetchLock,
  kRankSideFile,
  kRankObject,
  kRankHost,
};

}  // namespace zefs::test::locks
