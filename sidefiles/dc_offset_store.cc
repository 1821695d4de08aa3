#include "sidefiles/dc_offset_store.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <boost/functional/hash.hpp>

#include "host/config.h"
#include "host/file_io.h"
#include "host/zefs_log.h"
#include "support/filesystem.h"
#include "support/object_lock.h"
#include "table/fingerprint.h"

namespace Aldenta::Qnd::Morene::Zefs {

namespace fs = boost::filesystem;
using zefs::DCOffset;
using zefs::kLogFailure;
using zefs::kLogStep;
using zefs::kLogTrace;

// The record in memory is the record on file, without a byte of padding that could carry garbage.
static_assert(sizeof(DCOffset) == kDcOffsetRecordBytes);
static_assert(offsetof(DCOffset, key) == 0 && sizeof(DCOffset::key) == 8);
static_assert(offsetof(DCOffset, dcid) == 8 && sizeof(DCOffset::dcid) == 8);
static_assert(offsetof(DCOffset, fp) == 16 && sizeof(DCOffset::fp) == 32);
static_assert(offsetof(DCOffset, dcOffset) == 48 && sizeof(DCOffset::dcOffset) == 8);
static_assert(std::is_trivially_copyable_v<DCOffset>);
static_assert(std::has_unique_object_representations_v<DCOffset>);
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

namespace {

constexpr std::size_t kReadChunkRecords = 32768;
constexpr std::size_t kReadChunkBytes = kReadChunkRecords * kDcOffsetRecordBytes;
constexpr int kGivenUp = -2;
constexpr int kNeverTracked = -3;

/// Closes a descriptor at the end of its scope.
class DescriptorCloser {
 public:
  explicit DescriptorCloser(int fd) : fd_(fd) {}
  ~DescriptorCloser() { ::close(fd_); }
  DescriptorCloser(const DescriptorCloser&) = delete;
  DescriptorCloser& operator=(const DescriptorCloser&) = delete;

