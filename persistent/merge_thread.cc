#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/thread/lock_types.hpp>

#include "host/config.h"
#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "support/filesystem.h"

// The merge as a whole: its thread, the tmp database that takes the flushes meanwhile, and the
// switch of the files.

namespace Aldenta::Qnd::Morene::Zefs {

namespace fs = boost::filesystem;
using zefs::kLogFailure;
using zefs::kLogRare;
using zefs::kLogTrace;

// --- the thread --------------------------------------------------------------------------------

void CMappingLMDB::StartMergeThread() {
  if (!IsMerging()) {
    WaitingForMerge();  // one that has finished
  }
  const boost::unique_lock<boost::mutex> lock(mergeMutex_);
  if (!mergeThreads_.empty()) {
    return;
  }
  mergeThreads_.resize(1);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
  const int ret =
      pthread_create(&mergeThreads_.front(), &attributes, &CMappingLMDB::MergeThreadMain, this);
  pthread_attr_destroy(&attributes);
  if (ret != 0) {
    mergeThreads_.front() = {};  // what a failed creation leaves there is not told
    ZEFS_LOG(kLogFailure, "Failed to create a thread for merge, return is %d", ret);
    throw SysException(ret);
  }
}

void CMappingLMDB::WaitingForMerge() {
  const boost::unique_lock<boost::mutex> lock(mergeMutex_);
  if (mergeThreads_.empty()) {
    return;
  }
  const pthread_t thread = mergeThreads_.front();
  void* result = nullptr;
  // An element of zero stands for a thread that could not be created: there is nothing to join.
  const int ret = thread == pthread_t{} ? ESRCH : pthread_join(thread, &result);
  if (ret == 0) {
    std::free(result);
  } else {
    ZEFS_LOG(kLogFailure, "Failed to join a thread, return value %d", ret);
  }
  mergeThreads_.clear();
}

void* CMappingLMDB::MergeThreadMain(void* table) {
  try {
    if (table != nullptr) {
      static_cast<CMappingLMDB*>(table)->MergeAndSwitch();
    }
  } catch (...) {
    ZEFS_LOG(kLogFailure, "Failed to launch merge thread");
  }
  return nullptr;
}

// --- one merge ---------------------------------------------------------------------------------

/// The database that a merge writes: closed with it, whatever becomes of the merge. Left open, each
/// failed merge would keep its map.
class CMappingLMDB::MergeDb {
 public:
  explicit MergeDb(CMappingLMDB* table) : table_(table) {}
  ~MergeDb() { Close(); }
  MergeDb(const MergeDb&) = delete;
  MergeDb& operator=(const MergeDb&) = delete;

  LMDBContext* context() { return &context_; }
  void Close() {
    if (context_.env != nullptr) {
      table_->ClearDBEnv(&context_);
    }
  }

 private:
  CMappingLMDB* table_;
  LMDBContext context_;
};

namespace {

/// Keeps the file of a database that is about to be replaced until nobody waits any more. A file
/// system frees a file with the last reference to it, which takes the longer the larger it is: not
/// under a lock. Where the file cannot be opened it is freed at once.
class ReplacedFile {
 public:
  explicit ReplacedFile(const std::string& path)
      : descriptor_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)) {}
  ~ReplacedFile() {
    if (descriptor_ != -1) {
      ::close(descriptor_);
    }
  }
  ReplacedFile(const ReplacedFile&) = delete;
  ReplacedFile& operator=(const ReplacedFile&) = delete;

 private:
  int descriptor_;
};

}  // namespace

int CMappingLMDB::MergeAndSwitch() {
  if (!BeginMerge()) {
    return 0;
  }
  // The tmp database has a name from now on, and no content that a power cut respects before the
  // first flush into it, which may be far: what is left of an empty database can then not be
  // opened, nor the table with it. A failure shows at that flush.
  mdb_env_sync(tmpDb_.env, 1);
  MergeDb merged(this);
  try {
    PrepareMergeDb(&merged);
  } catch (...) {
    SetMerging(false);
    throw;
  }
  const bool withBloom =
      FileSystemDaemonConfig::GetInstance().Get(&FileSystemDaemonConfig::persistBloom) != 0;
  int result = 0;
  try {
    result = MergeDBs(fullDb_, smallDb_, *merged.context(), withBloom);
    if (result == 0) {
      ZEFS_LOG(kLogTrace, "merge is done, begin to switch db");
      const ReplacedFile full(PathOf(FULLDB));
      const ReplacedFile small(PathOf(LSML0DB));
      {
        const UniqueLock lock(tableLock_);  // no reader is left in a database
        SwitchDbs(&merged, withBloom, &result);
      }
      SetMerging(false);  // while the files that were replaced are freed the next one may be due
      return result;
    }
  } catch (...) {
    SetMerging(false);
    ZEFS_LOG(kLogFailure,
             "Failed to merge db, the performance is potentially impacted, return value is %d",
             result);
    return result;
  }
  SetMerging(false);
  return result;
}

