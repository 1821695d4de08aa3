#include "refhost/store/object_store.h"

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
  Stored stored{};
  stored.objectID.fp = Sha256(bytes.data(), bytes.size());
  const Location* known = index_.Find(stored.objectID.fp);
  Location where{};
  if (known != nullptr) {
    where = *known;
  } else {
    where = containers_.Append(bytes);
    index_.Insert(stored.objectID.fp, where);
  }
  stored.objectID.dcid = where.dcid;
  stored.dcOffset = static_cast<std::int32_t>(where.offset);
  putBytes_ += bytes.size();
  return stored;
}

void ObjectStore::Read(const DataCacheNode::ObjectID& id, std::int64_t objOff, std::uint32_t size,
                       char* out) const {
  const Location* where = index_.Find(id.fp);
  if (where == nullptr) {
    throw DamageError(NameOf(id) + " is not stored");
  }
  if (where->dcid != id.dcid) {
    throw DamageError(NameOf(id) + " is looked for in container " + std::to_string(id.dcid) +
                      " but lies in " + std::to_string(where->dcid));
  }
  if (objOff < 0 || objOff + size > where->length) {
    throw DamageError(NameOf(id) + " has " + std::to_string(where->length) + " bytes; [" +
                      std::to_string(objOff) + ", " + std::to_string(objOff + size) +
                      ") of it are wanted");
  }
  containers_.Read(*where, static_cast<std::uint32_t>(objOff), size, out);
}

}  // namespace zefs::refhost
