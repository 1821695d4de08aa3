#include <climits>
#include <cstddef>

#include "table/mapping_table.h"
#include "table/node_shadow.h"
#include "table/range_search.h"
#include "table/tree_nodes.h"

// Leaves: adding, appending, removing, shadowing, and the chain.

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

std::vector<Ext>::iterator ItemAt(std::vector<Ext>& items, std::size_t place) {
  return items.begin() + static_cast<std::ptrdiff_t>(place);
}

}  // namespace

std::int64_t CMapNode::count_ = 0;

CExtNode::CExtNode(bool isDirty) : CMapNode(isDirty) {
  extents.reserve(kReservedExtents);
}

/// Moves the upper half into a new leaf, which is linked behind this one.
CExtNode* CExtNode::SplitOff(bool isDirty) {
  auto* right = new CExtNode(isDirty);
  right->next = next;
  right->prev = this;
  next = right;
  if (right->next != nullptr) {
    right->next->prev = right;
  }
  const auto middle = ItemAt(extents, extents.size() / 2);
  right->extents.assign(middle, extents.end());
  extents.erase(middle, extents.end());
  return right;
}

int CExtNode::appendExt(CMappingTable* /*table*/, const Ext& ext, std::vector<CMapNode*>* out) {
  extents.push_back(ext);
  if (hasTooManyItems()) {
    out->push_back(SplitOff(false));
  }
  return 0;
}

int CExtNode::addExt(CMappingTable* table, const Ext& ext, std::vector<CMapNode*>* out) {
  CExtNode* const leaf = &Writable(*this, table);
  auto& items = leaf->extents;
  items.insert(ItemAt(items, FirstNotLess(items, ext.sOff, ext.eOff)), ext);
  if (leaf->hasTooManyItems()) {
    CExtNode* const right = leaf->SplitOff(true);
    out->push_back(right);
    table->dirtyNodes_.push_back(right);
  }
  if (leaf == this) {
    return 0;
  }
  out->push_back(leaf);
  return 1;
}

int CExtNode::deleteExt(CMappingTable* table, long sOff, long eOff, std::vector<CMapNode*>* out) {
  CExtNode* const leaf = &Writable(*this, table);
  auto& items = leaf->extents;
  items.erase(ItemAt(items, FirstNotLess(items, sOff, eOff)));
  if (leaf != this || !hasEnoughItems()) {
    out->push_back(leaf);
  }
  return 0;
}

CMapNode* CExtNode::lower_bound(long offset, int* index) {
  if (offset == LONG_MAX) {
    return nullptr;  // no extent ends above it
  }
  const std::size_t place = FirstNotLess(extents, offset, offset + 1);
  if (place == extents.size()) {
    return nullptr;
  }
  // Whoever looks a place up goes on to a neighbour, or changes this leaf and relinks them.
  __builtin_prefetch(next);
  __builtin_prefetch(prev);
  *index = static_cast<int>(place);
  return this;
}

bool CExtNode::moveItems(CMapNode* from, int fromIndex, int toIndex, int count) {
  if (from == nullptr || from->isKeyNode()) {
    throw SysException(kErrInternal);
  }
  auto* const source = static_cast<CExtNode*>(from);
  const auto first = source->extents.begin() + fromIndex;
  extents.insert(extents.begin() + toIndex, first, first + count);
  source->extents.erase(first, first + count);
  return true;
}

void CExtNode::consist() {
  dirty = false;
  if (prev != nullptr && prev->next != this) {
    prev->next = this;
  }
  if (next != nullptr && next->prev != this) {
    next->prev = this;
  }
  if (extents.empty()) {
    if (prev != nullptr) {
      prev->next = next;
    }
    if (next != nullptr) {
      next->prev = prev;
    }
  }
}

CMapNode* CExtNode::shadow(CMappingTable* table) {
  auto* copy = new CExtNode(true);
  copy->next = next != nullptr && next->shadowNode != nullptr ? next->shadowNode : next;
  copy->prev = prev != nullptr && prev->shadowNode != nullptr ? prev->shadowNode : prev;
  copy->extents.assign(extents.begin(), extents.end());
  // A clean neighbour keeps the old chain for the readers until the commit.
  if (copy->next != nullptr && copy->next->dirty) {
    copy->next->prev = copy;
  }
  if (copy->prev != nullptr && copy->prev->dirty) {
    copy->prev->next = copy;
  }
  shadowNode = copy;
  table->dirtyNodes_.push_back(copy);
  table->oldNodes_.insert(this);
  return copy;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
