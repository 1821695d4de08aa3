#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace zefs::fuzz {

/// Ends the program as a finding, told by `what`, unless `condition` holds.
inline void Require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what);
    std::abort();
  }
}

/// Makes the file at `path`, or replaces it.
inline void WriteFile(const std::string& path, const std::uint8_t* data, std::size_t size) {
  std::ofstream out(path, std::ios::binary);
  if (size != 0) {
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  out.close();
  Require(!out.fail(), "the input cannot be written");
}

}  // namespace zefs::fuzz
