#include <algorithm>
#include <limits>
#include <list>

#include "table/sys_exception.h"
#include "tests/system/model/steps.h"

// Look-ups, walks, sizes and plans.

namespace zefs::test {

namespace {

using Aldenta::Qnd::Morene::Zefs::Ext;
using Aldenta::Qnd::Morene::Zefs::SysException;

Seen SeenOf(const Ext& ext, const ModelCache& cache) {
  Seen seen;
  seen.end = ext.eOff;
  seen.piece.start = ext.sOff;
  seen.piece.objOff = ext.objOff;
  seen.piece.id = ext.objectID;
  seen.piece.dcOffset = ext.dcOffset;
  seen.piece.checksum = ext.objCksum;
  seen.piece.node = cache.NumberOf(ext.data);
  return seen;
}

bool Same(const Seen& a, const Seen& b) {
  return a.end == b.end && a.piece == b.piece;
}

}  // namespace

void Steps::CheckSeen(const char* what, const std::optional<Seen>& expected, CMappingTable* table,
                      const CMappingTable::iterator& found) {
  ++compares_;
  if (found == table->end()) {
    if (expected) {
      Fail(std::string(what) + ": expected " + Words(expected) + ", got the end");
    }
    return;
  }
  const Seen seen = SeenOf(*found, tables_->cache);
  if (!expected || !Same(*expected, seen)) {
    Fail(std::string(what) + ": expected " + Words(expected) + ", got " + Words(seen));
  }
}

void Steps::LookUpAt(long offset) {
  const auto expected = model_.Find(offset);
  const std::string at = " at " + std::to_string(offset);
  CheckSeen(("look-up in memory" + at).c_str(), expected.memory, tables_->memory.get(),
            tables_->memory->lower_bound(offset, nullptr));
  CheckSeen(("look-up" + at).c_str(), expected.stored, tables_->stored.get(),
            tables_->stored->lower_bound(offset, nullptr));
}

void Steps::LookUp(const Operation& operation) {
  if (!live()) {
    return;
  }
  const long offset = operation.pick % 64 == 0 ? std::numeric_limits<long>::max() : operation.at;
  const bool cached = operation.kind == Kind::kFindCached;
  const auto expected = cached ? model_.FindCached(offset) : model_.Find(offset);
  const auto ask = [&](CMappingTable* table, CMappingTable::SharedLock* lock) {
    return cached                          ? table->lower_bound_in_cache(offset, lock)
           : operation.kind == Kind::kFind ? table->find(offset, lock)
                                           : table->lower_bound(offset, lock);
  };
  CMappingTable::SharedLock lock;
  CheckSeen("find in memory", expected.memory, tables_->memory.get(),
            ask(tables_->memory.get(), &lock));
  Expect(!lock.owns_lock(), "a look-up in memory hands a lock over");
  CheckSeen("find", expected.stored, tables_->stored.get(), ask(tables_->stored.get(), &lock));
  Equal("a look-up hands its lock over", expected.stored && expected.stored->piece.node != 0,
        lock.owns_lock());
}

void Steps::Walk(const Operation& operation) {
  if (!live()) {
    return;
  }
  int steps = static_cast<int>(operation.pick % 16) + 1;
  auto memory = tables_->memory->begin();
  auto stored = tables_->stored->begin();
  auto expected = model_.Find(0);
  CheckSeen("begin in memory", expected.memory, tables_->memory.get(), memory);
  CheckSeen("begin", expected.stored, tables_->stored.get(), stored);
  std::optional<Seen> inMemory = expected.memory;
  std::optional<Seen> inStored = expected.stored;
  for (; steps > 0 && (inMemory || inStored); --steps) {
    if (inMemory) {
      inMemory = model_.Find(inMemory->end).memory;
      CheckSeen("step in memory", inMemory, tables_->memory.get(), ++memory);
    }
    if (inStored) {
      inStored = model_.Find(inStored->end).stored;
      CheckSeen("step", inStored, tables_->stored.get(), ++stored);
    }
  }
}

void Steps::WalkBack(const Operation& operation) {
  if (!live()) {
    return;
  }
  const Layer& tree = model_.tree();
  if (!tree.empty()) {
    auto expected = tree.rbegin();
    auto memory = tables_->memory->lower_bound(expected->second.start, nullptr);
    for (std::uint32_t steps = operation.pick % 16 + 1; steps > 0 && ++expected != tree.rend();
         --steps) {
      CheckSeen("step back in memory", Seen{expected->first, expected->second, 0},
                tables_->memory.get(), --memory);
    }
  }
  auto stored = tables_->stored->lower_bound(operation.at, nullptr);
  bool thrown = false;
  try {
    --stored;
  } catch (const SysException& e) {
    thrown = std::string(e.what()) == "errno -1\n";
  }
  Expect(thrown, "a stored table steps back");
}

void Steps::Sizes() {
  if (!live()) {
    return;
  }
  const auto size = model_.Size();
  Equal("size in memory", size.memory, tables_->memory->size());
  Equal("size", size.stored, tables_->stored->size());
  long nodes = -1;
  long slots = -1;
  Expect(tables_->memory->getTableSize(&nodes, &slots) > 0 && nodes > 0 && slots >= size.memory,
         "table size in memory");
  Equal("table size", size.stored, tables_->stored->getTableSize(&nodes, &slots));
  Expect(nodes == 0 && slots == 0, "nodes and slots of a stored table");
  const auto file = model_.FileSize();
  Equal("file size in memory", file.memory, tables_->memory->getFileSize());
  Equal("file size", file.stored, tables_->stored->getFileSize());
}

void Steps::MakePlan(const Operation& operation) {
  const long end = operation.at + (operation.pick % 16 == 0 ? 0 : operation.length);
  const Plan expected = model_.MakePlan(operation.at, end);
  if (!live()) {
    return;
  }
  const CMappingTable::PrefetchRange range{operation.at, end, operation.pick};
  std::list<CMappingTable::DCInfo> plan;
  tables_->memory->GetDCInfoList(range, &plan);
  Expect(plan.empty(), "a plan in memory");
  tables_->stored->GetDCInfoList(range, &plan);
  Equal("containers of a plan", expected.containers.size(), plan.size());
  auto container = expected.containers.begin();
  for (const auto& info : plan) {
    Equal("container of a plan", container->first, info.dcid);
    Equal("tag of a plan", range.rangeTag, info.rangeTag);
    Equal("extents of a plan", container->second.size(), info.extents.size());
    std::uint32_t bytes = 0;
    for (std::size_t i = 0; i < info.extents.size(); ++i) {
      const Planned& planned = container->second[i];
      const auto& found = info.extents[i];
      const auto length = static_cast<std::uint32_t>(planned.end - planned.piece.start);
      Expect(found.sOff == planned.piece.start && found.length == length &&
                 found.objOff == static_cast<std::uint32_t>(planned.piece.objOff) &&
                 SameId(found.objectID, planned.piece.id) &&
                 found.dcOffset == planned.piece.dcOffset && found.inRange == planned.inRange,
             "extent of a plan: expected " + Words(planned.piece, planned.end) + ", got one at " +
                 std::to_string(found.sOff) + " of " + std::to_string(found.length) + " bytes");
      bytes += length;
    }
    Equal("bytes of a plan", bytes, info.totalBytes);
    ++container;
  }
  Equal("prefetched extents", model_.prefetched(), tables_->peer().prefetchExts().size());
}

void Steps::CheckAll() {
  const std::string apart = model_.Agree();
  Expect(apart.empty(), "the two tables differ: " + apart);
  if (!live()) {
    return;
  }
  auto at = tables_->memory->begin();
  for (const auto& [end, piece] : model_.tree()) {
    CheckSeen("extent in memory", Seen{end, piece, 0}, tables_->memory.get(), at);
    ++at;
  }
  Expect(at == tables_->memory->end(), "extents in memory behind the last");
  for (const Seen& seen : AllOf(model_.StoredLayers())) {
    for (const long offset : {seen.piece.start - 1, seen.piece.start, seen.end - 1, seen.end}) {
      LookUpAt(offset);
    }
  }
  Sizes();
  MemoryReferences();
  StoredReferences();
  GetDoid();
  IsChanged();
  tally_.compares += std::exchange(compares_, 0);
}

}  // namespace zefs::test
