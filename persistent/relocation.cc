#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include "host/file_io.h"
#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"
#include "support/filesystem.h"
#include "support/measure_cpu.h"

// A table as a set of files: copying, deleting and finding it, and following it to another
// directory.

namespace Aldenta::Qnd::Morene::Zefs {

namespace fs = boost::filesystem;
using zefs::kLogFailure;
using zefs::kLogRare;
using zefs::kLogRecoverable;
using zefs::kLogTrace;

namespace {

/// Makes the directory `path` and its parents, with the mode 0700. False if it is still not there.
bool MakeDirectory(const fs::path& path) {
  bool made = false;
  try {
    made = path != path.root_path() &&
           storage::utils::filesystem().check_and_create_directories(path.parent_path(),
                                                                     fs::owner_all) &&
           storage::utils::MakeDirectory(path, fs::owner_all);
  } catch (const fs::filesystem_error&) {  // told by what is there now
  }
  if (made) {
    fs::permissions(path, fs::owner_all);
    return true;
  }
  boost::system::error_code ignored;
  return fs::exists(fs::status(path, ignored));
}

/// Makes sure that a snapshot has a directory to go to, or throws.
void PrepareTarget(const std::string& path) {
  const fs::file_status status = fs::status(path);
  if (!fs::exists(status)) {
    if (!MakeDirectory(path)) {
      ZEFS_LOG(kLogFailure, "Failed to create snapshot folder, path=%s.", path.c_str());
      throw SysException(kErrIo);
    }
  } else if (!fs::is_directory(status)) {
    ZEFS_LOG(kLogFailure, "The snapshot path is already exists, path=%s.", path.c_str());
    throw SysException(kErrExists);
  }
}

/// Syncs a file that is written already. False, with `errno` set.
bool SyncFile(const std::string& path) {
  constexpr mode_t kMode = 0666;
  const int fd = ::open64(path.c_str(), O_RDONLY, kMode);
  if (fd == -1) {
    return false;
  }
  const int synced = safe_fsync(fd);
  const int error = errno;
  ::close(fd);
  errno = error;
  return synced == 0;
}

}  // namespace

int CMappingLMDB::Snapshot(const std::string& from, const std::string& to) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::snapshot(), from=%s, to=%s", from.c_str(), to.c_str());
  ZEFS_MEASURE_CPU(mapping_lmdb_cpu_counters);
  WaitingForMerge();
  const fs::path fullFrom = fs::path(from) / (prefix_ + FULLDB);
  const fs::path smallFrom = fs::path(from) / (prefix_ + LSML0DB);
  const std::string fullTo = (fs::path(to) / (prefix_ + FULLDB)).string();
  const std::string smallTo = (fs::path(to) / (prefix_ + LSML0DB)).string();
  PrepareTarget(to);
  try {
    fs::copy(fullFrom, fullTo);
    fs::copy(smallFrom, smallTo);
  } catch (const fs::filesystem_error& e) {
    const int code = e.code().value();
    ZEFS_LOG(kLogFailure, "Failed to take snapshot for mdb, path=%s, %s. ret=%d, errstr=%s",
             fullTo.c_str(), smallTo.c_str(), code, e.what());
    throw SysException(code);
  }
  if (!SyncFile(fullTo) || !SyncFile(smallTo)) {
    ZEFS_LOG(kLogRecoverable, "Failed to sync .%s and .%s into disk, errno=%d", fullTo.c_str(),
             smallTo.c_str(), errno);
    throw SysException(kErrIo);
  }
  fs::permissions(to, fs::owner_all);
  ZEFS_LOG(kLogRare, "Success to copy mdb, path=%s.", to.c_str());
  return 0;
}

int CMappingLMDB::remove(const std::string& path) {
  ResetCache();
  ForgetDOIDUnlocked();
  WaitingForMerge();
  if (!fs::exists(fs::symlink_status(path))) {
    return 0;
  }
  try {
    fs::remove_all(path);
  } catch (const fs::filesystem_error& e) {
    ZEFS_LOG(kLogFailure, "Failed to remove map file %s, error is %s", path.c_str(), e.what());
    return -1;
  }
  return 0;
}

void CMappingLMDB::UpdateExtPath(const std::string& path) {
  WaitingForMerge();
  const UniqueLock lock(tableLock_);
  path_ = path;
  if (HasJournal() && journal_ != nullptr) {
    const std::lock_guard<std::mutex> journalLock(journal_->mutex_);
    journal_->path_ = PathOf(ExtentJournal::JOURNAL_FILENAME);
    journal_->replayPath_ = journal_->path_ + ExtentJournal::REPLAY_EXTENTION;
  }
  if (dcOffsetStore_ != nullptr) {
    dcOffsetStore_->UpdatePath(PathOf(OFFSET_STORE_NAME));
  }
}

int CMappingLMDB::GetMapAbsolutePath(const std::string& path, std::string* out) {
  ZEFS_LOG(kLogTrace, "CMappingLMDB::GetMapAbsolutePath(), srcPath=%s", path.c_str());
  if (out == nullptr) {
    ZEFS_LOG(kLogFailure, "Invalid arguments, the targetPath should not be nullptr");
    throw SysException(kErrInvalid);
  }
  fs::path directory(path);
  const std::string name = directory.filename().string();
  ZEFS_LOG(kLogTrace, "filename=%s", name.c_str());
  if (name != FULLDB) {
    return -1;
  }
  *out = directory.remove_filename().string();
  ZEFS_LOG(kLogTrace, "new filePath=%s", out->c_str());
  return 0;
}

int CMappingLMDB::GetMapRelativePath(const std::string& path, std::string* out) {
  return GetMapAbsolutePath(path, out);
}

int CMappingLMDB::GetMapIndexSet(const std::string& path, std::set<std::string>* out) {
  if (!fs::exists(fs::status(path))) {
    return -1;
  }
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
    const std::string name = entry.path().filename().string();
    const std::size_t at = name.find(FULLDB);
    if (at != std::string::npos) {
      out->insert(name.substr(0, at));
    }
  }
  return 0;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
