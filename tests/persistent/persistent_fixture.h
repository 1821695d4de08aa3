#pragma once

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "host/config.h"
#include "refhost/host/log_recorder.h"
#include "tests/persistent/mapping_lmdb_peer.h"
#include "tests/support/oid.h"
#include "tests/support/temp_dir.h"

namespace zefs::test {

/// A data cache whose nodes know their object ids when the test says so. A node belongs to the
/// cache and lives as long as it.
class FakeCache final : public DataCacheManagementInterface {
 public:
  using ObjectID = DataCacheNode::ObjectID;

  /// A new node that has no object id yet.
  DataCacheNode* NewNode() {
    nodes_.push_back(std::make_unique<DataCacheNode>());
    return nodes_.back().get();
  }

  /// `node` has this object id and container offset from now on.
  void MakeReady(DataCacheNode* node, const ObjectID& oid, std::int32_t dcOffset) {
    node->dcOffset = dcOffset;
    ready_[node] = oid;
  }
  void MakeNotReady(const DataCacheNode* node) { ready_.erase(node); }

  int GetNodeObjectID(void* node, ObjectID* out, bool flag) override {
    asked_.push_back(node);
    allFlagged_ = allFlagged_ && flag;
    const auto known = ready_.find(node);
    if (known == ready_.end()) {
      return -1;
    }
    *out = known->second;
    return 0;
  }

  int ProtectShare(DataTransferManagement* /*transfer*/, const std::string& shareScope,
                   const std::string& share) override {
    protected_.push_back(shareScope + '/' + share);
    return protectResult_;
  }

  std::vector<const void*> asked_;  ///< nodes of all GetNodeObjectID calls, in their order
  bool allFlagged_ = true;          ///< every call had its flag set
  std::vector<std::string> protected_;
  int protectResult_ = 0;

 private:
  std::vector<std::unique_ptr<DataCacheNode>> nodes_;
  std::map<const void*, ObjectID> ready_;
};

/// Keeps the settings of the process as they are now, and puts them back.
class SavedSettings {
 public:
  SavedSettings() : saved_(Read()) {}
  ~SavedSettings() {
    auto& config = FileSystemDaemonConfig::GetInstance();
    config.Set(&FileSystemDaemonConfig::bigTableMapSizeGiB, saved_.bigTableMapSizeGiB);
    config.Set(&FileSystemDaemonConfig::prefetchEnabled, saved_.prefetchEnabled);
  }
  SavedSettings(const SavedSettings&) = delete;
  SavedSettings& operator=(const SavedSettings&) = delete;

 private:
  struct Settings {
    std::uint32_t bigTableMapSizeGiB;
    std::int32_t prefetchEnabled;
  };
  static Settings Read() {
    const auto& config = FileSystemDaemonConfig::GetInstance();
    return {config.Get(&FileSystemDaemonConfig::bigTableMapSizeGiB),
            config.Get(&FileSystemDaemonConfig::prefetchEnabled)};
  }
  Settings saved_;
};

/// A persistent table in a directory of its own, not loaded yet, with prefetching off and a small
/// full database, and every log line kept.
class PersistentTableTest : public testing::Test {
 protected:
  using ObjectID = Aldenta::Qnd::Morene::Zefs::ObjectID;
  using CMappingLMDB = Aldenta::Qnd::Morene::Zefs::CMappingLMDB;
  using Peer = Aldenta::Qnd::Morene::Zefs::MappingLMDBTestPeer;

  PersistentTableTest() {
    Set(&FileSystemDaemonConfig::prefetchEnabled, 0);
    Set(&FileSystemDaemonConfig::bigTableMapSizeGiB, 1U);
  }

  template <typename T>
  static void Set(T FileSystemDaemonConfig::*field, T value) {
    FileSystemDaemonConfig::GetInstance().Set(field, value);
  }

  /// The directory of the table; it does not exist before the first load.
  boost::filesystem::path Directory() const { return dir_ / "table"; }
  boost::filesystem::path File(const std::string& name) const { return Directory() / name; }

  /// A table that is not loaded. One lives at a time.
  CMappingLMDB& Make(const std::string& type = "PROVISION") {
    table_ = std::make_unique<CMappingLMDB>(&cache_, type);
    return *table_;
  }

  /// A table that is loaded from Directory().
  CMappingLMDB& Load(const std::string& type = "PROVISION", const std::string& prefix = "") {
    CMappingLMDB& table = Make(type);
    EXPECT_EQ(0, table.load(Directory().string(), false, prefix));
    return table;
  }

  CMappingLMDB& table() { return *table_; }
  Peer peer() { return Peer(*table_); }
  void Destroy() { table_.reset(); }

  /// The lines so far from `minimum` up, as "level text".
  std::vector<std::string> Lines(int minimum = 0) {
    std::vector<std::string> lines;
    for (const auto& record : log_.Take()) {
      if (record.level >= minimum) {
        lines.push_back(std::to_string(record.level) + ' ' + record.text);
      }
    }
    return lines;
  }

  const SavedSettings settings_;
  const TempDir dir_;
  refhost::LogRecorder log_;
  FakeCache cache_;
  std::unique_ptr<CMappingLMDB> table_;
};

}  // namespace zefs::test
