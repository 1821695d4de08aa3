#include "refhost/durable/stored_file.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <utility>

#include "host/zefs_log.h"
#include "refhost/store/store_error.h"
#include "table/extent.h"

namespace zefs::refhost {

namespace {

using Aldenta::Qnd::Morene::Zefs::Ext;

/// Between the questions whether there is enough to flush.
constexpr std::size_t kSegmentsPerFlush = 8;

constexpr const char* kTypeWithJournal = "GENERIC";

}  // namespace

StoredFile::StoredFile(const FileServices& services, const std::string& directory,
                       std::int64_t size, std::string share)
    : services_(services),
      nodes_(&services.cache->counts()),
      table_(directory, *services.tableType, services.cache, services.merges),
      share_(std::move(share)),
      size_(std::max<std::int64_t>(size, table_.FileSize())),
      reads_(services.ahead->window()) {}

StoredFile::~StoredFile() {
  jobs_.Wait();
  if (*services_.tableType != kTypeWithJournal || !failure_.empty()) {
    return;
  }
  try {
    services_.objects->MakeDurable();
    FlushAll();
  } catch (const std::exception& error) {
    ZEFS_LOG(kLogFailure, "the last flush of %s failed: %s", directory().c_str(), error.what());
  }
}

/// Runs one change, unless an earlier one failed.
template <typename Change>
void StoredFile::ChangeIt(const Change& change) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!failure_.empty()) {
    throw StoreError(failure_, 0);
  }
  try {
    jobs_.ThrowFailure();
    change();
  } catch (const std::exception& error) {
    failure_ = error.what();
    throw;
  }
}

void StoredFile::Write(std::int64_t offset, std::string_view bytes) {
  ChangeIt([&] {
    for (const Segment& piece :
         services_.segmenter->Cut(offset, static_cast<std::int64_t>(bytes.size()))) {
      WriteSegment(piece.offset,
                   bytes.substr(static_cast<std::size_t>(piece.offset - offset), piece.length));
    }
  });
}

void StoredFile::WriteSegment(std::int64_t offset, std::string_view bytes) {
  const auto copy = std::make_shared<const std::string>(bytes);
  CacheNode* const node = nodes_.Make(copy);
  const std::int64_t end = offset + static_cast<std::int64_t>(bytes.size());
  table_.Insert(offset, end, nullptr, 0, node->ForTable(), -1);
  size_ = std::max<std::int64_t>(size_, end);
  jobs_.Begin();
  try {
    services_.workers->Post([this, node, copy] { StoreBytes(node, copy); });
  } catch (...) {
    jobs_.End();
    throw;
  }
  if (++segmentsSinceFlush_ >= kSegmentsPerFlush) {
    segmentsSinceFlush_ = 0;
    Flush(false);
  }
}

/// In a worker. The node stays while jobs are under way, even if a later write has displaced it.
void StoredFile::StoreBytes(CacheNode* node, const CacheNode::Bytes& bytes) {
  std::exception_ptr failure;
  try {
    const ObjectStore::Stored stored = services_.objects->Put(*bytes);
    node->SetStored(stored.objectID, stored.dcOffset);
  } catch (...) {
    failure = std::current_exception();
  }
  jobs_.End(failure);
}

void StoredFile::Grow(std::int64_t size) {
  ChangeIt([&] { size_ = std::max<std::int64_t>(size_, size); });
}

void StoredFile::Flush(bool force) {
  table_.Flush(force, share_,
               [this](const std::set<void*>& released) { nodes_.Release(released); });
}

void StoredFile::AwaitStored() {
  jobs_.Wait();
  ChangeIt([] {});
}

void StoredFile::FlushAll() {
  ChangeIt([&] {
    Flush(true);
    nodes_.Settle();
    table_.RaiseFileSize(size_);
  });
}

bool StoredFile::FinishMerges() {
  bool finished = false;
  ChangeIt([&] { finished = table_.FinishMerges(); });
  return finished;
}

void StoredFile::Cut(std::int64_t size) {
  ChangeIt([&] {
    table_.Truncate(size);
    size_ = size;
  });
}

