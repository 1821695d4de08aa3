#include <climits>
#include <utility>

#include "host/config.h"
#include "host/zefs_log.h"
#include "persistent/clipping.h"
#include "persistent/lmdb_iterator.h"
#include "persistent/mapping_lmdb.h"
#include "persistent/seek.h"
#include "persistent/transaction.h"
#include "support/measure_cpu.h"

// Look-ups: prefetched extents, the cache, and the databases, each newer than the next. Nothing is
// rewritten on the way: an older extent is clipped against its newer neighbours as it is found.

namespace Aldenta::Qnd::Morene::Zefs {

using zefs::kLogFailure;
using zefs::kLogTrace;

namespace {

/// Nothing ends behind this offset, and the key to search from would not exist.
constexpr long kLastOffset = LONG_MAX;

[[noreturn]] void RefuseToStepBack(const char* line) {
  ZEFS_LOG(kLogTrace, "%s", line);
  throw SysException(kErrNoStepBack);
}

void LogFailedRead(int ret) {
  ZEFS_LOG(kLogFailure, "Failed to read for a cursor, return value is %d", ret);
}

/// Positions `cursor` on the first record that ends behind `offset`.
int SeekBehind(MDB_cursor* cursor, long offset, MDB_val* key, MDB_val* value) {
  return SeekRecord(cursor, offset + 1, key, value);
}

}  // namespace

// --- finders -----------------------------------------------------------------------------------

CMappingTable::iterator CMappingLMDB::begin() {
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  ZEFS_LOG(kLogTrace, "CMappingLMDB::begin()");
  return lower_bound(0, nullptr);
}

CMappingTable::iterator CMappingLMDB::end() {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::end()");
  return iterator(std::make_unique<iteratorimp>(this));
}

CMappingTable::iterator CMappingLMDB::find(long offset, SharedLock* lock) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::find()");
  return lower_bound(offset, lock);
}

CMappingTable::iterator CMappingLMDB::lower_bound(long offset, SharedLock* lock) {
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  ZEFS_LOG(kLogTrace, "CMappingLMDB::lower_bound(), vOffset=%llu",
           static_cast<unsigned long long>(offset));
  SharedLock held(rwLock_);
  ExtLMDB ext;
  long nextEnd = 0;
  GetNextExtent(offset, &nextEnd, &ext);
  return FoundOrEnd(nextEnd, ext, &held, lock);
}

CMappingTable::iterator CMappingLMDB::lower_bound_in_cache(long offset, SharedLock* lock) {
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  ZEFS_LOG(kLogTrace, "CMappingLMDB::lower_bound_in_cache(), vOffset=%llu",
           static_cast<unsigned long long>(offset));
  SharedLock held(rwLock_);
  ExtLMDB ext;
  long nextEnd = 0;
  GetNextExtentInCache(offset, &nextEnd, &ext);
  return FoundOrEnd(nextEnd, ext, &held, lock);
}

CMappingTable::iterator CMappingLMDB::lower_bound_unlocked(long offset) {
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  ZEFS_LOG(kLogTrace, "CMappingLMDB::lower_bound(), vOffset=%llu",
           static_cast<unsigned long long>(offset));
  ExtLMDB ext;
  long nextEnd = 0;
  GetNextExtent(offset, &nextEnd, &ext);
  return FoundOrEnd(nextEnd, ext, nullptr, nullptr);
}

CMappingTable::iterator CMappingLMDB::FoundOrEnd(long nextEnd, const ExtLMDB& ext, SharedLock* held,
                                                 SharedLock* wanted) {
  if (nextEnd == -1) {
    return iterator(std::make_unique<iteratorimp>(this));
  }
  if (ext.data != nullptr && wanted != nullptr) {
    *wanted = std::move(*held);
  }
  return iterator(std::make_unique<iteratorimp>(ext, this));
}

// --- prefetched extents and cache ----------------------------------------------------------------

bool CMappingLMDB::FindPrefetched(long offset, ExtLMDB* out) {
  const SharedLock lock(prefetchLock_);
  int low = 0;
  int high = static_cast<int>(prefetchExts_.size()) - 1;
  while (low <= high) {
    const int mid = (low + high) / 2;
    const ExtLMDB& ext = prefetchExts_[static_cast<std::size_t>(mid)];
    if (offset < ext.sOff) {
      high = mid - 1;
    } else if (offset < ext.eOff) {
      *out = ext;
      return true;
    } else {
      low = mid + 1;
    }
  }
  return false;
}