 private:
  int fd_;
};

bool IsValid(const DCOffset& record) {
  return record.key >= 0 && record.dcid >= kFirstDcid;
}

/// Appends the valid records of an open file to `*out`. Returns the number of slots looked at,
/// which is a whole chunk for every successful read: slots that a read did not reach count as
/// invalid records.
std::uint64_t ReadValidRecords(int fd, std::vector<DCOffset>* out) {
  const auto chunk = std::make_unique<unsigned char[]>(kReadChunkBytes);
  std::uint64_t slots = 0;
  for (;;) {
    const ssize_t got = safe_read(fd, chunk.get(), kReadChunkBytes);
    if (got <= 0) {
      return slots;
    }
    slots += kReadChunkRecords;
    const auto reached = static_cast<std::size_t>(got);
    for (std::size_t at = 0; at < reached; at += kDcOffsetRecordBytes) {
      const DCOffset record = DecodeDcOffset(chunk.get() + at, reached - at);
      if (IsValid(record)) {
        out->push_back(record);
      }
    }
  }
}

}  // namespace

void EncodeDcOffset(const DCOffset& record, unsigned char* bytes) {
  std::memcpy(bytes, &record, kDcOffsetRecordBytes);
}

DCOffset DecodeDcOffset(const unsigned char* bytes, std::size_t size) {
  DCOffset record;
  std::copy_n(bytes, std::min(size, kDcOffsetRecordBytes),
              reinterpret_cast<unsigned char*>(&record));
  return record;
}

std::size_t DcOffsetHash::operator()(const DCOffset& record) const {
  std::size_t seed = 0;
  boost::hash_combine(seed, record.dcid);
  boost::hash_combine(seed, record.key);
  boost::hash_combine(seed, boost::hash_range(record.fp.begin(), record.fp.end()));
  return seed;
}

bool DcOffsetEqual::operator()(const DCOffset& a, const DCOffset& b) const {
  return a.key == b.key && a.dcid == b.dcid && a.dcOffset == b.dcOffset &&
         CRFPDigestCompare(a.fp.data(), b.fp.data(), kCrfpDigestKind) == 0;
}

DcOffsetStore::DcOffsetStore(const std::string& path, bool noMmap, const std::string& storeName,
                             const std::string& tmpSuffix)
    : path_(path), offsets_(10), noMmap_(noMmap), storeName_(storeName), tmpSuffix_(tmpSuffix) {}

DcOffsetStore::~DcOffsetStore() {
  try {
    Flush();
  } catch (const std::bad_alloc&) {
    ZEFS_LOG(kLogFailure, "failed to flush dc offset with path_=%s, return=%ld", path_.c_str(),
             static_cast<long>(ENOMEM));
  }
  CloseUnlocked();
}

int DcOffsetStore::CheckAndStore(long key, unsigned long dcid, std::array<unsigned char, 32> fp,
                                 int dcOffset) {
  WithPath([dcOffset](const std::string& path) {
    ZEFS_LOG(kLogTrace, "%s store dc offset with path_=%s, dcoff=%ld", "CheckAndStore",
             path.c_str(), static_cast<long>(dcOffset));
  });
  if (dcOffset >= 0 || dcOffset == kNeverTracked) {
    return 0;
  }
  const FileSystemDaemonConfig& config = FileSystemDaemonConfig::GetInstance();
  if (!config.Get(&FileSystemDaemonConfig::dcOffsetTrackingEnabled)) {
    return 0;
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  offsets_.insert({key, dcid, fp, dcOffset});
  if (offsets_.size() < config.Get(&FileSystemDaemonConfig::dcOffsetStoreThreshold)) {
    return 0;
  }
  const int code = Write(offsets_);
  if (code != 0) {
    ZEFS_LOG(kLogFailure, "%s, failed to store dcoffset with path_=%s, return=%ld", "CheckAndStore",
             path_.c_str(), static_cast<long>(code));
    return code;
  }
  offsets_.clear();
  return 0;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): as given
int DcOffsetStore::Write(DcOffsetSet offsets) {
  ZEFS_LOG(kLogTrace, "DcOffsetStore store dc offset with path_=%s, return=%ld", path_.c_str(),
           static_cast<long>(offsets.size()));
  const int opened = Open();
  if (opened != 0) {
    ZEFS_LOG(kLogFailure, "failed to open dcoffset with path_=%s, ret=%d", path_.c_str(), opened);
    return opened;
  }
  std::vector<unsigned char> batch(offsets.size() * kDcOffsetRecordBytes);
  unsigned char* next = batch.data();
  for (const DCOffset& record : offsets) {
    EncodeDcOffset(record, next);
    next += kDcOffsetRecordBytes;
  }
  const auto wanted = static_cast<long>(batch.size());
  const ssize_t written = safe_write(fd_, batch.data(), batch.size());
  ZEFS_LOG(kLogTrace, "fd_=%d, path_=%s, write=%ld, size=%ld, ret=%ld", fd_, path_.c_str(), wanted,
           static_cast<long>(offsets.size()), static_cast<long>(written));
  if (written != wanted) {
    ZEFS_LOG(kLogFailure, "failed to write dc offset with path_=%s, write=%ld, return=%ld",
             path_.c_str(), wanted, static_cast<long>(written));
    return -1;
  }
  return safe_fsync(fd_);
}

int DcOffsetStore::Open() {
  if (fd_ == -1) {
    fd_ = storage::utils::OpenNoPipe(path_, O_WRONLY | O_CREAT | O_APPEND, S_IRUSR | S_IWUSR);
    if (fd_ == -1) {
      const int error = errno;
      ZEFS_LOG(kLogFailure, "failed to open dc offset file: %s, errno:%d", path_.c_str(), error);
      return error;
    }
    if (noMmap_) {
      EnableNommap(path_, fd_);
    }
  }
  ZEFS_LOG(kLogStep, "DcOffsetStore::%s, file: %s", "Open", path_.c_str());
  return 0;
}

template <typename Use>
void DcOffsetStore::WithPath(Use use) const {
  const ObjectLock lock(this);
  use(path_);
}

void DcOffsetStore::LogEntry(const char* operation) const {
  WithPath([operation](const std::string& path) {
    ZEFS_LOG(kLogTrace, "DcOffsetStore::%s, file: %s", operation, path.c_str());
  });
}

int DcOffsetStore::Flush() {
  LogEntry("Flush");
  const std::lock_guard<std::mutex> lock(mutex_);
  return FlushUnlocked();
}

int DcOffsetStore::FlushUnlocked() {
  if (offsets_.empty()) {
    return 0;
  }
  const int written = Write(offsets_);
  if (written == 0) {
    offsets_.clear();
  } else {
    ZEFS_LOG(kLogFailure, "failed to flush dc offset with path_=%s, return=%ld", path_.c_str(),
             static_cast<long>(written));
  }
  const int synced = safe_fsync(fd_);
  if (synced != 0) {
    ZEFS_LOG(kLogFailure, "failed to fsync dc offset with path_=%s, return=%ld", path_.c_str(),
             static_cast<long>(synced));
  }
  CloseUnlocked();
  return synced;
}

int DcOffsetStore::Read(std::vector<DCOffset>* out) {
  // Held to the end: a batch that another thread writes after the last read and before the rename
  // would be set aside unread, and a descriptor that is closed while it writes may by then be
  // another file's.
  const std::lock_guard<std::mutex> lock(mutex_);
  ZEFS_LOG(kLogTrace, "DcOffsetStore::%s, file: %s", "Read", path_.c_str());
  if (!fs::exists(fs::status(path_))) {
    return 0;
  }
  out->clear();
  const int fd = storage::utils::OpenNoPipe(path_, O_RDONLY, S_IRUSR | S_IWUSR);
  if (fd == -1) {
    ZEFS_LOG(kLogFailure, "failed to open dcoffset, path=%s, ret=%d", path_.c_str(), 0);
    return -1;
  }
  std::uint64_t slots = 0;
  {
    const DescriptorCloser closer(fd);
    if (noMmap_) {
      EnableNommap(path_, fd);
    }
    slots = ReadValidRecords(fd, out);
  }
  Destory();
  if (out->empty()) {
    ZEFS_LOG(kLogTrace, "no valid data in dc offset file %s, remove it.", path_.c_str());
    fs::remove(path_);
    return 0;
  }
  if (fs::exists(fs::status(path_))) {
    const std::string aside = path_ + tmpSuffix_;
    const int renamed = ::rename(path_.c_str(), aside.c_str());
    if (renamed == -1) {
      ZEFS_LOG(kLogFailure, "failed to rename file %s to %s, ret=%d", path_.c_str(), aside.c_str(),
               renamed);
      return -1;
    }
  }
  ZEFS_LOG(kLogTrace, "Total offset in rec:%llu, dcoffset:%llu",
           static_cast<unsigned long long>(slots), static_cast<unsigned long long>(out->size()));
  return 0;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): as given
int DcOffsetStore::MergeDcOffset(std::vector<DCOffset> offsets) {
  LogEntry("MergeDcOffset");
  DcOffsetSet open;
  std::copy_if(offsets.begin(), offsets.end(), std::inserter(open, open.end()),
               [](const DCOffset& o) { return o.dcOffset < 0 && o.dcOffset != kGivenUp; });
  if (!open.empty()) {
    std::unique_lock<std::mutex> lock(mutex_);
    const int code = Write(open);
    lock.unlock();
    if (code != 0) {
      ZEFS_LOG(kLogFailure, "Failed to store dcoffset, ret=%d", code);
      return code;
    }
  }
  std::string aside;
  WithPath([&](const std::string& path) { aside = path + tmpSuffix_; });
  if (fs::exists(fs::status(aside))) {
    fs::remove(aside);
  }
  WithPath([](const std::string& path) {
    ZEFS_LOG(kLogTrace, "DcOffsetStore::%s, file: %s , done!", "MergeDcOffset", path.c_str());
  });
  return 0;
}

void DcOffsetStore::Destory() {
  CloseUnlocked();
  ZEFS_LOG(kLogStep, "DcOffsetStore::%s, file: %s", "Destory", path_.c_str());
}

void DcOffsetStore::CloseUnlocked() {
  if (fd_ != -1) {
    ::close(fd_);
    fd_ = -1;
  }
}

void DcOffsetStore::UpdatePath(const std::string& path) {
  LogEntry("Flush");
  const std::lock_guard<std::mutex> lock(mutex_);
  const int flushed = FlushUnlocked();
  if (flushed != 0) {
    ZEFS_LOG(kLogFailure, "%s, failed to flush path_=%s, return=%ld", "UpdatePath", path_.c_str(),
             static_cast<long>(flushed));
  }
  {
    const ObjectLock pathLock(this);
    path_ = path;
  }
  Destory();
}

void DcOffsetStore::TraceLog(const char* /*format*/, ...) {}

bool DcOffsetAviliable(const std::string& path) {
  ZEFS_LOG(kLogTrace, "%s, path:%s", "DcOffsetAviliable", path.c_str());
  constexpr std::string_view kName = kOffsetStoreName;
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
    if (!fs::is_regular_file(entry.status())) {
      continue;
    }
    const std::string name = entry.path().filename().string();
    if (name.size() <= kName.size() && kName.substr(kName.size() - name.size()) == name) {
      ZEFS_LOG(kLogTrace, "%s, detected dcoffset file path:%s", "DcOffsetAviliable",
               entry.path().c_str());
      return true;
    }
  }
  return false;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
