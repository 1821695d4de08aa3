#include <algorithm>
#include <array>
#include <climits>
#include <iterator>

#include "table/mapping_table.h"
#include "table/node_prefetch.h"
#include "table/node_shadow.h"
#include "table/range_search.h"
#include "table/tree_nodes.h"

// Interior nodes: how a change below reaches the parent, splits, and the repair of an underflow.

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

bool SameRange(const Key& key, CMapNode& node) {
  return key.sOff == node.getStartOffset() && key.eOff == node.getEndOffset();
}

void SetRange(Key& key, CMapNode& node) {
  key.sOff = node.getStartOffset();
  key.eOff = node.getEndOffset();
}

/// A key for `node`, which both views see.
Key KeyFor(CMapNode* node) {
  return Key{node->getStartOffset(), node->getEndOffset(), node, node};
}

/// What a child has told its parent: it puts the nodes behind whatever `out` holds already, and the
/// parent takes them off again before it reports to its own parent. So one vector serves the whole
/// descent, and no level allocates another.
class ChildReport {
 public:
  explicit ChildReport(std::vector<CMapNode*>* out) : out_(*out), before_(out->size()) {}

  /// Takes the child's nodes off the vector. A child reports two at most.
  void Take() {
    count_ = out_.size() - before_;
    std::copy(out_.begin() + static_cast<std::ptrdiff_t>(before_), out_.end(), nodes_.begin());
    out_.resize(before_);
  }

  std::size_t size() const { return count_; }
  CMapNode* operator[](std::size_t i) const { return nodes_[i]; }

 private:
  std::vector<CMapNode*>& out_;
  std::size_t before_;
  std::size_t count_ = 0;
  std::array<CMapNode*, 2> nodes_{};
};

}  // namespace

void* CKeyNode::operator new(std::size_t size) {
  constexpr std::size_t kOwnSizeClass = 88;
  static_assert(sizeof(CKeyNode) <= kOwnSizeClass, "room for a node");
  return ::operator new(std::max(size, kOwnSizeClass));
}

void CKeyNode::operator delete(void* node) {
  ::operator delete(node);
}

CKeyNode::CKeyNode(bool isDirty) : CMapNode(isDirty) {
  keys.reserve(kReservedKeys);
}

CKeyNode::CKeyNode(std::vector<CMapNode*>* children, bool isDirty) : CMapNode(isDirty) {
  for (CMapNode* child : *children) {
    const Key key = KeyFor(child);
    keys.insert(std::lower_bound(keys.begin(), keys.end(), key, compareKey), key);
  }
}

/// Moves the upper half of the keys into a new node.
CKeyNode* CKeyNode::SplitOff(bool isDirty) {
  auto* right = new CKeyNode(isDirty);
  const auto middle = keys.begin() + static_cast<std::ptrdiff_t>(keys.size() / 2);
  right->keys.assign(middle, keys.end());
  keys.erase(middle, keys.end());
  return right;
}

/// The child at `place` stands; takes over its range if that changed. Returns 1 if this took a
/// shadow, which then is in `*out`, else 0.
int CKeyNode::RefreshRange(CMappingTable* table, std::size_t place, std::vector<CMapNode*>* out) {
  CMapNode& child = *keys[place].wnode;
  if (SameRange(keys[place], child)) {
    return 0;
  }
  CKeyNode* const node = &Writable(*this, table);
  SetRange(node->keys[place], child);
  if (node == this) {
    return 0;
  }
  out->push_back(node);
  return 1;
}

/// Another node, of the same range, takes the place of a child. In a clean node this is a matter of
/// the writer's pointer alone, and the parents need not know: copying stops here.
void CKeyNode::ReplaceChild(CMappingTable* table, std::size_t place, CMapNode* child) {
  Key& key = keys[place];
  key.wnode = child;
  if (dirty) {
    key.rnode = child;
  } else {
    table->dirtyKeys_.push_back(&key);
  }
}

int CKeyNode::appendExt(CMappingTable* table, const Ext& ext, std::vector<CMapNode*>* out) {
  ChildReport local(out);
  keys.back().rnode->appendExt(table, ext, out);
  local.Take();
  SetRange(keys.back(), *keys.back().rnode);
  for (std::size_t i = 0; i < local.size(); ++i) {
    keys.push_back(KeyFor(local[i]));
  }
  if (hasTooManyItems()) {
    out->push_back(SplitOff(false));
  }
  return 0;
}

