#pragma once

#include <cctype>
#include <string>

namespace zefs::test {

/// `line` with `nameOf(address)` for each address printed in it. An address stands on its own: the
/// random name of a temporary directory may hold the characters of one.
template <typename NameOf>
std::string WithAddressesNamed(std::string line, NameOf nameOf) {
  const auto inWord = [&](std::size_t at) {
    return at < line.size() && (std::isalnum(static_cast<unsigned char>(line[at])) != 0 ||
                                line[at] == '-' || line[at] == '_');
  };
  for (std::size_t at = line.find("0x"); at != std::string::npos; at = line.find("0x", at)) {
    std::size_t end = line.find_first_not_of("0123456789abcdef", at + 2);
    end = end == std::string::npos ? line.size() : end;
    if ((at > 0 && inWord(at - 1)) || end == at + 2 || inWord(end)) {
      at += 2;
      continue;
    }
    const std::string name = nameOf(line.substr(at, end - at));
    line.replace(at, end - at, name);
    at += name.size();
  }
  return line;
}

}  // namespace zefs::test
