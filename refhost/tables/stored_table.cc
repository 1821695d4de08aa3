#include "refhost/tables/stored_table.h"

#include <cerrno>
#include <mutex>
#include <unistd.h>
#include <utility>
#include <vector>

#include <boost/filesystem/exception.hpp>
#include <sys/stat.h>

#include "refhost/store/store_error.h"
#include "table/sys_exception.h"

namespace zefs::refhost {

namespace {

using Aldenta::Qnd::Morene::Zefs::SysException;

// Files of a table directory, as docs/formats.md names them.
constexpr const char* kFullDatabase = "/data.mdb";
constexpr const char* kTmpDatabase = "/tmp.mdb";
constexpr const char* kSmallDatabase = "/lsml0.mdb";
constexpr const char* kBloom = "/bloom";
constexpr const char* kNextBloom = "/bloom.merge";

StoreError TableError(const char* action, const std::string& directory, int code) {
  return StoreError(std::string("cannot ") + action + " the table in " + directory + ": " +
                        (code == 0 ? "its database is not open" : ReasonOf(code)),
                    code);
}

ino_t InodeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/// A crash between the two last steps of a merge leaves the filter of the merge before beside the
/// new database, and it would deny what the merge brought in. The next filter is there then under
/// its first name, which goes last: until it is gone, the next load comes here again.
void DropStaleBloom(const std::string& directory) {
  if (InodeOf(directory + kNextBloom) == 0) {
    return;
  }
  for (const char* const name : {kBloom, kNextBloom}) {
    if (::unlink((directory + name).c_str()) != 0 && errno != ENOENT) {
      throw SystemError("remove", directory + name, errno);
    }
  }
}

/// A process that dies while it makes a database can leave less of it than LMDB opens, which is its
/// two first pages or nothing at all. Nothing has been committed to one that is shorter.
void DropUnmadeDatabases(const std::string& directory) {
  for (const char* const name : {kTmpDatabase, kSmallDatabase}) {
    const std::string path = directory + name;
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && status.st_size != 0 &&
        status.st_size < 2 * ::sysconf(_SC_PAGESIZE) && ::unlink(path.c_str()) != 0) {
      throw SystemError("remove", path, errno);
    }
  }
}

/// Directories that no object of this process may load any more: a destroyed one has left a
/// database open there.
class LeftOpen {
 public:
  static LeftOpen& Get() {
    static LeftOpen& all = *new LeftOpen;
    return all;
  }
  void Add(const std::string& directory) {
    const std::lock_guard<std::mutex> lock(mutex_);
    directories_.insert(directory);
  }
  bool Has(const std::string& directory) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return directories_.count(directory) != 0;
  }

 private:
  std::mutex mutex_;
  std::set<std::string> directories_;
};

}  // namespace

void RethrowTableFailure(const char* action, const std::string& directory) {
  try {
    throw;
  } catch (const SysException& error) {
    throw TableError(action, directory, error.code);
  } catch (const boost::filesystem::filesystem_error& error) {
    throw TableError(action, directory, error.code().value());
  }
}

StoredTable::StoredTable(std::string directory, const std::string& type,
                         DataCacheManagementInterface* cache, std::atomic<std::uint64_t>* merges)
    : directory_(std::move(directory)),
      merges_(*merges),
      table_(NewTable(TableKind::kPersistent, cache, type)) {
  if (LeftOpen::Get().Has(directory_)) {
    table_.reset();
    throw StoreError("cannot load the table in " + directory_ +
                         " again: a merge is unfinished there, which the next process takes up",
                     EBUSY);
  }
  DropStaleBloom(directory_);
  DropUnmadeDatabases(directory_);
  const int code =
      OnTable("load", directory_, [this] { return table_->load(directory_, false, ""); });
  if (code != 0) {
    throw TableError("load", directory_, code);
  }
  fullDatabase_ = InodeOf(directory_ + kFullDatabase);
}

