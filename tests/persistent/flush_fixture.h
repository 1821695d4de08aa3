#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <lmdb.h>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "host/zefs_log.h"
#include "tests/persistent/lifecycle_fixture.h"
#include "tests/support/log_addresses.h"

namespace zefs::test {

/// Hands the calls of the table on to a FakeCache, and shows each as a line of the log, so that
/// their place among the table's own lines can be seen.
class HostInTheLog final : public DataCacheManagementInterface {
 public:
  explicit HostInTheLog(FakeCache* cache) : cache_(cache) {}

  int GetNodeObjectID(void* node, DataCacheNode::ObjectID* out, bool flag) override {
    ZEFS_LOG(kLogTrace, "host: object id of %p", node);
    const bool refused = refuseFrom_ != 0 && ++asked_ >= refuseFrom_;
    return refused ? -1 : cache_->GetNodeObjectID(node, out, flag);
  }
  int ProtectShare(DataTransferManagement* transfer, const std::string& shareScope,
                   const std::string& share) override {
    ZEFS_LOG(kLogTrace, "host: protect %s of %s", share.c_str(), shareScope.c_str());
    transfer_ = transfer;
    if (atProtect_) {
      atProtect_();
    }
    return cache_->ProtectShare(transfer, shareScope, share);
  }

  /// From the `nth` question on (1: the next) no node has an object id.
  void RefuseFrom(int nth) {
    asked_ = 0;
    refuseFrom_ = nth;
  }

  DataTransferManagement* transfer_ = nullptr;  ///< of the last ProtectShare
  std::function<void()> atProtect_;             ///< what a flush does before it writes

 private:
  FakeCache* cache_;
  int asked_ = 0;
  int refuseFrom_ = 0;
};

/// Keeps the settings that a flush reads as they are now, and puts them back.
class SavedFlushSettings {
 public:
  using Config = FileSystemDaemonConfig;
  ~SavedFlushSettings() {
    auto& config = Config::GetInstance();
    for (const auto& [field, value] : numbers_) {
      config.Set(field, value);
    }
    config.Set(&Config::dcOffsetTrackingEnabled, tracking_);
    config.Set(&Config::persistBloom, bloom_);
  }
  SavedFlushSettings() = default;
  SavedFlushSettings(const SavedFlushSettings&) = delete;
  SavedFlushSettings& operator=(const SavedFlushSettings&) = delete;

 private:
  using Number = std::uint32_t Config::*;
  static std::pair<Number, std::uint32_t> Now(Number field) {
    return {field, Config::GetInstance().Get(field)};
  }
  const std::vector<std::pair<Number, std::uint32_t>> numbers_ = {
      Now(&Config::batchUpdateThreshold),     Now(&Config::objIdReadyThreshold),
      Now(&Config::mergeEntriesThreshold),    Now(&Config::mergeCommitCountThreshold),
      Now(&Config::mergeCommitTimeThreshold), Now(&Config::mergeWaitEntriesThreshold),
      Now(&Config::dcOffsetStoreThreshold)};
  const bool tracking_ = Config::GetInstance().Get(&Config::dcOffsetTrackingEnabled);
  const std::uint8_t bloom_ = Config::GetInstance().Get(&Config::persistBloom);
};

/// The record of an extent as it is stored whole.
inline PlainRecord WholeRecord(std::int64_t start, std::int64_t end,
                               const DataCacheNode::ObjectID& oid, std::int32_t objOff,
                               std::int32_t dcOffset) {
  return {end, EntryBytes({start, oid.dcid, oid.fp, objOff, dcOffset, oid.attrByte, oid.attrWord,
                           oid.attrFlag})};
}

/// The record of a piece that was cut out of an extent.
inline PlainRecord PieceRecord(std::int64_t start, std::int64_t end, DataCacheNode::ObjectID oid,
                               std::int32_t objOff, std::int32_t dcOffset) {
  oid.attrByte = 0;
  oid.attrFlag = 0;
  return WholeRecord(start, end, oid, objOff, dcOffset);
}

/// A record of the journal about an extent.
inline JournalFields JournalOf(std::uint32_t op, std::int64_t start, std::int64_t end,
                               const DataCacheNode::ObjectID& oid, std::int64_t objOff) {
  return {op, start, end, oid.dcid, objOff, oid.fp, 0};
}

/// The bytes of one record of the offset store.
inline std::string OffsetBytes(std::int64_t key, const DataCacheNode::ObjectID& oid,
                               std::int64_t dcOffset) {
  std::string bytes(56, '\0');
  std::memcpy(bytes.data(), &key, 8);
  std::memcpy(bytes.data() + 8, &oid.dcid, 8);
  std::memcpy(bytes.data() + 16, oid.fp.data(), 32);
  std::memcpy(bytes.data() + 48, &dcOffset, 8);
  return bytes;
}

/// A table that flushes when it is told to, and starts no merge. The offset store is off.
class FlushTest : public LifecycleTest {
 protected:
  using Config = FileSystemDaemonConfig;
  using LMDBContext = Aldenta::Qnd::Morene::Zefs::LMDBContext;
  using ReadyExtents = std::map<long, Aldenta::Qnd::Morene::Zefs::ObjectIDAndDCOff>;
  using UniqueLock = CMappingLMDB::UniqueLock;
  static constexpr std::uint32_t kNever = std::numeric_limits<std::uint32_t>::max();

