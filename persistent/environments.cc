#include <cerrno>
#include <cstring>
#include <iostream>
#include <new>
#include <unistd.h>

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/operations.hpp>

#include "host/zefs_log.h"
#include "persistent/database_file.h"
#include "persistent/mapping_lmdb.h"
#include "persistent/transaction.h"
#include "support/filesystem.h"

// Opening and closing the databases of a table, its directory, and the words for LMDB's codes.

namespace Aldenta::Qnd::Morene::Zefs {

namespace fs = boost::filesystem;
using zefs::kLogFailure;
using zefs::kLogTrace;

namespace {

constexpr unsigned int kEnvFlags = MDB_NOSUBDIR | MDB_NOTLS;
constexpr mdb_mode_t kFileMode = 0600;
constexpr long kSpecialItems = 4;

/// Closes an environment that is not set up yet, so that nothing of it is left.
void DiscardEnv(LMDBContext* db) {
  mdb_env_close(db->env);
  db->env = nullptr;
}

/// Why LMDB must not be given this path of a database; 0 if it may. It follows symbolic links, and
/// writes over whatever file one in place of a database or of its lock file leads to. A name that a
/// zero byte cuts short would be one file for all the databases of a table.
int UnusableAs(const std::string& dbPath, const std::string& lockPath) {
  if (dbPath.find('\0') != std::string::npos) {
    return EINVAL;
  }
  const int error = storage::utils::LinkError(dbPath);
  return error != 0 ? error : storage::utils::LinkError(lockPath);
}

bool IsMissing(const std::string& path) {
  return ::access(path.c_str(), F_OK) != 0 && errno == ENOENT;
}

/// Removes the file of a database that could not be made. A disk that fills up leaves half of its
/// first write there, and LMDB would refuse such a file for good.
void RemoveHalfMade(const std::string& dbPath, const std::string& lockPath) {
  ::unlink(dbPath.c_str());
  ::unlink(lockPath.c_str());
}

}  // namespace

const std::map<int, std::string> CMappingLMDB::mdb_errno_to_string = {
    {MDB_KEYEXIST, "The key exists"},
    {MDB_NOTFOUND, "The key was not found"},
    {MDB_CORRUPTED, "lmdb corrupted"},
    {MDB_PANIC, "lmdb panic"},
    {MDB_VERSION_MISMATCH, "lmdb version mismatch"},
    {MDB_MAP_FULL, "lmdb map is full -- increase max lmdb file size?"},
    {MDB_BAD_DBI, "bad lmdb dbi"},
};

int CMappingLMDB::SetupDBEnv(const std::string& dbPath, LMDBContext* db, unsigned long mapSize) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::SetupDBEnv, dbPath=%s", dbPath.c_str());
  if (db == nullptr) {
    return -1;
  }
  db->path = dbPath;
  // Made first: from here on nothing throws, which would leave an environment that is not open.
  const std::string lockPath = dbPath + MDB_NO_SUBDIR_LOCK;
  int ret = mdb_env_create(&db->env);
  if (ret != 0) {
    db->env = nullptr;
    ZEFS_LOG(kLogFailure, "Failed to create db env, return value is %d", ret);
    return ret;
  }
  ret = mdb_env_set_mapsize(db->env, mapSize);
  if (ret != 0) {
    DiscardEnv(db);
    ZEFS_LOG(kLogFailure, "Failed to set memory map size for db env, return value is %d", ret);
    return ret;
  }
  ret = mdb_env_set_maxdbs(db->env, 1);
  if (ret != 0) {
    DiscardEnv(db);
    ZEFS_LOG(kLogFailure, "Failed to set max dbs for db env, return value is %d", ret);
    return ret;
  }
  ret = UnusableAs(dbPath, lockPath);
  if (ret == 0) {
    ret = CheckDatabaseFile(dbPath);
  }
  bool isNew = false;
  if (ret == 0) {
    isNew = IsMissing(dbPath);
    ret = mdb_env_open(db->env, dbPath.c_str(), kEnvFlags, kFileMode);
  }
  if (ret != 0) {
    DiscardEnv(db);
    if (isNew) {
      RemoveHalfMade(dbPath, lockPath);
    }
    ZEFS_LOG(kLogFailure, "Failed to open env for db %s, return value is %d", dbPath.c_str(), ret);
    return ret;
  }
  MDB_txn* txn = nullptr;
  ret = mdb_txn_begin(db->env, nullptr, 0, &txn);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to open transaction for db %s, return value is %d",
             dbPath.c_str(), ret);
    return ret;
  }
  ret = mdb_dbi_open(txn, nullptr, MDB_CREATE, &db->dbi);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to open db instance %s, return value is %d", dbPath.c_str(), ret);
    return ret;
  }
  // Once for the life of the environment: setting it again would unsettle running readers.
  ret = mdb_set_compare(txn, db->dbi, LMDBKeyCompare);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to set comparison function for db %s, return value is %d",
             dbPath.c_str(), ret);
    return ret;
  }
  const void* const handle = txn;
  ret = mdb_txn_commit(txn);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to commit a transaction %p. ret=%d", handle, ret);
    return ret;
  }
  db->opened = true;
  return 0;
}

