#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "host/data_cache.h"

namespace zefs::test::stress {

/// A node of the host that gets its object id from another thread than the one that wrote it.
struct StressNode : DataCacheNode {
  ObjectID oid;
  std::atomic<bool> ready{false};
  std::atomic<int> returned{0};  ///< how often the table has given it back
};

/// The nodes of one writing thread: as many as it will ever need, so that others may walk them.
class NodesOfThread {
 public:
  explicit NodesOfThread(std::size_t most)
      : nodes_(std::make_unique<StressNode[]>(most)), most_(most) {}

  bool Full() const { return used_.load(std::memory_order_relaxed) == most_; }
  /// A node that will have this object id when it is ready. By the writing thread.
  StressNode* New(const DataCacheNode::ObjectID& oid) {
    const std::size_t index = used_.load(std::memory_order_relaxed);
    StressNode* const node = &nodes_[index];
    node->oid = oid;
    node->dcOffset = -3;
    used_.store(index + 1, std::memory_order_release);
    return node;
  }
  /// Makes up to `count` further nodes ready, oldest first. By one thread at a time. False if there
  /// was none.
  bool MakeReady(std::size_t count) {
    const std::size_t end = used_.load(std::memory_order_acquire);
    const std::size_t begin = ready_;
    for (; ready_ < end && ready_ < begin + count; ++ready_) {
      nodes_[ready_].ready.store(true, std::memory_order_release);
    }
    return ready_ != begin;
  }
  std::size_t size() const { return used_.load(std::memory_order_acquire); }
  const StressNode& operator[](std::size_t index) const { return nodes_[index]; }

 private:
  std::unique_ptr<StressNode[]> nodes_;
  std::size_t most_;
  std::atomic<std::size_t> used_{0};
  std::size_t ready_ = 0;
};

/// What the table asks about nodes. Without a lock: it must not order the table's threads.
class StressCache final : public DataCacheManagementInterface {
 public:
  int GetNodeObjectID(void* node, DataCacheNode::ObjectID* out, bool /*flag*/) override {
    const auto* const known = static_cast<StressNode*>(static_cast<DataCacheNode*>(node));
    if (!known->ready.load(std::memory_order_acquire)) {
      return 1;
    }
    *out = known->oid;
    return 0;
  }
  int ProtectShare(DataTransferManagement* /*transfer*/, const std::string& /*shareScope*/,
                   const std::string& /*share*/) override {
    return 0;
  }
};

}  // namespace zefs::test::stress
