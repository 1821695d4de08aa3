#include "refhost/durable/table_directories.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <sys/stat.h>

#include "refhost/store/file_handle.h"
#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

namespace fs = std::filesystem;

constexpr mode_t kDirectoryMode = 0700;
constexpr std::size_t kBlockBytes = std::size_t{1} << 20;
constexpr std::string_view kLockEnding = "-lock";

bool IsLock(std::string_view name) {
  return name.size() >= kLockEnding.size() &&
         name.substr(name.size() - kLockEnding.size()) == kLockEnding;
}

void CopyFile(const std::string& from, const std::string& to) {
  const FileHandle source = FileHandle::Open(from, O_RDONLY);
  FileHandle target = FileHandle::Open(to, O_WRONLY | O_CREAT | O_EXCL);
  std::string block(kBlockBytes, '\0');
  std::int64_t at = 0;
  while (const std::size_t got = source.ReadAt(at, block.data(), block.size())) {
    target.WriteAt(at, std::string_view(block).substr(0, got));
    at += static_cast<std::int64_t>(got);
  }
  target.Sync();
}

}  // namespace

bool IsDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool RenameDirectory(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) == 0) {
    return true;
  }
  if (errno != EXDEV) {
    throw SystemError("move", from, errno);
  }
  return false;
}

void CopyDirectory(const std::string& from, const std::string& to) {
  if (::mkdir(to.c_str(), kDirectoryMode) != 0) {
    throw SystemError("create", to, errno);
  }
  std::error_code error;
  fs::directory_iterator entry(from, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (entry->is_regular_file() && !IsLock(name)) {
      CopyFile(entry->path().string(), (fs::path(to) / name).string());
    }
  }
  if (error) {
    throw SystemError("list", from, error.value());
  }
  SyncDirectory(to);
}

}  // namespace zefs::refhost
