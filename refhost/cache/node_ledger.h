#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <unordered_map>

#include "refhost/cache/cache_node.h"
#include "refhost/cache/node_counts.h"

namespace zefs::refhost {

/// Owns the nodes of one table, and checks that each comes back once. A node that came back loses
/// its bytes at once; the node itself stays, because the table may still hold its address, until a
/// forced flush has emptied the table's cache or the table is gone. Not synchronised.
class NodeLedger {
 public:
  /// `counts` is not owned and may be shared by ledgers.
  explicit NodeLedger(NodeCounts* counts) : counts_(*counts) {}
  ~NodeLedger() { Drop(); }
  NodeLedger(const NodeLedger&) = delete;
  NodeLedger& operator=(const NodeLedger&) = delete;

  /// A new node, owned by the ledger.
  CacheNode* Make(CacheNode::Bytes bytes);

  /// What a flush gave back. The caller holds the lock that the flush handed over.
  void Release(const std::set<void*>& nodes);

  /// The table holds nothing any more: frees all nodes. One that has not come back counts as
  /// leaked.
  void Settle();

  /// The table is gone: frees all nodes. Those that were not flushed do not come back.
  void Drop();

  std::size_t size() const { return nodes_.size(); }  ///< nodes not freed yet

 private:
  void FreeAll(std::atomic<std::uint64_t>* notReleased);

  NodeCounts& counts_;
  std::unordered_map<void*, std::unique_ptr<CacheNode>> nodes_;  // by what the table knows
};

}  // namespace zefs::refhost
