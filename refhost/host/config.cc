#include "host/config.h"

// The settings that this host starts with. All of them may be changed at run time.

ZefsConfig& ZefsConfig::GetInstance() {
  static ZefsConfig& config = *new ZefsConfig;  // tables may still be used by threads during exit
  return config;
}

FileSystemDaemonConfig& FileSystemDaemonConfig::GetInstance() {
  static FileSystemDaemonConfig& config = *new FileSystemDaemonConfig;
  return config;
}

FileSystemDaemonConfig::FileSystemDaemonConfig()
    // An upper bound that costs only address space: some 150 million records of about 100 bytes,
    // more than 2 TiB of file in segments of 16 KiB; thousands of tables of that size can be open.
    : bigTableMapSizeGiB(16),
      // A flush is one synced transaction. A thousand pending keys, 16 MiB of segments, make the
      // sync cheap for each of them and keep little unwritten.
      batchUpdateThreshold(1024),
      // Half a batch: segments get their object ids roughly in the order of writing, so by then the
      // front of the list is ready, and the scan of what is not ready yet is not paid for a
      // handful.
      objIdReadyThreshold(512),
      // A merge rewrites the full database, so the small one should hold a fair part of it; 100,000
      // records are some 10 MiB, a size that is still cheap to look up in and to write at random.
      mergeEntriesThreshold(100000),
      // Many small flushes age the small database by fragmentation before it is large.
      mergeCommitCountThreshold(1000),
      // A flush that takes seconds means that the small database no longer fits the page cache.
      mergeCommitTimeThreshold(5),
      // Writers are held up only when a merge has fallen behind by several times what started it.
      mergeWaitEntriesThreshold(400000),
      // Some 1 MiB of records: bounds the dirty pages of a merge, and keeps syncs rare.
      mergeCommitBatchSize(10000),
      // A filter is some bytes for each record, and saves a walk of the full database per question.
      persistBloom(1),
      // Off: a prefetched extent that outlives a write inside it would be read in its place. A
      // store that reads ahead sees to it that none does, and switches it on.
      prefetchEnabled(0),
      // A thousand segments of 16 KiB on either side: what a few read-aheads cover.
      prefetchSpanBytes(16U << 20),
      // Lets a read go to the container without asking its index.
      dcOffsetTrackingEnabled(true),
      // Some 230 KiB of records in memory per table, written by one append.
      dcOffsetStoreThreshold(4096) {}
