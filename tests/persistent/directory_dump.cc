#include "tests/persistent/directory_dump.h"

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem/operations.hpp>

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

constexpr std::size_t kLineBytes = 32;

bool IsLockFile(const std::string& name) {
  constexpr char kSuffix[] = "-lock";
  constexpr std::size_t kLength = sizeof(kSuffix) - 1;
  return name.size() >= kLength && name.substr(name.size() - kLength) == kSuffix;
}

void DumpFile(const fs::path& file, std::ostream* out) {
  std::ifstream in(file.string(), std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};
  *out << "file " << file.filename().string() << ' ' << bytes.size() << '\n';
  *out << std::hex << std::setfill('0');
  for (std::size_t at = 0; at < bytes.size(); at += kLineBytes) {
    const std::string line = bytes.substr(at, kLineBytes);
    if (line.find_first_not_of('\0') == std::string::npos) {
      continue;
    }
    *out << std::setw(6) << at << ": ";
    for (const char byte : line) {
      *out << std::setw(2) << unsigned{static_cast<unsigned char>(byte)};
    }
    *out << '\n';
  }
  *out << std::dec << std::setfill(' ');
}

/// A file that is being unpacked.
struct Unpacked {
  fs::path path;
  std::string bytes;

  void Write() const {
    if (!path.empty()) {
      std::ofstream(path.string(), std::ios::binary) << bytes;
    }
  }
};

void UnpackLine(const std::string& line, Unpacked* file) {
  const std::size_t colon = line.find(": ");
  if (colon == std::string::npos) {
    throw std::runtime_error("no line of a dump: " + line);
  }
  std::size_t at = std::stoul(line.substr(0, colon), nullptr, 16);
  for (std::size_t digit = colon + 2; digit + 1 < line.size(); digit += 2, ++at) {
    file->bytes.at(at) = static_cast<char>(std::stoul(line.substr(digit, 2), nullptr, 16));
  }
}

}  // namespace

std::string DumpOf(const fs::path& directory) {
  std::set<fs::path> files;
  for (const auto& entry : fs::directory_iterator(directory)) {
    if (fs::is_regular_file(entry.status()) && !IsLockFile(entry.path().filename().string())) {
      files.insert(entry.path());
    }
  }
  std::ostringstream out;
  for (const fs::path& file : files) {
    DumpFile(file, &out);
  }
  return out.str();
}

void Unpack(const std::string& dump, const fs::path& directory) {
  fs::create_directories(directory);
  Unpacked file;
  std::istringstream lines(dump);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line.front() == '#') {
      continue;
    }
    std::istringstream words(line);
    std::string word;
    std::string name;
    std::size_t size = 0;
    if (words >> word && word == "file" && words >> name >> size) {
      file.Write();
      file = {directory / name, std::string(size, '\0')};
    } else {
      UnpackLine(line, &file);
    }
  }
  file.Write();
}

}  // namespace zefs::test
