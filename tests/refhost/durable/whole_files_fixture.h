#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

#include <sys/stat.h>

#include "tests/refhost/durable/durable_fixture.h"

namespace zefs::test {

/// Tables of all volumes of the store.
inline std::size_t TablesOf(const refhost::StoreDirectory& directory) {
  namespace fs = boost::filesystem;
  std::size_t tables = 0;
  for (std::size_t volume = 0; volume < directory.volumes(); ++volume) {
    tables += static_cast<std::size_t>(
        std::distance(fs::directory_iterator(directory.tables(volume)), fs::directory_iterator()));
  }
  return tables;
}

/// A name, of those that begin with `stem`, whose table goes to the volume.
inline std::string NameOn(const refhost::StoreDirectory& directory, std::size_t volume,
                          const std::string& stem) {
  constexpr int kTries = 1000;
  for (int i = 0; i < kTries; ++i) {
    std::string name = stem + std::to_string(i);
    if (directory.VolumeFor(name) == volume) {
      return name;
    }
  }
  throw std::runtime_error("no name goes to the volume: is it full?");
}

/// A directory on another file system than `path`, if there is one.
class OtherFileSystem {
 public:
  explicit OtherFileSystem(const boost::filesystem::path& path) {
    for (const char* const place : {"/tmp", "/var/tmp", "/dev/shm"}) {
      struct stat own {};
      struct stat other {};
      if (::stat(path.c_str(), &own) != 0 || ::stat(place, &other) != 0 ||
          own.st_dev == other.st_dev) {
        continue;
      }
      std::string name = std::string(place) + "/zefs-test-XXXXXX";
      if (::mkdtemp(name.data()) != nullptr) {
        path_ = name;
        return;
      }
    }
  }
  ~OtherFileSystem() {
    boost::system::error_code ignored;
    if (IsThere()) {
      boost::filesystem::remove_all(path_, ignored);
    }
  }
  OtherFileSystem(const OtherFileSystem&) = delete;
  OtherFileSystem& operator=(const OtherFileSystem&) = delete;

  bool IsThere() const { return !path_.empty(); }
  const boost::filesystem::path& path() const { return path_; }

 private:
  boost::filesystem::path path_;
};

}  // namespace zefs::test