int CMappingLMDB::ClearDBEnv(LMDBContext* db) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::ClearDBEnv()");
  if (db == nullptr) {
    return 0;
  }
  if (db->env != nullptr) {
    mdb_dbi_close(db->env, db->dbi);
    mdb_env_close(db->env);
    db->env = nullptr;
    db->opened = false;
  }
  if (db->path.empty()) {
    return 0;
  }
  // Without exceptions, whatever runs out: this is called by a destructor.
  try {
    const std::string lockPath = db->path + MDB_NO_SUBDIR_LOCK;
    boost::system::error_code error;
    if (!fs::exists(fs::status(lockPath, error))) {
      return 0;
    }
    if (!fs::remove(lockPath, error)) {
      ZEFS_LOG(kLogFailure, "Failed to remove lock %s", lockPath.c_str());
      return -1;
    }
  } catch (const std::bad_alloc&) {
    ZEFS_LOG(kLogFailure, "Failed to remove lock %s", db->path.c_str());
    return -1;
  }
  return 0;
}

bool CMappingLMDB::CheckAndCreateDir(const std::string& path) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::CheckAndCreateDir()");
  try {
    if (fs::is_directory(fs::status(path))) {
      return true;
    }
    fs::remove(path);
    ZEFS_LOG(kLogTrace, "Removed file %s", path.c_str());
    boost::system::error_code error;
    storage::utils::MakeDirectoryAndParents(path, fs::owner_all, error);
    if (error) {
      throw fs::filesystem_error("cannot make the directory of a table", path, error);
    }
    fs::permissions(path, fs::owner_all);  // the umask may have taken some
    return true;
  } catch (...) {
    ZEFS_LOG(kLogFailure, "Failed to create directories %s, try to see if it can continue",
             path.c_str());
    return false;
  }
}

std::string CMappingLMDB::LMDBErrorMessage(int code) {
  const auto known = mdb_errno_to_string.find(code);
  std::string text =
      known == mdb_errno_to_string.end() ? std::string(::strerror(code)) : known->second;
  std::cout << "returning: " << text << std::endl;
  return text;
}

void CMappingLMDB::TraceLog(const char* /*format*/, ...) {}

bool CMappingLMDB::CountRecords(const LMDBContext& db, unsigned int flags, unsigned long* entries) {
  const Transaction transaction(db, flags, path_);
  MDB_stat stat;
  const int ret = mdb_stat(transaction.txn(), db.dbi, &stat);
  if (ret != 0) {
    ZEFS_LOG(kLogFailure, "Failed to read mdb status, return value is %d", ret);
    return false;
  }
  *entries += stat.ms_entries;
  return true;
}

long CMappingLMDB::DbSizeUnlocked() {
  unsigned long entries = 0;
  if (!CountRecords(smallDb_, Transaction::kWrite, &entries) ||
      !CountRecords(fullDb_, Transaction::kReadOnly, &entries) ||
      (tmpDb_.opened && !CountRecords(tmpDb_, Transaction::kReadOnly, &entries))) {
    return 0;
  }
  // Of a damaged database LMDB's count can fall below zero.
  const long count = static_cast<long>(entries);
  return count < kSpecialItems ? 0 : count - kSpecialItems;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
