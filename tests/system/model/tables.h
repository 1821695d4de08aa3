#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "persistent/mapping_lmdb.h"
#include "table/mapping_table.h"
#include "tests/persistent/mapping_lmdb_peer.h"
#include "tests/system/model/model.h"

namespace zefs::test {

using CMappingTable = Aldenta::Qnd::Morene::Zefs::CMappingTable;
using CMappingLMDB = Aldenta::Qnd::Morene::Zefs::CMappingLMDB;

/// A data cache whose nodes know what the model says of them.
class ModelCache final : public DataCacheManagementInterface {
 public:
  static constexpr int kRefusal = 99;

  void Follow(const Nodes* nodes) { nodes_ = nodes; }
  /// Forgets all nodes; no table may know one.
  void Clear();

  /// The node of this number, made when it is first asked for; null for 0.
  DataCacheNode* Pointer(int number);
  /// -1: a pointer that is no node.
  int NumberOf(const void* node) const;
  std::set<int> NumbersOf(const std::set<void*>& nodes) const;
  /// What GetNodeObjectID says of a node that is not ready, which is not the same for all.
  static int NotReady(int number) { return number % 2 == 0 ? -1 : 1; }

  void Refuse(bool refuse) { refuse_ = refuse; }

  int GetNodeObjectID(void* node, DataCacheNode::ObjectID* out, bool flag) override;
  int ProtectShare(DataTransferManagement* transfer, const std::string& shareScope,
                   const std::string& share) override;

 private:
  const Nodes* nodes_ = nullptr;
  std::vector<std::unique_ptr<DataCacheNode>> pointers_;
  std::unordered_map<const void*, int> numbers_;
  bool refuse_ = false;
};

/// How the two tables are made; tests make faulty ones.
struct TableMakers {
  std::function<std::unique_ptr<CMappingTable>(DataCacheManagementInterface*)> memory;
  std::function<std::unique_ptr<CMappingTable>(DataCacheManagementInterface*, const std::string&)>
      stored;
};

/// Both through the factory of the library.
TableMakers Genuine();

/// The host's settings become these.
void Apply(const Settings& settings);

/// The two tables of one life, and what they need.
struct Tables {
  using Peer = Aldenta::Qnd::Morene::Zefs::MappingLMDBTestPeer;

  Tables(const TableMakers& tableMakers, std::string directory)
      : makers(tableMakers), path(std::move(directory)) {}

  const TableMakers& makers;
  ModelCache cache;
  std::string path;  ///< of the stored table; "2" is added to it and taken off as it moves
  std::unique_ptr<CMappingTable> memory;
  std::unique_ptr<CMappingTable> stored;

  CMappingLMDB& lmdb() { return dynamic_cast<CMappingLMDB&>(*stored); }
  Peer peer() { return Peer(lmdb()); }

  /// Makes and loads the stored table. The result of the load.
  int Load(const std::string& type);
  /// Merges open databases anew.
  void DoNotSync();
  void MakeMemory(const Layer& tree);
};

}  // namespace zefs::test
