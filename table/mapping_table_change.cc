#include "host/zefs_log.h"
#include "table/mapping_table.h"
#include "table/tree_nodes.h"

// The two changing operations of the in-memory table: which extents go, which come, and how the
// list is applied to the writer's view and committed.

#if defined(__has_feature)
#define ZEFS_HAS_FEATURE(feature) __has_feature(feature)
#else
#define ZEFS_HAS_FEATURE(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || ZEFS_HAS_FEATURE(address_sanitizer)
#define ZEFS_LEAK_CHECKED 1
#include <sanitizer/lsan_interface.h>
#endif

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

/// A root that has lost all children but one steps aside for that child. It is on no list of the
/// change and stays allocated, and counted in CMapNode::count_: the leak checker is told so, for
/// exactly this object. What it held is let go, so that it is small and leads to no other node.
void KeepCollapsedRoot(CKeyNode* root) {
  if (root->dirty) {
    std::vector<Key>().swap(root->keys);
  }
#if defined(ZEFS_LEAK_CHECKED)
  __lsan_ignore_object(root);
#endif
}

/// The part of `ext` in [sOff, eOff), which lies inside its range, with its place in the object
/// kept. Counted unsigned: an extent may be longer than half of all offsets.
Ext PieceOf(const Ext& ext, long sOff, long eOff) {
  const auto cut = static_cast<unsigned long>(sOff) - static_cast<unsigned long>(ext.sOff);
  const auto objOff = static_cast<long>(static_cast<unsigned long>(ext.objOff) + cut);
  return Ext(sOff, eOff, &ext.objectID, objOff, ext.objCksum, ext.data);
}

/// The line of an extent that comes, in the trace file if there is one, else in the log.
void AddLine(const Ext& ext, FILE* trace) {
  if (trace != nullptr) {
    fprintf(trace, "add extent [%lu, %lu, %lu]\n", static_cast<unsigned long>(ext.sOff),
            static_cast<unsigned long>(ext.eOff), static_cast<unsigned long>(ext.objOff));
  } else {
    ZEFS_LOG(zefs::kLogTrace, "add extent [%llu, %llu, %llu]",
             static_cast<unsigned long long>(ext.sOff), static_cast<unsigned long long>(ext.eOff),
             static_cast<unsigned long long>(ext.objOff));
  }
}

/// The line of an extent that goes, likewise.
void DeleteLine(const Ext& ext, FILE* trace) {
  if (trace != nullptr) {
    fprintf(trace, "delete extent [%lu, %lu]\n", static_cast<unsigned long>(ext.sOff),
            static_cast<unsigned long>(ext.eOff));
  } else {
    ZEFS_LOG(zefs::kLogTrace, "delete extent [%llu, %llu]",
             static_cast<unsigned long long>(ext.sOff), static_cast<unsigned long long>(ext.eOff));
  }
}

}  // namespace

/// The stored extents that overlap [sOff, eOff), and the pieces of the first and last of them that
/// stay: the front piece first.
void CMappingTable::CollectOverlaps(long sOff, long eOff, std::vector<Ext>* toDelete,
                                    std::vector<Ext>* toAdd) {
  if (size() < 1 || rroot_->getEndOffset() <= sOff || eOff <= rroot_->getStartOffset()) {
    return;
  }
  iterator first = lower_bound(sOff, nullptr);
  iterator last = lower_bound(eOff, nullptr);
  if (first->sOff < sOff) {
    toAdd->push_back(PieceOf(*first, first->sOff, sOff));
  }
  if (last != end() && last->sOff < eOff && eOff < last->eOff) {
    toAdd->push_back(PieceOf(*last, eOff, last->eOff));
    ++last;
  }
  toDelete->reserve(5);
  for (; first != last; ++first) {
    fpIndex_.PrefetchSlot(first->objectID.fp);
    toDelete->push_back(*first);
  }
}

