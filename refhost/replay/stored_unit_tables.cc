#include "refhost/replay/stored_unit_tables.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

constexpr std::size_t kMostOpen = 64;
constexpr std::size_t kWritesPerFlush = 64;

}  // namespace

StoredUnitTables::StoredUnitTables(std::string directory)
    : directory_(std::move(directory)), cache_([](const std::string& /*share*/) { return 0; }) {}

StoredUnitTables::Unit& StoredUnitTables::Opened(unsigned long unit) {
  auto known = open_.find(unit);
  if (known == open_.end()) {
    if (open_.size() >= kMostOpen) {
      CloseOldest();
    }
    auto fresh = std::make_unique<Unit>(&cache_.counts());
    fresh->table = std::make_unique<StoredTable>(directory_ + "/" + std::to_string(unit),
                                                 "PROVISION", &cache_, &merges_);
    known = open_.emplace(unit, std::move(fresh)).first;
  }
  known->second->lastUse = ++uses_;
  return *known->second;
}

void StoredUnitTables::Insert(unsigned long unit, long start, long end, const ObjectID& object,
                              int dcOffset) {
  Unit& opened = Opened(unit);
  CacheNode* const node = opened.nodes.Make(nullptr);
  node->SetStored(object, dcOffset);
  opened.table->Insert(start, end, &object, 0, node->ForTable(), dcOffset);
  if (++opened.sinceFlush >= kWritesPerFlush) {
    opened.sinceFlush = 0;
    Flush(&opened, false);
  }
}

void StoredUnitTables::Flush(Unit* unit, bool force) {
  unit->table->Flush(force, "",
                     [unit](const std::set<void*>& released) { unit->nodes.Release(released); });
}

void StoredUnitTables::Close(Unit* unit) {
  Flush(unit, true);
  unit->nodes.Settle();
  if (!unit->table->FinishMerges()) {
    throw StoreError(
        "the merge of the table in " + unit->table->directory() + " does not come to an end",
        EBUSY);
  }
  unit->table.reset();
}

void StoredUnitTables::CloseOldest() {
  const auto oldest = std::min_element(
      open_.begin(), open_.end(),
      [](const auto& a, const auto& b) { return a.second->lastUse < b.second->lastUse; });
  Close(oldest->second.get());
  open_.erase(oldest);
}

void StoredUnitTables::EndWrites() {
  while (!open_.empty()) {
    Close(open_.begin()->second.get());
    open_.erase(open_.begin());
  }
}

}  // namespace zefs::refhost
