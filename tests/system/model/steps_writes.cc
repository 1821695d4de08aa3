#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>

#include "table/sys_exception.h"
#include "tests/support/fault_injection.h"
#include "tests/support/oid.h"
#include "tests/system/model/steps.h"

// Writes, and the road of what was written into the databases.

namespace zefs::test {

namespace {

using Aldenta::Qnd::Morene::Zefs::SysException;

constexpr unsigned int kDcidShift = 3;
constexpr unsigned int kTagShift = 6;
constexpr unsigned int kObjOffShift = 12;
constexpr unsigned int kOffsetShift = 24;

/// Containers around the first that counts as one.
std::uint64_t AnyDcid(std::uint32_t pick) {
  constexpr std::uint64_t kFirst = 62;
  constexpr std::uint64_t kSome = 8;
  return kFirst + (pick >> kDcidShift) % kSome;
}

ObjectID AnyId(std::uint32_t pick) {
  constexpr unsigned int kTags = 12;
  return Oid(AnyDcid(pick), (pick >> kTagShift) % kTags);
}

std::int32_t AnyDcOffset(std::uint32_t pick) {
  static constexpr std::array<std::int32_t, 8> kOffsets = {-1, -1, -1, -2, -3, -7, 0, 4096};
  return kOffsets.at((pick >> kOffsetShift) % kOffsets.size());
}

MergeFault AnyFault(std::uint32_t pick) {
  constexpr std::uint32_t kFaults = 6;
  return static_cast<MergeFault>(1 + pick % kFaults);
}

/// Makes the next merge fail, for the life of this object.
class FailingMerge {
 public:
  FailingMerge(const Tables* tables, MergeFault fault) {
    if (fault == MergeFault::kNone || tables == nullptr) {
      return;
    }
    watch_.emplace(tables->path);
    Faults::OnlyDatabase("mergedb");
    if (fault == MergeFault::kSetup) {
      Faults::FailNth(Call::kMdbTxnCommit, 1, ENOSPC);
    } else if (fault == MergeFault::kWalk) {
      Faults::FailNth(Call::kMdbCursorPut, 1, ENOSPC);
    } else {
      Faults::FailNth(Call::kMdbPut, static_cast<int>(fault) - static_cast<int>(MergeFault::kWalk),
                      ENOSPC);
    }
  }

