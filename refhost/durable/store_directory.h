#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "refhost/store/file_handle.h"
#include "refhost/store/segmenter.h"

namespace zefs::refhost {

/// What is chosen when a store is made, and holds for all its life.
struct StoreFormat {
  std::uint64_t segmentSize = kDefaultSegmentSize;
  std::string tableType = "PROVISION";
};

/// What a caller asks for: a new store gets it, one that is there has to have it.
struct WantedFormat {
  std::optional<std::uint64_t> segmentSize;
  std::optional<std::string> tableType;
};

/// Why `type` is no type of tables, in one line; empty if it is one.
std::string TableTypeProblem(const std::string& type);

/// The directory of a store that lasts: where everything lies, and the lock that keeps it to one
/// process.
///
///   format            what the store is, in text
///   lock              locked while a process has the store open
///   index.mdb         objects by fingerprint
///   catalogue.mdb     files by name
///   compacting        there while a compaction is unfinished
///   containers/ID     data
///   tables/NUMBER/    the extent map of one version of a file
class StoreDirectory {
 public:
  enum class Missing { kIsAnError, kIsMade };

  /// Opens the store at `path`; with kIsMade makes one where there is nothing or an empty
  /// directory. Throws StoreError if it is no store, of another format than wanted, or in use, and
  /// std::invalid_argument for a format that there is not.
  StoreDirectory(std::string path, Missing missing, const WantedFormat& wanted = {});

  const std::string& path() const { return path_; }
  std::string index() const { return path_ + "/index.mdb"; }
  std::string catalogue() const { return path_ + "/catalogue.mdb"; }
  std::string compacting() const { return path_ + "/compacting"; }
  std::string containers() const { return path_ + "/containers"; }
  std::string tables() const { return path_ + "/tables"; }
  std::string table(std::uint64_t number) const { return tables() + "/" + std::to_string(number); }

  const StoreFormat& format() const { return format_; }

 private:
  void MakeDirectory(const std::string& path) const;
  void Lock();
  bool IsFresh() const;
  void WriteFormat(const WantedFormat& wanted) const;
  void ReadFormat();
  void Compare(const WantedFormat& wanted) const;
  std::string FormatPath() const { return path_ + "/format"; }

  std::string path_;
  StoreFormat format_;
  std::optional<FileHandle> lock_;
};

}  // namespace zefs::refhost
