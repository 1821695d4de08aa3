#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "refhost/store/file_handle.h"

namespace zefs::refhost {

/// Where an object lies: `length` bytes at `offset` in the container `dcid`.
struct Location {
  std::uint64_t dcid;
  std::uint32_t offset;
  std::uint32_t length;
};

/// A container to be read on its own: its bytes below `end` do not change any more.
struct OpenContainer {
  FileHandle file;
  std::int64_t end;
};

inline constexpr std::uint32_t kDefaultContainerBytes = 16 * 1024 * 1024;

/// Append-only container files, named by their id, in one directory. Objects are never changed, and
/// go only with their whole container; one that is full is closed for good and the next one gets
/// the next id. Failures are StoreErrors; a failed append leaves what was stored before as it was
/// and may be tried again. Not synchronised.
class ContainerStore {
 public:
  /// Keeps containers in `directory`, which exists. Ids go on behind the highest one found there,
  /// and start at the first id that may name a container. `containerBytes`, 1 to INT32_MAX, is the
  /// size that a container does not grow beyond; one object that is larger gets a container of its
  /// own.
  explicit ContainerStore(std::string directory,
                          std::uint32_t containerBytes = kDefaultContainerBytes);

  /// Stores `bytes`, not empty and below 4 GiB, and tells where.
  Location Append(std::string_view bytes);

  /// Reads [from, from + size) of the object at `where` into `out`. The range lies inside the
  /// object. Throws DamageError if the container is shorter than that or is gone.
  void Read(const Location& where, std::uint32_t from, std::uint32_t size, char* out) const;

  /// The container opened anew. Throws DamageError if it is gone.
  OpenContainer Open(std::uint64_t dcid) const;

  /// All that was appended is on the disk when this returns. After a failure what was appended
  /// since the last success may be lost.
  void Sync();

  /// What is appended from now on goes to a new container.
  void BeginAnother() { writing_.reset(); }

  /// The container that is appended to, if there is one.
  std::optional<std::uint64_t> writing() const;

  /// Bytes of all containers in the directory, by id.
  std::map<std::uint64_t, std::uint64_t> Sizes() const;

  /// Removes containers for good, but for the one that is appended to: they are gone from the disk
  /// when this returns. Those that are not there are passed over.
  void Remove(const std::vector<std::uint64_t>& dcids);

  std::uint64_t containers() const { return containers_; }    ///< made by this object
  std::uint64_t storedBytes() const { return storedBytes_; }  ///< appended by this object

 private:
  struct KeptOpen {
    std::uint64_t dcid;
    FileHandle file;
  };

  std::string PathOf(std::uint64_t dcid) const;
  KeptOpen& WritableFor(std::size_t bytes);
  const FileHandle& Readable(std::uint64_t dcid) const;

  std::string directory_;
  std::uint32_t containerBytes_;
  std::uint64_t nextDcid_;
  std::uint32_t size_ = 0;  // bytes of the container that is written
  std::uint64_t containers_ = 0;
  std::uint64_t storedBytes_ = 0;
  std::optional<KeptOpen> writing_;
  std::set<std::uint64_t> unsynced_;      // containers that were appended to
  bool namesSynced_ = true;               // of all containers
  mutable std::deque<KeptOpen> reading_;  // a few, the one opened last in front
};

}  // namespace zefs::refhost