int CKeyNode::addExt(CMappingTable* table, const Ext& ext, std::vector<CMapNode*>* out) {
  // An extent in a hole goes to the child on its right, one behind everything to the last child.
  const std::size_t place = std::min(FirstNotLess(keys, ext.sOff, ext.eOff), keys.size() - 1);
  ChildReport local(out);
  const bool replaced = keys[place].wnode->addExt(table, ext, out) != 0;
  local.Take();
  if (local.size() == 0) {
    return RefreshRange(table, place, out);
  }
  if (local.size() == 1 && SameRange(keys[place], *local[0])) {
    ReplaceChild(table, place, local[0]);
    return 0;
  }
  CKeyNode* const node = &Writable(*this, table);
  auto position = node->keys.begin() + static_cast<std::ptrdiff_t>(place);
  if (replaced) {
    position = node->keys.erase(position);
  } else {
    SetRange(*position, *position->wnode);
    ++position;
  }
  // Each goes in front of the one before it: the replacement, which comes last, ends up left of its
  // new sibling.
  for (std::size_t i = 0; i < local.size(); ++i) {
    position = node->keys.insert(position, KeyFor(local[i]));
  }
  if (node->hasTooManyItems()) {
    CKeyNode* const right = node->SplitOff(true);
    table->dirtyNodes_.push_back(right);
    out->push_back(right);
  }
  if (node == this) {
    return 0;
  }
  out->push_back(node);
  return 1;
}

int CKeyNode::deleteExt(CMappingTable* table, long sOff, long eOff, std::vector<CMapNode*>* out) {
  const std::size_t place = FirstNotLess(keys, sOff, eOff);
  ChildReport local(out);
  keys[place].wnode->deleteExt(table, sOff, eOff, out);
  local.Take();
  if (local.size() == 0) {
    RefreshRange(table, place, out);
    return 0;
  }
  CMapNode* const child = local[0];
  const bool enough = child->hasEnoughItems();
  CMapNode& held = *keys[place].wnode;
  if (enough && child->getStartOffset() == held.getStartOffset() &&
      child->getEndOffset() == held.getEndOffset()) {
    ReplaceChild(table, place, child);
    return 0;
  }
  CKeyNode* const node = &Writable(*this, table);
  node->keys[place] = KeyFor(child);
  if (!enough) {
    if (node->keys.size() == 1) {
      return -1;  // no sibling to repair it with: the child stays below its minimum
    }
    node->Repair(table, place);
  }
  if (node != this || !hasEnoughItems()) {
    out->push_back(node);
  }
  return 0;
}

/// Fills up the child at `place`, which is below its minimum, from its right sibling, or from the
/// left one if it is the last: borrows an item or, if the sibling cannot lend one, takes all of
/// them and drops its key. This node is dirty and has two keys at least.
void CKeyNode::Repair(CMappingTable* table, std::size_t place) {
  const bool fromLeft = place + 1 == keys.size();
  const std::size_t beside = fromLeft ? place - 1 : place + 1;
  Key& siblingKey = keys[beside];
  if (!siblingKey.wnode->dirty) {
    siblingKey.wnode = &ShadowOf(*siblingKey.wnode, table);
    siblingKey.rnode = siblingKey.wnode;
  }
  CMapNode& child = *keys[place].wnode;
  CMapNode& sibling = *siblingKey.wnode;
  const bool borrow = sibling.canBorrowItem();
  const int count = borrow ? 1 : sibling.getItemNum();
  const int fromIndex = fromLeft ? sibling.getItemNum() - count : 0;
  child.moveItems(&sibling, fromIndex, fromLeft ? 0 : child.getItemNum(), count);
  SetRange(keys[place], child);
  if (borrow) {
    SetRange(siblingKey, sibling);
  } else {
    // It stays on dirtyNodes_, empty, until the commit takes it out of the chain.
    table->oldNodes_.insert(&sibling);
    keys.erase(keys.begin() + static_cast<std::ptrdiff_t>(beside));
  }
}

CMapNode* CKeyNode::lower_bound(long offset, int* index) {
  if (offset == LONG_MAX) {
    return nullptr;  // no extent ends above it
  }
  const std::size_t place = FirstNotLess(keys, offset, offset + 1);
  if (place == keys.size()) {
    return nullptr;
  }
  CMapNode* const child = keys[place].rnode;
  PrefetchNode(child);
  return child->lower_bound(offset, index);
}

bool CKeyNode::moveItems(CMapNode* from, int fromIndex, int toIndex, int count) {
  if (from == nullptr || !from->isKeyNode()) {
    return false;
  }
  auto* const source = static_cast<CKeyNode*>(from);
  const auto first = source->keys.begin() + fromIndex;
  keys.insert(keys.begin() + toIndex, first, first + count);
  source->keys.erase(first, first + count);
  return true;
}

void CKeyNode::consist() {
  dirty = false;
  for (Key& key : keys) {
    key.rnode = key.wnode;
  }
}

CMapNode* CKeyNode::shadow(CMappingTable* table) {
  auto* copy = new CKeyNode(true);
  copy->keys.assign(keys.begin(), keys.end());
  for (Key& key : keys) {
    key.wnode = key.rnode;
  }
  for (Key& key : copy->keys) {
    key.rnode = key.wnode;  // the copy sees the writer's children
  }
  table->dirtyNodes_.push_back(copy);
  table->oldNodes_.insert(this);
  return copy;
}

void CKeyNode::deleteTree() {
  for (const Key& key : keys) {
    key.rnode->deleteTree();
  }
  delete this;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
