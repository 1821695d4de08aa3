#include "refhost/durable/durable_store.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <limits>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "host/config.h"
#include "host/zefs_log.h"
#include "refhost/durable/table_directories.h"
#include "refhost/gc/catch_up.h"
#include "refhost/store/store_error.h"
#include "refhost/threads/for_all.h"

namespace zefs::refhost {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostWorkers = 4;
constexpr std::size_t kWaitingSegments = 256;
constexpr std::size_t kDigestBlock = 1 << 20;
constexpr std::size_t kSyncThreads = 16;
constexpr std::size_t kMostSpares = 32;

std::size_t WorkersFor(std::size_t wanted) {
  const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
  return wanted != 0 ? wanted : std::min(processors, kMostWorkers);
}

void CheckRange(std::int64_t offset, std::uint64_t size) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  if (offset < 0 || size > static_cast<std::uint64_t>(kMax - offset)) {
    throw std::invalid_argument("range of " + std::to_string(size) + " bytes at " +
                                std::to_string(offset) + " is outside of every file");
  }
}

}  // namespace

DurableStore::DurableStore(const std::string& path, const DurableStoreOptions& options)
    : options_(options),
      directory_(path, options.missing, options.format),
      segmenter_(directory_.format().segmentSize),
      objects_(directory_.containers(), options.containerBytes, directory_.index()),
      ahead_(options.readAhead, &objects_),
      readRecord_(directory_.readRecord()),
      cache_([this](const std::string& share) { return Protect(share); }),
      workers_(WorkersFor(options.workers), kWaitingSegments),
      services_{
          &segmenter_, &directory_.format().tableType, &objects_, &cache_, &workers_, &merges_,
          &ahead_},
      catalogue_(directory_.catalogue()) {
  if (ahead_.window() != 0) {
    // For the whole process, and never off again: what a table keeps would be shown again later.
    FileSystemDaemonConfig::GetInstance().Set(&FileSystemDaemonConfig::prefetchEnabled, 1);
  }
  // Index and catalogue may have been made just now: what a sync puts into them is not to be lost
  // with their names.
  SyncDirectory(directory_.path());
  SettleMoves();
  RemoveOrphans();
  FinishCompactionIfAny();
}

void DurableStore::FinishCompactionIfAny() {
  if (!IsCompacting(directory_)) {
    return;
  }
  objects_.SetByFingerprint(true);
  if (!options_.finishCompaction) {
    return;
  }
  const auto attempt = [this](const auto& work) {
    try {
      work();
    } catch (const std::exception& error) {
      ZEFS_LOG(kLogFailure, "the unfinished compaction of the store %s cannot be finished: %s",
               directory_.path().c_str(), error.what());
    }
  };
  attempt([this] { Exclusively([](Still& still) { FinishCompaction(&still); }); });
  attempt([this] { CloseFiles(); });
}

DurableStore::~DurableStore() {
  if (const ReadAheadFigures figures = ahead_.figures(); figures.Any()) {
    readRecord_.Add(figures);
  }
  open_.clear();
  retired_.clear();
  std::vector<OpenPtr> spares;
  for (const auto& [volume, some] : spares_) {
    spares.insert(spares.end(), some.begin(), some.end());
  }
  ForAll(spares.size(), kSyncThreads, [&](std::size_t i) { RemoveTable(spares[i].get()); });
}

/// Tables that the catalogue does not name are of versions that no sync has seen.
void DurableStore::RemoveOrphans() {
  std::set<std::uint64_t> known;
  for (const auto& [name, entry] : catalogue_.entries()) {
    known.insert(entry.table);
    nextTable_ = std::max(nextTable_, NumberOf(entry.table) + 1);
  }
  for (std::size_t volume = 0; volume < directory_.volumes(); ++volume) {
    RemoveOrphansOf(volume, known);
  }
}

