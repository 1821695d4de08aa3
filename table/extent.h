#pragma once

#include <cstdint>

#include "host/data_cache.h"
#include "support/visibility.h"

// The records that the whole library passes around, and the one ordering of ranges.

namespace Aldenta::Qnd::Morene::Zefs {

class CMapNode;

using ObjectID = zefs::DataCacheNode::ObjectID;

/// Containers have ids from here up; what stands below names no data container.
inline constexpr std::uint64_t kFirstDcid = 64;

/// One extent in memory: the logical range [sOff, eOff) and the data behind it. Held by value in
/// the leaves of the tree and on the stack; the persistent table derives from it. The order of
/// fields and of virtual operations is part of the binary interface.
class ZEFS_EXTMAP_API Ext {
 public:
  /// An all-zero extent without a known container offset.
  Ext() = default;

  /// A null `oid` gives the all-zero object id. `dcOffset` starts at -1.
  Ext(long startOffset, long endOffset, const ObjectID* oid, long objectOffset, long checksum,
      void* node)
      : objCksum(checksum), objOff(objectOffset), sOff(startOffset), eOff(endOffset), data(node) {
    if (oid != nullptr) {
      objectID = *oid;
    }
  }

  /// An extent built only to search with: its range, and nothing else.
  static Ext Probe(long startOffset, long endOffset) {
    return Ext(startOffset, endOffset, nullptr, 0, 0, nullptr);
  }

  /// Copies every field, the node pointer included, without any virtual call.
  Ext(const Ext& other) = default;

  /// Copies every field; the node pointer goes through the virtual setData, so that a derived class
  /// sees each change of it.
  Ext& operator=(const Ext& other) {
    objectID = other.objectID;
    objCksum = other.objCksum;
    objOff = other.objOff;
    sOff = other.sOff;
    eOff = other.eOff;
    dcOffset = other.dcOffset;
    setData(other.data);
    return *this;
  }

  virtual ObjectID getObjectID() { return objectID; }
  virtual void setObjectID(const ObjectID& oid) { objectID = oid; }
  virtual void* getData() { return data; }
  virtual void setData(void* node) { data = node; }
  virtual long getObjCksum() { return objCksum; }
  virtual void setObjCksum(long checksum) { objCksum = checksum; }
  virtual long getObjOff() { return objOff; }
  virtual void setObjOff(long offset) { objOff = offset; }
  virtual long getSOff() { return sOff; }
  virtual void setSOff(long offset) { sOff = offset; }
  virtual long getEOff() { return eOff; }
  virtual void setEOff(long offset) { eOff = offset; }
  virtual int getDCOffset() { return dcOffset; }
  virtual void setDCOffset(int offset) { dcOffset = offset; }

  /// Writes a changed extent back to where it came from. Nothing to do for an extent of the tree,
  /// which is the stored one. Returns 0.
  virtual int update() { return 0; }

  /// Never releases what `data` points to.
  virtual ~Ext() { data = nullptr; }

  ObjectID objectID;
  std::int64_t objCksum = 0;  ///< checksum word of the writer, 0 where it has none
  std::int64_t objOff = 0;    ///< offset of the range inside the object, bytes
  std::int64_t sOff = 0;      ///< logical start offset, included
  std::int64_t eOff = 0;      ///< logical end offset, not included
  void* data = nullptr;  ///< data-cache node that holds the range in memory, or null; not owned
  std::int32_t dcOffset = -1;  ///< offset inside the data container, -1 while not known
};

/// Bytes of the range of `ext`; wraps around below zero like the counts that it goes into.
inline unsigned long LengthOf(const Ext& ext) {
  return static_cast<unsigned long>(ext.eOff) - static_cast<unsigned long>(ext.sOff);
}

/// One entry of an interior tree node: the range of a child, and the child as readers and as the
/// writer see it.
struct Key {
  std::int64_t sOff;
  std::int64_t eOff;
  CMapNode* rnode;
  CMapNode* wnode;
};

/// What a journal record does with its extent.
enum op_t : std::uint32_t { ADD = 0, DEL = 1 };

/// The journal's record of one extent.
struct Extent {
  std::uint64_t tag;
  std::int64_t start;   ///< the extent's sOff
  std::int64_t end;     ///< the extent's eOff
  std::int64_t offset;  ///< the extent's objOff
  std::uint64_t dcid;
  crfp_digest_t fp;
  op_t op;
};

/// What a flush learnt about one extent.
struct ObjectIDAndDCOff {
  ObjectID objectID;
  std::int32_t dcOffset = -1;
};

/// One entry of the list of nodes that are still being written.
struct DataCacheNodePointerWithStatus {
  zefs::DataCacheNode* node = nullptr;
  std::int32_t status = 0;  ///< what GetNodeObjectID returned
  ObjectID objectID;        ///< filled by the same call
};

/// Whether [aStart, aEnd) comes before [bStart, bEnd). A range that covers the other is neither
/// less nor greater, which is what lets a one-byte probe find the extent around it; disjoint and
/// touching ranges order by position. Two ranges that overlap without either covering the other are
/// less than each other in both directions: this is no strict weak order, and it is only applied
/// between stored extents, which never overlap, and between a stored extent and a probe of one byte
/// or the exact range of a stored extent.
inline bool RangeLess(std::int64_t aStart, std::int64_t aEnd, std::int64_t bStart,
                      std::int64_t bEnd) {
  if (aStart <= bStart && bEnd <= aEnd) {
    return false;
  }
  if (bStart <= aStart && aEnd <= bEnd) {
    return false;
  }
  return aStart < bEnd;
}

/// RangeLess of two extents and of two keys. They read the fields and call no virtual operation.
inline bool compareExt(const Ext& a, const Ext& b) {
  return RangeLess(a.sOff, a.eOff, b.sOff, b.eOff);
}
inline bool compareKey(const Key& a, const Key& b) {
  return RangeLess(a.sOff, a.eOff, b.sOff, b.eOff);
}

// Sizes that other binaries and the memory figures rely on.
static_assert(sizeof(Ext) == 112, "size of an extent");
static_assert(sizeof(Key) == 32, "size of an interior key");
static_assert(sizeof(Extent) == 80, "size of a journal record");

}  // namespace Aldenta::Qnd::Morene::Zefs
