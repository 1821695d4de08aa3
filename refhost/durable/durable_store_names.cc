#include <cerrno>
#include <stdexcept>
#include <utility>

#include "refhost/durable/durable_store.h"
#include "refhost/durable/table_directories.h"
#include "refhost/store/store_error.h"

// Operations of a store on whole files: a new name, and a second file over the same data. Each
// begins with a sync, so that all of a file is in its table, and ends with one change of the
// catalogue, which is the moment in which it happens.

namespace zefs::refhost {

namespace {

void RequireName(const std::string& name) {
  if (name.empty()) {
    throw std::invalid_argument("a file has to have a name");
  }
}

}  // namespace

/// A crash may have come after a table's directory was renamed and before the catalogue knew: the
/// directory is at one of the two places, and where the old one is, nothing has happened.
void DurableStore::SettleMoves() {
  Catalogue::Entries settled;
  for (const auto& [name, entry] : catalogue_.entries()) {
    if (!entry.movingTo.has_value()) {
      continue;
    }
    CatalogueEntry now = entry;
    now.movingTo.reset();
    const std::uint64_t target = TableOn(*entry.movingTo, NumberOf(entry.table));
    if (!IsDirectory(directory_.table(entry.table)) && IsDirectory(directory_.table(target))) {
      SyncDirectory(directory_.tables(VolumeOf(target)));
      now.table = target;
    }
    settled[name] = now;
  }
  if (!settled.empty()) {
    catalogue_.Commit(settled);
  }
}

void DurableStore::RequireFree(const std::string& name) const {
  if (Exists(name)) {
    throw StoreError(
        "there is a file '" + name + "' in the store " + directory_.path() + " already", EEXIST);
  }
}

DurableStore::TableMove DurableStore::Rename(const std::string& name, const std::string& newName,
                                             bool replace) {
  RequireName(newName);
  const std::unique_lock<std::shared_mutex> gate(gate_);
  RequireFile(name);
  if (!replace) {
    RequireFree(newName);
  }
  SyncAll();
  if (name == newName) {
    return TableMove::kStays;
  }
  const std::size_t volume = directory_.VolumeFor(newName);
  const std::uint64_t former = catalogue_.Find(name)->table;
  const TableMove move = volume == VolumeOf(former) ? TableMove::kStays : MoveTable(name, volume);
  CatalogueEntry entry = *catalogue_.Find(name);
  entry.table = TableOn(volume, NumberOf(former));
  entry.movingTo.reset();
  std::vector<std::uint64_t> forgotten;
  if (move == TableMove::kCopied) {
    forgotten.push_back(former);
  }
  if (const CatalogueEntry* const replaced = catalogue_.Find(newName); replaced != nullptr) {
    forgotten.push_back(replaced->table);
    TakeOut(newName);
  }
  catalogue_.Commit({{newName, entry}}, {name});
  if (auto open = open_.extract(name); !open.empty()) {
    open.key() = newName;
    open.mapped()->file->SetShare(newName);
    open_.insert(std::move(open));
  }
  RemoveTables(forgotten);
  return move;
}

/// Takes the table of a file, all of which is synced, to another volume. The catalogue is still to
/// be told. On one file system the directory is renamed under the open table, which goes on with
/// the databases that it has open. A copy has other databases, so the table is closed for it.
DurableStore::TableMove DurableStore::MoveTable(const std::string& name, std::size_t volume) {
  OpenPtr open = Acquire(name, /*toChange=*/false);
  FinishMergesOf(open->file.get());
  const std::uint64_t former = open->table;
  const std::uint64_t target = TableOn(volume, NumberOf(former));
  CatalogueEntry intent = *catalogue_.Find(name);
  intent.movingTo = volume;
  catalogue_.Commit({{name, intent}});
  if (RenameDirectory(directory_.table(former), directory_.table(target))) {
    open->table = target;
    open->file->FollowTable(directory_.table(target));
    SyncDirectory(directory_.tables(volume));
    SyncDirectory(directory_.tables(VolumeOf(former)));
    return TableMove::kRenamed;
  }
  open_.erase(name);
  open.reset();
  CopyDirectory(directory_.table(former), directory_.table(target));
  SyncDirectory(directory_.tables(volume));
  return TableMove::kCopied;
}

void DurableStore::Snapshot(const std::string& name, const std::string& copy) {
  RequireName(copy);
  const std::unique_lock<std::shared_mutex> gate(gate_);
  RequireFile(name);
  RequireFree(copy);
  SyncAll();
  const OpenPtr open = Acquire(name, /*toChange=*/false);
  FinishMergesOf(open->file.get());
  CatalogueEntry entry = *catalogue_.Find(name);
  // The table copies on its own file system; where the copy belongs elsewhere, it goes on from
  // there.
  const std::uint64_t number = nextTable_++;
  const std::uint64_t made = TableOn(VolumeOf(open->table), number);
  entry.table = TableOn(directory_.VolumeFor(copy), number);
  entry.cut = false;  // the table that is copied has been cut
  try {
    open->file->SnapshotTable(directory_.table(made));
    SyncDirectory(directory_.table(made));
    if (made != entry.table &&
        !RenameDirectory(directory_.table(made), directory_.table(entry.table))) {
      CopyDirectory(directory_.table(made), directory_.table(entry.table));
      RemoveTable(made);
    }
    SyncDirectory(directory_.tables(VolumeOf(entry.table)));
  } catch (...) {
    RemoveTable(made);
    RemoveTable(entry.table);
    throw;
  }
  catalogue_.Commit({{copy, entry}});
}

}  // namespace zefs::refhost