void DurableStore::RemoveOrphansOf(std::size_t volume, const std::set<std::uint64_t>& known) const {
  const std::string tables = directory_.tables(volume);
  std::error_code error;
  fs::directory_iterator entry(tables, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    std::uint64_t number = 0;
    const auto [end, problem] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (problem == std::errc() && end == name.data() + name.size() &&
        known.count(TableOn(volume, number)) == 0) {
      RemoveTable(TableOn(volume, number));
    }
  }
  if (error) {
    throw SystemError("list", tables, error.value());
  }
}

void DurableStore::RemoveTable(std::uint64_t table) const {
  std::error_code error;
  fs::remove_all(directory_.table(table), error);
  if (error) {  // it is tried again when the store is opened
    ZEFS_LOG(kLogRecoverable, "cannot remove the table %s: %s", directory_.table(table).c_str(),
             ReasonOf(error.value()).c_str());
  }
}

/// The same by the object that has it open, which ends with it.
void DurableStore::RemoveTable(Open* open) const {
  try {
    open->file->RemoveTable();
  } catch (const StoreError& error) {
    ZEFS_LOG(kLogRecoverable, "%s", error.what());
  }
  open->file.reset();
  RemoveTable(open->table);  // whatever is still there
}

/// Deletes tables that the catalogue has forgotten.
void DurableStore::RemoveTables(const std::vector<std::uint64_t>& tables) {
  ForAll(tables.size(), kSyncThreads, [&](std::size_t i) {
    const auto open = retired_.find(tables[i]);
    if (open != retired_.end()) {
      RemoveTable(open->second.get());
    } else {
      RemoveTable(tables[i]);
    }
  });
  for (const std::uint64_t table : tables) {
    retired_.erase(table);
  }
}

DurableStore::OpenPtr DurableStore::NewVersion(const std::string& name) {
  const std::size_t volume = directory_.VolumeFor(name);
  std::vector<OpenPtr>& spares = spares_[volume];
  if (spares.empty()) {
    MakeSpares(volume);
  }
  OpenPtr open = spares.back();
  spares.pop_back();
  open->lastUse = ++uses_;
  return open;
}

/// A new table is several syncs, which many of them share when they are made together. The more are
/// wanted, the more are made.
void DurableStore::MakeSpares(std::size_t volume) {
  std::vector<OpenPtr> made(sparesAtOnce_);
  for (OpenPtr& open : made) {
    open = std::make_shared<Open>(TableOn(volume, nextTable_++), /*fresh=*/true);
    open->changed = true;
  }
  ForAll(made.size(), kSyncThreads, [&](std::size_t i) {
    made[i]->file =
        std::make_unique<StoredFile>(services_, directory_.table(made[i]->table), 0, "");
  });
  spares_[volume] = std::move(made);
  sparesAtOnce_ = std::min(2 * sparesAtOnce_, kMostSpares);
}

bool DurableStore::IsCatalogued(const std::string& name, const Open& open) const {
  const CatalogueEntry* const entry = catalogue_.Find(name);
  return entry != nullptr && (entry->table == open.table ||
                              (entry->movingTo.has_value() &&
                               TableOn(*entry->movingTo, NumberOf(entry->table)) == open.table));
}

bool DurableStore::Exists(const std::string& name) const {
  return open_.count(name) != 0 || (catalogue_.Find(name) != nullptr && removed_.count(name) == 0);
}

void DurableStore::RequireFile(const std::string& name) const {
  if (!Exists(name)) {
    throw std::out_of_range("no file '" + name + "' in the store " + directory_.path());
  }
}

/// Drops the version that is open, unless it is the one in the catalogue.
void DurableStore::DropVersion(const std::string& name) {
  const auto open = open_.find(name);
  if (open == open_.end()) {
    return;
  }
  const OpenPtr dropped = open->second;
  if (!IsCatalogued(name, *dropped)) {
    open_.erase(open);
    RemoveTable(dropped.get());
  }
}

/// Takes the file out of those that are open. A table in the catalogue stays open for the sync that
/// deletes it, unless there are many of these.
void DurableStore::TakeOut(const std::string& name) {
  DropVersion(name);
  const auto open = open_.find(name);
  if (open == open_.end()) {
    return;
  }
  if (retired_.size() < options_.mostOpen) {
    retired_[open->second->table] = open->second;
  }
  open_.erase(open);
}