int CMappingLMDB::GetNextExtent(long offset, long* nextEnd, ExtLMDB* out) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::GetNextExtent(), vOffset=%lld",
           static_cast<long long>(offset));
  const bool prefetching =
      FileSystemDaemonConfig::GetInstance().Get(&FileSystemDaemonConfig::prefetchEnabled) != 0;
  if (prefetching && FindPrefetched(offset, out)) {
    *nextEnd = out->eOff;
    return 0;
  }

  const auto cached = FirstEndingBehind(offset);
  const bool isCached = cached != extCache_.end();
  ExtLMDB older;
  const bool covered = isCached && cached->second.startOffset <= offset;
  const bool isOlder = !covered && lowerBoundDB(offset, &older) == 0;
  if (isCached && (!isOlder || cached->second.startOffset <= older.sOff)) {
    getExtLMDBFromExtLMDBEntry(cached->first, &cached->second, out);
    *nextEnd = cached->first;
    return 0;
  }
  if (!isOlder) {
    *nextEnd = -1;
    return 0;
  }
  if (isCached) {
    HideBack(&older, cached->second.startOffset);
  }
  if (cached != extCache_.begin()) {
    HideFront(&older, std::prev(cached)->first);
  }
  *out = older;
  *nextEnd = older.eOff;
  return 0;
}

int CMappingLMDB::GetNextExtentInCache(long offset, long* nextEnd, ExtLMDB* out) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::GetNextExtentInCache(), vOffset=%lld",
           static_cast<long long>(offset));
  const auto cached = FirstEndingBehind(offset);
  if (cached == extCache_.end()) {
    *nextEnd = -1;
    return 0;
  }
  getExtLMDBFromExtLMDBEntry(cached->first, &cached->second, out);
  *nextEnd = cached->first;
  return 0;
}

void CMappingLMDB::getExtLMDBFromExtLMDBEntry(long key, const ExtLMDBEntry* entry, ExtLMDB* out) {
  const auto pointer = extDataPointers_.find(key);
  entry->FillExtLMDB(out, key, pointer == extDataPointers_.end() ? nullptr : pointer->second, this);
}

int CMappingLMDB::GetPreviousExtent(long /*offset*/, long* /*previousEnd*/, ExtLMDB* /*out*/) {
  RefuseToStepBack("CMappingLMDB::GetPreviousExtent()");
}

int CMappingLMDB::previousExtDB(long /*offset*/, long* /*previousEnd*/, ExtLMDB* /*out*/) {
  RefuseToStepBack("CMappingLMDB::previousExtDB()");
}

// --- the databases -------------------------------------------------------------------------------

int CMappingLMDB::lowerBoundDB(long offset, ExtLMDB* out) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::lowerBoundDB(), off=%lld", static_cast<long long>(offset));
  const SharedLock lock(tableLock_);
  return GetNextExtInDBChain(dbChain_, dbChain_.begin(), offset, out);
}

/// A database of the walk with a transaction of its own; failures throw.
struct CMappingLMDB::OwnTransaction {
  CMappingLMDB* table;
  const Chain& chain;
  Chain::iterator at;
  Transaction transaction{**at, Transaction::kReadOnly, table->path_};

  MDB_cursor* cursor() const { return transaction.cursor(); }
  int Seek(long offset, MDB_val* key, MDB_val* value) const {
    return SeekBehind(cursor(), offset, key, value);
  }
  int Older(long offset, ExtLMDB* out) const {
    return table->GetNextExtInDBChain(chain, std::next(at), offset, out);
  }
  [[noreturn]] static int Fail(int ret) { throw SysException(ret); }
};

/// A database of the walk on a cursor of the caller; failures end the walk.
struct CMappingLMDB::GivenCursor {
  CMappingLMDB* table;
  const Chain& chain;
  Chain::iterator at;
  std::list<MDBTXNCONTEXT>::iterator context;

  MDB_cursor* cursor() const { return context->cursor; }
  /// A plan goes forward, so what it wants is mostly one step on from where it stands, and a step
  /// costs a third of a search.
  int Seek(long offset, MDB_val* key, MDB_val* value) const {
    if (mdb_cursor_get(cursor(), key, value, MDB_GET_CURRENT) == 0 && ReadKey(*key) <= offset) {
      *value = {};
      const int ret = mdb_cursor_get(cursor(), key, value, MDB_NEXT);
      if (ret == 0 ? ReadKey(*key) > offset && value->mv_data != nullptr : ret != MDB_NOTFOUND) {
        return ret;
      }
    }
    return SeekBehind(cursor(), offset, key, value);
  }
  int Older(long offset, ExtLMDB* out) const {
    return table->GetNextExtInDBChain(chain, std::next(at), std::next(context), offset, out);
  }
  static int Fail(int /*ret*/) { return -1; }
};

