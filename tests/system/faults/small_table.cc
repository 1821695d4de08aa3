#include "tests/system/faults/small_table.h"

#include <unordered_map>

#include <boost/filesystem/operations.hpp>

#include "sidefiles/bloom_persist.h"
#include "tests/persistent/flush_fixture.h"
#include "tests/support/file_bytes.h"
#include "tests/support/plain_lmdb.h"
#include "tests/system/faults/memory_faults.h"

namespace zefs::test {

namespace fs = boost::filesystem;

namespace {

struct Piece {
  long start;
  long end;
  std::uint64_t dcid;
};
using Level = std::vector<Piece>;

const Level kFull = {{0, 100, 70}, {100, 150, 71}, {200, 260, 72}, {300, 360, 73}};
const Level kSmall = {{40, 120, 80}, {250, 310, 81}};
const Level kTmp = {{140, 210, 90}};
constexpr long kUnflushed = 380;  // what is written from here on has no object id yet

/// A write that waits in the cache: with a node, or with a known object id.
struct Write {
  long start;
  long end;
  int node;  // -1: none
  std::uint64_t dcid;
  long place;
  int dcOffset;
};
const std::vector<Write> kWrites = {{20, 30, 0, 100, 500, 1000},
                                    {60, 70, -1, 103, 700, -1},
                                    {145, 155, -1, 101, 800, -3},
                                    {330, 340, 1, 102, 900, 1020},
                                    {kUnflushed, 390, 2, 104, 950, 1040}};

Records RecordsOf(const Level& level) {
  Records records;
  for (const Piece& piece : level) {
    records.push_back(Stored(piece.start, piece.end, piece.dcid));
  }
  return records;
}

void Cover(const Level& level, Bytes* bytes) {
  for (const Piece& piece : level) {
    const EntryFields fields = FieldsOf(piece.start, piece.dcid);
    for (long at = piece.start; at < piece.end; ++at) {
      (*bytes)[static_cast<std::size_t>(at)] = {piece.dcid, fields.objectOffset + at - piece.start,
                                                fields.dcOffset};
    }
  }
}

/// What the journal of kFailedMerge undoes.
const std::vector<JournalFields> kJournal = {{kOpAdd, 250, 310, 81}, {kOpDel, 400, 410, 74}};

void CopyFiles(const fs::path& from, const fs::path& to) {
  fs::create_directories(to);
  for (const auto& entry : fs::directory_iterator(from)) {
    const fs::path copy = to / entry.path().filename();
    if (fs::is_directory(entry.path())) {
      fs::create_directory(copy);  // where a merge was to go
    } else {
      WriteBytes(copy, BytesOf(entry.path()));
    }
  }
}

void StoreFilter(const fs::path& path) {
  BloomFilter filter(64, 0.02);
  std::unordered_map<unsigned long, unsigned long> refs;
  for (const Piece& piece : kFull) {
    filter.Insert(DigestOf(static_cast<unsigned char>(piece.dcid)));
    refs[piece.dcid] = static_cast<unsigned long>(piece.end - piece.start);
  }
  Aldenta::Qnd::Morene::Zefs::BloomPersist file(path.string(), false);
  EXPECT_EQ(0, file.Reset(false));
  EXPECT_EQ(0, file.StoreBloom(&filter, &refs));
}

}  // namespace

void PrintTo(const Bytes& bytes, std::ostream* out) {
  for (std::size_t at = 0; at < bytes.size();) {
    std::size_t end = at + 1;
    const Byte& first = bytes[at];
    while (end < bytes.size() && bytes[end].dcid == first.dcid &&
           bytes[end].dcOffset == first.dcOffset &&
           (bytes[end].place == first.place + static_cast<long>(end - at) ||
            (first.dcid == 0 && bytes[end] == first))) {
      ++end;
    }
    if (!(first == Byte{})) {
      *out << '[' << at << ", " << end << ") " << first.dcid << ' ' << first.place << ' '
           << first.dcOffset << "; ";
    }
    at = end;
  }
}

const char* NameOf(Start start) {
  return start == Start::kMerged        ? "merged"
         : start == Start::kFailedMerge ? "failed merge"
                                        : "nothing";
}

int SparedCache::GetNodeObjectID(void* node, DataCacheNode::ObjectID* out, bool flag) {
  const MemoryFaults::Spared spared;
  return cache_->GetNodeObjectID(node, out, flag);
}

int SparedCache::ProtectShare(DataTransferManagement* transfer, const std::string& shareScope,
                              const std::string& share) {
  const MemoryFaults::Spared spared;
  return cache_->ProtectShare(transfer, shareScope, share);
}

Templates::Templates() {
  for (const Start start : {Start::kMerged, Start::kFailedMerge}) {
    const fs::path directory = Of(start);
    fs::create_directories(directory);
    Records full = RecordsOf(kFull);
    full.push_back({kPlainVersionKey, SpecialBytes(std::int32_t{2}, 0)});
    full.push_back({kPlainFileSizeKey, SpecialBytes(std::int64_t{360})});
    Records small = RecordsOf(kSmall);
    small.push_back({kPlainCommitCounterKey, SpecialBytes(std::int64_t{5})});
    small.push_back({kPlainDoidKey, SpecialBytes(std::uint64_t{65}, DigestOf(3))});
    WritePlainDatabase(directory / "data.mdb", full);
    WritePlainDatabase(directory / "lsml0.mdb", small);
    StoreFilter(directory / "bloom");
    WriteBytes(directory / "dcoffset",
               OffsetBytes(40, Oid(80), -1) + OffsetBytes(250, Oid(81), -1));
    if (start == Start::kFailedMerge) {
      WritePlainDatabase(directory / "tmp.mdb", RecordsOf(kTmp));
      WriteBytes(directory / "journal", JournalBytes(kJournal));
    }
  }
}

fs::path Templates::Of(Start start) const {
  return dir_ / NameOf(start);
}

SmallTable::SmallTable(const Templates& templates, Start start)
    : start_(start), directory_(dir_ / "table") {
  if (start != Start::kNothing) {
    CopyFiles(templates.Of(start), directory_);
  }
  for (DataCacheNode*& node : nodes_) {
    node = cache_.NewNode();
  }
}

SmallTable::~SmallTable() {
  Destroy();
}

std::string SmallTable::type() const {
  return start_ == Start::kFailedMerge ? "GENERIC" : "PROVISION";
}

void SmallTable::Make() {
  table_ = std::make_unique<CMappingLMDB>(&spared_, type());
}

void SmallTable::Load() {
  Make();
  EXPECT_EQ(0, table_->load(directory(), false, ""));
}

void SmallTable::WriteCache() {
  for (const Write& write : kWrites) {
    const auto oid = Oid(write.dcid, static_cast<unsigned int>(write.dcid));
    DataCacheNode* const node =
        write.node == -1 ? nullptr : nodes_.at(static_cast<std::size_t>(write.node));
    if (node != nullptr && write.start != kUnflushed) {
      cache_.MakeReady(node, oid, write.dcOffset);
    }
    table_->insert(write.start, write.end, node == nullptr ? &oid : nullptr, write.place, 0, node,
                   write.dcOffset, nullptr);
  }
}

void SmallTable::TakeReferences() {
  std::vector<std::pair<unsigned long, unsigned long>> dcids;
  std::unique_ptr<BloomFilter> filter;
  table_->GetDCIDAndBloomFilter(&dcids, &filter);
  auto oid = Oid(200);
  table_->SetDOID(&oid);
}

void SmallTable::MakeAllReady() {
  const Write& last = kWrites.back();
  cache_.MakeReady(nodes_.back(), Oid(last.dcid, static_cast<unsigned int>(last.dcid)),
                   last.dcOffset);
}

void SmallTable::Destroy() {
  if (table_ == nullptr) {
    return;
  }
  peer().WaitingForMerge();
  if (peer().tmpDb().env != nullptr) {
    peer().ClearDBEnv(&peer().tmpDb());
  }
  table_.reset();
}

Bytes SmallTable::LookAtBytes() {
  Bytes bytes{};
  const auto end = table_->end();
  for (auto at = table_->begin(); at != end; ++at) {
    for (long byte = at->sOff; byte < at->eOff && byte < kFileBytes; ++byte) {
      bytes[static_cast<std::size_t>(byte)] = {at->objectID.dcid, at->objOff + byte - at->sOff,
                                               at->dcOffset};
    }
  }
  return bytes;
}

Content SmallTable::Look() {
  Content content;
  content.bytes = LookAtBytes();
  content.fileSize = table_->getFileSize();
  Aldenta::Qnd::Morene::Zefs::ObjectID doid;
  content.doid = table_->GetDOID(&doid) == 0 ? doid.dcid : 0;
  content.version = table_->getExtMapVersion().major;
  return content;
}

Content LoadedFrom(const std::string& directory, const std::string& type) {
  const TempDir copy;
  CopyFiles(directory, copy / "table");
  FakeCache cache;
  SmallTable::CMappingLMDB table(&cache, type);
  EXPECT_EQ(0, table.load((copy / "table").string(), false, ""));
  SmallTable::Peer peer(table);
  Content content;
  const auto end = table.end();
  for (auto at = table.begin(); at != end; ++at) {
    for (long byte = at->sOff; byte < at->eOff && byte < kFileBytes; ++byte) {
      content.bytes[static_cast<std::size_t>(byte)] = {at->objectID.dcid,
                                                       at->objOff + byte - at->sOff, at->dcOffset};
    }
  }
  content.fileSize = table.getFileSize();
  if (peer.tmpDb().env != nullptr) {
    peer.ClearDBEnv(&peer.tmpDb());
  }
  return content;
}

Bytes ExpectedStored(Start start, bool withJournal) {
  Bytes bytes{};
  for (const Bytes& level : Levels(start, withJournal)) {
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      bytes[at] = level[at] == Byte{} ? bytes[at] : level[at];
    }
  }
  return bytes;
}

