#pragma once

#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "table/mapping_table.h"
#include "table/tree_iterator.h"
#include "table/tree_nodes.h"
#include "tests/support/oid.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Reaches what the table keeps to itself.
struct MappingTableTestPeer {
  explicit MappingTableTestPeer(CMappingTable& t) : table(t) {}

  CMapNode*& rroot() { return table.rroot_; }
  CMapNode*& wroot() { return table.wroot_; }
  std::int64_t rsize() const { return table.rsize_; }
  std::int64_t wsize() const { return table.wsize_; }
  std::vector<Key*>& dirtyKeys() { return table.dirtyKeys_; }
  std::vector<CMapNode*>& dirtyNodes() { return table.dirtyNodes_; }
  std::set<CMapNode*>& oldNodes() { return table.oldNodes_; }
  DcidReferences& dcids() { return table.refsByDcid_; }
  FingerprintReferences& fps() { return table.refsByFp_; }
  std::list<zefs::DataCacheNode*>& writingNodes() { return table.writingNodes_; }
  std::uint64_t& writingNodesCount() { return table.writingNodesCount_; }
  boost::shared_mutex& lock() { return table.tableLock_; }
  void FreeOldNodes() { table.FreeOldNodes(); }
  void SetSize(std::int64_t size) { table.rsize_ = table.wsize_ = size; }

  CMappingTable& table;
};

}  // namespace Aldenta::Qnd::Morene::Zefs

namespace zefs::test {

namespace lib = Aldenta::Qnd::Morene::Zefs;

/// What a test compares of an extent: its range, its place in the object, its container.
struct Seen {
  long sOff;
  long eOff;
  long objOff;
  std::uint64_t dcid;

  bool operator==(const Seen& other) const {
    return sOff == other.sOff && eOff == other.eOff && objOff == other.objOff && dcid == other.dcid;
  }
};

inline std::ostream& operator<<(std::ostream& out, const Seen& seen) {
  return out << '[' << seen.sOff << ", " << seen.eOff << ", " << seen.objOff << "] dc "
             << seen.dcid;
}

inline Seen SeenOf(const lib::Ext& ext) {
  return Seen{ext.sOff, ext.eOff, ext.objOff, ext.objectID.dcid};
}

/// The extents of a table, by its iterators.
inline std::vector<Seen> Forward(lib::CMappingTable& table) {
  std::vector<Seen> seen;
  const auto end = table.end();
  for (auto it = table.begin(); it != end; ++it) {
    seen.push_back(SeenOf(*it));
  }
  return seen;
}

/// The extents below a node, by the keys.
inline void ByKeys(lib::CMapNode* node, bool writerView, std::vector<Seen>* seen) {
  if (!node->isKeyNode()) {
    for (const lib::Ext& ext : static_cast<lib::CExtNode*>(node)->extents) {
      seen->push_back(SeenOf(ext));
    }
    return;
  }
  for (const lib::Key& key : static_cast<lib::CKeyNode*>(node)->keys) {
    ByKeys(writerView ? key.wnode : key.rnode, writerView, seen);
  }
}

/// The leaves below a node of the reader's view, from left to right.
inline void Leaves(lib::CMapNode* node, std::vector<lib::CExtNode*>* leaves) {
  if (!node->isKeyNode()) {
    leaves->push_back(static_cast<lib::CExtNode*>(node));
    return;
  }
  for (const lib::Key& key : static_cast<lib::CKeyNode*>(node)->keys) {
    Leaves(key.rnode, leaves);
  }
}

/// A stream in memory for `trace` arguments.
class TraceFile {
 public:
  TraceFile() : file_(open_memstream(&text_, &size_)) {}
  ~TraceFile() {
    std::fclose(file_);
    std::free(text_);
  }
  TraceFile(const TraceFile&) = delete;
  TraceFile& operator=(const TraceFile&) = delete;

  FILE* get() { return file_; }
  std::string text() {
    std::fflush(file_);
    return std::string(text_, size_);
  }

 private:
  char* text_ = nullptr;
  std::size_t size_ = 0;
  FILE* file_;
};

/// A table in memory, and shorthands for writing to it.
class TableTest : public testing::Test {
 protected:
  void Append(long sOff, long eOff, const lib::ObjectID& oid = Oid(64), long objOff = 0) {
    ASSERT_EQ(0, table_.append(sOff, eOff, &oid, objOff, 0, nullptr, nullptr));
  }
  void Insert(long sOff, long eOff, const lib::ObjectID& oid = Oid(64), long objOff = 0) {
    ASSERT_EQ(0, table_.insert(sOff, eOff, &oid, objOff, 0, nullptr, -1, nullptr));
  }
  /// `count` extents of `length` bytes, one every `step` bytes, from `step` on.
  void AppendRow(int count, long step = 10, long length = 10) {
    for (long i = 1; i <= count; ++i) {
      Append(i * step, i * step + length, Oid(64), i);
    }
  }

  bool Holds(const lib::CMappingTable::iterator& it, long sOff, long eOff) {
    return it != table_.end() && it->sOff == sOff && it->eOff == eOff;
  }

  /// Everything that holds between two changes, but for what depends on the history.
  void ExpectSound() {
    EXPECT_TRUE(peer_.rroot()->checkNode(true));
    EXPECT_TRUE(peer_.dirtyKeys().empty());
    EXPECT_TRUE(peer_.dirtyNodes().empty());
    EXPECT_TRUE(peer_.oldNodes().empty());
    EXPECT_EQ(peer_.rroot(), peer_.wroot());
    EXPECT_EQ(peer_.rsize(), peer_.wsize());
    std::vector<Seen> byKeys;
    ByKeys(peer_.rroot(), false, &byKeys);
    EXPECT_EQ(byKeys, Forward(table_));
    EXPECT_EQ(static_cast<long>(byKeys.size()), table_.size());
  }

  lib::CKeyNode& Root() { return *dynamic_cast<lib::CKeyNode*>(peer_.rroot()); }
  lib::CExtNode& Leaf(std::size_t i) {
    std::vector<lib::CExtNode*> leaves;
    Leaves(peer_.rroot(), &leaves);
    return *leaves.at(i);
  }
  std::vector<int> LeafSizes() {
    std::vector<lib::CExtNode*> leaves;
    Leaves(peer_.rroot(), &leaves);
    std::vector<int> sizes;
    for (lib::CExtNode* leaf : leaves) {
      sizes.push_back(leaf->getItemNum());
    }
    return sizes;
  }

  lib::CMappingTable table_{nullptr};
  lib::MappingTableTestPeer peer_{table_};
};

}  // namespace zefs::test
