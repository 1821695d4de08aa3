#pragma once

#include <cerrno>
#include <string>

#include "host/data_cache.h"

namespace zefs::refhost {

/// The data cache of a host that stores each write before it maps it: there are no nodes.
class NoDataCache final : public DataCacheManagementInterface {
 public:
  int GetNodeObjectID(void* /*node*/, DataCacheNode::ObjectID* /*out*/, bool /*flag*/) override {
    return ENOENT;
  }
  int ProtectShare(DataTransferManagement* /*transfer*/, const std::string& /*shareScope*/,
                   const std::string& /*share*/) override {
    return 0;
  }
};

}  // namespace zefs::refhost
