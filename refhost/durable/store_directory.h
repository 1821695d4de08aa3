#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "refhost/store/file_handle.h"
#include "refhost/store/segmenter.h"

namespace zefs::refhost {

/// What is chosen when a store is made, and holds for all its life.
struct StoreFormat {
  std::uint64_t segmentSize = kDefaultSegmentSize;
  std::string tableType = "PROVISION";
  std::vector<std::string> volumes;  ///< real paths; empty: the tables lie in the store itself
  std::string id;                    ///< tells the tables of this store from others on its volumes
};

/// What a caller asks for: a new store gets it, one that is there has to have it.
struct WantedFormat {
  std::optional<std::uint64_t> segmentSize;
  std::optional<std::string> tableType;
  std::vector<std::string> volumes;  ///< directories that are there; empty: whatever there is
};

// A table is known by a number of its own and, above that, the volume on which it lies: 0 to 65535,
// always 0 in a store without volumes.
inline constexpr unsigned int kVolumeShift = 48;
constexpr std::uint64_t TableOn(std::size_t volume, std::uint64_t number) {
  return std::uint64_t{volume} << kVolumeShift | number;
}
constexpr std::size_t VolumeOf(std::uint64_t table) {
  return table >> kVolumeShift;
}
constexpr std::uint64_t NumberOf(std::uint64_t table) {
  return table & ((std::uint64_t{1} << kVolumeShift) - 1);
}

/// Why `type` is no type of tables, in one line; empty if it is one.
std::string TableTypeProblem(const std::string& type);

/// The directory of a store that lasts: where everything lies, and the lock that keeps it to one
/// process.
///
///   format            what the store is, in text
///   reads             what reading ahead has come to, in text
///   lock              locked while a process has the store open
///   index.mdb         objects by fingerprint
///   catalogue.mdb     files by name
///   compacting        there while a compaction is unfinished
///   containers/ID     data
///   tables/NUMBER/    the extent map of one version of a file
///
/// A store with volumes has its tables in VOLUME/zefs-ID/NUMBER/ instead.
class StoreDirectory {
 public:
  enum class Missing { kIsAnError, kIsMade };

  /// Opens the store at `path`; with kIsMade makes one where there is nothing or an empty
  /// directory. Throws StoreError if it is no store, of another format than wanted, or in use, and
  /// std::invalid_argument for a format that there is not. A volume that is not there is a
  /// StoreError: a table that is missing would be taken for an empty one.
  StoreDirectory(std::string path, Missing missing, const WantedFormat& wanted = {});

  const std::string& path() const { return path_; }
  std::string index() const { return path_ + "/index.mdb"; }
  std::string catalogue() const { return path_ + "/catalogue.mdb"; }
  std::string compacting() const { return path_ + "/compacting"; }
  std::string containers() const { return path_ + "/containers"; }
  std::string readRecord() const { return path_ + "/reads"; }

  /// Where the tables of a volume lie, and where a table does.
  std::string tables(std::size_t volume = 0) const;
  std::string table(std::uint64_t table) const {
    return tables(VolumeOf(table)) + "/" + std::to_string(NumberOf(table));
  }
  /// At least 1: a store without volumes counts as one.
  std::size_t volumes() const;

  /// The volume for a new table of the file `name`: as the library spreads tables, which depends on
  /// the name and on how full the volumes are. For one thread at a time.
  std::size_t VolumeFor(const std::string& name) const;

  const StoreFormat& format() const { return format_; }

 private:
  void MakeDirectory(const std::string& path) const;
  void RequireVolumes() const;
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
