#pragma once

#include <cstdint>
#include <string_view>

#include "host/data_cache.h"
#include "refhost/store/container_store.h"
#include "refhost/store/dedup_index.h"

namespace zefs::refhost {

/// Pieces of data by what they contain: each is fingerprinted, and stored only if no equal one is.
/// Not synchronised.
class ObjectStore {
 public:
  struct Stored {
    DataCacheNode::ObjectID objectID;
    std::int32_t dcOffset;  ///< offset of the object inside its container
  };

  /// Neither is owned; both outlive this object.
  ObjectStore(ContainerStore* containers, ObjectIndex* index)
      : containers_(*containers), index_(*index) {}

  /// Stores `bytes`, not empty, at most kMaxSegmentSize. Throws StoreError.
  Stored Put(std::string_view bytes);

  /// The same for bytes whose fingerprint is known.
  Stored Put(const crfp_digest_t& fp, std::string_view bytes);

  /// Reads [objOff, objOff + size) of an object into `out`. The object is found by its fingerprint.
  /// Throws DamageError if there is none in the container that `id` names, if it is shorter, or if
  /// that container is gone or cut, and StoreError if it cannot be read.
  void Read(const DataCacheNode::ObjectID& id, std::int64_t objOff, std::uint32_t size,
            char* out) const;

  /// The same for an object that is known to begin at `dcOffset` of its container: no index is
  /// asked, and its length is not known. A negative offset is none.
  void Read(const DataCacheNode::ObjectID& id, std::int32_t dcOffset, std::int64_t objOff,
            std::uint32_t size, char* out) const;

  /// Where the object is stored. Throws DamageError as Read.
  Location Locate(const DataCacheNode::ObjectID& id) const;

  /// While this is set, where an object lies is taken from the index alone: neither the container
  /// that an id names nor an offset counts.
  void SetByFingerprint(bool set) { byFingerprint_ = set; }
  bool byFingerprint() const { return byFingerprint_; }

  std::uint64_t putBytes() const { return putBytes_; }  ///< given to Put, duplicates included
  std::uint64_t storedBytes() const { return containers_.storedBytes(); }

 private:
  ContainerStore& containers_;
  ObjectIndex& index_;
  std::uint64_t putBytes_ = 0;
  bool byFingerprint_ = false;
};

}  // namespace zefs::refhost
