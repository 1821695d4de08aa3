#include "refhost/store/file_collector.h"

#include <cerrno>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include <sys/stat.h>

#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

namespace fs = std::filesystem;

class Collector {
 public:
  void Start(const std::string& given) {
    std::error_code error;
    const fs::path path = fs::canonical(given, error);
    if (error) {
      Skip(given, error.value());
      return;
    }
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
      Skip(path, errno);
      return;
    }
    Visit(path, status);
    while (!directories_.empty()) {
      const fs::path next = std::move(directories_.back());
      directories_.pop_back();
      List(next);
    }
  }

  CollectedFiles Take() {
    for (auto& [path, size] : sizes_) {
      found_.bytes += size;
      found_.files.push_back(path);
    }
    return std::move(found_);
  }

 private:
  void Visit(const fs::path& path, const struct stat& status) {
    if (S_ISDIR(status.st_mode)) {
      directories_.push_back(path);
    } else if (S_ISREG(status.st_mode)) {
      sizes_.emplace(path.string(), static_cast<std::uint64_t>(status.st_size));
    } else {
      ++found_.notRegular;
    }
  }

  void List(const fs::path& directory) {
    std::error_code error;
    fs::directory_iterator entry(directory, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
      struct stat status {};
      if (::lstat(entry->path().c_str(), &status) != 0) {
        Skip(entry->path(), errno);
      } else {
        Visit(entry->path(), status);
      }
    }
    if (error) {
      Skip(directory, error.value());
    }
  }

  void Skip(const fs::path& path, int errorCode) {
    found_.skipped.push_back({path.string(), ReasonOf(errorCode)});
  }

  std::vector<fs::path> directories_;
  std::map<std::string, std::uint64_t> sizes_;
  CollectedFiles found_;
};

}  // namespace

CollectedFiles CollectFiles(const std::vector<std::string>& paths) {
  Collector collector;
  for (const std::string& path : paths) {
    collector.Start(path);
  }
  return collector.Take();
}

}  // namespace zefs::refhost
