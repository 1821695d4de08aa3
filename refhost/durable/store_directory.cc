#include "refhost/durable/store_directory.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <sys/stat.h>

#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

namespace fs = std::filesystem;

constexpr const char* kFirstLine = "zefs-host store 1";
constexpr const char* kNewFormat = "format.new";
constexpr const char* kLock = "lock";
constexpr mode_t kDirectoryMode = 0700;
constexpr std::size_t kLongestFormat = 4096;

}  // namespace

std::string TableTypeProblem(const std::string& type) {
  if (type == "PROVISION" || type == "INGEST" || type == "GENERIC") {
    return {};
  }
  return "table type '" + type + "' is none of PROVISION, INGEST and GENERIC";
}

StoreDirectory::StoreDirectory(std::string path, Missing missing, const WantedFormat& wanted)
    : path_(std::move(path)) {
  if (missing == Missing::kIsMade) {
    MakeDirectory(path_);
  }
  struct stat status {};
  if (::stat(path_.c_str(), &status) != 0) {
    throw SystemError("open the store", path_, errno);
  }
  if (!S_ISDIR(status.st_mode)) {
    throw SystemError("open the store", path_, ENOTDIR);
  }
  if (::access(FormatPath().c_str(), F_OK) != 0) {
    if (missing == Missing::kIsAnError || !IsFresh()) {
      throw StoreError(path_ + " is no store: it has no file 'format'", 0);
    }
  }
  Lock();
  if (::access(FormatPath().c_str(), F_OK) != 0) {
    WriteFormat(wanted);
  }
  ReadFormat();
  Compare(wanted);
  MakeDirectory(containers());
  MakeDirectory(tables());
}

void StoreDirectory::MakeDirectory(const std::string& path) const {
  if (::mkdir(path.c_str(), kDirectoryMode) == 0) {
    SyncDirectory(fs::path(path).has_parent_path() ? fs::path(path).parent_path().string() : ".");
  } else if (errno != EEXIST) {
    throw SystemError("create", path, errno);
  }
}

void StoreDirectory::Lock() {
  lock_.emplace(FileHandle::Open(path_ + "/" + kLock, O_RDWR | O_CREAT));
  if (!lock_->TryLock()) {
    throw StoreError("the store " + path_ + " is in use by another process", EWOULDBLOCK);
  }
}

/// Whether nothing lies here but what the making of a store may have left.
bool StoreDirectory::IsFresh() const {
  std::error_code error;
  fs::directory_iterator entry(path_, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name != kNewFormat && name != kLock) {
      return false;
    }
  }
  if (error) {
    throw SystemError("list", path_, error.value());
  }
  return true;
}

void StoreDirectory::WriteFormat(const WantedFormat& wanted) const {
  const StoreFormat usual;
  const Segmenter segmenter(wanted.segmentSize.value_or(usual.segmentSize));  // or it throws
  const std::string type = wanted.tableType.value_or(usual.tableType);
  if (const std::string problem = TableTypeProblem(type); !problem.empty()) {
    throw std::invalid_argument(problem);
  }
  const std::string fresh = path_ + "/" + kNewFormat;
  {
    FileHandle file = FileHandle::Open(fresh, O_WRONLY | O_CREAT | O_TRUNC);
    file.WriteAt(0, std::string(kFirstLine) + "\nsegment_size " +
                        std::to_string(segmenter.segmentSize()) + "\ntable_type " + type + "\n");
    file.Sync();
  }
  if (::rename(fresh.c_str(), FormatPath().c_str()) != 0) {
    throw SystemError("create", FormatPath(), errno);
  }
  SyncDirectory(path_);
}

void StoreDirectory::ReadFormat() {
  std::string text(kLongestFormat, '\0');
  text.resize(FileHandle::Open(FormatPath(), O_RDONLY).ReadAt(0, text.data(), text.size()));
  std::istringstream lines(text);
  std::string first;
  std::string sizeKey;
  std::string typeKey;
  std::getline(lines, first);
  lines >> sizeKey >> format_.segmentSize >> typeKey >> format_.tableType;
  if (first != kFirstLine || lines.fail() || sizeKey != "segment_size" || typeKey != "table_type" ||
      !SegmentSizeProblem(format_.segmentSize).empty() ||
      !TableTypeProblem(format_.tableType).empty()) {
    throw StoreError(FormatPath() + " is damaged, or of a store that this version does not know",
                     0);
  }
}

void StoreDirectory::Compare(const WantedFormat& wanted) const {
  const auto refuse = [this](const char* what, const std::string& has, const std::string& asked) {
    throw StoreError(
        "the store " + path_ + " has " + what + " " + has + "; it cannot be opened with " + asked,
        0);
  };
  if (wanted.segmentSize.value_or(format_.segmentSize) != format_.segmentSize) {
    refuse("segments of", std::to_string(format_.segmentSize), std::to_string(*wanted.segmentSize));
  }
  if (wanted.tableType.value_or(format_.tableType) != format_.tableType) {
    refuse("tables of type", format_.tableType, *wanted.tableType);
  }
}

}  // namespace zefs::refhost