std::vector<Bytes> Levels(Start start, bool withJournal) {
  std::vector<Bytes> levels(2);
  if (start == Start::kNothing) {
    return levels;
  }
  Cover(kFull, &levels[0]);
  if (start == Start::kMerged || !withJournal) {
    Cover(kSmall, &levels[1]);
  } else {
    Cover({kSmall.front()}, &levels[1]);
    // What the journal brings back has no container offset.
    for (long at = 400; at < 410; ++at) {
      levels[1][static_cast<std::size_t>(at)] = {74, at - 400, -1};
    }
  }
  if (start == Start::kFailedMerge) {
    Cover(kTmp, &levels.emplace_back());
  }
  return levels;
}

Bytes ExpectedBefore(Start start) {
  Bytes bytes = ExpectedStored(start);
  for (const Write& write : kWrites) {
    for (long at = write.start; at < write.end; ++at) {
      // A node's object id is not asked for before the flush.
      bytes[static_cast<std::size_t>(at)] = {write.node == -1 ? write.dcid : 0,
                                             write.place + at - write.start, write.dcOffset};
    }
  }
  return bytes;
}

bool IsFlushed(long at) {
  for (const Write& write : kWrites) {
    if (write.start != kUnflushed && write.start <= at && at < write.end) {
      return true;
    }
  }
  return false;
}

}  // namespace zefs::test