void DurableStore::Create(const std::string& name) {
  if (name.empty()) {
    throw std::invalid_argument("a file has to have a name");
  }
  MakeRoomFor(name);
  const std::unique_lock<std::shared_mutex> gate(gate_);
  TakeOut(name);
  open_[name] = NewVersion(name);
  removed_.erase(name);
}

void DurableStore::Remove(const std::string& name) {
  const std::unique_lock<std::shared_mutex> gate(gate_);
  RequireFile(name);
  TakeOut(name);
  if (catalogue_.Find(name) != nullptr) {
    removed_.insert(name);
  }
}

void DurableStore::Discard(const std::string& name) {
  const std::unique_lock<std::shared_mutex> gate(gate_);
  DropVersion(name);
  removed_.erase(name);
  const CatalogueEntry* const entry = catalogue_.Find(name);
  if (entry != nullptr && retired_.count(entry->table) != 0) {
    open_[name] = retired_.at(entry->table);
    retired_.erase(entry->table);
  }
}

DurableStore::OpenPtr DurableStore::Acquire(const std::string& name, bool toChange) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto known = open_.find(name);
  OpenPtr open = known != open_.end() ? known->second : OpenCatalogued(name);
  open->lastUse = ++uses_;
  open->changed = open->changed || toChange;
  return open;
}

DurableStore::OpenPtr DurableStore::OpenCatalogued(const std::string& name) {
  RequireFile(name);
  const CatalogueEntry entry = *catalogue_.Find(name);
  if (const auto retired = retired_.find(entry.table); retired != retired_.end()) {
    OpenPtr open = retired->second;  // the new version that was to replace it was not made
    retired_.erase(retired);
    open_.emplace(name, open);
    return open;
  }
  const std::string directory = directory_.table(entry.table);
  if (!IsDirectory(directory)) {  // a load would make an empty table
    throw DamageError("the table of '" + name + "', " + directory + ", is gone");
  }
  CloseSome();
  auto open = std::make_shared<Open>(entry.table, /*fresh=*/false);
  open->file = std::make_unique<StoredFile>(services_, directory, entry.size, "");
  if (entry.cut) {  // before anyone sees what a crash may have left behind the end
    FinishMergesOf(open->file.get());
    open->file->Cut(entry.size);
  }
  open->file->SetShare(name);
  open_.emplace(name, open);
  return open;
}

/// The share of a table is the name of its file, if that is in the catalogue.
int DurableStore::Protect(const std::string& share) {
  try {
    if (!share.empty()) {
      const std::lock_guard<std::mutex> lock(mutex_);
      MarkChanging({share});
    }
    objects_.MakeDurable();
    return 0;
  } catch (const StoreError& error) {
    ZEFS_LOG(kLogFailure, "%s", error.what());
    return error.code == 0 ? EIO : error.code;
  }
}

/// Before a table in the catalogue changes on the disk: after a crash, size and digest would be
/// those of other bytes. A cut that was intended has been made by now, and what is stored behind it
/// from now on shall stay.
void DurableStore::MarkChanging(const std::vector<std::string>& names) {
  Catalogue::Entries marked;
  for (const std::string& name : names) {
    const CatalogueEntry* const entry = catalogue_.Find(name);
    if (entry != nullptr && (!entry->changing || entry->cut)) {
      marked[name] = *entry;
      marked[name].changing = true;
      marked[name].cut = false;
    }
  }
  if (!marked.empty()) {
    catalogue_.Commit(marked);
  }
}

/// Before a table in the catalogue is cut, which its databases are one after the other: between
/// them it would show what newer extents have hidden.
void DurableStore::MarkCut(const std::string& name, std::int64_t size) {
  CatalogueEntry entry = *catalogue_.Find(name);
  entry.size = size;
  entry.changing = true;
  entry.cut = true;
  catalogue_.Commit({{name, entry}});
}

