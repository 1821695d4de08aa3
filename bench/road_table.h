#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <set>
#include <string>

#include <boost/filesystem/path.hpp>

#include "bench/persistent_subject.h"

namespace zefs_bench {

/// A data-cache node whose data are stored already: the table gets its object id when it asks.
struct ReadyNode : zefs::DataCacheNode {
  ObjectID objectID;
};
inline const ReadyNode& NodeAt(void* pointer) {
  return *static_cast<const ReadyNode*>(static_cast<zefs::DataCacheNode*>(pointer));
}

class ReadyCache final : public zefs::DataCacheManagementInterface {
 public:
  int GetNodeObjectID(void* node, ObjectID* out, bool /*flag*/) override {
    *out = NodeAt(node).objectID;
    return 0;
  }
  int ProtectShare(zefs::DataTransferManagement* /*transfer*/, const std::string& /*shareScope*/,
                   const std::string& /*share*/) override {
    return 0;
  }
};

/// The persistent table with the interface of StorePeer: each write comes with a data-cache node,
/// and a batch ends with a forced flush, which takes all that is pending and is synced when it
/// returns. Merges start by the table's own policy.
class RoadTable : public TableOver<ReadyCache> {
 public:
  using TableOver::TableOver;

  /// A write that waits for the next flush.
  void Insert(const Write& write) {
    ReadyNode& node = nodes_.emplace_back();
    node.objectID = write.objectID;
    node.dcOffset = 0;  // known: nothing of it is left to track
    table().insert(write.sOff, write.eOff, nullptr, write.objOff, 0,
                   static_cast<zefs::DataCacheNode*>(&node), -1, nullptr);
  }
  void Flush() {
    if (nodes_.empty()) {
      return;
    }
    table().checkAndBackfillObjectID(&released_, true, "", "", nullptr, nullptr);
    nodes_.clear();  // the flush has released them all
  }

  void WriteBatch(const Write* first, const Write* last) {
    std::for_each(first, last, [this](const Write& write) { Insert(write); });
    Flush();
  }
  void AppendBatch(const Write* first, const Write* last) { WriteBatch(first, last); }

  /// Calls `use` with start, end and object offset and the object id of what is visible of every
  /// extent that reaches into [start, end), whether it is stored or waits: then its node has the
  /// id.
  template <typename Use>
  void Read(std::int64_t start, std::int64_t end, Use use) const {
    Table& table = this->table();
    for (auto it = table.lower_bound(start, nullptr); it != this->end() && it->sOff < end; ++it) {
      use(it->sOff, it->eOff, it->objOff,
          it->data == nullptr ? it->objectID : NodeAt(it->data).objectID);
    }
  }

  /// Waits for a merge that is under way.
  void Settle() { table().checkAndBackfillObjectIDUnlock(true); }

  /// Look-ups and walks keep nothing open.
  class View {
   public:
    explicit View(const RoadTable& table) : table_(table) {}
    template <typename Use>
    void Find(std::int64_t offset, Use use) {
      table_.Find(offset, use);
    }
    template <typename Use>
    void Walk(Use use) {
      table_.Walk(use);
    }

   private:
    const RoadTable& table_;
  };

 private:
  std::deque<ReadyNode> nodes_;  // of the writes since the last flush; none of them moves
  std::set<void*> released_;
};

/// Sets a field of the host's configuration for as long as this object lives.
template <typename T, T FileSystemDaemonConfig::*kField>
class WithSetting {
 public:
  explicit WithSetting(T value) { FileSystemDaemonConfig::GetInstance().Set(kField, value); }
  ~WithSetting() { FileSystemDaemonConfig::GetInstance().Set(kField, before_); }
  WithSetting(const WithSetting&) = delete;
  WithSetting& operator=(const WithSetting&) = delete;

 private:
  T before_ = FileSystemDaemonConfig::GetInstance().Get(kField);
};

/// More records than this in the small database start a merge.
using MergeAfter = WithSetting<std::uint32_t, &FileSystemDaemonConfig::mergeEntriesThreshold>;
/// Whether merges store a bloom file and questions read it.
using PersistBloom = WithSetting<std::uint8_t, &FileSystemDaemonConfig::persistBloom>;

}  // namespace zefs_bench
