#include "tests/system/model/tables.h"

#include "host/config.h"
#include "tests/persistent/unsynced.h"

namespace zefs::test {

// --- nodes

void ModelCache::Clear() {
  pointers_.clear();
  numbers_.clear();
}

DataCacheNode* ModelCache::Pointer(int number) {
  if (number == 0) {
    return nullptr;
  }
  const auto index = static_cast<std::size_t>(number);
  while (pointers_.size() <= index) {
    pointers_.push_back(std::make_unique<DataCacheNode>());
    numbers_[pointers_.back().get()] = static_cast<int>(pointers_.size()) - 1;
  }
  return pointers_[index].get();
}

int ModelCache::NumberOf(const void* node) const {
  if (node == nullptr) {
    return 0;
  }
  const auto found = numbers_.find(node);
  return found == numbers_.end() ? -1 : found->second;
}

std::set<int> ModelCache::NumbersOf(const std::set<void*>& nodes) const {
  std::set<int> numbers;
  for (const void* node : nodes) {
    numbers.insert(NumberOf(node));
  }
  return numbers;
}

int ModelCache::GetNodeObjectID(void* node, DataCacheNode::ObjectID* out, bool /*flag*/) {
  const int number = NumberOf(node);
  const Node& known = nodes_->at(static_cast<std::size_t>(number));
  if (!known.ready) {
    return NotReady(number);
  }
  *out = known.id;
  Pointer(number)->dcOffset = known.dcOffset;
  return 0;
}

int ModelCache::ProtectShare(DataTransferManagement* /*transfer*/,
                             const std::string& /*shareScope*/, const std::string& /*share*/) {
  return refuse_ ? kRefusal : 0;
}

// --- tables

TableMakers Genuine() {
  using Aldenta::Qnd::Morene::Zefs::CreateMappingTable;
  const auto make = [](std::uint32_t useLmdbTable, DataCacheManagementInterface* cache,
                       const std::string& type) {
    ZefsConfig::GetInstance().useLmdbTable = useLmdbTable;
    return std::unique_ptr<CMappingTable>(CreateMappingTable(cache, type));
  };
  return {[make](DataCacheManagementInterface* cache) { return make(0, cache, ""); },
          [make](DataCacheManagementInterface* cache, const std::string& type) {
            return make(1, cache, type);
          }};
}

void Apply(const Settings& settings) {
  using Config = FileSystemDaemonConfig;
  constexpr std::uint32_t kNever = 1U << 30;
  constexpr std::uint32_t kRoomOfFilter = 100;  // merges are awaited in any case
  Config& config = Config::GetInstance();
  config.Set(&Config::bigTableMapSizeGiB, 1U);
  config.Set(&Config::batchUpdateThreshold, settings.batchThreshold);
  config.Set(&Config::objIdReadyThreshold, settings.readyThreshold);
  config.Set(&Config::mergeEntriesThreshold, settings.mergeEntries);
  config.Set(&Config::mergeCommitCountThreshold, settings.mergeCommits);
  config.Set(&Config::mergeCommitTimeThreshold, kNever);
  config.Set(&Config::mergeWaitEntriesThreshold, kRoomOfFilter);
  config.Set(&Config::mergeCommitBatchSize, settings.mergeBatch);
  config.Set(&Config::persistBloom, static_cast<std::uint8_t>(settings.bloom));
  config.Set(&Config::prefetchEnabled, static_cast<std::int32_t>(settings.prefetch));
  config.Set(&Config::prefetchSpanBytes, settings.prefetchSpan);
  config.Set(&Config::dcOffsetTrackingEnabled, settings.tracking);
  config.Set(&Config::dcOffsetStoreThreshold, settings.trackingThreshold);
}

int Tables::Load(const std::string& type) {
  stored = makers.stored(&cache, type);
  const int result = stored->load(path, false, "");
  DoNotSync();
  return result;
}

void Tables::DoNotSync() {
  test::DoNotSync(peer().dbChain());
}

void Tables::MakeMemory(const Layer& tree) {
  memory = makers.memory(&cache);
  for (const auto& [end, piece] : tree) {
    memory->append(piece.start, end, &piece.id, piece.objOff, piece.checksum,
                   cache.Pointer(piece.node), nullptr);
  }
}

}  // namespace zefs::test
