#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

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

  /// As ObjectStore::SetByFingerprint.
  void SetByFingerprint(bool set);
  bool byFingerprint() const;

  /// Where the index has the object; nothing if it has not.
  std::optional<Location> Find(const crfp_digest_t& fp) const;

  /// Calls `take` for all objects. `take` does not come back here.
  void ForEach(const std::function<void(const crfp_digest_t& fp, const Location& where)>& take);

  /// Bytes of all containers by id, and the one that is written.
  std::map<std::uint64_t, std::uint64_t> ContainerSizes() const;
  std::optional<std::uint64_t> writing() const;

  /// Forgets the objects `fps`, then removes the containers `dcids`, in this order: no entry of the
  /// index ever refers to a container that is gone. Nothing that is left refers to either. After a
  /// failure it can be done again.
  void Drop(const std::vector<crfp_digest_t>& fps, const std::vector<std::uint64_t>& dcids);

  /// What is stored from now on goes to a new container.
  void BeginContainer();

  /// Copies the object to the container that is written; the index has it there from now on, for
  /// good with MakeDurable. Returns its bytes. Throws DamageError, and leaves it where it is, if it
  /// is not there or does not give its fingerprint.
  std::uint32_t Move(const crfp_digest_t& fp);

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
