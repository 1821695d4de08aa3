#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include "support/visibility.h"
#include "table/extent.h"

namespace Aldenta::Qnd::Morene::Zefs {

class CMappingTable;

/// A node of the tree, one heap object each. The tree has two views at once: readers go from the
/// table's rroot_ through Key::rnode, the writer from wroot_ through Key::wnode. A clean node is
/// visible to readers: its items are not altered, and a change works on a shadow instead. A dirty
/// node belongs to the running change, is listed in the table's dirtyNodes_, and is altered in
/// place.
///
/// A child talks to its parent through `out`: what it has to say goes behind whatever stands there.
///
/// All operations run under the table lock: exclusive for those that change, shared for the others.
/// The order of the virtual operations is part of the binary interface.
class ZEFS_EXTMAP_API CMapNode {
 public:
  explicit CMapNode(bool isDirty) : dirty(isDirty) { ++count_; }
  CMapNode(const CMapNode&) = delete;
  CMapNode& operator=(const CMapNode&) = delete;

  /// Frees this node, never its children.
  virtual ~CMapNode() { --count_; }

  /// Adds `ext`, which overlaps nothing, in the writer's view. Result 0: this node stands where it
  /// stood, and `*out` gets any new node that has to come to its right. Result 1: a shadow takes
  /// its place, which comes last in `*out`, behind any new right sibling.
  virtual int addExt(CMappingTable* table, const Ext& ext, std::vector<CMapNode*>* out) = 0;

  /// Adds `ext` behind everything, in place in the reader's view. `*out` gets any new node that has
  /// to come to the right of this one. Returns 0.
  virtual int appendExt(CMappingTable* table, const Ext& ext, std::vector<CMapNode*>* out) = 0;

  /// Removes the stored extent that has exactly this range, in the writer's view. `*out` stays
  /// empty if this node stands in place and needs no repair; otherwise it gets the node as it now
  /// is: a shadow, or this node if it is below its minimum. The result says nothing: callers go by
  /// `*out`.
  virtual int deleteExt(CMappingTable* table, long sOff, long eOff,
                        std::vector<CMapNode*>* out) = 0;

  /// The leaf and index of the first extent that ends above `offset`, in the reader's view; null,
  /// with `*index` untouched, if there is none.
  virtual CMapNode* lower_bound(long offset, int* index) = 0;

  virtual bool isKeyNode() = 0;

  /// Start of the first item and end of the last; 0 when the node is empty.
  virtual long getStartOffset() = 0;
  virtual long getEndOffset() = 0;

  virtual bool hasEnoughItems() = 0;   ///< no underflow
  virtual bool canBorrowItem() = 0;    ///< can give an item away and still has enough
  virtual bool hasTooManyItems() = 0;  ///< has to split

  /// Moves `count` items of `from`, starting at `fromIndex`, in front of this node's item
  /// `toIndex`. Returns true. If `from` is null or of the other kind, a key node returns false and
  /// a leaf throws SysException(kErrInternal).
  virtual bool moveItems(CMapNode* from, int fromIndex, int toIndex, int count) = 0;

  virtual int getItemNum() = 0;

  /// Makes this node part of the reader's view.
  virtual void consist() = 0;

  /// A dirty copy of this clean node, entered in the table's dirtyNodes_, with this node entered in
  /// oldNodes_.
  virtual CMapNode* shadow(CMappingTable* table) = 0;

  /// Whether this node and everything below it are sound. The first finding goes to standard
  /// output.
  virtual bool checkNode(bool isRoot) = 0;

  /// Prints the extents and keys of the subtree, indented by 3 blanks a level, to `file`, or to
  /// standard output if that is null.
  virtual void dump(int level, bool writerView, FILE* file) = 0;

  /// Frees the subtree of the reader's view, this node included.
  virtual void deleteTree() = 0;

  /// Bytes reserved by the subtree of the reader's view; adds its nodes and item slots to the two
  /// counters.
  virtual long getTreeSize(long* nodes, long* slots) = 0;

  /// Adds the reserved bytes, nodes and item slots of both views of the subtree to the counters.
  virtual void GetSize(unsigned long* bytes, unsigned long* keyNodes, unsigned long* keySlots,
                       unsigned long* extNodes, unsigned long* extSlots) = 0;

  bool dirty;  ///< new or a shadow in the running change

  /// Live nodes of all tables. Neither atomic nor guarded: with tables in several threads it is an
  /// estimate.
  static std::int64_t count_;
};

/// An interior node: the ranges of its children, in order.
class ZEFS_EXTMAP_API CKeyNode : public CMapNode {
 public:
  /// An empty node with room for one key more than it may keep.
  explicit CKeyNode(bool isDirty);

  /// A new root over `children`. Reserves nothing.
  CKeyNode(std::vector<CMapNode*>* children, bool isDirty);

