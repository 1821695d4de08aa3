#include "tests/system/model/cache_model.h"

#include <algorithm>
#include <iterator>

namespace zefs::test {

namespace {

/// A cached extent below this has no object id yet.
constexpr std::uint64_t kFirstKnownDcid = 63;

const Node* ReadyNode(int number, const Nodes& nodes) {
  const Node& node = nodes.at(static_cast<std::size_t>(number));
  return number != 0 && node.ready ? &node : nullptr;
}

}  // namespace

void CacheModel::Write(long start, long end, const Piece& written, const Nodes& nodes) {
  auto at = extents_.upper_bound(start);
  while (at != extents_.end() && at->second.start < end) {
    at = CutOne(at, start, end, written.node, nodes);
  }
  list_.push_back(end);
  const auto share = shares_.find(written.node);
  if (share != shares_.end() && share->second.size() > 1) {
    share->second.insert(end);
  }
  Piece piece = written;
  piece.start = start;
  piece.objOff = Stored32(piece.objOff);
  piece.checksum = 0;
  extents_.insert_or_assign(end, piece);
}

Layer::iterator CacheModel::CutOne(Layer::iterator at, long start, long end, int node,
                                   const Nodes& nodes) {
  const long oldEnd = at->first;
  Piece old = at->second;
  if (const Node* ready = ReadyNode(old.node, nodes);
      ready != nullptr && ready->id.dcid != old.id.dcid) {
    old.id = ready->id;
    old.dcOffset = ready->dcOffset;
  }
  const bool tail = end < oldEnd;
  const bool head = old.start < start;
  const bool shared = IsShared(old.node);
  at = extents_.erase(at);
  if (shared) {
    tail ? void(shares_[old.node].insert(oldEnd)) : void(shares_[old.node].erase(oldEnd));
  }
  if (tail) {
    at = extents_.emplace_hint(at, oldEnd, WithoutAttributes(FromStored(old, end)));
    list_.push_back(oldEnd);
    ++at;
  }
  if (head) {
    extents_.emplace(start, WithoutAttributes(old));
    list_.push_back(start);
    if (old.node != 0 && tail) {
      shares_[old.node].insert({start, oldEnd});
    } else if (shared) {
      shares_[old.node].insert(start);
    }
  } else if (!tail && old.node != 0) {
    Drop(old.node, node);
  }
  return at;
}

void CacheModel::Drop(int node, int writing) {
  const auto share = shares_.find(node);
  if (share != shares_.end() && !share->second.empty()) {
    return;
  }
  if (share != shares_.end()) {
    shares_.erase(share);
  }
  if (node != writing) {
    dangling_.insert(node);
  }
}

void CacheModel::Truncate(long size) {
  for (auto at = extents_.begin(); at != extents_.end();) {
    if (at->second.start >= size) {
      if (at->second.node != 0) {
        dangling_.insert(at->second.node);
      }
      at = extents_.erase(at);
    } else {
      ++at;
    }
  }
  if (!extents_.empty() && std::prev(extents_.end())->first > size) {
    const auto last = std::prev(extents_.end());
    const Piece front = WithoutAttributes(last->second);
    extents_.erase(last);
    extents_.insert_or_assign(size, front);
    list_.push_back(size);
  }
}

bool CacheModel::Scan(std::uint32_t readyThreshold, const Nodes& nodes) {
  if (scanned_ == 0) {
    ready_ = 0;
  }
  while (scanned_ < list_.size()) {
    const auto found = extents_.find(list_[scanned_]);
    if (found != extents_.end() && found->second.node != 0) {
      if (ReadyNode(found->second.node, nodes) == nullptr) {
        break;
      }
      ++ready_;
    }
    ++scanned_;
  }
  return ready_ >= readyThreshold && scanned_ != 0;
}

std::map<long, ToStore> CacheModel::Collect(bool force, std::uint32_t readyThreshold,
                                            const Nodes& nodes, Released* released) {
  std::map<long, ToStore> ids;
  if (!force && !Scan(readyThreshold, nodes)) {
    return ids;
  }
  const std::size_t last = force ? list_.size() : scanned_ - 1;
  std::set<long> seen;
  std::size_t taken = 0;
  for (; taken < last; ++taken) {
    const long key = list_[taken];
    if (!seen.insert(key).second) {
      continue;
    }
    const auto found = extents_.find(key);
    if (found == extents_.end()) {
      continue;
    }
    Piece& piece = found->second;
    if (piece.node == 0) {
      if (piece.id.dcid >= kFirstKnownDcid) {
        ids[key] = {piece.id, piece.dcOffset};
      }
      continue;
    }
    const Node* ready = ReadyNode(piece.node, nodes);
    if (ready == nullptr && force) {
      break;
    }
    if (ready == nullptr) {
      continue;  // written again since it was scanned: its turn comes with the later entry
    }
    const int node = piece.node;
    ids[key] = {ready->id, ready->dcOffset};
    released->insert(node);
    piece.node = 0;
    const auto share = shares_.find(node);
    if (share != shares_.end()) {
      for (const long sharer : share->second) {
        const auto other = extents_.find(sharer);
        if (other != extents_.end() && other->second.node == node) {
          ids[sharer] = {ready->id, ready->dcOffset};
          other->second.node = 0;
        }
      }
      shares_.erase(share);
    }
  }
  list_.erase(list_.begin(), list_.begin() + static_cast<std::ptrdiff_t>(taken));
  scanned_ = 0;
  ready_ = 0;
  return ids;
}

CacheModel::Released CacheModel::TakeDangling() {
  Released taken;
  taken.swap(dangling_);
  return taken;
}

CacheModel::Released CacheModel::ForgetNodes() {
  Released all;
  for (auto& [end, piece] : extents_) {
    if (piece.node != 0) {
      all.insert(piece.node);
      piece.node = 0;
    }
  }
  return all;
}

std::vector<int> CacheModel::Waiting() const {
  std::vector<int> waiting;
  for (const long key : list_) {
    const auto found = extents_.find(key);
    if (found != extents_.end() && found->second.node != 0 &&
        std::find(waiting.begin(), waiting.end(), found->second.node) == waiting.end()) {
      waiting.push_back(found->second.node);
    }
  }
  return waiting;
}

}  // namespace zefs::test
