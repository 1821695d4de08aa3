#include "refhost/store/object_store.h"

#include <optional>
#include <string>

#include "refhost/host/sha256.h"
#include "refhost/store/store_error.h"
#include "table/fingerprint.h"

namespace zefs::refhost {

namespace {

std::string NameOf(const DataCacheNode::ObjectID& id) {
  return std::string("object ") + Aldenta::Qnd::Morene::Zefs::TextOf(id.fp).data();
}

}  // namespace

ObjectStore::Stored ObjectStore::Put(std::string_view bytes) {
  return Put(Sha256(bytes.data(), bytes.size()), bytes);
}

ObjectStore::Stored ObjectStore::Put(const crfp_digest_t& fp, std::string_view bytes) {
  std::optional<Location> where = index_.Find(fp);
  if (!where.has_value()) {
    where = containers_.Append(bytes);
    index_.Insert(fp, *where);
  }
  Stored stored{};
  stored.objectID.fp = fp;
  stored.objectID.dcid = where->dcid;
  stored.dcOffset = static_cast<std::int32_t>(where->offset);
  putBytes_ += bytes.size();
  return stored;
}

Location ObjectStore::Locate(const DataCacheNode::ObjectID& id) const {
  const std::optional<Location> where = index_.Find(id.fp);
  if (!where.has_value()) {
    throw DamageError(NameOf(id) + " is not stored");
  }
  if (where->dcid != id.dcid && !byFingerprint_) {
    throw DamageError(NameOf(id) + " is looked for in container " + std::to_string(id.dcid) +
                      " but lies in " + std::to_string(where->dcid));
  }
  return *where;
}

void ObjectStore::Read(const DataCacheNode::ObjectID& id, std::int64_t objOff, std::uint32_t size,
                       char* out) const {
  const Location where = Locate(id);
  if (objOff < 0 || objOff + size > where.length) {
    throw DamageError(NameOf(id) + " has " + std::to_string(where.length) + " bytes; [" +
                      std::to_string(objOff) + ", " + std::to_string(objOff + size) +
                      ") of it are wanted");
  }
  containers_.Read(where, static_cast<std::uint32_t>(objOff), size, out);
}

void ObjectStore::Read(const DataCacheNode::ObjectID& id, std::int32_t dcOffset,
                       std::int64_t objOff, std::uint32_t size, char* out) const {
  if (dcOffset < 0 || byFingerprint_) {
    Read(id, objOff, size, out);
    return;
  }
  const Location begin{id.dcid, static_cast<std::uint32_t>(dcOffset), 0};
  containers_.Read(begin, static_cast<std::uint32_t>(objOff), size, out);
}

}  // namespace zefs::refhost