void StoredFile::SnapshotTable(const std::string& target) {
  const std::lock_guard<std::mutex> lock(mutex_);
  table_.Snapshot(target);  // which leaves this table as it is, also if it fails
}

void StoredFile::FollowTable(const std::string& directory) {
  ChangeIt([&] { table_.Follow(directory); });
}

void StoredFile::RemoveTable() {
  jobs_.Wait();
  const std::lock_guard<std::mutex> lock(mutex_);
  failure_ = "the table in " + directory() + " has been removed";
  table_.Remove();
}

std::size_t StoredFile::Read(std::int64_t offset, char* out, std::size_t size) const {
  const std::int64_t left = std::max<std::int64_t>(size_ - offset, 0);
  const std::size_t wanted = std::min(size, static_cast<std::size_t>(left));
  const std::int64_t end = offset + static_cast<std::int64_t>(wanted);
  LookAhead({offset, end});
  for (std::int64_t at = offset; at < end;) {
    // One look-up for each extent, under a lock of its own: a step of the iterator would see the
    // cache without one.
    SharedLock lock;
    const auto it = OnTable("read", directory(), [&] { return table().find(at, &lock); });
    const bool found = it != table().end();
    const std::int64_t from = found ? std::clamp<std::int64_t>(it->getSOff(), at, end) : end;
    std::memset(out + (at - offset), 0, static_cast<std::size_t>(from - at));
    at = from;
    if (from < end) {
      at = std::min<std::int64_t>(it->getEOff(), end);
      ReadExtent(*it, from, at, &lock, out + (from - offset));
    }
  }
  return wanted;
}

/// Has fetched what a sequential reader wants next. A failure is that of no read.
void StoredFile::LookAhead(const FileRange& read) const {
  if (read.start >= read.end || services_.objects->byFingerprint()) {
    return;  // by fingerprint: what a plan says of containers means nothing
  }
  if (const std::optional<FileRange> range = reads_.Note(read, size_); range.has_value()) {
    try {
      services_.ahead->Fetch(table_.Plan(range->start, range->end), services_.workers);
    } catch (const StoreError& error) {
      ZEFS_LOG(kLogRecoverable, "cannot read ahead: %s", error.what());
    }
  }
}

/// Reads the part of `ext` in [offset, end), which lies inside its range: from its node, which
/// `*lock` keeps from being released, or else from what was fetched of its container, or from that.
void StoredFile::ReadExtent(Ext& ext, std::int64_t offset, std::int64_t end, SharedLock* lock,
                            char* out) const {
  const std::int64_t objOff = ext.getObjOff() + (offset - ext.getSOff());
  const auto size = static_cast<std::size_t>(end - offset);
  const auto rangeOfExtent = [&ext] {
    return "extent [" + std::to_string(ext.getSOff()) + ", " + std::to_string(ext.getEOff()) +
           "): ";
  };
  if (ext.getData() != nullptr) {
    const CacheNode::Bytes& bytes = CacheNode::FromTable(ext.getData())->bytes();
    if (bytes == nullptr) {
      ++services_.cache->counts().readAfterRelease;
      throw DamageError(rangeOfExtent() + "its node has been released");
    }
    if (objOff < 0 || static_cast<std::size_t>(objOff) + size > bytes->size()) {
      throw DamageError(rangeOfExtent() + "it reaches beyond its node");
    }
    std::memcpy(out, bytes->data() + objOff, size);
    return;
  }
  if (lock->owns_lock()) {
    lock->unlock();
  }
  if (!services_.objects->byFingerprint() &&
      services_.ahead->Read(ext.getObjectID().dcid, ext.getDCOffset(), objOff,
                            static_cast<std::uint32_t>(size), out)) {
    return;
  }
  try {
    services_.objects->Read(ext.getObjectID(), ext.getDCOffset(), objOff,
                            static_cast<std::uint32_t>(size), out);
  } catch (const DamageError& error) {
    throw DamageError(rangeOfExtent() + error.what());
  }
}

}  // namespace zefs::refhost
