#include "tests/system/model/model.h"

#include <algorithm>
#include <iterator>
#include <limits>

// The file as the host sees it: writes, look-ups, references.

namespace zefs::test {

namespace {

constexpr std::uint64_t kFirstDcid = 64;    // names a container
constexpr std::uint64_t kFirstListed = 63;  // of a stored table

Piece Same(const Piece& piece, long start) {
  return From(piece, start);
}

}  // namespace

// --- nodes

int Model::NewNode(const ObjectID& id, std::int32_t dcOffset) {
  nodes_.push_back({id, dcOffset});
  return static_cast<int>(nodes_.size()) - 1;
}

std::vector<int> Model::NotReady() const {
  std::vector<int> numbers;
  for (std::size_t i = 1; i < nodes_.size(); ++i) {
    if (!nodes_[i].ready && !nodes_[i].takenBack) {
      numbers.push_back(static_cast<int>(i));
    }
  }
  return numbers;
}

std::vector<long> Model::MakeReady(int node) {
  Node& made = nodes_.at(static_cast<std::size_t>(node));
  made.ready = true;
  std::vector<long> starts;
  for (auto& [end, piece] : tree_) {
    if (piece.node == node) {
      piece.id = made.id;  // the stored table asks the node itself, when it flushes or cuts
      starts.push_back(piece.start);
    }
  }
  return starts;
}

// --- writes

void Model::Insert(const WriteOf& write) {
  if (write.end <= write.start) {
    return;
  }
  Piece piece = write.piece;
  if (!write.isKnown) {
    piece.id = ObjectID{};
  }
  piece.start = write.start;
  DropPrefetchedUnder(write.start, write.end);
  WriteCache(write.start, write.end, piece);
  // In memory: 64 bits of the object's offset, the checksum, and no container offset.
  Cut(&tree_, write.start, write.end, Same);
  piece.dcOffset = -1;
  tree_[write.end] = piece;
}

void Model::Append(const WriteOf& write) {
  WriteOf appended = write;
  appended.piece.dcOffset = -1;
  Insert(appended);
}

void Model::Update(const Seen& found) {
  Piece piece = found.piece;
  piece.dcOffset = -1;
  DropPrefetchedUnder(piece.start, found.end);
  WriteCache(piece.start, found.end, piece);
}

void Model::WriteCache(long start, long end, const Piece& piece) {
  cache_.Write(start, end, piece, nodes_);
  fileSize_ = std::max(fileSize_, end);
  changed_ = true;
}

void Model::Truncate(long size) {
  DropPrefetched();
  FirstChange();
  disk_.bloom.reset();
  filterMayDeny_ = false;
  Waypoint();
  cache_.Truncate(size);
  TruncateDatabase(&disk_.small, size);
  Waypoint();
  TruncateDatabase(&disk_.full, size);
  fileSize_ = committedSize_ = size;
  Cut(&tree_, size, std::numeric_limits<long>::max(), Same);
  RebuildIfStrayed();  // a tmp database keeps what lies behind `size`
}

void Model::TruncateDatabase(Database* database, long size) {
  Cut(&database->extents, size, std::numeric_limits<long>::max(),
      [](const Piece& piece, long) { return WithoutAttributes(piece); });
  database->fileSize = size;
}

void Model::SetFileSize(long size) {
  FirstChange();
  if (size > committedSize_) {
    disk_.full.fileSize = size;
    fileSize_ = committedSize_ = size;
  }
}

Both<long> Model::FileSize() const {
  return {0, std::max(fileSize_, committedSize_)};  // a table in memory records no size
}

void Model::FirstChange() {
  if (!changed_) {
    changed_ = true;
    doid_ = Doid{};
    disk_.small.doid = doid_;
    Waypoint();
  }
}

// --- look-ups

Layers Model::StoredLayers() const {
  Layers layers = disk_.Chain();
  layers.insert(layers.begin(), &cache_.extents());
  return layers;
}

Both<std::optional<Seen>> Model::Find(long offset) const {
  Both<std::optional<Seen>> found{LookUp({&tree_}, offset), std::nullopt};
  // A hit among prefetched extents may be older than the cache.
  int low = 0;
  int high = static_cast<int>(run_.size()) - 1;
  while (low <= high) {
    const int middle = (low + high) / 2;
    const Seen& seen = run_[static_cast<std::size_t>(middle)];
    if (offset < seen.piece.start) {
      high = middle - 1;
    } else if (offset < seen.end) {
      found.stored = seen;
      return found;
    } else {
      low = middle + 1;
    }
  }
  found.stored = LookUp(StoredLayers(), offset);
  return found;
}

Both<std::optional<Seen>> Model::FindCached(long offset) const {
  return {LookUp({&tree_}, offset), LookUp({&cache_.extents()}, offset)};
}

Both<long> Model::Size() const {
  constexpr std::size_t kSpecialItems = 4;
  const std::size_t records =
      disk_.small.Records() + disk_.full.Records() + (disk_.tmp ? disk_.tmp->Records() : 0);
  // A stored table counts the records of its databases, special items of all but one included.
  return {static_cast<long>(tree_.size()),
          static_cast<long>(records < kSpecialItems ? 0 : records - kSpecialItems)};
}

Plan Model::MakePlan(long start, long end) {
  Plan plan;
  if (start >= end) {
    return plan;
  }
  std::vector<Seen> fetched;
  const Layers layers = StoredLayers();
  long offset = start;
  do {
    const auto seen = LookUp(layers, offset);
    if (!seen) {
      break;
    }
    fetched.push_back(*seen);
    offset = seen->end;
    const std::uint64_t dcid = seen->piece.id.dcid;
    if (dcid < kFirstDcid) {
      continue;
    }
    auto entry = std::find_if(plan.containers.begin(), plan.containers.end(),
                              [dcid](const auto& container) { return container.first == dcid; });
    if (entry == plan.containers.end()) {
      entry = plan.containers.insert(entry, {dcid, {}});
    }
    entry->second.push_back({seen->piece, seen->end, seen->piece.start < end});
  } while (offset < end - 1);
  KeepPrefetched(std::move(fetched));
  return plan;
}

void Model::DropPrefetched() {
  run_.clear();
}

void Model::DropPrefetchedUnder(long start, long end) {
  if (run_.empty()) {
    return;
  }
  const long first = run_.front().piece.start;
  const long last = run_.back().end;
  if ((start <= first && first < end) || (start < last && last <= end)) {
    run_.clear();
  }
}

void Model::KeepPrefetched(std::vector<Seen> fetched) {
  if (!settings_.prefetch || fetched.empty()) {
    return;
  }
  if (run_.empty()) {
    run_ = std::move(fetched);
    return;
  }
  const long oldStart = run_.front().piece.start;
  const long oldEnd = run_.back().end;
  const long newStart = fetched.front().piece.start;
  const long newEnd = fetched.back().end;
  if (oldEnd < newStart || newEnd < oldStart) {
    run_ = std::move(fetched);
    return;
  }
  if (oldStart <= newStart && newEnd <= oldEnd) {
    return;
  }
  if (newStart <= oldStart && oldEnd <= newEnd) {
    run_ = std::move(fetched);
    return;
  }
  const auto inSpan = [&](const Seen& seen) {
    return std::abs(seen.piece.start - newStart) <= static_cast<long>(settings_.prefetchSpan);
  };
  std::vector<Seen> joined;
  const bool oldFirst = oldStart < newStart;
  for (const Seen& seen : oldFirst ? run_ : fetched) {
    if (!oldFirst || inSpan(seen)) {
      joined.push_back(seen);
    }
  }
  if (joined.empty()) {
    run_ = std::move(fetched);
    return;
  }
  const long last = joined.back().piece.start;
  for (const Seen& seen : oldFirst ? fetched : run_) {
    if (inSpan(seen) && seen.piece.start > last) {
      joined.push_back(seen);
    }
  }
  run_ = std::move(joined);
}

// --- object ids and references

Both<std::vector<Seen>> Model::ListIds(unsigned long start, unsigned long end) {
  if (start == 0) {
    Merge(MergeFault::kNone);  // of the stored table; it lists the full database
  }
  const long from = static_cast<long>(start);
  const long to = static_cast<long>(end);
  Both<std::vector<Seen>> listed;
  const auto last = tree_.upper_bound(to);
  if (from <= to) {
    for (auto at = tree_.upper_bound(from); at != last && at != tree_.end(); ++at) {
      listed.memory.push_back({at->first, at->second, 0});
    }
  }
  for (const auto& [key, piece] : disk_.full.extents) {
    if (key >= from && key <= to && piece.id.dcid >= kFirstListed) {
      listed.stored.push_back({key, piece, 0});
    }
  }
  return listed;
}

void Model::RewriteIds(const std::vector<Seen>& list) {
  if (list.empty()) {
    return;
  }
  // In memory an element concerns the extents that start before it, and the last all the rest.
  auto at = tree_.upper_bound(list.front().piece.start);
  for (std::size_t i = 0; i < list.size(); ++i) {
    const bool last = i + 1 == list.size();
    for (; at != tree_.end() && (last || at->second.start < list[i].piece.start); ++at) {
      if (at->second.id.fp == list[i].piece.id.fp) {
        at->second.id.dcid = list[i].piece.id.dcid;
      }
    }
  }
  // In the full database, the only one looked at, those that end before its end or there.
  DropPrefetched();
  auto record = disk_.full.extents.begin();
  for (const Seen& element : list) {
    for (; record != disk_.full.extents.end() && record->first <= element.end; ++record) {
      Piece& piece = record->second;
      if (piece.id.fp == element.piece.id.fp) {
        piece.id.dcid = element.piece.id.dcid;
        piece = WithoutAttributes(piece);
      }
    }
  }
  RebuildIfStrayed();
}

References Model::MemoryReferences() const {
  References references;
  for (const auto& [end, piece] : tree_) {
    if (piece.id.dcid >= kFirstDcid) {
      references.bytes[piece.id.dcid] += static_cast<std::uint64_t>(end - piece.start);
      ++references.extentsByFp[piece.id.fp];
    }
  }
  return references;
}

std::pair<BytesByDcid, std::multiset<crfp_digest_t>> Model::StoredReferences() const {
  BytesByDcid bytes;
  std::multiset<crfp_digest_t> fps;
  std::set<long> keys;
  for (const Layer* layer : disk_.Chain()) {
    for (const auto& [end, piece] : *layer) {
      fps.insert(piece.id.fp);  // also of what newer data has replaced
      if (keys.insert(end).second) {
        bytes[piece.id.dcid] += static_cast<std::uint64_t>(end - piece.start);
      }
    }
  }
  return {bytes, fps};
}

std::pair<BytesByDcid, std::uint64_t> Model::Filter() {
  BytesByDcid bytes;
  std::uint64_t inserted = 0;
  const auto walk = [&](const Database& database) {
    for (const auto& [end, piece] : database.extents) {
      bytes[piece.id.dcid] += static_cast<std::uint64_t>(end - piece.start);
      ++inserted;
    }
  };
  if (disk_.bloom) {  // the full database as the last merge wrote it
    bytes = disk_.bloom->bytesByDcid;
    inserted = disk_.bloom->inserted;
  } else {
    walk(disk_.full);
  }
  if (disk_.tmp) {
    walk(*disk_.tmp);
  }
  walk(disk_.small);
  bytes.erase(bytes.begin(), bytes.lower_bound(kFirstDcid));
  changed_ = false;
  return {bytes, inserted};
}

void Model::ChangeAttributes(long offset, const ObjectID& id) {
  const auto found = tree_.upper_bound(offset);
  if (found != tree_.end()) {
    found->second.id = id;  // a stored table learns object ids in the flush only
  }
}

// --- the two tables

std::optional<ObjectID> Model::IdToBe(const Seen& seen) const {
  const Piece& piece = seen.piece;
  const Node& node = nodes_.at(static_cast<std::size_t>(piece.node));
  if (seen.layer == 0 && node.ready) {
    return node.id;
  }
  return seen.layer == 0 && piece.id.dcid == 0 ? std::nullopt : std::optional(piece.id);
}

std::string Model::Agree() const {
  const auto stored = AllOf(StoredLayers());
  const auto memory = AllOf({&tree_});
  auto a = memory.begin();
  auto b = stored.begin();
  long offset = 0;
  while (a != memory.end() || b != stored.end()) {
    if (a == memory.end() || b == stored.end()) {
      return "only one table shows " + Words(a == memory.end() ? *b : *a);
    }
    offset = std::max(offset, std::min(a->piece.start, b->piece.start));
    const Piece left = From(a->piece, offset);
    const Piece right = From(b->piece, offset);
    const auto id = IdToBe(*b);
    if (std::max(a->piece.start, b->piece.start) > offset ||
        Stored32(left.objOff) != Stored32(right.objOff) || (id && !SameObject(left.id, *id))) {
      return "at " + std::to_string(offset) + " memory shows " + Words(a->piece, a->end) +
             ", stored " + Words(b->piece, b->end);
    }
    offset = std::min(a->end, b->end);
    a += a->end == offset ? 1 : 0;
    b += b->end == offset ? 1 : 0;
  }
  return "";
}

void Model::RebuildIfStrayed() {
  if (Agree().empty()) {
    return;
  }
  Layer fresh;
  for (const Seen& seen : AllOf(StoredLayers())) {
    Piece piece = seen.piece;
    const auto known = tree_.upper_bound(piece.start);
    if (const auto id = IdToBe(seen)) {
      piece.id = *id;
    } else if (known != tree_.end() && known->second.start <= piece.start) {
      piece.id = known->second.id;
    }
    piece.dcOffset = -1;
    fresh.emplace_hint(fresh.end(), seen.end, piece);
  }
  tree_ = std::move(fresh);
  rebuilt_ = true;
}

}  // namespace zefs::test
