#pragma once

#include <fstream>
#include <iterator>
#include <string>

#include <boost/filesystem/path.hpp>

namespace zefs::test {

/// All bytes of a file; none if it cannot be opened.
inline std::string BytesOf(const boost::filesystem::path& file) {
  std::ifstream in(file.string(), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

/// Makes a file of these bytes, in place of one that is there.
inline void WriteBytes(const boost::filesystem::path& file, const std::string& bytes) {
  std::ofstream(file.string(), std::ios::binary) << bytes;
}

}  // namespace zefs::test
