#include <cstdlib>

#include <boost/thread/lock_types.hpp>

#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"

namespace Aldenta::Qnd::Morene::Zefs {

void CMappingLMDB::WaitingForMerge() {
  const boost::unique_lock<boost::mutex> lock(mergeMutex_);
  if (mergeThreads_.empty()) {
    return;
  }
  void* result = nullptr;
  const int ret = pthread_join(mergeThreads_.front(), &result);
  if (ret == 0) {
    std::free(result);
  } else {
    ZEFS_LOG(zefs::kLogFailure, "Failed to join a thread, return value %d", ret);
  }
  mergeThreads_.clear();
}

}  // namespace Aldenta::Qnd::Morene::Zefs
