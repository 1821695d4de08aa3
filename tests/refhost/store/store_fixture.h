#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include "refhost/store/file_store.h"
#include "refhost/store/no_data_cache.h"
#include "tests/support/temp_dir.h"

namespace zefs::test {

/// A whole small store in a directory of its own.
class SmallStore {
 public:
  explicit SmallStore(std::uint32_t segmentSize = 512, std::uint32_t containerBytes = 4096)
      : containers(directory.path().string(), containerBytes),
        objects(&containers, &index),
        files(refhost::Segmenter(segmentSize), &objects, &cache) {}

  std::string ReadAll(refhost::FileStore::FileId id) const {
    std::string bytes(static_cast<std::size_t>(files.SizeOf(id)), '?');
    bytes.resize(files.Read(id, 0, bytes.data(), bytes.size()));
    return bytes;
  }

  TempDir directory;
  refhost::ContainerStore containers;
  refhost::DedupIndex index;
  refhost::ObjectStore objects;
  refhost::NoDataCache cache;
  refhost::FileStore files;
};

/// While it lives, a test that the superuser runs has the rights of an ordinary user, and
/// `directory` may be passed through by that user. For tests without threads.
class AsOrdinaryUser {
 public:
  explicit AsOrdinaryUser(const boost::filesystem::path& directory) : before_(geteuid()) {
    boost::filesystem::permissions(directory, static_cast<boost::filesystem::perms>(0755));
    if (before_ == 0 && seteuid(kNobody) != 0) {
      throw std::runtime_error("cannot give up the rights of the superuser");
    }
  }
  ~AsOrdinaryUser() {
    if (geteuid() != before_ && seteuid(before_) != 0) {
      std::abort();
    }
  }
  AsOrdinaryUser(const AsOrdinaryUser&) = delete;
  AsOrdinaryUser& operator=(const AsOrdinaryUser&) = delete;

 private:
  static constexpr uid_t kNobody = 65534;
  uid_t before_;
};

inline void WriteFile(const boost::filesystem::path& path, std::string_view bytes) {
  std::ofstream file(path.string(), std::ios::binary);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// The text of the `Error` that `call` throws; "nothing thrown" if it throws nothing.
template <typename Error, typename Call>
std::string ThrownText(const Call& call) {
  try {
    call();
  } catch (const Error& error) {
    return error.what();
  }
  return "nothing thrown";
}

}  // namespace zefs::test
