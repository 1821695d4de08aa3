#pragma once

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <string>

// Only for test programs that are built with ZEFS_FORMATS_PAGE, the path of docs/formats.md.

namespace zefs::test {

/// Bytes as pairs of lower-case digits.
template <typename Bytes>
std::string HexOf(const Bytes& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const auto element : bytes) {
    const auto byte = static_cast<unsigned char>(element);
    hex += kDigits[byte >> 4U];
    hex += kDigits[byte & 15U];
  }
  return hex;
}

/// The digits of the lines "0000: 00 11 ..." below `heading` ("## Title") in the description of the
/// formats, up to the next heading.
inline std::string HexOfThePage(const std::string& heading) {
  std::ifstream page(ZEFS_FORMATS_PAGE);
  std::string hex;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind("## ", 0) == 0) {
      inside = line == heading;
    }
    constexpr std::size_t kAddress = 4;
    if (inside && line.find(": ") == kAddress &&
        line.find_first_not_of("0123456789abcdef :") == std::string::npos) {
      std::copy_if(line.begin() + kAddress + 1, line.end(), std::back_inserter(hex),
                   [](char c) { return c != ' '; });
    }
  }
  return hex;
}

}  // namespace zefs::test