/// Takes a stored extent out of the writer's view and out of the references. `scratch` is for the
/// nodes that the tree reports; what it holds before is dropped.
void CMappingTable::DeleteFromTree(const Ext& ext, ReferenceChange* references,
                                   std::vector<CMapNode*>* scratch) {
  std::vector<CMapNode*>& local = *scratch;
  local.clear();
  fpIndex_.PrefetchEntry(ext.objectID.fp);
  wroot_->deleteExt(this, ext.sOff, ext.eOff, &local);
  references->Delete(ext.objectID, LengthOf(ext));
  if (!local.empty()) {
    wroot_ = local.front();
  }
  if (wroot_->getItemNum() == 1 && wroot_->isKeyNode()) {
    auto* const root = static_cast<CKeyNode*>(wroot_);
    wroot_ = root->keys.at(0).wnode;
    KeepCollapsedRoot(root);
  }
}

/// Puts an extent into the writer's view, where nothing overlaps it, and into the references.
void CMappingTable::AddToTree(const Ext& ext, ReferenceChange* references,
                              std::vector<CMapNode*>* scratch) {
  std::vector<CMapNode*>& local = *scratch;
  local.clear();
  fpIndex_.PrefetchEntry(ext.objectID.fp);
  const bool replaced = wroot_->addExt(this, ext, &local) != 0;
  references->Add(ext.objectID, LengthOf(ext));
  if (replaced && local.size() == 1) {
    wroot_ = local.front();
  } else if (!local.empty()) {
    if (!replaced) {
      local.insert(local.begin(), wroot_);
    }
    wroot_ = new CKeyNode(&local, false);
  }
}

void CMappingTable::FreeOldNodes() {
  for (CMapNode* node : oldNodes_) {
    delete node;
  }
  oldNodes_.clear();
}

void CMappingTable::consist() {
  for (CMapNode* node : dirtyNodes_) {
    node->consist();
  }
  for (Key* key : dirtyKeys_) {
    key->rnode = key->wnode;
  }
  dirtyKeys_.clear();
  rsize_ = wsize_;
  rroot_ = wroot_;
  dirtyNodes_.clear();
}

int CMappingTable::insert(long sOff, long eOff, const ObjectID* oid, long objOff, long objCksum,
                          void* data, int /*dcOffset*/, FILE* trace) {
  if (eOff <= sOff) {
    return 0;
  }
  UniqueLock lock(tableLock_);
  std::vector<Ext> toDelete;
  std::vector<Ext> toAdd;
  toAdd.reserve(3);
  if (oid != nullptr) {
    fpIndex_.PrefetchSlot(oid->fp);
  }
  CollectOverlaps(sOff, eOff, &toDelete, &toAdd);
  toAdd.emplace_back(sOff, eOff, oid, objOff, objCksum, data);

  {
    ReferenceChange references = StartReferenceChange();
    std::vector<CMapNode*> local;
    for (const Ext& ext : toDelete) {
      DeleteFromTree(ext, &references, &local);
      DeleteLine(ext, trace);
    }
    for (const Ext& ext : toAdd) {
      AddToTree(ext, &references, &local);
      AddLine(ext, trace);
    }
  }
  wsize_ += static_cast<std::int64_t>(toAdd.size()) - static_cast<std::int64_t>(toDelete.size());
  CMappingTable::consist();
  FreeOldNodes();
  return 0;
}

int CMappingTable::truncate(long size, FILE* trace) {
  UniqueLock lock(tableLock_);
  const iterator first = _find(size);
  const iterator last = end();
  if (first == last) {
    return 0;
  }
  std::vector<Ext> toDelete;
  for (iterator it = first; it != last; ++it) {
    toDelete.push_back(*it);
  }
  {
    ReferenceChange references = StartReferenceChange();
    std::vector<CMapNode*> local;
    for (const Ext& ext : toDelete) {
      DeleteFromTree(ext, &references, &local);
      DeleteLine(ext, nullptr);  // always in the log
    }
    // The reader's view still shows the extent: its leaf is freed after the commit.
    if (first->sOff < size && size < first->eOff) {
      const Ext front = PieceOf(*first, first->sOff, size);
      AddToTree(front, &references, &local);
      if (trace != nullptr) {
        AddLine(front, trace);
      }
      ++wsize_;
    }
  }
  wsize_ -= static_cast<std::int64_t>(toDelete.size());
  CMappingTable::consist();
  if (wsize_ == 0) {
    oldNodes_.insert(rroot_);
    rroot_ = new CExtNode(false);
    wroot_ = rroot_;
  }
  CMappingTable::dump(trace);
  FreeOldNodes();
  return 0;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