bool CMappingLMDB::BeginMerge() {
  const std::string tmpPath = PathOf(TMPDB);
  const UniqueLock lock(tableLock_);
  if (IsMerging()) {
    ZEFS_LOG(kLogRare, "already merging, just exist");
    return false;
  }
  Chain newest{&tmpDb_};  // made first: once it is open the flushes go there, and it must be read
  SetMerging(true);
  if (tmpDb_.opened) {
    return true;  // a merge has failed, or the last process ended in one
  }
  if (tmpDb_.env != nullptr) {
    ClearDBEnv(&tmpDb_);  // what an attempt that failed half-way has left open
  }
  try {
    if (SetupDBEnv(tmpPath, &tmpDb_, kSmallMapSize) != 0) {
      SetMerging(false);
      ZEFS_LOG(kLogRare, "Failed to setup tmpdb env for tempdb %s", tmpPath.c_str());
      throw SysException(kErrIo);
    }
  } catch (...) {
    SetMerging(false);
    throw;
  }
  dbChain_.splice(dbChain_.begin(), newest);
  return true;
}

void CMappingLMDB::PrepareMergeDb(MergeDb* merged) {
  const std::string mergePath = PathOf(MERGEDB);
  const std::string lockPath = mergePath + MDB_NO_SUBDIR_LOCK;
  if (!CheckAndCreateDir(mergePath)) {
    SetMerging(false);
    ZEFS_LOG(kLogRare, "Failed to check and create dir for %s", mergePath.c_str());
    throw SysException(kErrIo);
  }
  try {
    // What an earlier merge left, and the directory just made.
    if (fs::exists(fs::status(mergePath))) {
      fs::remove(mergePath);
    }
    if (fs::exists(fs::status(lockPath)) || storage::utils::LinkError(lockPath) != 0) {
      fs::remove(lockPath);
    }
  } catch (...) {
    SetMerging(false);
    ZEFS_LOG(kLogRare, "Failed to remove old merge db for %s", mergePath.c_str());
    throw SysException(kErrIo);
  }
  const int ret = SetupDBEnv(mergePath, merged->context(), bigTableMapSize_);
  if (ret != 0) {
    SetMerging(false);
    ZEFS_LOG(kLogFailure, "Failed to setup env for merge db, return value is %d", ret);
    throw SysException(ret);
  }
}

void CMappingLMDB::SwitchDbs(MergeDb* merged, bool withBloom, int* result) {
  const std::string mergePath = PathOf(MERGEDB);
  const std::string fullPath = PathOf(FULLDB);
  const std::string smallPath = PathOf(LSML0DB);
  ClearDBEnv(&fullDb_);
  merged->Close();
  ClearDBEnv(&smallDb_);
  ZEFS_LOG(kLogTrace, "rename merged db %s to fulldb %s", mergePath.c_str(), fullPath.c_str());
  fs::rename(mergePath, fullPath);
  fs::remove(mergePath + MDB_NO_SUBDIR_LOCK);
  fs::remove(smallPath);
  fs::remove(smallPath + MDB_NO_SUBDIR_LOCK);
  dbChain_.pop_front();
  ClearDBEnv(&tmpDb_);
  fs::rename(PathOf(TMPDB), smallPath);
  *result = SetupDBEnv(smallPath, &smallDb_, kSmallMapSize);
  if (*result == 0) {
    *result = SetupDBEnv(fullPath, &fullDb_, bigTableMapSize_);
  }
  if (*result != 0) {
    // What is half open must not be taken for a database: its keys have no order yet. Reads and
    // flushes fail from now on, until the table is loaded again.
    for (LMDBContext* db : {&smallDb_, &fullDb_}) {
      if (db->env != nullptr && !db->opened) {
        ClearDBEnv(db);
      }
    }
    SetMerging(false);
    ZEFS_LOG(kLogFailure, "Failed to setup env, return value is %d", *result);
    throw SysException(*result);
  }
  *result = SwitchBloom(withBloom);
}

int CMappingLMDB::SwitchBloom(bool withBloom) {
  const std::string bloomPath = PathOf(BLOOM_FILE);
  const std::string bloomMergePath = PathOf(BLOOM_MERGE_FILE);
  int result = 0;
  // Without exceptions: the databases are switched, and the old filter must not stay beside them.
  boost::system::error_code error;
  const bool stored = fs::exists(fs::status(bloomMergePath, error));
  if (stored) {
    result = ::rename(bloomMergePath.c_str(), bloomPath.c_str());
    if (result != 0) {
      mergeSwitched_ = true;
      ZEFS_LOG(kLogFailure, "Failed to rename dcid/fp list file, ret=%d", result);
    }
  }
  if (withBloom && (!stored || result != 0)) {
    // The filter of an earlier merge would deny what this one brought in.
    ::unlink(bloomPath.c_str());
  }
  return result;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