/// Closes files that nobody uses and that are synced, those first that were used least recently.
void DurableStore::CloseSome() {
  while (open_.size() >= options_.mostOpen) {
    auto oldest = open_.end();
    for (auto at = open_.begin(); at != open_.end(); ++at) {
      const Open& open = *at->second;
      if (at->second.use_count() == 1 && !open.changed &&
          (oldest == open_.end() || open.lastUse < oldest->second->lastUse)) {
        oldest = at;
      }
    }
    if (oldest == open_.end() || !Close(oldest)) {
      return;
    }
  }
}

bool DurableStore::Close(std::map<std::string, OpenPtr>::iterator at) {
  if (!at->second->file->FinishMerges()) {
    return false;
  }
  open_.erase(at);
  return true;
}

void DurableStore::CloseFiles() {
  const std::unique_lock<std::shared_mutex> gate(gate_);
  while (!open_.empty()) {
    FinishMergesOf(open_.begin()->second->file.get());
    open_.erase(open_.begin());
  }
}

void DurableStore::FinishMergesOf(StoredFile* file) {
  if (!file->FinishMerges()) {
    throw StoreError("the merge of the table in " + file->directory() + " does not come to an end",
                     0);
  }
}

/// Before a further file is written: there are no more open ones than may be, once what they hold
/// is synced.
void DurableStore::MakeRoomFor(const std::string& name) {
  {
    const std::shared_lock<std::shared_mutex> gate(gate_);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (open_.count(name) != 0) {
      return;
    }
    CloseSome();
    if (open_.size() < options_.mostOpen) {
      return;
    }
  }
  const std::unique_lock<std::shared_mutex> gate(gate_);
  SyncAll();
  CloseSome();
}

void DurableStore::Write(const std::string& name, std::int64_t offset, std::string_view bytes) {
  CheckRange(offset, bytes.size());
  if (bytes.empty()) {
    return;
  }
  MakeRoomFor(name);
  const std::shared_lock<std::shared_mutex> gate(gate_);
  const OpenPtr open = Acquire(name, /*toChange=*/true);
  open->digest.Note(offset, bytes);
  open->file->Write(offset, bytes);
}

void DurableStore::Truncate(const std::string& name, std::int64_t size) {
  CheckRange(size, 0);
  MakeRoomFor(name);
  const std::unique_lock<std::shared_mutex> gate(gate_);
  const OpenPtr open = Acquire(name, /*toChange=*/false);
  if (size >= open->file->size()) {
    open->changed = true;
    open->digest.GiveUp();
    open->file->Grow(size);
    return;
  }
  // The table would count a node as released though a piece before the end has it, and a tmp
  // database would keep what lies behind: there are none of either.
  FlushAll(*open->file);
  FinishMergesOf(open->file.get());
  open->digest.GiveUp();
  open->changed = true;
  if (IsCatalogued(name, *open)) {
    MarkCut(name, size);
  }
  open->file->Cut(size);
}

/// Brings a file into its databases without telling the catalogue.
void DurableStore::FlushAll(StoredFile& file) {
  file.AwaitStored();
  objects_.MakeDurable();
  file.FlushAll();
}

std::size_t DurableStore::Read(const std::string& name, std::int64_t offset, char* out,
                               std::size_t size) {
  CheckRange(offset, 0);
  const std::shared_lock<std::shared_mutex> gate(gate_);
  return Acquire(name, /*toChange=*/false)->file->Read(offset, out, size);
}

std::int64_t DurableStore::SizeOf(const std::string& name) {
  const std::shared_lock<std::shared_mutex> gate(gate_);
  return Acquire(name, /*toChange=*/false)->file->size();
}

void DurableStore::Sync() {
  const std::unique_lock<std::shared_mutex> gate(gate_);
  SyncAll();
}

