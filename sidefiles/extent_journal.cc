#include "sidefiles/extent_journal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <unistd.h>

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include "host/file_io.h"
#include "support/filesystem.h"
#include "support/measure_cpu.h"

namespace Aldenta::Qnd::Morene::Zefs {

namespace fs = boost::filesystem;
using boost::system::error_code;

namespace {

constexpr std::size_t kBufferLimit = 16384;  // records; the one that reaches it flushes
constexpr std::size_t kWriteChunk = 16384;   // records of the largest single write
constexpr std::size_t kReadChunk = 32768;    // records of each read
constexpr mode_t kFileMode = 0600;

constexpr std::size_t kRecordUsed = 76;  // bytes of a record that hold fields
static_assert(sizeof(Extent) == kJournalRecordSize, "a record in memory and in the file");
static_assert(offsetof(Extent, tag) == 0 && offsetof(Extent, start) == 8 &&
                  offsetof(Extent, end) == 16 && offsetof(Extent, offset) == 24 &&
                  offsetof(Extent, dcid) == 32 && offsetof(Extent, fp) == 40 &&
                  offsetof(Extent, op) == 72 && sizeof(Extent::op) == kRecordUsed - 72,
              "on-disk layout");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "on-disk byte order");
static_assert(kWriteChunk * kJournalRecordSize == 1310720, "largest single write, bytes");
static_assert(kReadChunk * kJournalRecordSize == 2621440, "each read, bytes");

/// The only validation that there is. Zeros, as behind the end of a file, do not pass.
bool IsPresent(const Extent& record) {
  return record.end != 0 && record.start <= record.end;
}

/// Closes a descriptor at the end of its scope, also when a record finds no memory.
struct Descriptor {
  explicit Descriptor(int opened) : fd(opened) {}
  ~Descriptor() { ::close(fd); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  const int fd;
};

/// Makes the names of the directory of a file last. 0, or `errno`.
int SyncDirectoryOf(const std::string& path) {
  const fs::path parent = fs::path(path).parent_path();
  const int fd =
      ::open64(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd == -1) {
    return errno;
  }
  const Descriptor directory(fd);
  int ret = -1;
  do {
    ret = ::fsync(directory.fd);  // no side file: nothing of the host is asked
  } while (ret != 0 && errno == EINTR);
  return ret == 0 ? 0 : errno;
}

Extent MakeRecord(long start, long end, long offset, unsigned long dcid,
                  const std::array<unsigned char, 32>& fp) {
  Extent record{};
  record.start = start;
  record.end = end;
  record.offset = offset;
  record.dcid = dcid;
  record.fp = fp;
  return record;
}

}  // namespace

void EncodeJournalRecord(const Extent& record, unsigned char* out) {
  std::memcpy(out, &record, kRecordUsed);
}

Extent DecodeJournalRecord(const unsigned char* bytes) {
  Extent record{};
  std::memcpy(&record, bytes, kRecordUsed);
  return record;
}

ExtentJournal::ExtentJournal(const std::string& path, bool noMmap)
    : path_(path), replayPath_(path + REPLAY_EXTENTION), noMmap_(noMmap) {}

ExtentJournal::~ExtentJournal() {
  if (!opened_) {
    return;
  }
  try {
    Flush(true);
  } catch (const std::bad_alloc&) {
    ZEFS_LOG(zefs::kLogFailure, "failed to write extent journal path_=%s, return=%d", path_.c_str(),
             ENOMEM);
  }
  Close();
}

int ExtentJournal::Open() {
  const fs::path parent = fs::path(path_).parent_path();
  try {
    if (!parent.empty() && !fs::exists(fs::status(parent))) {
      error_code ec;
      // Without an error somebody else made the directory first.
      if (!storage::utils::MakeDirectoryAndParents(parent, fs::owner_all, ec) && ec) {
        ZEFS_LOG(zefs::kLogFailure, "failed to create path: %s, errno: %d", parent.c_str(),
                 ec.value());
        return ec.value();
      }
    }
  } catch (const fs::filesystem_error& e) {
    ZEFS_LOG(zefs::kLogFailure, "failed to create path: %s, err: %s", parent.c_str(), e.what());
    return -2;
  }
  fd_ = storage::utils::OpenNoPipe(path_, O_WRONLY | O_CREAT | O_APPEND, kFileMode);
  if (fd_ == -1) {
    const int error = errno;
    ZEFS_LOG(zefs::kLogFailure, "failed to open journal file: %s, errno: %d, err: %s",
             path_.c_str(), error, std::strerror(error));
    return -1;
  }
  if (noMmap_) {
    EnableNommap(path_, fd_);
  }
  opened_ = true;
  return 0;
}

int ExtentJournal::Add(const Extent& e, op_t op, unsigned long tag) {
  if (!started_ || !opened_) {
    return -1;
  }
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    Extent& record = buffer_.emplace_back(MakeRecord(e.start, e.end, e.offset, e.dcid, e.fp));
    record.tag = tag;
    record.op = op;
    if (buffer_.size() < kBufferLimit) {
      return 0;
    }
  }
  // Records that other threads add before Flush has the lock join this flush.
  const int ret = Flush(false);
  if (ret != 0) {
    ZEFS_LOG(zefs::kLogFailure, "failed to flush journal file: %s, ret=%d", path_.c_str(), ret);
  }
  return ret;
}

