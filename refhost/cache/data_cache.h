#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "refhost/cache/cache_node.h"
#include "refhost/cache/node_counts.h"

namespace zefs::refhost {

/// The data cache of a store: what its tables ask. Thread-safe.
class DataCache final : public DataCacheManagementInterface {
 public:
  /// Called before a flush of the table of `share` writes, under the locks of that table: makes
  /// durable what the nodes that are stored refer to. 0, or an errno value.
  using Protect = std::function<int(const std::string& share)>;

  explicit DataCache(Protect protect) : protect_(std::move(protect)) {}

  /// The object of a node whose bytes are stored; ENOENT while they are not.
  int GetNodeObjectID(void* node, DataCacheNode::ObjectID* out, bool flag) override;

  int ProtectShare(DataTransferManagement* transfer, const std::string& shareScope,
                   const std::string& share) override;

  NodeCounts& counts() { return counts_; }
  const NodeCounts& counts() const { return counts_; }
  std::uint64_t flushes() const { return flushes_; }  ///< that had something to write

 private:
  Protect protect_;
  NodeCounts counts_;
  std::atomic<std::uint64_t> flushes_{0};
};

}  // namespace zefs::refhost
