#include "fuzz/table_directory/archive.h"

#include <algorithm>

#include <boost/filesystem/operations.hpp>

#include "fuzz/fuzz_support.h"
#include "tests/support/file_bytes.h"

namespace zefs::fuzz {

namespace {

namespace fs = boost::filesystem;

constexpr std::size_t kMostEntries = 16;
constexpr std::size_t kLongestName = 40;
constexpr std::size_t kLongestFile = std::size_t{4} << 20;
constexpr std::size_t kLongestRun = 0xffff;
constexpr std::size_t kZerosWorthARun = 8;

/// A name that stays inside the directory.
std::string Harmless(std::string name) {
  std::replace(name.begin(), name.end(), '/', '_');
  std::replace(name.begin(), name.end(), '\0', '_');
  name.resize(std::min(name.size(), kLongestName));
  return name.empty() || name == "." || name == ".." ? "_" : name;
}

/// Where the zeros from `at` on end.
std::size_t EndOfZeros(const std::string& bytes, std::size_t at) {
  return std::min(bytes.find_first_not_of('\0', at), bytes.size());
}

/// Where the next zeros that are worth a run of their own begin, or the end.
std::size_t EndOfBytes(const std::string& bytes, std::size_t at) {
  static const std::string zeros(kZerosWorthARun, '\0');
  return std::min(bytes.find(zeros, at), bytes.size());
}

void PackContent(const std::string& content, std::string* out) {
  for (std::size_t at = 0; at < content.size();) {
    const std::size_t zeros = std::min(EndOfZeros(content, at) - at, kLongestRun);
    at += zeros;
    const std::size_t bytes = std::min(EndOfBytes(content, at) - at, kLongestRun);
    if (at + bytes == content.size() && bytes == 0) {
      break;  // the rest is zeros
    }
    AppendNumber(out, zeros, 2);
    AppendNumber(out, bytes, 2);
    out->append(content, at, bytes);
    at += bytes;
  }
  AppendNumber(out, 0, 4);
}

std::string UnpackContent(std::size_t size, ByteReader* reader) {
  std::string content;
  for (;;) {
    const auto zeros = static_cast<std::size_t>(reader->Number(2));
    const auto bytes = static_cast<std::size_t>(reader->Number(2));
    if (zeros + bytes == 0) {
      break;
    }
    content.append(zeros, '\0');
    content += reader->Bytes(bytes);
    if (content.size() >= kLongestFile) {
      break;
    }
  }
  content.resize(std::min(size, kLongestFile), '\0');
  return content;
}

}  // namespace

std::uint64_t ByteReader::Number(std::size_t width) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < width && left_ > 0; ++i, ++at_, --left_) {
    number |= std::uint64_t{*at_} << (8 * i);
  }
  return number;
}

std::string ByteReader::Bytes(std::size_t size) {
  const std::size_t taken = std::min(size, left_);
  std::string bytes(at_, at_ + taken);
  at_ += taken;
  left_ -= taken;
  return bytes;
}

void AppendNumber(std::string* out, std::uint64_t number, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i) {
    out->push_back(static_cast<char>(number >> (8 * i)));
  }
}

std::string PackDirectory(const std::vector<Entry>& entries) {
  std::string packed;
  for (const Entry& entry : entries) {
    const std::string name = Harmless(entry.name);
    AppendNumber(&packed, name.size(), 1);
    packed += name;
    AppendNumber(&packed, entry.content.size(), 4);
    PackContent(entry.content, &packed);
  }
  return packed;
}

std::vector<Entry> UnpackDirectory(ByteReader* reader) {
  std::vector<Entry> entries;
  while (!reader->AtEnd() && entries.size() < kMostEntries) {
    Entry entry;
    entry.name = Harmless(reader->Bytes(static_cast<std::size_t>(reader->Number(1))));
    const auto size = static_cast<std::size_t>(reader->Number(4));
    entry.content = UnpackContent(size, reader);
    entries.push_back(std::move(entry));
  }
  return entries;
}

std::vector<Entry> ReadDirectory(const std::string& path) {
  std::vector<Entry> entries;
  for (const fs::directory_entry& found : fs::directory_iterator(path)) {
    const std::string name = found.path().filename().string();
    const bool isLock = name.size() > 5 && name.compare(name.size() - 5, 5, "-lock") == 0;
    if (fs::is_regular_file(found.symlink_status()) && !isLock) {
      entries.push_back({name, zefs::test::BytesOf(found.path())});
    }
  }
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.name < b.name; });
  return entries;
}

void WriteDirectory(const std::vector<Entry>& entries, const std::string& path) {
  fs::create_directories(path);
  for (const Entry& entry : entries) {
    WriteFile(path + '/' + entry.name, reinterpret_cast<const std::uint8_t*>(entry.content.data()),
              entry.content.size());
  }
}

}  // namespace zefs::fuzz
