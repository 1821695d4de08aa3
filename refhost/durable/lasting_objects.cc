#include "refhost/durable/lasting_objects.h"

#include <string>

#include "refhost/host/sha256.h"
#include "refhost/store/store_error.h"
#include "table/fingerprint.h"

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

void LastingObjects::SetByFingerprint(bool set) {
  const std::lock_guard<std::mutex> lock(mutex_);
  objects_.SetByFingerprint(set);
}

bool LastingObjects::byFingerprint() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return objects_.byFingerprint();
}

std::optional<Location> LastingObjects::Find(const crfp_digest_t& fp) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return index_.Find(fp);
}

void LastingObjects::ForEach(
    const std::function<void(const crfp_digest_t& fp, const Location& where)>& take) {
  const std::lock_guard<std::mutex> lock(mutex_);
  containers_.Sync();
  index_.Commit();
  index_.ForEach(take);
}

std::map<std::uint64_t, std::uint64_t> LastingObjects::ContainerSizes() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return containers_.Sizes();
}

std::optional<std::uint64_t> LastingObjects::writing() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return containers_.writing();
}

void LastingObjects::Drop(const std::vector<crfp_digest_t>& fps,
                          const std::vector<std::uint64_t>& dcids) {
  const std::lock_guard<std::mutex> lock(mutex_);
  containers_.Sync();
  index_.Remove(fps);
  containers_.Remove(dcids);
}

void LastingObjects::BeginContainer() {
  const std::lock_guard<std::mutex> lock(mutex_);
  containers_.BeginAnother();
}

std::uint32_t LastingObjects::Move(const crfp_digest_t& fp) {
  const std::string object = std::string("object ") + Aldenta::Qnd::Morene::Zefs::TextOf(fp).data();
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::optional<Location> where = index_.Find(fp);
  if (!where.has_value()) {
    throw DamageError(object + " is not stored");
  }
  std::string bytes(where->length, '\0');
  containers_.Read(*where, 0, where->length, bytes.data());
  if (const crfp_digest_t found = Sha256(bytes.data(), bytes.size()); found != fp) {
    throw DamageError(object + " has the fingerprint " +
                      Aldenta::Qnd::Morene::Zefs::TextOf(found).data());
  }
  index_.Replace(fp, containers_.Append(bytes));
  return where->length;
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
