#include <algorithm>
#include <cstring>

#include <boost/filesystem/operations.hpp>

#include "host/config.h"
#include "host/file_io.h"
#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "persistent/transaction.h"
#include "support/measure_cpu.h"

// From the constructor over load and what it recovers to the destructor.

namespace Aldenta::Qnd::Morene::Zefs {

namespace fs = boost::filesystem;
using zefs::kLogFailure;
using zefs::kLogRare;
using zefs::kLogTrace;

namespace {

enum TableType : std::int32_t { kGeneric = 0, kIngest = 1, kProvision = 2 };

constexpr unsigned int kGiBShift = 30;

TableType TypeOf(const std::string& name) {
  if (name == ZEFS_GENERIC_STR) {
    return kGeneric;
  }
  return name == ZEFS_PROVISION_STR ? kProvision : kIngest;
}

bool Exists(const std::string& path) {
  return fs::exists(fs::status(path));
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): as given
CMappingLMDB::CMappingLMDB(zefs::DataCacheManagementInterface* dci, std::string tableType)
    : CMappingTable(dci),
      lmdbApi_(std::make_unique<storage::utils::LmdbCApiWrapper>()),
      bigTableMapSize_(static_cast<std::uint64_t>(FileSystemDaemonConfig::GetInstance().Get(
                           &FileSystemDaemonConfig::bigTableMapSizeGiB))
                       << kGiBShift),
      objListCursor_(objList_.end()),
      tableType_(TypeOf(tableType)) {
  dbChain_.push_back(&smallDb_);
  dbChain_.push_back(&fullDb_);
}

CMappingLMDB::~CMappingLMDB() {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::~CMappingLMDB()");
  WaitingForMerge();  // nothing below may race it
  ClearDBEnv(&smallDb_);
  ClearDBEnv(&fullDb_);
  // A tmp database that is open has its records still to be merged: it and its lock file stay for
  // the next process that loads the table.
  journal_.reset();
  dcOffsetStore_.reset();
}

std::string CMappingLMDB::PathOf(const char* name) const {
  return (fs::path(path_) / (prefix_ + name)).string();
}

void CMappingLMDB::OpenDatabase(const std::string& dbPath, LMDBContext* db, unsigned long mapSize) {
  if (db->env != nullptr) {
    ClearDBEnv(db);  // what an attempt that failed half-way has left open
  }
  const int ret = SetupDBEnv(dbPath, db, mapSize);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to setup env, return value is %d", ret);
    throw SysException(ret);
  }
}

int CMappingLMDB::load(const std::string& extentPath, bool zxfsNoMmap, const std::string& prefix) {
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  ZEFS_LOG(kLogTrace, "CMappingLMDB::load(), extentPath=%s, prefix=%s, zxfsNoMmap=%d, obj=%p",
           extentPath.c_str(), prefix.c_str(), static_cast<int>(zxfsNoMmap),
           static_cast<void*>(this));
  ZEFS_LOG(
      kLogTrace, "Batch update threshold %u",
      FileSystemDaemonConfig::GetInstance().Get(&FileSystemDaemonConfig::batchUpdateThreshold));
  prefix_ = prefix;
  const auto inDirectory = [&](const char* name) {
    return (fs::path(extentPath) / (prefix_ + name)).string();
  };
  const std::string smallPath = inDirectory(LSML0DB);
  const std::string fullPath = inDirectory(FULLDB);
  const std::string tmpPath = inDirectory(TMPDB);
  const std::string mergePath = inDirectory(MERGEDB);

  if (!CheckAndCreateDir(extentPath)) {
    ZEFS_LOG(kLogRare, "Failed to check and create dir for %s", extentPath.c_str());
    throw SysException(kErrIo);
  }
  OpenDatabase(smallPath, &smallDb_, kSmallMapSize);
  if (Exists(mergePath) && !Exists(fullPath)) {
    ZEFS_LOG(kLogRare, "Find a merged db %s not rename to fulldb %s", mergePath.c_str(),
             fullPath.c_str());
    fs::rename(mergePath, fullPath);
  }
  OpenDatabase(fullPath, &fullDb_, bigTableMapSize_);
  ZEFS_LOG(kLogTrace, "memory map size for big table is %lld",
           static_cast<long long>(bigTableMapSize_));
  if (Exists(tmpPath)) {
    OpenDatabase(tmpPath, &tmpDb_, kSmallMapSize);
    dbChain_.push_front(&tmpDb_);
  }
  path_ = extentPath;
  ResetCache();
  noMmap_ = IsZxfs(extentPath) && zxfsNoMmap;

  long size = GetFileSize(&smallDb_);
  if (tmpDb_.opened) {
    size = std::max(size, GetFileSize(&tmpDb_));
  }
  int result = CheckAndLoadSpecialItems(&fullDb_, size);
  commitCounter_ = GetCommitCounter(&smallDb_);
  GetDOIDUnlocked(&smallDb_, &doid_);

  if (tableType_ == kGeneric) {
    journal_ = std::make_unique<ExtentJournal>(PathOf(ExtentJournal::JOURNAL_FILENAME), noMmap_);
    if (journal_->HasJournal()) {
      const int started = journal_->Start();
      if (started != 0) {
        ZEFS_LOG(kLogFailure, "Failed to start extent journal, return value is %d", started);
        throw SysException(started);
      }
      result = ReplayExtentJournal(&smallDb_);
    }
  }
  dcOffsetStore_ = std::make_unique<DcOffsetStore>(PathOf(OFFSET_STORE_NAME), noMmap_,
                                                   kOffsetStoreName, kOffsetStoreTmpSuffix);
  return result;
}

int CMappingLMDB::ReplayExtentJournal(LMDBContext* db) {
  std::vector<Extent> records;
  int ret = journal_->Get(&records);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to replay extent journal for %s, err=%d", path_.c_str(), ret);
    return ret;
  }
  if (records.empty()) {
    return 0;
  }
  const long count = static_cast<long>(records.size());
  ZEFS_LOG(kLogRare, "replaying extent journal for %s, extent count:%ld", path_.c_str(), count);
  Transaction transaction(*db, Transaction::kWrite, path_);
  for (auto record = records.rbegin(); record != records.rend(); ++record) {
    ret = UndoRecord(*record, transaction.txn(), db->dbi);
    if (ret != 0 && ret != MDB_NOTFOUND) {
      // The fingerprint goes into this line raw, and ends at its first zero byte.
      const std::string rawFp(record->fp.begin(),
                              std::find(record->fp.begin(), record->fp.end(), 0));
      ZEFS_LOG(kLogFailure, "Failed to recover extent eoff:%ld, fp:%s, dcid %ld, ret:%d",
               static_cast<long>(record->end), rawFp.c_str(), static_cast<long>(record->dcid), ret);
      throw SysException(ret);
    }
  }
  transaction.CloseCursor();
  ret = transaction.Commit();
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to submit txn to recover extent for file: %s, ret:%d",
             path_.c_str(), ret);
    throw SysException(ret);
  }
  ZEFS_LOG(kLogRare, "replay extent journal for %s, extent count:%ld, done!", path_.c_str(), count);
  return 0;
}

