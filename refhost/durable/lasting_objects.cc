#include "refhost/durable/lasting_objects.h"

#include "refhost/host/sha256.h"

namespace zefs::refhost {

ObjectStore::Stored LastingObjects::Put(std::string_view bytes) {
  const crfp_digest_t fp = Sha256(bytes.data(), bytes.size());
  const std::lock_guard<std::mutex> lock(mutex_);
  return objects_.Put(fp, bytes);
}

void LastingObjects::Read(const DataCacheNode::ObjectID& id, std::int32_t dcOffset,
                          std::int64_t objOff, std::uint32_t size, char* out) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  objects_.Read(id, dcOffset, objOff, size, out);
}

OpenContainer LastingObjects::Open(std::uint64_t dcid) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return containers_.Open(dcid);
}

Location LastingObjects::Locate(const DataCacheNode::ObjectID& id) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return objects_.Locate(id);
}

void LastingObjects::MakeDurable() {
  const std::lock_guard<std::mutex> lock(mutex_);
  containers_.Sync();
  index_.Commit();
}

std::uint64_t LastingObjects::putBytes() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return objects_.putBytes();
}

std::uint64_t LastingObjects::storedBytes() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return objects_.storedBytes();
}

std::uint64_t LastingObjects::containers() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return containers_.containers();
}

std::size_t LastingObjects::objects() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return index_.size();
}

}  // namespace zefs::refhost