 private:
  std::optional<WatchCalls> watch_;
};

}  // namespace

WriteOf Steps::AnyWrite(const Operation& operation) {
  const std::uint32_t pick = operation.pick;
  WriteOf write;
  write.start = operation.at;
  write.end = operation.at + (operation.kind == Kind::kInsertEmpty ? -static_cast<long>(pick % 3)
                                                                   : operation.length);
  write.piece.id = AnyId(pick);
  write.piece.objOff = (pick >> kObjOffShift) % 5000;
  if (pick % 32 == 0) {
    write.piece.objOff += (1L << 31) - 2000;  // what a database keeps of it is another number
  }
  write.piece.dcOffset = AnyDcOffset(pick);
  write.piece.checksum = pick % 1000;
  write.isKnown = operation.kind != Kind::kInsertNode && operation.kind != Kind::kInsertNothing;
  if (operation.kind == Kind::kInsertNode) {
    write.piece.node = model_.NewNode(AnyId(pick), AnyDcOffset(pick + 1));
  } else if (operation.kind == Kind::kInsertBoth) {
    ObjectID id = write.piece.id;
    id.attrWord += 1;
    write.piece.node = model_.NewNode(id, AnyDcOffset(pick + 1));
  }
  return write;
}

void Steps::Insert(const Operation& operation) {
  const WriteOf write = AnyWrite(operation);
  model_.Insert(write);
  if (!live()) {
    return;
  }
  const Piece& piece = write.piece;
  for (CMappingTable* table : {tables_->memory.get(), tables_->stored.get()}) {
    Equal(
        "insert", 0,
        table->insert(write.start, write.end, write.isKnown ? &piece.id : nullptr, piece.objOff,
                      piece.checksum, tables_->cache.Pointer(piece.node), piece.dcOffset, nullptr));
  }
}

void Steps::Append(const Operation& operation) {
  WriteOf write = AnyWrite(operation);
  write.start = model_.LastEnd() + (operation.pick % 4 == 0 ? operation.at % 1000 : 0);
  if (write.start > std::numeric_limits<long>::max() / 2) {
    return;
  }
  write.end = write.start + operation.length;
  if (operation.pick % 2 == 0) {
    write.piece.node = model_.NewNode(write.piece.id, AnyDcOffset(operation.pick));
    write.isKnown = false;
  }
  model_.Append(write);
  if (!live()) {
    return;
  }
  const Piece& piece = write.piece;
  for (CMappingTable* table : {tables_->memory.get(), tables_->stored.get()}) {
    Equal("append", 0,
          table->append(write.start, write.end, write.isKnown ? &piece.id : nullptr, piece.objOff,
                        piece.checksum, tables_->cache.Pointer(piece.node), nullptr));
  }
}

void Steps::Update(const Operation& operation) {
  const auto found = model_.Find(operation.at);
  if (!found.stored) {
    return;
  }
  // One that was prefetched may show what is long gone; nobody writes that back.
  const auto really = zefs::test::LookUp(model_.StoredLayers(), operation.at);
  if (!really || really->end != found.stored->end || really->piece != found.stored->piece) {
    return;
  }
  model_.Update(*found.stored);
  if (live()) {
    Equal("update", 0, tables_->stored->lower_bound(operation.at, nullptr)->update());
    Equal("update in memory", 0, tables_->memory->find(operation.at, nullptr)->update());
  }
}

void Steps::Truncate(long size) {
  const auto& tmp = model_.disk().tmp;
  if (live() && tmp && !tmp->extents.empty() && tmp->extents.rbegin()->first > size) {
    tally_.leftBehind += 1;
  }
  model_.Truncate(size);
  if (live()) {
    Equal("truncate", 0, tables_->memory->truncate(size, nullptr));
    Equal("truncate, stored", 0, tables_->stored->truncate(size, nullptr));
  }
}

void Steps::SetFileSize(long size) {
  model_.SetFileSize(size);
  if (live()) {
    Equal("set file size", 0, tables_->memory->setFileSize(size));
    Equal("set file size, stored", 0, tables_->stored->setFileSize(size));
  }
}

// --- nodes

void Steps::MakeReady(int node) {
  const std::vector<long> starts = model_.MakeReady(node);
  if (!live()) {
    return;
  }
  // The stored table asks by itself; the one in memory is told.
  const ObjectID& id = model_.nodes().at(static_cast<std::size_t>(node)).id;
  for (const long start : starts) {
    const auto found = tables_->memory->find(start, nullptr);
    Expect(found != tables_->memory->end() && found->sOff == start, "the extent of a node");
    tables_->memory->SetObjectID(found.operator->(), id);
  }
}

void Steps::MakeReady(const Operation& operation) {
  const std::vector<int> candidates = model_.NotReady();
  if (candidates.empty()) {
    return;
  }
  if (operation.kind == Kind::kMakeReady) {
    // Mostly in the order of the writes, as data is stored.
    MakeReady(operation.pick % 4 == 0 ? candidates[operation.pick % candidates.size()]
                                      : candidates.front());
    return;
  }
  for (const int node : candidates) {
    MakeReady(node);
  }
}

void Steps::ForgetNodes() {
  const auto expected = model_.ForgetNodes();
  if (live()) {
    std::set<void*> released;
    tables_->lmdb().GetExtentData(&released);
    Expect(expected == tables_->cache.NumbersOf(released), "nodes handed back by GetExtentData");
  }
}

// --- flushes and merges

void Steps::Flush(const Operation& operation) {
  const bool force =
      operation.kind == Kind::kForcedFlush || operation.kind == Kind::kRefusedFlush ||
      (operation.kind == Kind::kFlushOverFailed && (operation.pick & kForcedBit) != 0);
  const bool refuse = operation.kind == Kind::kRefusedFlush;
  const MergeFault fault =
      operation.kind == Kind::kFlushOverFailed ? AnyFault(operation.pick) : MergeFault::kNone;
  const bool wasOpen = model_.TmpIsOpen();
  const Model::Flushed expected = model_.Flush(force, refuse, fault);
  if (!live()) {
    return;
  }
  const FailingMerge failing(tables_, fault);
  tables_->cache.Refuse(refuse);
  std::set<void*> released;
  CMappingTable::UniqueLock lock;
  bool refused = false;
  tables_->memory->checkAndBackfillObjectID(&released, force, "scope", "share", nullptr, &lock);
  Expect(released.empty() && !lock.owns_lock(), "a flush in memory");
  try {
    tables_->stored->checkAndBackfillObjectID(&released, force, "scope", "share", nullptr, &lock);
  } catch (const SysException& e) {
    refused = refuse;
    Expect(
        refuse && std::string(e.what()) == "errno " + std::to_string(ModelCache::kRefusal) + "\n",
        std::string("a flush throws ") + e.what());
  }
  tables_->cache.Refuse(false);
  tables_->peer().WaitingForMerge();
  tables_->DoNotSync();
  Equal("a flush was refused", expected.refused, refused);
  Expect(expected.released == tables_->cache.NumbersOf(released), "nodes released by a flush");
  if (!refused) {
    Equal("a flush hands its lock over", !released.empty(), lock.owns_lock());
  }
  Equal("tmp database open", model_.TmpIsOpen(), tables_->peer().tmpDb().opened);
  tally_.flushes += 1;
  tally_.merges += wasOpen && !model_.TmpIsOpen() ? 1 : 0;
}

void Steps::FlushUnlocked(const Operation& operation) {
  model_.FlushUnlocked(MergeFault::kNone);
  if (!live()) {
    return;
  }
  tables_->memory->checkAndBackfillObjectIDUnlock(true);
  {
    const CMappingTable::UniqueLock lock(tables_->peer().rwLock());
    tables_->stored->checkAndBackfillObjectIDUnlock(operation.pick % 2 == 0);
  }
  tables_->peer().WaitingForMerge();
  tables_->DoNotSync();
  tally_.flushes += 1;
}

void Steps::Merge(const Operation& operation) {
  const MergeFault fault =
      operation.kind == Kind::kFailedMerge ? AnyFault(operation.pick) : MergeFault::kNone;
  model_.Merge(fault);
  if (!live()) {
    return;
  }
  const FailingMerge failing(tables_, fault);
  tables_->peer().StartMergeThread();
  tables_->peer().WaitingForMerge();
  tables_->DoNotSync();
  Equal("tmp database open", model_.TmpIsOpen(), tables_->peer().tmpDb().opened);
  tally_.merges += fault == MergeFault::kNone ? 1 : 0;
}

// --- container offsets

void Steps::Backfill(const Operation& operation) {
  const std::vector<OffsetRecord> expected = model_.TakeOffsets();
  std::vector<zefs::DCOffset> list;
  if (live()) {
    Equal("open offsets in memory", 0, tables_->memory->GetEmptyDcOffsetList(&list));
    Expect(list.empty(), "open offsets in memory");
    Equal("open offsets", 0, tables_->stored->GetEmptyDcOffsetList(&list));
    std::vector<OffsetRecord> found;
    for (const zefs::DCOffset& record : list) {
      found.push_back({record.key, record.dcid, record.fp, record.dcOffset});
    }
    std::sort(found.begin(), found.end());
    Expect(expected == found, "open offsets: expected " + std::to_string(expected.size()) +
                                  " records, got " + std::to_string(found.size()));
    list.clear();
  }
  std::vector<OffsetRecord> answers = expected;
  for (std::size_t i = 0; i < answers.size(); ++i) {
    const std::size_t choice = (operation.pick + i) % 5;  // found, given up, or still open
    answers[i].dcOffset = choice < 3 ? static_cast<long>(70'000 + operation.pick % 1000 + i)
                                     : -static_cast<long>(choice - 2);
    list.push_back({answers[i].key, answers[i].dcid, answers[i].fp, answers[i].dcOffset});
  }
  model_.Backfill(answers);
  if (live()) {
    Equal("backfill in memory", 0, tables_->memory->BackfillDcOffset(list));
    Equal("backfill", 0, tables_->stored->BackfillDcOffset(list));
  }
}

void Steps::RefreshOffset(const Operation& operation) {
  const auto found = zefs::test::LookUp(model_.StoredLayers(), operation.at);
  if (!found) {
    return;
  }
  const ObjectID& id = found->piece.id;
  model_.RefreshOffset({found->piece.start, id.dcid, id.fp, -1});
  if (live()) {
    for (CMappingTable* table : {tables_->memory.get(), tables_->stored.get()}) {
      Equal("refresh of an offset", 0,
            table->AppendToRefreshDcOffsetList(found->piece.start, id.dcid, id.fp));
    }
  }
}

}  // namespace zefs::test
