#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tests/persistent/extent_cache_fixture.h"

namespace zefs::test {

/// The extent cache once more, step by step and without any regard to speed: over plain lists that
/// are searched from the front. It tells what happens to a node that the host gives to several
/// writes, which no simple rule does.
class SlowExtentCache {
 public:
  using ObjectID = DataCacheNode::ObjectID;
  using Keys = std::vector<long>;

  /// What a node that is ready answers.
  struct Answer {
    ObjectID oid;
    std::int32_t dcOffset;
  };
  std::vector<std::pair<void*, Answer>> ready_;

  std::vector<Cached> entries_;                 // in no order
  std::vector<std::pair<long, void*>> nodes_;   // in no order
  std::vector<std::pair<void*, Keys>> shares_;  // in no order
  std::vector<void*> released_;                 // each once
  Keys pending_;
  std::vector<std::string> lines_;
  std::vector<const void*> asked_;
  long fileSize_ = -1;

  void Insert(long sOff, long eOff, const ObjectID* oid, long objOff, void* data, int dcOffset) {
    if (eOff <= sOff) {
      return;
    }
    lines_.push_back(WriteLine(sOff, eOff, objOff, data));
    long from = sOff + 1;
    while (const Cached* found = FirstFrom(from)) {
      const Cached entry = *found;
      if (eOff <= entry.sOff) {
        lines_.push_back(NoOverlapLine(entry.sOff, entry.eOff, sOff, eOff));
        break;
      }
      CutEntry(entry, sOff, eOff, data);
      from = entry.eOff + 1;
    }
    Cached entry = Written(sOff, eOff, oid == nullptr ? ObjectID{} : *oid,
                           static_cast<std::int32_t>(objOff), dcOffset);
    pending_.push_back(eOff);
    if (Keys* const share = ShareOf(data); share != nullptr && share->size() > 1) {
      AddTo(share, eOff);
    }
    Store(entry);
    fileSize_ = std::max(fileSize_, eOff);
    if (data != nullptr) {
      SetNode(eOff, data);
    }
  }

  void Recycle() { released_.clear(); }
  void GetExtentData() {
    nodes_.clear();
    lines_.emplace_back("0 CMappingLMDB::GetExtentData()");
  }

  bool HasNode(const void* node) const {
    return std::any_of(nodes_.begin(), nodes_.end(),
                       [&](const auto& item) { return item.second == node; });
  }

 private:
  /// The entry with the smallest key that is not below `key`.
  const Cached* FirstFrom(long key) const {
    const Cached* first = nullptr;
    for (const Cached& entry : entries_) {
      if (entry.eOff >= key && (first == nullptr || entry.eOff < first->eOff)) {
        first = &entry;
      }
    }
    return first;
  }

  void CutEntry(const Cached& entry, long sOff, long eOff, void* data) {
    const long key = entry.eOff;
    const bool hasNode = std::any_of(nodes_.begin(), nodes_.end(),
                                     [&](const auto& item) { return item.first == key; });
    void* node = nullptr;
    for (const auto& item : nodes_) {
      node = item.first == key ? item.second : node;
    }
    const bool shared = hasNode && ShareOf(node) != nullptr;
    ObjectID oid{entry.dcid, entry.fp, entry.attrByte, entry.attrWord, entry.attrFlag};
    std::int32_t dcOffset = entry.dcOffset;
    if (node != nullptr) {
      asked_.push_back(node);
      for (const auto& item : ready_) {
        if (item.first == node && item.second.oid.dcid != oid.dcid) {
          oid = item.second.oid;
          dcOffset = item.second.dcOffset;
        }
      }
    }
    const bool tail = eOff < key;
    const bool head = entry.sOff < sOff;
    if (tail) {
      const auto moved = static_cast<std::uint32_t>(entry.objectOffset) +
                         static_cast<std::uint32_t>(eOff - entry.sOff);
      Store(Piece(eOff, key, oid, static_cast<std::int32_t>(moved), dcOffset));
      pending_.push_back(key);
      if (shared) {
        AddTo(ShareOf(node), key);
        lines_.push_back(AddSharedLine(node, key));
      }
    } else {
      Erase(key);
      if (shared) {
        RemoveFrom(ShareOf(node), key);
      }
      if (!head) {
        Forget(key, hasNode, node, data);
      }
    }
    if (head) {
      Store(Piece(entry.sOff, sOff, oid, entry.objectOffset, dcOffset));
      pending_.push_back(sOff);
      if (hasNode) {
        Remap(key, sOff, node, tail);
      }
    }
  }

  void Forget(long key, bool hasNode, void* node, const void* data) {
    if (!hasNode) {
      return;
    }
    const Keys* const share = ShareOf(node);
    const bool stillShared = share != nullptr && !share->empty();
    if (share != nullptr && share->empty()) {
      lines_.push_back(RemoveSharedLine(node, key));
      shares_.erase(std::find_if(shares_.begin(), shares_.end(),
                                 [&](const auto& item) { return item.first == node; }));
    }
    if (node != data && !stillShared) {
      lines_.push_back(ReleaseLine(key, node));
      if (std::find(released_.begin(), released_.end(), node) == released_.end()) {
        released_.push_back(node);
      }
    }
    RemoveNode(key);
    lines_.push_back(RemoveLine(key));
  }

  void Remap(long key, long sOff, void* node, bool tail) {
    lines_.push_back(RemapLine(key, sOff));
    SetNode(sOff, node);
    if (tail) {
      if (ShareOf(node) == nullptr) {
        shares_.emplace_back(node, Keys{});
      }
      AddTo(ShareOf(node), sOff);
      AddTo(ShareOf(node), key);
      return;
    }
    RemoveNode(key);
    if (Keys* const share = ShareOf(node); share != nullptr) {
      AddTo(share, sOff);
    }
  }

  Keys* ShareOf(const void* node) {
    for (auto& item : shares_) {
      if (item.first == node) {
        return &item.second;
      }
    }
    return nullptr;
  }

  static void AddTo(Keys* share, long key) {
    RemoveFrom(share, key);
    share->push_back(key);
  }
  static void RemoveFrom(Keys* share, long key) {
    share->erase(std::remove(share->begin(), share->end(), key), share->end());
  }

  void Erase(long key) {
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                  [&](const Cached& entry) { return entry.eOff == key; }),
                   entries_.end());
  }
  void Store(const Cached& entry) {
    Erase(entry.eOff);
    entries_.push_back(entry);
  }
  void RemoveNode(long key) {
    nodes_.erase(std::remove_if(nodes_.begin(), nodes_.end(),
                                [&](const auto& item) { return item.first == key; }),
                 nodes_.end());
  }
  void SetNode(long key, void* node) {
    RemoveNode(key);
    nodes_.emplace_back(key, node);
  }
};

}  // namespace zefs::test
