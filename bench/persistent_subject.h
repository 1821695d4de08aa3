#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include <boost/filesystem/path.hpp>

#include "bench/workload.h"
#include "host/config.h"
#include "persistent/mapping_lmdb.h"
#include "table/mapping_table.h"

namespace zefs_bench {

/// A data cache that is asked and knows no object id yet, as while its data are being processed.
class UnreadyCache final : public zefs::DataCacheManagementInterface {
 public:
  int GetNodeObjectID(void* /*node*/, ObjectID* /*out*/, bool /*flag*/) override { return -1; }
  int ProtectShare(zefs::DataTransferManagement* /*transfer*/, const std::string& /*shareScope*/,
                   const std::string& /*share*/) override {
    return 0;
  }
};

/// The persistent table behind the same calls as its peers, reached as a host reaches it: on the
/// heap, through the virtual interface. Without prefetching. `Cache` is the data cache behind it.
template <typename Cache>
class TableOver {
 public:
  using Table = Aldenta::Qnd::Morene::Zefs::CMappingTable;
  using Persistent = Aldenta::Qnd::Morene::Zefs::CMappingLMDB;

  /// Loads the table of `directory`, which no earlier object of this process has loaded.
  explicit TableOver(const boost::filesystem::path& directory)
      : table_(new Persistent(&cache_, Aldenta::Qnd::Morene::Zefs::ZEFS_PROVISION_STR)) {
    FileSystemDaemonConfig::GetInstance().Set(&FileSystemDaemonConfig::prefetchEnabled, 0);
    const int code = table_->load(directory.string(), false, "");
    if (code != 0) {
      throw std::runtime_error("the table does not load: " + std::to_string(code));
    }
  }

  void Put(const Write& write, void* node) { Insert(write, node); }
  void Insert(const Write& write, void* node) {
    table_->insert(write.sOff, write.eOff, &write.objectID, write.objOff, 0, node, -1, nullptr);
  }

  /// Calls `use` with start, end and object offset and the object id of the extent that holds
  /// `offset`, if there is one.
  template <typename Use>
  void Find(std::int64_t offset, Use use) const {
    const auto it = table_->lower_bound(offset, nullptr);
    if (it != end_ && it->sOff <= offset) {
      use(it->sOff, it->eOff, it->objOff, it->objectID);
    }
  }

  /// The same for every extent in order.
  template <typename Use>
  void Walk(Use use) const {
    for (auto it = table_->begin(); it != end_; ++it) {
      use(it->sOff, it->eOff, it->objOff, it->objectID);
    }
  }

  /// The object itself.
  Persistent& table() const { return static_cast<Persistent&>(*table_); }

 protected:
  const Table::iterator& end() const { return end_; }

 private:
  Cache cache_;
  std::unique_ptr<Table> table_;
  Table::iterator end_ = table_->end();  // behind every table state alike
};

using PersistentSubject = TableOver<UnreadyCache>;

}  // namespace zefs_bench