int CMappingLMDB::UndoRecord(const Extent& record, MDB_txn* txn, MDB_dbi dbi) {
  ObjectID id;
  id.dcid = record.dcid;
  id.fp = record.fp;
  ExtLMDBEntry entry{};
  entry.FillExtLMDBEntry(record.start, &id, record.offset, -1);
  RecordKey key(record.end);
  MDB_val keyVal = key.Val();
  MDB_val value = RecordVal(entry);
  switch (record.op) {
    case DEL:
      return mdb_put(txn, dbi, &keyVal, &value, 0);
    case ADD:
      return mdb_del(txn, dbi, &keyVal, &value);
  }
  return 0;  // a number that no writer uses
}

void CMappingLMDB::ResetCache() {
  extCache_.clear();
  extDataPointers_.clear();
  toBeReleased_.clear();
  objList_.clear();
  objListCursor_ = objList_.end();  // it may have pointed at an element that is gone
  objListCount_ = 0;
  dataChanged_ = true;
  prefetchExts_.clear();
}

int CMappingLMDB::save(const std::string& /*path*/, long /*flags*/) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::save()");
  return 0;
}

long CMappingLMDB::size() {
  const SharedLock lock(tableLock_);
  return DbSizeUnlocked();
}

long CMappingLMDB::getTableSize(long* extSize, long* keySize) {
  *extSize = 0;
  *keySize = 0;
  return size();
}

}  // namespace Aldenta::Qnd::Morene::Zefs
