#pragma once

#include <cstdint>
#include <mutex>
#include <string_view>

#include "refhost/index/lasting_index.h"
#include "refhost/store/container_store.h"
#include "refhost/store/object_store.h"

namespace zefs::refhost {

/// The data of a store that lasts: containers, and the index of what is in them. Thread-safe;
/// fingerprints are made beside each other, all else one after another.
class LastingObjects {
 public:
  LastingObjects(const std::string& containers, std::uint32_t containerBytes,
                 const std::string& index)
      : containers_(containers, containerBytes), index_(index), objects_(&containers_, &index_) {}

  /// Fingerprints `bytes` and stores them if nothing equal is stored. Throws StoreError.
  ObjectStore::Stored Put(std::string_view bytes);

  /// As ObjectStore::Read.
  void Read(const DataCacheNode::ObjectID& id, std::int32_t dcOffset, std::int64_t objOff,
            std::uint32_t size, char* out) const;

  /// As ContainerStore::Open.
  OpenContainer Open(std::uint64_t dcid) const;

  /// As ObjectStore::Locate.
  Location Locate(const DataCacheNode::ObjectID& id) const;

  /// What was put is there after a crash: first the containers are synced, then the index is
  /// committed, so that no entry ever refers to bytes that are lost. Cheap if nothing is new.
  void MakeDurable();

  std::uint64_t putBytes() const;
  std::uint64_t storedBytes() const;
  std::uint64_t containers() const;  ///< made by this object
  std::size_t objects() const;       ///< in the index

 private:
  mutable std::mutex mutex_;
  ContainerStore containers_;
  LastingIndex index_;
  ObjectStore objects_;
};

}  // namespace zefs::refhost