StoredTable::~StoredTable() {
  table_.reset();
  CountMerges();
  if (InodeOf(directory_ + kTmpDatabase) != 0) {
    LeftOpen::Get().Add(directory_);
  }
}

void StoredTable::Insert(std::int64_t start, std::int64_t end, const ObjectID* id,
                         std::int64_t objOff, void* node, std::int32_t dcOffset) {
  const std::lock_guard<std::mutex> lock(planMutex_);
  DropPlanned();
  const int code = OnTable("write", directory_, [&] {
    return table_->insert(start, end, id, objOff, /*objCksum=*/0, node, dcOffset,
                          /*trace=*/nullptr);
  });
  if (code != 0) {
    throw TableError("write", directory_, code);
  }
}

std::list<MappingTable::DCInfo> StoredTable::Plan(std::int64_t start, std::int64_t end) const {
  MappingTable::PrefetchRange range;
  range.start = start;
  range.end = end;
  std::list<MappingTable::DCInfo> plan;
  const std::lock_guard<std::mutex> lock(planMutex_);
  planned_ = true;
  OnTable("read", directory_, [&] { table_->GetDCInfoList(range, &plan); });
  return plan;
}

/// The table drops all extents that it keeps when it takes back a list of container offsets, also
/// an empty one, which changes nothing.
void StoredTable::DropPlanned() {
  if (!planned_) {
    return;
  }
  std::vector<DCOffset> none;
  const int code = OnTable("write", directory_, [&] { return table_->BackfillDcOffset(none); });
  if (code != 0) {
    throw TableError("write", directory_, code);
  }
  planned_ = false;
}

void StoredTable::Flush(bool force, const std::string& share, const TakeReleased& take) {
  std::set<void*> released;
  MappingTable::UniqueLock lock;
  OnTable("flush", directory_,
          [&] { table_->checkAndBackfillObjectID(&released, force, "", share, nullptr, &lock); });
  if (!released.empty()) {
    take(released);
  }
  CountMerges();
}

bool StoredTable::FinishMerges() {
  // The files do not show a merge that has just been started: it has made none yet. So the table is
  // asked to wait in any case, and once more if the merge that it waited for has failed.
  WaitForMerges();
  if (InodeOf(directory_ + kTmpDatabase) != 0) {
    WaitForMerges();
  }
  return InodeOf(directory_ + kTmpDatabase) == 0;
}

void StoredTable::WaitForMerges() {
  OnTable("flush", directory_, [this] { table_->checkAndBackfillObjectIDUnlock(true); });
  CountMerges();
}

void StoredTable::RaiseFileSize(std::int64_t size) {
  if (size <= FileSize()) {
    return;
  }
  const int code = OnTable("resize", directory_, [&] { return table_->setFileSize(size); });
  if (code != 0) {
    throw TableError("resize", directory_, code);
  }
}

void StoredTable::Truncate(std::int64_t size) {
  const int code = OnTable("cut", directory_, [&] { return table_->truncate(size, nullptr); });
  if (code != 0) {
    throw TableError("cut", directory_, code);
  }
}

void StoredTable::Snapshot(const std::string& target) {
  const int code =
      OnTable("copy", directory_, [&] { return table_->Snapshot(directory_, target); });
  if (code != 0) {
    throw TableError("copy", directory_, code);
  }
}

void StoredTable::Follow(const std::string& directory) {
  OnTable("move", directory, [&] { table_->UpdateExtPath(directory); });
  directory_ = directory;
}

void StoredTable::Remove() {
  const int code = OnTable("remove", directory_, [&] { return table_->remove(directory_); });
  if (code != 0) {
    throw TableError("remove", directory_, EIO);
  }
}

/// A flush starts at most one merge, so none is missed between two of them.
void StoredTable::CountMerges() {
  const ino_t now = InodeOf(directory_ + kFullDatabase);
  if (now != 0 && now != fullDatabase_) {
    fullDatabase_ = now;
    ++merges_;
  }
}

}  // namespace zefs::refhost
