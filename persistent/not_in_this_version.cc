#include <cerrno>

#include "host/zefs_log.h"
#include "persistent/mapping_lmdb.h"

// Operations of the persistent table that this version does not have. A host that calls one gets an
// exception and a line that names it; nothing is changed.

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

[[noreturn]] void Refuse(const char* operation) {
  ZEFS_LOG(zefs::kLogFailure, "CMappingLMDB::%s() is not in this version of the library",
           operation);
  throw SysException(ENOSYS);
}

}  // namespace

int CMappingLMDB::truncate(long /*size*/, FILE* /*trace*/) {
  Refuse(__func__);
}

void CMappingLMDB::UpdateExtPath(const std::string& /*path*/) {
  Refuse(__func__);
}

int CMappingLMDB::remove(const std::string& /*path*/) {
  Refuse(__func__);
}

int CMappingLMDB::Snapshot(const std::string& /*source*/, const std::string& /*target*/) {
  Refuse(__func__);
}

CMappingTable::ObjectIDs CMappingLMDB::GetObjectIdsAndOffsets(unsigned long /*start*/,
                                                              unsigned long /*end*/) {
  Refuse(__func__);
}

int CMappingLMDB::UpdateObjectIdsByRange(unsigned long /*start*/, unsigned long /*end*/,
                                         const ObjectIDs& /*list*/) {
  Refuse(__func__);
}

bool CMappingLMDB::IsDataChanged() {
  Refuse(__func__);
}

void CMappingLMDB::GetWritingNodes(std::vector<DataCacheNodePointerWithStatus>* /*out*/,
                                   bool /*internal_flush*/) {
  Refuse(__func__);
}

void CMappingLMDB::GetDCInfoList(const PrefetchRange& /*range*/, std::list<DCInfo>* /*out*/) {
  Refuse(__func__);
}

int CMappingLMDB::GetEmptyDcOffsetList(std::vector<zefs::DCOffset>* /*out*/) {
  Refuse(__func__);
}

int CMappingLMDB::BackfillDcOffset(std::vector<zefs::DCOffset>& /*offsets*/) {
  Refuse(__func__);
}

int CMappingLMDB::AppendToRefreshDcOffsetList(long /*key*/, unsigned long /*dcid*/,
                                              crfp_digest_t /*fp*/) {
  Refuse(__func__);
}

int CMappingLMDB::GetMapAbsolutePath(const std::string& /*path*/, std::string* /*out*/) {
  Refuse(__func__);
}

int CMappingLMDB::GetMapIndexSet(const std::string& /*path*/, std::set<std::string>* /*out*/) {
  Refuse(__func__);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
