#include <map>
#include <utility>

#include "host/config.h"
#include "host/file_io.h"
#include "host/zefs_log.h"
#include "persistent/clipping.h"
#include "persistent/mapping_lmdb.h"
#include "persistent/prefetch_run.h"
#include "persistent/transaction.h"

// What a stretch of a file consists of, container by container, so that the host can fetch whole
// containers ahead of a read. The extents found stay behind for the read itself.

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

constexpr std::size_t kUsualExtents = 512;  ///< of one plan

bool PrefetchedAreKept() {
  return FileSystemDaemonConfig::GetInstance().Get(&FileSystemDaemonConfig::prefetchEnabled) != 0;
}

}  // namespace

void CMappingLMDB::DropAllPrefetched() {
  if (PrefetchedAreKept()) {
    const UniqueLock lock(prefetchLock_);
    prefetchExts_.clear();
  }
}

// --- transactions of a plan ----------------------------------------------------------------------

void CMappingLMDB::CreateMDBTxnContext(const Chain& chain, std::list<MDBTXNCONTEXT>* ctxs) {
  std::list<MDBTXNCONTEXT> opened;
  try {
    for (const LMDBContext* db : chain) {
      Transaction transaction(*db, Transaction::kWrite, path_);
      opened.push_back({transaction.cursor(), transaction.txn()});
      transaction.Release();
    }
  } catch (...) {
    AbortMDBTxnContext(&opened);
    throw;
  }
  ctxs->splice(ctxs->end(), opened);
}

void CMappingLMDB::AbortMDBTxnContext(std::list<MDBTXNCONTEXT>* ctxs) {
  for (const MDBTXNCONTEXT& context : *ctxs) {
    mdb_cursor_close(context.cursor);
    mdb_txn_abort(context.txn);
  }
}

/// Open transactions on the databases of a chain, for one plan.
class CMappingLMDB::PlanTransactions {
 public:
  PlanTransactions(CMappingLMDB* table, const Chain& chain) : table_(table) {
    table_->CreateMDBTxnContext(chain, &contexts_);
  }
  ~PlanTransactions() { table_->AbortMDBTxnContext(&contexts_); }
  PlanTransactions(const PlanTransactions&) = delete;
  PlanTransactions& operator=(const PlanTransactions&) = delete;

  std::list<MDBTXNCONTEXT>::iterator begin() { return contexts_.begin(); }

 private:
  CMappingLMDB* table_;
  std::list<MDBTXNCONTEXT> contexts_;
};

// --- the plan ------------------------------------------------------------------------------------

bool CMappingLMDB::NextPlanned(long offset, PlanTransactions* transactions, ExtLMDB* out) {
  const auto cached = FirstEndingBehind(offset);
  const bool isCached = cached != extCache_.end();
  ExtLMDB older;
  if (!isCached || offset < cached->second.startOffset) {
    const bool isOlder =
        GetNextExtInDBChain(dbChain_, dbChain_.begin(), transactions->begin(), offset, &older) == 0;
    if (!isCached && !isOlder) {
      return false;
    }
    if (isOlder && (!isCached || older.sOff < cached->second.startOffset)) {
      if (isCached) {
        HideBack(&older, cached->second.startOffset);
      }
      if (cached != extCache_.begin()) {
        HideFront(&older, std::prev(cached)->first);
      }
      *out = older;
      return true;
    }
  }
  getExtLMDBFromExtLMDBEntry(cached->first, &cached->second, out);
  return true;
}

void CMappingLMDB::GetDCInfoList(const PrefetchRange& range, std::list<DCInfo>* out) {
  const SharedLock cacheLock(rwLock_);
  const SharedLock databaseLock(tableLock_);
  if (range.start >= range.end) {
    return;
  }
  const bool kept = PrefetchedAreKept();
  PrefetchRun fetched;
  {
    PlanTransactions transactions(this, dbChain_);
    fetched.reserve(kUsualExtents);
    std::map<unsigned long, DCInfo*> byDcid;
    long offset = range.start;
    do {
      ExtLMDB ext;
      if (!NextPlanned(offset, &transactions, &ext)) {
        break;
      }
      if (kept) {
        fetched.push_back(ext);
      }
      CheckAndFill(out, &byDcid, ext, range);
      offset = ext.eOff;
      // A last byte that would have to be looked up on its own is left out.
    } while (offset < range.end - 1);
  }
  SafeMoveToExtCache(&fetched);
}

void CMappingLMDB::CheckAndFill(std::list<DCInfo>* out, std::map<unsigned long, DCInfo*>* byDcid,
                                const ExtLMDB& ext, const PrefetchRange& range) {
  const unsigned long dcid = ext.objectID.dcid;
  if (dcid < kFirstDcid) {
    return;
  }
  DCInfo*& info = (*byDcid)[dcid];
  if (info == nullptr) {
    info = &out->emplace_back();
    info->dcid = dcid;
  }
  zefs::DataCacheManagementInterface::ExtInfo& planned = info->extents.emplace_back();
  planned.objectID = ext.objectID;
  planned.sOff = ext.sOff;
  planned.objOff = static_cast<std::uint32_t>(ext.objOff);
  planned.length = static_cast<std::uint32_t>(static_cast<std::uint64_t>(ext.eOff) -
                                              static_cast<std::uint64_t>(ext.sOff));
  planned.dcOffset = ext.dcOffset;
  planned.millis = get_millis();
  planned.inRange = ext.sOff < range.end;
  info->totalBytes += planned.length;
  info->rangeTag = range.rangeTag;
}

void CMappingLMDB::SafeMoveToExtCache(std::vector<ExtLMDB>* fetched) {
  if (!PrefetchedAreKept() || fetched->empty()) {
    return;
  }
  const std::uint32_t span =
      FileSystemDaemonConfig::GetInstance().Get(&FileSystemDaemonConfig::prefetchSpanBytes);
  const UniqueLock lock(prefetchLock_);
  MergePrefetched(std::move(*fetched), span, &prefetchExts_);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
