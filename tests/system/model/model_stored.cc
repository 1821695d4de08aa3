#include <algorithm>
#include <iterator>
#include <limits>

#include "tests/system/model/model.h"

// What only a stored table has: flushes, merges, side files, lives.

namespace zefs::test {

namespace {

constexpr std::uint64_t kFirstDcid = 64;
constexpr long kNeverTracked = -3;
constexpr long kGivenUp = -2;

bool IsEmpty(const Doid& doid) {
  return doid.dcid == 0 && doid.fp == crfp_digest_t{};
}

}  // namespace

void Model::Waypoint() {
  if (keepWaypoints_) {
    waypoints_.push_back(disk_);
  }
}

// --- the table's own object id

void Model::SetDoid(const Doid& doid) {
  doid_ = doid.fp == crfp_digest_t{} || doid.dcid <= kFirstDcid ? Doid{} : doid;
  disk_.small.doid = doid_;
}

std::optional<Doid> Model::GetDoid() const {
  return doid_.dcid > kFirstDcid ? std::optional(doid_) : std::nullopt;
}

bool Model::IsChanged() const {
  return IsEmpty(doid_) || changed_;
}

void Model::SetVersion(Version version) {
  disk_.full.version = version_ = version;
}

// --- flushes

Model::Flushed Model::Flush(bool force, bool refuse, MergeFault fault) {
  Flushed flushed;
  if (cache_.pending() < settings_.batchThreshold && !force) {
    return flushed;
  }
  flushed.released = cache_.TakeDangling();
  const auto ids = cache_.Collect(force, settings_.readyThreshold, nodes_, &flushed.released);
  if (!ids.empty()) {
    DropPrefetched();
    if (refuse) {  // what was collected stays in the cache for good
      flushed.refused = true;
      return flushed;
    }
  }
  if (HasJournal() && !disk_.journal) {
    disk_.journal.emplace();
    Waypoint();
  }
  std::size_t entries = 0;
  if (!ids.empty()) {
    Store(ids);
    entries = (disk_.tmp ? *disk_.tmp : disk_.small).Records();
  }
  MergeIfDue(entries, fault);
  if (force) {
    disk_.journal.reset();
    Waypoint();
    FlushOffsets();
  }
  return flushed;
}

void Model::FlushUnlocked(MergeFault fault) {
  std::set<int> released = cache_.TakeDangling();  // nobody gets them
  const auto ids = cache_.Collect(true, 0, nodes_, &released);
  std::size_t entries = 0;
  if (!ids.empty()) {
    Store(ids);
    entries = (disk_.tmp ? *disk_.tmp : disk_.small).Records();
  }
  MergeIfDue(entries, fault);
}

std::set<int> Model::ForgetNodes() {
  std::set<int> forgotten = cache_.ForgetNodes();
  for (const int node : forgotten) {
    nodes_.at(static_cast<std::size_t>(node)).takenBack = true;
  }
  return forgotten;
}

void Model::Store(const std::map<long, ToStore>& ids) {
  ++commits_;
  Database& target = disk_.tmp ? *disk_.tmp : disk_.small;
  const auto journal = disk_.journal;
  long maxEnd = 0;
  for (const auto& [end, toStore] : ids) {
    const auto cached = cache_.extents().find(end);
    if (cached == cache_.extents().end()) {
      continue;
    }
    Piece piece = cached->second;
    piece.id = toStore.id;
    piece.dcOffset = toStore.dcOffset;
    piece.node = 0;
    StoreOne(&target, end, piece);
    cache_.Erase(end);
    maxEnd = end;
  }
  if (committedSize_ < maxEnd) {
    target.fileSize = maxEnd;
  }
  if (!changed_) {
    changed_ = true;
    doid_ = Doid{};
    target.doid = doid_;
  }
  target.counter = commits_;
  committedSize_ = std::max(committedSize_, maxEnd);
  fileSize_ = std::max(fileSize_, committedSize_);
  if (keepWaypoints_) {  // the journal is synced behind the commit
    waypoints_.push_back(disk_);
    waypoints_.back().journal = journal;
    Waypoint();
  }
}

void Model::StoreOne(Database* target, long end, const Piece& piece) {
  std::vector<std::pair<long, Piece>> displaced;
  for (auto at = target->extents.upper_bound(piece.start);
       at != target->extents.end() && at->second.start < end; ++at) {
    displaced.emplace_back(*at);
  }
  Cut(&target->extents, piece.start, end,
      [](const Piece& cut, long start) { return WithoutAttributes(FromStored(cut, start)); });
  // The pieces are tracked under the object of what was stored: the host asks about that.
  for (const auto& [oldEnd, old] : displaced) {
    Journal(piece, end, false);
    if (oldEnd > end) {
      Track(end, piece);
    }
    if (old.start < piece.start) {
      Track(old.start, piece);
    }
  }
  target->extents[end] = piece;
  Journal(piece, end, true);
  Track(piece.start, piece);
}

void Model::Journal(const Piece& piece, long end, bool added) {
  if (!HasJournal()) {
    return;
  }
  if (!disk_.journal) {
    disk_.journal.emplace();
  }
  disk_.journal->push_back({piece.start, end, piece.objOff, piece.id.dcid, piece.id.fp, added});
}

// --- container offsets

void Model::Track(long key, const Piece& piece) {
  RefreshOffset({key, piece.id.dcid, piece.id.fp, piece.dcOffset});
}

void Model::RefreshOffset(const OffsetRecord& record) {
  if (record.dcOffset >= 0 || record.dcOffset == kNeverTracked || !settings_.tracking) {
    return;
  }
  offsets_.insert(record);
  if (offsets_.size() >= settings_.trackingThreshold) {
    FlushOffsets();
  }
}

void Model::FlushOffsets() {
  disk_.offsets.insert(disk_.offsets.end(), offsets_.begin(), offsets_.end());
  std::sort(disk_.offsets.begin(), disk_.offsets.end());
  offsets_.clear();
}

std::vector<OffsetRecord> Model::TakeOffsets() {
  std::vector<OffsetRecord> taken;
  std::copy_if(
      disk_.offsets.begin(), disk_.offsets.end(), std::back_inserter(taken),
      [](const OffsetRecord& record) { return record.key >= 0 && record.dcid >= kFirstDcid; });
  disk_.offsets.clear();
  return taken;
}

void Model::Backfill(const std::vector<OffsetRecord>& answers) {
  DropPrefetched();
  std::set<OffsetRecord> open;
  for (const OffsetRecord& answer : answers) {
    const auto found = LookUp(StoredLayers(), answer.key);
    if (found && found->piece.id.dcid == answer.dcid && found->piece.id.fp == answer.fp) {
      Piece piece = found->piece;
      piece.dcOffset = static_cast<std::int32_t>(answer.dcOffset);
      WriteCache(piece.start, found->end, piece);
    }
    if (answer.dcOffset < 0 && answer.dcOffset != kGivenUp) {
      open.insert(answer);
    }
  }
  disk_.offsets.insert(disk_.offsets.end(), open.begin(), open.end());
  std::sort(disk_.offsets.begin(), disk_.offsets.end());
}

// --- merges

void Model::MergeIfDue(std::size_t entries, MergeFault fault) {
  if (disk_.tmp || entries > settings_.mergeEntries || commits_ > long{settings_.mergeCommits}) {
    Merge(fault);
    commits_ = 0;
  }
}

void Model::Merge(MergeFault fault) {
  if (!disk_.tmp) {
    disk_.tmp.emplace();  // takes the flushes until the merge is through
    Waypoint();
  }
  if (fault == MergeFault::kSetup) {
    return;
  }
  Layer united = disk_.full.extents;
  for (const auto& [end, piece] : disk_.small.extents) {
    Cut(&united, piece.start, end, FromStored);
    united[end] = piece;
  }
  if (fault == MergeFault::kWalk) {
    if (!united.empty()) {
      return;
    }
    fault = MergeFault::kNone;
  }
  const long lastEnd = united.empty() ? 0 : united.rbegin()->first;
  if (committedSize_ < lastEnd) {
    fileSize_ = committedSize_ = lastEnd;
  }
  if (fault == MergeFault::kVersion || fault == MergeFault::kNone) {
    version_ = {2, 0};
  }
  if (fault != MergeFault::kNone) {
    return;
  }
  disk_.full.extents = std::move(united);
  disk_.full.fileSize = committedSize_;
  disk_.full.counter = 0;
  disk_.full.doid = doid_;
  disk_.full.version = version_;
  Waypoint();
  disk_.small = std::move(*disk_.tmp);
  disk_.tmp.reset();
  filterMayDeny_ = false;
  if (settings_.bloom) {
    Waypoint();
    disk_.bloom.emplace();
    for (const auto& [end, piece] : disk_.full.extents) {
      if (piece.id.dcid >= kFirstDcid) {  // others are dropped by whoever reads the file
        disk_.bloom->bytesByDcid[piece.id.dcid] += static_cast<std::uint64_t>(end - piece.start);
      }
      ++disk_.bloom->inserted;
    }
  }
}

// --- lives

long Model::SizeOnDisk() const {
  return std::max({disk_.small.fileSize.value_or(0), disk_.full.fileSize.value_or(0),
                   disk_.tmp ? disk_.tmp->fileSize.value_or(0) : 0});
}

void Model::Remove() {
  disk_ = Disk{};
  offsets_.clear();
  filterMayDeny_ = false;
  tree_.clear();
  rebuilt_ = true;
}

void Model::Adopt(Disk found) {
  // Killed between the switch of the databases and that of the bloom file, which is the last step:
  // what is there may be the filter of the merge before. It stays so until the next merge.
  filterMayDeny_ = found.bloom && (filterMayDeny_ || found.full.extents != disk_.full.extents);
  disk_ = std::move(found);
}

void Model::Load() {
  cache_ = CacheModel{};
  nodes_ = {Node{}};
  run_.clear();
  offsets_.clear();
  changed_ = true;
  // Neither piece of the table in memory knows a node any more.
  for (auto& [end, piece] : tree_) {
    piece.node = 0;
  }
  rebuilt_ = true;
  fileSize_ = committedSize_ = SizeOnDisk();
  version_ = disk_.full.version.value_or(Version{2, 0});
  disk_.full.version = version_;
  commits_ = disk_.small.counter.value_or(0);
  disk_.small.counter = commits_;
  doid_ = disk_.small.doid.value_or(Doid{});
  disk_.small.doid = doid_;
  if (HasJournal() && disk_.journal) {
    Replay();
  }
  if (Overlaps(disk_.small.extents)) {
    return;  // the caller gives the contents up
  }
  RebuildIfStrayed();
}

void Model::Replay() {
  for (auto record = disk_.journal->rbegin(); record != disk_.journal->rend(); ++record) {
    if (record->end == 0 || record->start > record->end) {
      continue;
    }
    if (record->added) {
      disk_.small.extents.erase(record->end);
      continue;
    }
    Piece piece;
    piece.start = record->start;
    piece.objOff = Stored32(record->objOff);
    piece.id.dcid = record->dcid;
    piece.id.fp = record->fp;
    disk_.small.extents[record->end] = piece;
  }
  disk_.journal->clear();
}

}  // namespace zefs::test
