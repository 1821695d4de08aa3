#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

#include <boost/filesystem/path.hpp>

#include "fuzz/table_directory/lmdb_layout.h"
#include "tests/support/file_bytes.h"

// A database file of LMDB whose bytes a test changes: pages, their nodes, and the two meta pages.

namespace zefs::test {

class DamagedDatabase {
 public:
  explicit DamagedDatabase(boost::filesystem::path file)
      : file_(std::move(file)), bytes_(BytesOf(file_)) {}

  /// Writes the file.
  void Store() const { WriteBytes(file_, bytes_); }

  std::size_t Pages() const { return bytes_.size() / fuzz::kPageBytes; }

  std::uint64_t Get(std::size_t page, const fuzz::Field& field) const {
    return At(page * fuzz::kPageBytes + field.at, field.width);
  }
  void Set(std::size_t page, const fuzz::Field& field, std::uint64_t number) {
    SetAt(page * fuzz::kPageBytes + field.at, field.width, number);
  }

  /// A field of both meta pages; `inMeta` is where its part of the page begins.
  void SetMeta(std::size_t inMeta, const fuzz::Field& field, std::uint64_t number) {
    for (const std::size_t page : {0U, 1U}) {
      Set(page, {inMeta + field.at, field.width}, number);
    }
  }

  /// The leaf with the largest first key, other than the only one.
  std::size_t LastLeaf() const {
    std::size_t last = 0;
    std::size_t leaves = 0;
    for (std::size_t page = 2; page < Pages(); ++page) {
      if (Get(page, fuzz::kPageFlags) == fuzz::kLeafPage && Get(page, fuzz::kPageNumber) == page) {
        ++leaves;
        if (last == 0 || FirstKey(page) > FirstKey(last)) {
          last = page;
        }
      }
    }
    if (leaves < 2) {
      throw std::logic_error("a tree of several leaves is wanted");
    }
    return last;
  }
  std::int64_t FirstKey(std::size_t leaf) const {
    return static_cast<std::int64_t>(At(FirstNode(leaf) + fuzz::kNodeHeaderBytes, 8));
  }
  void SetFirstKey(std::size_t leaf, std::int64_t key) {
    SetAt(FirstNode(leaf) + fuzz::kNodeHeaderBytes, 8, static_cast<std::uint64_t>(key));
  }

 private:
  std::size_t FirstNode(std::size_t leaf) const {
    const std::size_t page = leaf * fuzz::kPageBytes;
    return page + static_cast<std::size_t>(At(page + fuzz::kPageHeaderBytes, 2));
  }
  std::uint64_t At(std::size_t at, std::size_t width) const {
    std::uint64_t number = 0;
    std::memcpy(&number, bytes_.substr(at, width).data(), width);
    return number;
  }
  void SetAt(std::size_t at, std::size_t width, std::uint64_t number) {
    bytes_.replace(at, width, reinterpret_cast<const char*>(&number), width);
  }

  boost::filesystem::path file_;
  std::string bytes_;
};

}  // namespace zefs::test
