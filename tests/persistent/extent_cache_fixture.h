#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tests/persistent/persistent_fixture.h"

namespace zefs::test {

/// One cached extent: its key `eOff` and every field of its record.
struct Cached {
  long sOff = 0;
  long eOff = 0;
  std::uint64_t dcid = 0;
  crfp_digest_t fp{};
  std::uint8_t attrByte = 0;
  std::uint32_t attrWord = 0;
  std::uint8_t attrFlag = 0;
  std::int32_t objectOffset = 0;
  std::int32_t dcOffset = -1;
  bool gapsAreZero = true;

  auto Fields() const {
    return std::tie(sOff, eOff, dcid, fp, attrByte, attrWord, attrFlag, objectOffset, dcOffset,
                    gapsAreZero);
  }
  bool operator==(const Cached& other) const { return Fields() == other.Fields(); }
};

inline std::ostream& operator<<(std::ostream& out, const Cached& extent) {
  return out << '[' << extent.sOff << ", " << extent.eOff << ") of " << extent.dcid << " from "
             << extent.objectOffset << " tag " << static_cast<int>(extent.fp[0]) << " attributes "
             << static_cast<int>(extent.attrByte) << ' ' << extent.attrWord << ' '
             << static_cast<int>(extent.attrFlag) << " container offset " << extent.dcOffset
             << (extent.gapsAreZero ? "" : " with stray bytes");
}

/// The entry that a write leaves.
inline Cached Written(long sOff, long eOff, const DataCacheNode::ObjectID& oid,
                      std::int32_t objectOffset = 0, std::int32_t dcOffset = -1) {
  return {sOff,         eOff,         oid.dcid,     oid.fp,   oid.attrByte,
          oid.attrWord, oid.attrFlag, objectOffset, dcOffset, true};
}

/// What stays of an entry after a cut: the byte and the flag attribute are gone.
inline Cached Piece(long sOff, long eOff, const DataCacheNode::ObjectID& oid,
                    std::int32_t objectOffset = 0, std::int32_t dcOffset = -1) {
  Cached piece = Written(sOff, eOff, oid, objectOffset, dcOffset);
  piece.attrByte = 0;
  piece.attrFlag = 0;
  return piece;
}

inline bool AllZero(const std::uint8_t* bytes, std::size_t count) {
  return std::all_of(bytes, bytes + count, [](std::uint8_t byte) { return byte == 0; });
}

inline std::vector<Cached> CachedIn(
    const std::map<long, Aldenta::Qnd::Morene::Zefs::ExtLMDBEntry>& cache) {
  std::vector<Cached> extents;
  extents.reserve(cache.size());
  for (const auto& [key, entry] : cache) {
    extents.push_back(
        {entry.startOffset, key, entry.dcid, entry.fp, entry.attrByte, entry.attrWord,
         entry.attrFlag, entry.objectOffset, entry.dcOffset,
         AllZero(entry.gap1, sizeof(entry.gap1)) && AllZero(entry.gap2, sizeof(entry.gap2))});
  }
  return extents;
}

/// The text of a log line, made as the table makes it.
__attribute__((format(printf, 1, 2))) inline std::string Text(const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  return text;
}

/// A table that is not loaded, as no write needs more, and what its cache holds.
class ExtentCacheTest : public PersistentTableTest {
 protected:
  using Nodes = std::map<long, void*>;
  using Shares = std::map<void*, std::set<long>>;
  using Pending = std::vector<long>;

  ExtentCacheTest() { Make(); }

  void Write(long sOff, long eOff, const ObjectID& oid, void* node = nullptr, long objOff = 0,
             int dcOffset = -1) {
    EXPECT_EQ(0, table().insert(sOff, eOff, &oid, objOff, 0, node, dcOffset, nullptr));
  }

  /// A node that knows `oid`.
  DataCacheNode* ReadyNode(const ObjectID& oid, std::int32_t dcOffset) {
    DataCacheNode* const node = cache_.NewNode();
    cache_.MakeReady(node, oid, dcOffset);
    return node;
  }

  std::vector<Cached> Extents() { return CachedIn(peer().extCache()); }
  Nodes NodesByKey() { return {peer().extDataPointers().begin(), peer().extDataPointers().end()}; }
  const Shares& SharedNodes() { return peer().sharedDataPointers(); }
  const std::set<void*>& Released() { return peer().toBeReleased(); }

  /// The keys that wait for a flush, by arrival; their count agrees.
  Pending PendingKeys() {
    Pending pending(peer().objList().begin(), peer().objList().end());
    EXPECT_EQ(pending.size(), peer().objListCount());
    return pending;
  }

  /// Forgets the keys that wait and the log lines so far, so that only the next write shows.
  void ForgetSteps() {
    peer().objList().clear();
    peer().objListCount() = 0;
    cache_.asked_.clear();
    log_.Take();
  }
};

// The log lines of a write, in the form of PersistentTableTest::Lines.

inline std::string WriteLine(long sOff, long eOff, long objOff, const void* node) {
  return Text("0 CMappingLMDB::insert2Cache(), start=%lu, end=%lu, offset=%lu, data=%p",
              static_cast<unsigned long>(sOff), static_cast<unsigned long>(eOff),
              static_cast<unsigned long>(objOff), node);
}
inline std::string NoOverlapLine(long start, long key, long sOff, long eOff) {
  return Text("0 current extent is SOff=%ld, EOff=%ld, no overlap with SOff=%ld, EOff=%ld", start,
              key, sOff, eOff);
}
inline std::string AddSharedLine(const void* node, long key) {
  return Text("0 add shared dp %p for offset %ld", node, key);
}
inline std::string RemoveSharedLine(const void* node, long key) {
  return Text("0 remove shared dp %p for offset %ld", node, key);
}
inline std::string ReleaseLine(long key, const void* node) {
  return Text(
      "0 put data pointer for entry %ld to to be released, since it is will be released, dp:%p",
      key, node);
}
inline std::string RemoveLine(long key) {
  return Text("0 remove entry %ld from datapoint map", key);
}
inline std::string RemapLine(long key, long sOff) {
  return Text("0 remap data pointer for entry %ld to entry %ld", key, sOff);
}

}  // namespace zefs::test
