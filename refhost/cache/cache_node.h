#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "host/data_cache.h"

namespace zefs::refhost {

/// One write on its way to a container: its bytes, and what they are stored as once that is known.
/// Serves one write and is not used again.
///
/// Its bytes are read under the lock of the table that a look-up hands over, and dropped under the
/// one that a flush hands over; everything else is safe from any thread.
class CacheNode final : public DataCacheNode {
 public:
  using Bytes = std::shared_ptr<const std::string>;

  explicit CacheNode(Bytes bytes) : bytes_(std::move(bytes)) {}

  /// The bytes are stored. Called once.
  void SetStored(const ObjectID& id, std::int32_t offset) {
    id_ = id;
    dcOffset = offset;
    stored_.store(true, std::memory_order_release);
  }

  /// Whether the bytes are stored; then `*id` tells as what.
  bool Stored(ObjectID* id) const {
    if (!stored_.load(std::memory_order_acquire)) {
      return false;
    }
    *id = id_;
    return true;
  }

  /// Drops the bytes. False if they were dropped before.
  bool Release() {
    bytes_.reset();
    return !released_.exchange(true);
  }
  bool released() const { return released_.load(); }

  /// Null once they are dropped.
  const Bytes& bytes() const { return bytes_; }

  /// The node as tables know it, and back.
  void* ForTable() { return static_cast<DataCacheNode*>(this); }
  static CacheNode* FromTable(void* node) {
    return static_cast<CacheNode*>(static_cast<DataCacheNode*>(node));
  }

 private:
  Bytes bytes_;
  ObjectID id_;
  std::atomic<bool> stored_{false};
  std::atomic<bool> released_{false};
};

}  // namespace zefs::refhost