int ExtentJournal::Add(long start, long end, long offset, unsigned long dcid,
                       std::array<unsigned char, 32> fp, unsigned long tag) {
  ZEFS_LOG(zefs::kLogTrace, "%s, path_=%s", "Add", path_.c_str());
  if (!started_) {
    return -1;
  }
  return Add(MakeRecord(start, end, offset, dcid, fp), ADD, tag);
}

int ExtentJournal::Del(long start, long end, long offset, unsigned long dcid,
                       std::array<unsigned char, 32> fp, unsigned long tag) {
  ZEFS_LOG(zefs::kLogTrace, "%s, path_=%s", "Del", path_.c_str());
  if (!started_) {
    return -1;
  }
  return Add(MakeRecord(start, end, offset, dcid, fp), DEL, tag);
}

int ExtentJournal::Flush(bool sync) {
  ZEFS_LOG(zefs::kLogStep, "%s, path_=%s", "Flush", path_.c_str());
  if (!started_) {
    return -1;
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  int ret = Write(buffer_);
  if (ret != 0) {
    ZEFS_LOG(zefs::kLogFailure, "failed to write extent journal path_=%s, return=%d", path_.c_str(),
             ret);
    return ret;
  }
  if (sync) {
    ret = Sync();
    if (ret != 0) {
      ZEFS_LOG(zefs::kLogFailure, "failed to sync extent journal path_=%s, return=%d",
               path_.c_str(), ret);
      return ret;
    }
  }
  buffer_.clear();
  return 0;
}

int ExtentJournal::Write(const std::vector<Extent>& records) {
  ZEFS_LOG(zefs::kLogStep, "%s, path_=%s, ext=%llu", "Write", path_.c_str(),
           static_cast<unsigned long long>(records.size()));
  if (records.empty()) {
    return 0;
  }
  // Zeroed once: the padding of a record is never written, so that nothing else gets to the file.
  const auto staging =
      std::make_unique<unsigned char[]>(std::min(records.size(), kWriteChunk) * kJournalRecordSize);
  for (std::size_t first = 0; first < records.size(); first += kWriteChunk) {
    const std::size_t count = std::min(records.size() - first, kWriteChunk);
    for (std::size_t i = 0; i < count; ++i) {
      EncodeJournalRecord(records[first + i], &staging[i * kJournalRecordSize]);
    }
    const auto bytes = static_cast<ssize_t>(count * kJournalRecordSize);
    const ssize_t ret = safe_write(fd_, staging.get(), count * kJournalRecordSize);
    ZEFS_LOG(zefs::kLogStep, "fd_=%d, path_=%s, write=%ld, size=%ld, ret=%ld", fd_, path_.c_str(),
             static_cast<long>(bytes), static_cast<long>(records.size()), static_cast<long>(ret));
    if (ret != bytes) {
      ZEFS_LOG(zefs::kLogFailure,
               "failed to write extent journal with path_=%s, write=%ld, return=%ld", path_.c_str(),
               static_cast<long>(bytes), static_cast<long>(ret));
      return -1;
    }
  }
  return 0;
}

int ExtentJournal::Sync() {
  if (!opened_) {
    return -1;
  }
  const int ret = safe_fsync(fd_);
  if (ret != 0) {
    ZEFS_LOG(zefs::kLogFailure, "failed to sync extent journal with path_=%s, return=%d",
             path_.c_str(), ret);
  }
  return ret;
}

int ExtentJournal::Read(std::vector<Extent>* out) {
  ZEFS_MEASURE_CPU(extent_journal_cpu_counters);
  out->clear();
  const int fd = storage::utils::OpenNoPipe(replayPath_, O_RDONLY, kFileMode);
  if (fd == -1) {
    ZEFS_LOG(zefs::kLogFailure, "failed to open extent journal, path=%s, ret=%d",
             replayPath_.c_str(), errno);
    return -1;
  }
  unsigned long long slots = 0;
  {
    const Descriptor file(fd);
    if (noMmap_) {
      EnableNommap(replayPath_, fd_);  // the journal's own descriptor, closed by now
    }
    constexpr std::size_t kBytes = kReadChunk * kJournalRecordSize;
    const std::unique_ptr<unsigned char[]> chunk(new unsigned char[kBytes]);
    for (;;) {
      std::fill_n(chunk.get(), kBytes, static_cast<unsigned char>(0));
      // An error ends the records just as the end of the file does.
      if (safe_read(file.fd, chunk.get(), kBytes) <= 0) {
        break;
      }
      // The zeros behind what was read complete a torn record and hold no others.
      for (std::size_t i = 0; i < kReadChunk; ++i, ++slots) {
        const Extent record = DecodeJournalRecord(&chunk[i * kJournalRecordSize]);
        if (IsPresent(record)) {
          out->push_back(record);
        }
      }
    }
  }
  ZEFS_LOG(zefs::kLogStep, "Total extent in journal:%llu", slots);
  return 0;
}

int ExtentJournal::Replay(std::vector<Extent>* out) {
  ZEFS_MEASURE_CPU(extent_journal_cpu_counters);
  int ret = Close();
  if (ret != 0) {
    ZEFS_LOG(zefs::kLogFailure, "failed to close file with path_=%s, return=%d", path_.c_str(),
             ret);
    return ret;
  }
  ret = std::rename(path_.c_str(), replayPath_.c_str());
  if (ret != 0) {
    ZEFS_LOG(zefs::kLogFailure, "failed to rename file, from=%s, to=%s, ret=%d", path_.c_str(),
             replayPath_.c_str(), ret);
    return -1;
  }
  ret = Read(out);
  if (ret != 0) {
    ZEFS_LOG(zefs::kLogFailure, "failed to Replay extent journal, path=%s, ret=%d", path_.c_str(),
             ret);
    return -1;
  }
  if (fs::exists(fs::status(replayPath_))) {
    fs::remove(replayPath_);
  }
  ZEFS_LOG(zefs::kLogRare, "replay extent count:%ld, path_=%s", static_cast<long>(out->size()),
           path_.c_str());
  std::unique_lock<std::mutex> lock(mutex_);
  if (!opened_) {
    ret = Open();
    if (ret != 0) {
      lock.unlock();
      ZEFS_LOG(zefs::kLogFailure, "failed to open file with path_=%s, return=%d", path_.c_str(),
               ret);
      return ret;
    }
  }
  started_ = true;
  ZEFS_LOG(zefs::kLogStep, "extent journal start, path=%s", path_.c_str());
  return 0;
}

int ExtentJournal::Get(std::vector<Extent>* out) {
  ZEFS_LOG(zefs::kLogStep, "%s", "Get");
  if (out == nullptr) {
    return -1;
  }
  out->clear();
  if (!HasJournal()) {
    return 0;
  }
  int ret = Flush(true);
  if (ret != 0) {
    ZEFS_LOG(zefs::kLogFailure, "failed to flush journal file: %s, ret=%d", path_.c_str(), ret);
    return ret;
  }
  ret = Replay(out);
  if (ret != 0) {
    ZEFS_LOG(zefs::kLogFailure, "failed to replay extent journal with path_=%s, return=%d",
             path_.c_str(), ret);
  }
  return ret;
}

bool ExtentJournal::HasJournal() {
  return fs::exists(fs::status(path_));
}

int ExtentJournal::Close() {
  if (started_) {
    started_ = false;
    ZEFS_LOG(zefs::kLogStep, "extent journal stop, path=%s", path_.c_str());
  }
  if (opened_) {
    ::close(fd_);
    fd_ = -1;
    opened_ = false;
  }
  return 0;
}

int ExtentJournal::Destroy() {
  const std::lock_guard<std::mutex> lock(mutex_);
  Close();
  buffer_.clear();
  bool removed = false;
  if (fs::exists(fs::status(path_))) {
    const int ret = ::unlink(path_.c_str());
    if (ret != 0) {
      ZEFS_LOG(zefs::kLogFailure, "failed to unlink extent journal with path_=%s, return=%d",
               path_.c_str(), ret);
      return ret;
    }
    removed = true;
  }
  if (fs::exists(fs::status(replayPath_))) {
    const int ret = ::unlink(replayPath_.c_str());
    if (ret != 0) {
      ZEFS_LOG(zefs::kLogFailure, "failed to unlink replay file with path_=%s, return=%d",
               path_.c_str(), ret);
      return ret;
    }
    removed = true;
  }
  if (removed) {
    // A journal that a power cut brought back would undo what has made it void.
    const int error = SyncDirectoryOf(path_);
    if (error != 0) {
      ZEFS_LOG(zefs::kLogFailure, "failed to sync the directory of extent journal %s, errno: %d",
               path_.c_str(), error);
    }
  }
  ZEFS_LOG(zefs::kLogStep, "Destroy extent journal with path_=%s", path_.c_str());
  return 0;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