  FlushTest() {
    Set(&Config::batchUpdateThreshold, 1U);
    Set(&Config::objIdReadyThreshold, 1U);
    Set(&Config::mergeEntriesThreshold, kNever);
    Set(&Config::mergeCommitCountThreshold, kNever);
    Set(&Config::mergeCommitTimeThreshold, kNever);
    Set(&Config::mergeWaitEntriesThreshold, kNever);
    Set(&Config::persistBloom, std::uint8_t{0});
    Set(&Config::dcOffsetTrackingEnabled, false);
  }

  /// The destructor of a table leaves a tmp database open: closes it, for the leak checker.
  ~FlushTest() override {
    if (table_ != nullptr) {
      peer().WaitingForMerge();
      if (peer().tmpDb().opened) {
        peer().ClearDBEnv(&peer().tmpDb());
      }
    }
  }

  /// A loaded table over these records, and no log lines of that.
  CMappingLMDB& LoadOver(const Records& small = {}, const std::string& type = "PROVISION") {
    Write("lsml0.mdb", small);
    table_ = std::make_unique<CMappingLMDB>(&host_, type);
    EXPECT_EQ(0, table_->load(Directory().string(), false, ""));
    log_.Take();
    return *table_;
  }

  /// Every record of the offset store goes to its file at once, in the order of the calls.
  static void TrackOffsets() {
    Set(&Config::dcOffsetTrackingEnabled, true);
    Set(&Config::dcOffsetStoreThreshold, 1U);
  }

  /// What is named here is called so in Lines().
  DataCacheNode* NotReady() {
    DataCacheNode* const node = cache_.NewNode();
    nodes_.push_back(node);
    return node;
  }
  /// A node that has this object id.
  DataCacheNode* Ready(const ObjectID& oid, std::int32_t dcOffset = -3) {
    DataCacheNode* const node = NotReady();
    cache_.MakeReady(node, oid, dcOffset);
    return node;
  }

  /// Writes an extent whose object only its node knows.
  void WriteNode(long sOff, long eOff, DataCacheNode* node, long objOff = 0) {
    EXPECT_EQ(0, table().insert(sOff, eOff, nullptr, objOff, 0, node, -1, nullptr));
  }
  /// Writes an extent of a known object, without a node.
  void WriteKnown(long sOff, long eOff, const ObjectID& oid, long objOff = 0, int dcOffset = -3) {
    EXPECT_EQ(0, table().insert(sOff, eOff, &oid, objOff, 0, nullptr, dcOffset, nullptr));
  }

  std::set<void*> Flush(bool force = true) {
    std::set<void*> released;
    table().checkAndBackfillObjectID(&released, force, "scope", "share", nullptr, nullptr);
    return released;
  }

  /// All records of an open database, the special ones first.
  static Records All(const LMDBContext& db) {
    MDB_txn* txn = nullptr;
    MDB_cursor* cursor = nullptr;
    if (::mdb_txn_begin(db.env, nullptr, MDB_RDONLY, &txn) != 0 ||
        ::mdb_cursor_open(txn, db.dbi, &cursor) != 0) {
      throw std::runtime_error("cannot read an open database");
    }
    Records records;
    MDB_val key;
    MDB_val value;
    while (::mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0) {
      PlainRecord record{0, {static_cast<const char*>(value.mv_data), value.mv_size}};
      std::memcpy(&record.key, key.mv_data, sizeof(record.key));
      records.push_back(record);
    }
    ::mdb_cursor_close(cursor);
    ::mdb_txn_abort(txn);
    return records;
  }
  /// Its extents alone.
  static Records Extents(const LMDBContext& db) {
    Records records = All(db);
    while (!records.empty() && records.front().key < 0) {
      records.erase(records.begin());
    }
    return records;
  }
  Records Small() { return Extents(peer().smallDb()); }
  /// The special items of a database, by key.
  static std::map<std::int64_t, std::string> Special(const LMDBContext& db) {
    std::map<std::int64_t, std::string> items;
    for (const PlainRecord& record : All(db)) {
      if (record.key < 0) {
        items[record.key] = record.value;
      }
    }
    return items;
  }

  /// The end offsets of the cached extents, and of those that are pending.
  std::vector<long> Cached() {
    std::vector<long> keys;
    for (const auto& [key, entry] : peer().extCache()) {
      keys.push_back(key);
    }
    return keys;
  }
  std::vector<long> Pending() {
    std::vector<long> keys(peer().objList().begin(), peer().objList().end());
    EXPECT_EQ(keys.size(), peer().objListCount());
    return keys;
  }
  std::set<long> KeysWithNode() {
    std::set<long> keys;
    for (const auto& [key, node] : peer().extDataPointers()) {
      keys.insert(key);
    }
    return keys;
  }

  /// The place of the cursor in the list; -1 for its end.
  long CursorIndex() {
    auto& list = peer().objList();
    const auto at = peer().objListCursor();
    return at == list.end() ? -1 : std::distance(list.begin(), at);
  }

  /// The lines from `minimum` up, with "node 1" and so on for the address of a node and PTR for
  /// other addresses.
  std::vector<std::string> Named(int minimum = 0) {
    std::vector<std::string> lines = Lines(minimum);
    for (std::string& line : lines) {
      line = WithAddressesNamed(line, [&](const std::string& address) { return NameOf(address); });
    }
    return lines;
  }

  /// What Named() puts for an address.
  std::string NameOf(const std::string& address) const {
    for (std::size_t i = 0; i < nodes_.size(); ++i) {
      std::ostringstream text;
      text << static_cast<const void*>(nodes_[i]);
      if (text.str() == address) {
        return "node " + std::to_string(i + 1);
      }
    }
    return "PTR";
  }

  const SavedFlushSettings flushSettings_;
  HostInTheLog host_{&cache_};
  std::vector<DataCacheNode*> nodes_;
};

}  // namespace zefs::test
