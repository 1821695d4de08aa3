#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A table directory as one string of bytes, so that a corpus is made of files and any mutation of
// them is an input again.

namespace zefs::fuzz {

/// Bytes with a place to read from. Whatever is read behind the end is zero or empty.
class ByteReader {
 public:
  ByteReader(const std::uint8_t* data, std::size_t size) : at_(data), left_(size) {}

  bool AtEnd() const { return left_ == 0; }
  std::uint64_t Number(std::size_t width);  ///< the lowest byte first
  std::string Bytes(std::size_t size);

 private:
  const std::uint8_t* at_;
  std::size_t left_;
};

void AppendNumber(std::string* out, std::uint64_t number, std::size_t width);

/// One entry of a directory.
struct Entry {
  std::string name;
  std::string content;
};

/// Entry after entry: the length of the name (1 byte) and the name, the length of the file (4
/// bytes), then runs, each a number of zeros (2 bytes), a number of bytes (2 bytes) and those
/// bytes, until the file is full or a run is empty; the rest is zeros.
std::string PackDirectory(const std::vector<Entry>& entries);

/// Any bytes are a directory: names are made harmless, files cut at 4 MiB, and there are at
/// most 16.
std::vector<Entry> UnpackDirectory(ByteReader* reader);

/// The regular files of a directory by name, without lock files.
std::vector<Entry> ReadDirectory(const std::string& path);

/// Makes the directory and the files in it.
void WriteDirectory(const std::vector<Entry>& entries, const std::string& path);

}  // namespace zefs::fuzz
