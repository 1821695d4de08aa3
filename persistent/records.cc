#include "persistent/records.h"

#include <algorithm>
#include <cstring>

#include "host/zefs_log.h"
#include "persistent/ext_lmdb.h"

namespace Aldenta::Qnd::Morene::Zefs {

void ExtLMDBEntry::FillExtLMDBEntry(long start, const ObjectID* id, long objectOff, int dcOff) {
  startOffset = start;
  if (id != nullptr) {
    UpdateObjectID(*id);
  } else {
    dcid = 0;
  }
  objectOffset = static_cast<std::int32_t>(objectOff);
  dcOffset = dcOff;
}

void ExtLMDBEntry::UpdateObjectID(const ObjectID& id) {
  dcid = id.dcid;
  fp = id.fp;
  attrByte = id.attrByte;
  attrWord = id.attrWord;
  attrFlag = id.attrFlag;
}

void ExtLMDBEntry::ModifyObjectOffset(long delta) {
  objectOffset = static_cast<std::int32_t>(static_cast<std::uint32_t>(objectOffset) +
                                           static_cast<std::uint32_t>(delta));
}

ObjectID ExtLMDBEntry::GetObjectID() const {
  return {dcid, fp, attrByte, attrWord, attrFlag};
}

void ExtLMDBEntry::FillExtLMDB(ExtLMDB* out, long end, void* data, CMappingLMDB* owner) const {
  out->setObjectID(GetObjectID());
  out->setObjOff(objectOffset);
  out->setSOff(startOffset);
  out->setData(data);
  out->setObjCksum(0);
  out->setEOff(end);
  out->setDCOffset(dcOffset);
  out->owner_ = owner;
  ZEFS_LOG(zefs::kLogTrace,
           "CMappingLMDB::ExtLMDBEntry::FillExtLMDB(), start=%llu, end=%llu, dcid=%llu, "
           "offset=%llu, data=%p",
           static_cast<unsigned long long>(startOffset), static_cast<unsigned long long>(end),
           static_cast<unsigned long long>(dcid),
           static_cast<unsigned long long>(static_cast<std::int64_t>(objectOffset)), data);
}

ExtLMDBEntry PieceFrom(const ExtLMDBEntry& entry, long start) {
  ExtLMDBEntry piece = entry;
  piece.startOffset = start;
  piece.ModifyObjectOffset(static_cast<long>(static_cast<std::uint64_t>(start) -
                                             static_cast<std::uint64_t>(entry.startOffset)));
  piece.attrByte = 0;
  piece.attrFlag = 0;
  return piece;
}

int LMDBKeyCompare(const MDB_val* a, const MDB_val* b) {
  const std::int64_t left = ReadKey(*a);
  const std::int64_t right = ReadKey(*b);
  return left > right ? 1 : (left == right ? 0 : -1);
}

std::int64_t ReadKey(const MDB_val& key) {
  std::int64_t number;
  std::memcpy(&number, key.mv_data, sizeof(number));
  return number;
}

ExtLMDBEntry ReadRecord(const MDB_val& value) {
  ExtLMDBEntry entry{};
  if (value.mv_size >= sizeof(entry)) {
    std::memcpy(&entry, value.mv_data, sizeof(entry));  // of a fixed size: a few moves
  } else if (value.mv_size != 0) {
    std::memcpy(&entry, value.mv_data, value.mv_size);
  }
  return entry;
}

SpecialValue::SpecialValue(const MDB_val& value) {
  std::memcpy(bytes_.data(), value.mv_data, std::min(value.mv_size, bytes_.size()));
}

template <typename T>
void SpecialValue::Store(std::size_t at, const T& field) {
  std::memcpy(bytes_.data() + at, &field, sizeof(field));
}

template <typename T>
T SpecialValue::Load(std::size_t at) const {
  T field;
  std::memcpy(&field, bytes_.data() + at, sizeof(field));
  return field;
}

SpecialValue SpecialValue::OfNumber(std::int64_t number) {
  SpecialValue value;
  value.Store(0, number);
  return value;
}

SpecialValue SpecialValue::OfVersion(ExtMapVersion version) {
  SpecialValue value;
  value.Store(0, version.major);
  value.Store(4, version.minor);
  return value;
}

SpecialValue SpecialValue::OfObjectID(const ObjectID& id) {
  SpecialValue value;
  value.Store(0, id.dcid);
  value.Store(8, id.fp);
  return value;
}

std::int64_t SpecialValue::Number() const {
  return Load<std::int64_t>(0);
}

ExtMapVersion SpecialValue::Version() const {
  return {Load<std::int32_t>(0), Load<std::int32_t>(4)};
}

void SpecialValue::GetObjectID(ObjectID* id) const {
  id->dcid = Load<std::uint64_t>(0);
  id->fp = Load<crfp_digest_t>(8);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