  /// Nodes get memory of a size that nothing else here asks for. An allocator that gives out by
  /// size what was freed last then hands a node and its array, freed together, out together again:
  /// they stay side by side, as they were made.
  static void* operator new(std::size_t size);
  static void operator delete(void* node);

  int addExt(CMappingTable* table, const Ext& ext, std::vector<CMapNode*>* out) override;
  int appendExt(CMappingTable* table, const Ext& ext, std::vector<CMapNode*>* out) override;
  int deleteExt(CMappingTable* table, long sOff, long eOff, std::vector<CMapNode*>* out) override;
  CMapNode* lower_bound(long offset, int* index) override;
  bool isKeyNode() final { return true; }
  long getStartOffset() override { return keys.empty() ? 0 : keys.front().sOff; }
  long getEndOffset() override { return keys.empty() ? 0 : keys.back().eOff; }
  bool hasEnoughItems() final { return keys.size() >= kMinKeys; }
  bool canBorrowItem() final { return keys.size() > kMinKeys; }
  bool hasTooManyItems() final { return keys.size() > kMaxKeys; }
  bool moveItems(CMapNode* from, int fromIndex, int toIndex, int count) override;
  int getItemNum() override { return static_cast<int>(keys.size()); }
  void consist() override;
  CMapNode* shadow(CMappingTable* table) override;
  bool checkNode(bool isRoot) override;
  void dump(int level, bool writerView, FILE* file) override;
  void deleteTree() override;
  long getTreeSize(long* nodes, long* slots) override;
  void GetSize(unsigned long* bytes, unsigned long* keyNodes, unsigned long* keySlots,
               unsigned long* extNodes, unsigned long* extSlots) override;

  std::vector<Key> keys;  ///< sorted by compareKey

 private:
  static constexpr std::size_t kMinKeys = 5;
  static constexpr std::size_t kMaxKeys = 10;
  static constexpr std::size_t kReservedKeys = kMaxKeys + 1;

  CKeyNode* SplitOff(bool isDirty);
  int RefreshRange(CMappingTable* table, std::size_t place, std::vector<CMapNode*>* out);
  void ReplaceChild(CMappingTable* table, std::size_t place, CMapNode* child);
  void Repair(CMappingTable* table, std::size_t place);
};

/// A leaf: extents in order, and the chain of leaves.
class ZEFS_EXTMAP_API CExtNode : public CMapNode {
 public:
  explicit CExtNode(bool isDirty);

  int addExt(CMappingTable* table, const Ext& ext, std::vector<CMapNode*>* out) override;
  int appendExt(CMappingTable* table, const Ext& ext, std::vector<CMapNode*>* out) override;
  int deleteExt(CMappingTable* table, long sOff, long eOff, std::vector<CMapNode*>* out) override;
  CMapNode* lower_bound(long offset, int* index) override;
  bool isKeyNode() final { return false; }
  long getStartOffset() override { return extents.empty() ? 0 : extents.front().sOff; }
  long getEndOffset() override { return extents.empty() ? 0 : extents.back().eOff; }
  bool hasEnoughItems() final { return extents.size() >= kMinExtents; }
  bool canBorrowItem() final { return extents.size() > kMinExtents; }
  bool hasTooManyItems() final { return extents.size() > kMaxExtents; }
  bool moveItems(CMapNode* from, int fromIndex, int toIndex, int count) override;
  int getItemNum() override { return static_cast<int>(extents.size()); }
  void consist() override;
  CMapNode* shadow(CMappingTable* table) override;
  bool checkNode(bool isRoot) override;
  void dump(int level, bool writerView, FILE* file) override;
  void deleteTree() override { delete this; }
  long getTreeSize(long* nodes, long* slots) override;
  void GetSize(unsigned long* bytes, unsigned long* keyNodes, unsigned long* keySlots,
               unsigned long* extNodes, unsigned long* extSlots) override;

  CExtNode* next = nullptr;        ///< next leaf in offset order
  CExtNode* prev = nullptr;        ///< previous leaf
  CExtNode* shadowNode = nullptr;  ///< this leaf's shadow while a change runs
  std::vector<Ext> extents;        ///< sorted by compareExt

 private:
  static constexpr std::size_t kMinExtents = 2;
  static constexpr std::size_t kMaxExtents = 3;
  static constexpr std::size_t kReservedExtents = kMaxExtents + 1;

  CExtNode* SplitOff(bool isDirty);
};

// Figures of the design: what the memory measures count for a node of each kind.
inline constexpr long kExtBytes = 112;
inline constexpr long kKeyBytes = 32;
inline constexpr long kKeyNodeBytes = 40;
inline constexpr long kExtNodeBytes = 64;
static_assert(sizeof(Ext) == kExtBytes && sizeof(Key) == kKeyBytes, "sizes of the items");
static_assert(sizeof(CKeyNode) == kKeyNodeBytes && sizeof(CExtNode) == kExtNodeBytes,
              "sizes of the nodes");

}  // namespace Aldenta::Qnd::Morene::Zefs