int CMappingLMDB::GetNextExtInDBChain(const Chain& chain, Chain::iterator at, long offset,
                                      ExtLMDB* out) {
  if (at == chain.end() || offset == kLastOffset) {
    return -1;
  }
  LogChainStep(**at, offset);
  return NextExtAtLevel(OwnTransaction{this, chain, at}, offset, out);
}

int CMappingLMDB::GetNextExtInDBChain(const Chain& chain, Chain::iterator at,
                                      std::list<MDBTXNCONTEXT>::iterator ctx, long offset,
                                      ExtLMDB* out) {
  if (at == chain.end() || offset == kLastOffset) {
    return -1;
  }
  LogChainStep(**at, offset);
  return NextExtAtLevel(GivenCursor{this, chain, at, ctx}, offset, out);
}

void CMappingLMDB::LogChainStep(const LMDBContext& db, long offset) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::GetNextExtInDBChain(), off=%lld, db=%s",
           static_cast<long long>(offset), db.path.c_str());
}

template <typename Level>
int CMappingLMDB::NextExtAtLevel(const Level& level, long offset, ExtLMDB* out) {
  MDB_val key;
  MDB_val value;
  int ret = level.Seek(offset, &key, &value);
  ExtLMDB older;
  if (ret == 0) {
    const long end = ReadKey(key);
    const ExtLMDBEntry entry = ReadRecord(value);
    if (entry.startOffset <= offset || level.Older(offset, &older) != 0 ||
        entry.startOffset <= older.sOff) {
      entry.FillExtLMDB(out, end, nullptr, this);
      return 0;
    }
    HideBack(&older, entry.startOffset);
    ret = mdb_cursor_get(level.cursor(), &key, &value, MDB_PREV);
  } else if (ret == MDB_NOTFOUND) {
    if (level.Older(offset, &older) != 0) {
      return -1;
    }
    ret = mdb_cursor_get(level.cursor(), &key, &value, MDB_LAST);
  } else {
    LogFailedRead(ret);
    return Level::Fail(ret);
  }
  // The cursor stands on what precedes the gap, if anything does. The keys of special items are
  // negative and hide nothing.
  if (ret == 0) {
    HideFront(&older, ReadKey(key));
  } else if (ret != MDB_NOTFOUND) {
    return Level::Fail(ret);
  }
  *out = older;
  return 0;
}

// --- iterator and extent -------------------------------------------------------------------------

CMappingLMDB::iteratorimp& CMappingLMDB::iteratorimp::operator=(const iteratorimp& other) {
  if (this != &other) {
    key_ = other.key_;
    ext_ = other.ext_;
    table_ = other.table_;
  }
  return *this;
}

CMappingTable::iteratorbase* CMappingLMDB::iteratorimp::clone() const {
  return new iteratorimp(*this);
}

CMappingTable::iteratorbase& CMappingLMDB::iteratorimp::operator=(const iteratorbase& other) {
  const auto* position = dynamic_cast<const iteratorimp*>(&other);
  if (position == nullptr) {
    throw SysException(kErrInvalid);
  }
  return *this = *position;
}

Ext& CMappingLMDB::iteratorimp::operator*() const {
  return ext_;
}

Ext* CMappingLMDB::iteratorimp::operator->() const {
  return &ext_;
}

CMappingTable::iteratorbase& CMappingLMDB::iteratorimp::operator--() {
  if (table_ != nullptr) {
    table_->GetPreviousExtent(key_, &key_, &ext_);
  }
  return *this;
}

CMappingTable::iteratorbase& CMappingLMDB::iteratorimp::operator++() {
  if (table_ != nullptr) {
    table_->GetNextExtent(key_, &key_, &ext_);
  }
  return *this;
}

bool CMappingLMDB::iteratorimp::operator==(const iteratorbase& other) const {
  if (this == &other) {
    return true;
  }
  const auto* position = dynamic_cast<const iteratorimp*>(&other);
  return position != nullptr && table_ == position->table_ && key_ == position->key_;
}

bool CMappingLMDB::iteratorimp::operator!=(const iteratorbase& other) const {
  return !(*this == other);
}

int ExtLMDB::update() {
  ZEFS_LOG(kLogTrace, "ExtLMDB::update()");
  if (owner_ == nullptr) {
    return -1;
  }
  return owner_->insert(sOff, eOff, &objectID, objOff, 0, data, -1, nullptr);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
