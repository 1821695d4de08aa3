#include "refhost/durable/store_directory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <sys/stat.h>

#include "persistent/metadata_volumes.h"
#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

namespace fs = std::filesystem;

constexpr const char* kFirstLine = "zefs-host store 1";
constexpr const char* kNewFormat = "format.new";
constexpr const char* kLock = "lock";
constexpr mode_t kDirectoryMode = 0700;
constexpr std::size_t kLongestFormat = std::size_t{1} << 20;

// Of a store with volumes, which older versions do not open.
constexpr const char* kFirstLineWithVolumes = "zefs-host store 2";
constexpr const char* kIdKey = "id ";
constexpr const char* kVolumeKey = "volume ";
constexpr std::size_t kIdLength = 16;
constexpr std::size_t kMostVolumes = 1000;

std::string NewId() {
  std::random_device random;
  const std::uint64_t number = std::uint64_t{random()} << 32 | random();
  std::array<char, kIdLength + 1> text{};
  std::snprintf(text.data(), text.size(), "%016" PRIx64, number);
  return text.data();
}

bool IsId(const std::string& text) {
  return text.size() == kIdLength &&
         text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string RealPath(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr),
                                                         &std::free);
  if (real == nullptr) {
    throw SystemError("use the volume", path, errno);
  }
  struct stat status {};
  if (::stat(real.get(), &status) == 0 && !S_ISDIR(status.st_mode)) {
    throw SystemError("use the volume", path, ENOTDIR);
  }
  return real.get();
}

/// The volumes as the format names them: real paths, each once.
std::vector<std::string> VolumesOf(const WantedFormat& wanted) {
  if (wanted.volumes.size() > kMostVolumes) {
    throw std::invalid_argument("more than " + std::to_string(kMostVolumes) + " volumes");
  }
  std::vector<std::string> volumes;
  for (const std::string& given : wanted.volumes) {
    const std::string path = RealPath(given);
    if (path.find('\n') != std::string::npos) {
      throw std::invalid_argument("the path of a volume cannot have two lines");
    }
    if (std::find(volumes.begin(), volumes.end(), path) != volumes.end()) {
      throw std::invalid_argument("the volume " + given + " is given twice");
    }
    volumes.push_back(path);
  }
  return volumes;
}

std::string Joined(const std::vector<std::string>& paths) {
  std::string text;
  for (const std::string& path : paths) {
    text += (text.empty() ? "" : ", ") + path;
  }
  return text;
}

/// What follows `key` in the next line; empty if that has another one.
std::string NextOf(std::istream* lines, const std::string& key) {
  std::string line;
  return std::getline(*lines, line) && line.compare(0, key.size(), key) == 0
             ? line.substr(key.size())
             : std::string();
}

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
  if (format_.volumes.empty()) {
    MakeDirectory(tables());
  } else {
    RequireVolumes();
  }
}

std::string StoreDirectory::tables(std::size_t volume) const {
  return format_.volumes.empty() ? path_ + "/tables"
                                 : format_.volumes.at(volume) + "/zefs-" + format_.id;
}

std::size_t StoreDirectory::volumes() const {
  return std::max<std::size_t>(format_.volumes.size(), 1);
}

std::size_t StoreDirectory::VolumeFor(const std::string& name) const {
  const std::vector<std::string>& all = format_.volumes;
  const std::string chosen =
      Aldenta::Qnd::Morene::Zefs::GetExtentPathInMVolume(all, !all.empty(), name);
  return all.empty()
             ? 0
             : static_cast<std::size_t>(std::find(all.begin(), all.end(), chosen) - all.begin());
}

void StoreDirectory::RequireVolumes() const {
  for (std::size_t volume = 0; volume < volumes(); ++volume) {
    struct stat status {};
    if (::stat(tables(volume).c_str(), &status) != 0) {
      throw SystemError("find the volume", tables(volume), errno);
    }
  }
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
  const std::vector<std::string> volumes = VolumesOf(wanted);
  std::string text = std::string(volumes.empty() ? kFirstLine : kFirstLineWithVolumes) +
                     "\nsegment_size " + std::to_string(segmenter.segmentSize()) + "\ntable_type " +
                     type + "\n";
  if (!volumes.empty()) {
    const std::string id = NewId();
    const std::string own = "/zefs-" + id;
    text += kIdKey + id + "\n";
    for (const std::string& volume : volumes) {
      text += kVolumeKey + volume + "\n";
      MakeDirectory(volume + own);  // before the store says that it is there
    }
  }
  const std::string fresh = path_ + "/" + kNewFormat;
  {
    FileHandle file = FileHandle::Open(fresh, O_WRONLY | O_CREAT | O_TRUNC);
    file.WriteAt(0, text);
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
  bool sound = !lines.fail() && sizeKey == "segment_size" && typeKey == "table_type" &&
               SegmentSizeProblem(format_.segmentSize).empty() &&
               TableTypeProblem(format_.tableType).empty();
  if (first == kFirstLineWithVolumes) {
    std::getline(lines, typeKey);  // the end of its line
    format_.id = NextOf(&lines, kIdKey);
    while (lines.peek() != std::istringstream::traits_type::eof()) {
      format_.volumes.push_back(NextOf(&lines, kVolumeKey));
      sound = sound && !format_.volumes.back().empty();
    }
    sound = sound && IsId(format_.id) && !format_.volumes.empty();
  } else {
    sound = sound && first == kFirstLine;
  }
  if (!sound) {
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
  if (!wanted.volumes.empty()) {
    if (const auto volumes = VolumesOf(wanted); volumes != format_.volumes) {
      refuse("the volumes", format_.volumes.empty() ? "(none)" : Joined(format_.volumes),
             Joined(volumes));
    }
  }
}

}  // namespace zefs::refhost