void DurableStore::SyncAll() {
  for (const auto& [name, open] : open_) {
    if (open->changed) {
      open->file->AwaitStored();
    }
  }
  objects_.MakeDurable();
  std::vector<std::string> written;
  for (const auto& [name, open] : open_) {
    if (open->changed && IsCatalogued(name, *open)) {
      written.push_back(name);
    }
  }
  MarkChanging(written);
  Catalogue::Entries entered;
  std::vector<std::uint64_t> replaced;
  const auto replaces = [&](const std::string& name) {
    if (const CatalogueEntry* const former = catalogue_.Find(name); former != nullptr) {
      replaced.push_back(former->table);
    }
  };
  std::vector<std::pair<CatalogueEntry*, Open*>> changed;
  for (const auto& [name, open] : open_) {
    if (open->changed) {
      changed.emplace_back(&entered[name], open.get());
      if (!IsCatalogued(name, *open)) {
        replaces(name);
      }
    }
  }
  ForAll(changed.size(), kSyncThreads,
         [&](std::size_t i) { *changed[i].first = SyncOne(changed[i].second); });
  for (const std::string& name : removed_) {
    replaces(name);
  }
  if (entered.empty() && removed_.empty()) {
    return;
  }
  ++syncs_;
  for (std::size_t volume = 0; volume < directory_.volumes(); ++volume) {
    SyncDirectory(directory_.tables(volume));
  }
  catalogue_.Commit(entered, {removed_.begin(), removed_.end()});
  for (const auto& [name, entry] : entered) {
    open_[name]->changed = false;
    open_[name]->file->SetShare(name);
  }
  removed_.clear();
  RemoveTables(replaced);
}

CatalogueEntry DurableStore::SyncOne(Open* open) {
  StoredFile& file = *open->file;
  file.FlushAll();
  SyncDirectory(file.directory());
  CatalogueEntry entry;
  entry.table = open->table;
  entry.size = file.size();
  const auto onTheWay = open->digest.Take(entry.size);
  entry.digest = onTheWay.has_value() ? *onTheWay : DigestByReading(file);
  return entry;
}

crfp_digest_t DurableStore::DigestByReading(const StoredFile& file) const {
  Sha256Hasher hasher;
  std::string block(kDigestBlock, '\0');
  for (std::int64_t at = 0; at < file.size();) {
    const std::size_t got = file.Read(at, block.data(), block.size());
    hasher.Update(block.data(), got);
    at += static_cast<std::int64_t>(got);
  }
  return hasher.Finish();
}

void DurableStore::WithTable(const std::string& name,
                             const std::function<void(MappingTable&)>& look) {
  const std::unique_lock<std::shared_mutex> gate(gate_);
  const OpenPtr open = Acquire(name, /*toChange=*/false);
  if (open->changed) {
    FlushAll(*open->file);
  }
  open->references.reset();  // `look` may ask for them, and the table keeps count of that
  OnTable("read", open->file->directory(), [&] { look(open->file->table()); });
}

void DurableStore::Exclusively(const std::function<void(Still&)>& work) {
  const std::unique_lock<std::shared_mutex> gate(gate_);
  SyncAll();
  Still still(this);
  work(still);
}

void DurableStore::Still::VisitAll(
    const std::vector<std::string>& names,
    const std::function<void(const std::string& name, StoredFile& file, KeptReferences* kept)>&
        look) {
  ForAll(names.size(), kSyncThreads, [&](std::size_t i) {
    Visit(names[i], [&](StoredFile& file, KeptReferences* kept) { look(names[i], file, kept); });
  });
}

std::vector<std::string> DurableStore::Still::Names() const {
  std::vector<std::string> names;
  for (const auto& [name, entry] : files()) {
    names.push_back(name);
  }
  return names;
}

void DurableStore::Still::Visit(
    const std::string& name,
    const std::function<void(StoredFile& file, KeptReferences* kept)>& look) {
  const OpenPtr open = store_.Acquire(name, /*toChange=*/false);
  OnTable("look after", open->file->directory(), [&] { look(*open->file, &open->references); });
}

Catalogue::Entries DurableStore::Catalogued() const {
  const std::unique_lock<std::shared_mutex> gate(gate_);
  return catalogue_.entries();
}

}  // namespace zefs::refhost
