#pragma once

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <zlib.h>

namespace zefs::test {

inline void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary);
  file << content;
  if (!file.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

/// Adds a gzip member with `content` to the file.
inline void AppendGzip(const std::string& path, const std::string& content) {
  const gzFile file = ::gzopen(path.c_str(), "ab");
  const auto size = static_cast<unsigned>(content.size());
  const bool written = ::gzwrite(file, content.data(), size) == static_cast<int>(size);
  if (::gzclose(file) != Z_OK || !written) {
    throw std::runtime_error("cannot write " + path);
  }
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace zefs::test
