#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>

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
