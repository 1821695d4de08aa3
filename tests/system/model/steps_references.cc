#include <algorithm>
#include <limits>
#include <memory>
#include <unordered_map>

#include "host/bloom_filter.h"
#include "table/fingerprint.h"
#include "tests/system/model/steps.h"

// Object ids of ranges, and what a table refers to.

namespace zefs::test {

namespace {

using Pairs = std::vector<std::pair<unsigned long, unsigned long>>;

Pairs PairsOf(const BytesByDcid& bytes) {
  return {bytes.begin(), bytes.end()};
}

Pairs Sorted(Pairs pairs) {
  std::sort(pairs.begin(), pairs.end());
  return pairs;
}

}  // namespace

void Steps::SetObjectId(const Operation& operation) {
  const auto found = model_.Find(operation.at);
  if (!found.memory) {
    return;
  }
  // Attributes only: as for the object, both tables go on showing the same.
  ObjectID id = found.memory->piece.id;
  id.attrByte = static_cast<std::uint8_t>(operation.pick);
  id.attrWord = operation.pick;
  model_.ChangeAttributes(operation.at, id);
  if (!live()) {
    return;
  }
  tables_->memory->SetObjectID(tables_->memory->find(operation.at, nullptr).operator->(), id);
  auto stored = tables_->stored->find(operation.at, nullptr);
  if (stored != tables_->stored->end()) {
    tables_->stored->SetObjectID(stored.operator->(), id);
    CheckSeen("an extent after SetObjectID", found.stored, tables_->stored.get(), stored);
  }
}

void Steps::ListIds(const Operation& operation) {
  const auto start = operation.pick % 3 == 0 ? 0UL : static_cast<unsigned long>(operation.at);
  const auto end = operation.pick % 2 == 0
                       ? static_cast<unsigned long>(std::numeric_limits<long>::max())
                       : start + static_cast<unsigned long>(operation.length);
  const auto expected = model_.ListIds(start, end);
  if (!live()) {
    return;
  }
  const auto check = [&](const char* what, const std::vector<Seen>& extents, CMappingTable* table) {
    const auto listed = table->GetObjectIdsAndOffsets(start, end);
    Equal(what, extents.size(), listed.size());
    for (std::size_t i = 0; i < listed.size(); ++i) {
      Expect(listed[i].startOffset == extents[i].piece.start &&
                 listed[i].endOffset == extents[i].end &&
                 SameObject(listed[i].objectID, extents[i].piece.id),
             std::string(what) + ": expected " + Words(extents[i]));
    }
  };
  check("ids listed in memory", expected.memory, tables_->memory.get());
  check("ids listed", expected.stored, tables_->stored.get());
  tables_->DoNotSync();  // a listing from 0 merges
}

void Steps::RewriteIds(const Operation& operation) {
  // Extents of one fingerprint get another container, after a listing of all, as hosts do it.
  const std::vector<Seen> all = model_.ListIds(0, std::numeric_limits<long>::max()).stored;
  std::vector<Seen> list;
  for (const Seen& seen : all) {
    if (seen.piece.id.fp == all[operation.pick % all.size()].piece.id.fp) {
      list.push_back(seen);
      list.back().piece.id.dcid = 64 + operation.pick % 5;
    }
  }
  model_.RewriteIds(list);
  if (!live()) {
    return;
  }
  constexpr auto kAll = static_cast<unsigned long>(std::numeric_limits<long>::max());
  Equal("ids listed before a rewrite", all.size(),
        tables_->stored->GetObjectIdsAndOffsets(0, kAll).size());
  tables_->DoNotSync();
  CMappingTable::ObjectIDs ids;
  for (const Seen& seen : list) {
    ids.push_back({seen.piece.id, seen.piece.start, seen.end});
  }
  for (CMappingTable* table : {tables_->memory.get(), tables_->stored.get()}) {
    Equal("rewrite of ids", 0, table->UpdateObjectIdsByRange(0, kAll, ids));
  }
}

void Steps::MemoryReferences() {
  if (!live()) {
    return;
  }
  const References expected = model_.MemoryReferences();
  std::vector<FingerprintText> texts;
  for (const auto& [fp, extents] : expected.extentsByFp) {
    texts.push_back(Aldenta::Qnd::Morene::Zefs::TextOf(fp));
  }
  std::sort(texts.begin(), texts.end());
  Pairs dcids;
  std::vector<FingerprintText> fps;
  tables_->memory->GetNewReferencedDCID(&dcids);
  Expect(dcids == PairsOf(expected.bytes), "containers referenced in memory");
  tables_->memory->GetReferencedFP(&fps);
  Expect(fps == texts, "fingerprints referenced in memory");
  dcids.clear();
  fps.clear();
  tables_->memory->GetDCIDAndFP(&dcids, &fps);
  Expect(dcids == PairsOf(expected.bytes) && fps == texts, "references in memory");
  // A stored table counts in its databases, and has two operations of its own for that.
  dcids.clear();
  fps.clear();
  tables_->stored->GetDCIDAndFP(&dcids, &fps);
  Expect(dcids.empty() && fps.empty(), "references kept in memory by a stored table");
  int thrown = 0;
  try {
    tables_->stored->GetNewReferencedDCID(&dcids);
  } catch (int code) {
    thrown += code == 0 ? 1 : 0;
  }
  try {
    tables_->stored->GetReferencedFP(&fps);
  } catch (int code) {
    thrown += code == 0 ? 1 : 0;
  }
  Equal("operations that a stored table refuses", 2, thrown);
}

void Steps::StoredReferences() {
  if (!live()) {
    return;
  }
  const auto [bytes, fingerprints] = model_.StoredReferences();
  std::unordered_map<unsigned long, unsigned long> dcids;
  std::vector<crfp_digest_t> fps;
  Equal("binary references in memory", 0, tables_->memory->GetDCIDAndFPs(&dcids, &fps));
  Expect(dcids.empty() && fps.empty(), "binary references in memory");
  Equal("binary references", 0, tables_->stored->GetDCIDAndFPs(&dcids, &fps));
  Expect(BytesByDcid(dcids.begin(), dcids.end()) == bytes, "containers stored");
  Expect(std::multiset<crfp_digest_t>(fps.begin(), fps.end()) == fingerprints,
         "fingerprints stored");
}

void Steps::Filter() {
  const auto fingerprints = model_.StoredReferences().second;
  const auto [bytes, inserted] = model_.Filter();
  if (!live()) {
    return;
  }
  Pairs dcids;
  std::unique_ptr<BloomFilter> filter;
  tables_->memory->GetDCIDAndBloomFilter(&dcids, &filter);
  Expect(dcids.empty() && filter == nullptr, "a filter in memory");
  tables_->stored->GetDCIDAndBloomFilter(&dcids, &filter);
  Expect(Sorted(dcids) == PairsOf(bytes), "containers of a filter");
  Expect(filter != nullptr && filter->GetInsertedFingerPrints() == inserted,
         "what a filter has counted");
  for (const crfp_digest_t& fp : fingerprints) {
    Expect(model_.FilterMayDeny() || filter->Contains(fp), "a filter denies what is stored");
  }
}

// --- the table's own object id

void Steps::SetDoid(const Operation& operation) {
  Doid doid;
  doid.dcid = 62 + operation.pick % 6;
  doid.fp[0] = static_cast<unsigned char>(operation.pick % 7);
  model_.SetDoid(doid);
  if (!live()) {
    return;
  }
  ObjectID id;
  id.dcid = doid.dcid;
  id.fp = doid.fp;
  Equal("do id set in memory", 0, tables_->memory->SetDOID(&id));
  Equal("do id set", 0, tables_->stored->SetDOID(&id));
}

void Steps::GetDoid() {
  if (!live()) {
    return;
  }
  const auto expected = model_.GetDoid();
  ObjectID id;
  id.dcid = 1;
  Equal("do id in memory", 0, tables_->memory->GetDOID(&id));
  Equal("do id in memory", 1UL, id.dcid);
  Equal("do id found", expected ? 0 : -1, tables_->stored->GetDOID(&id));
  Equal("container of the do id", expected ? expected->dcid : 1UL, id.dcid);
  Expect(!expected || expected->fp == id.fp, "fingerprint of the do id");
}

void Steps::IsChanged() {
  if (live()) {
    Equal("changed in memory", true, tables_->memory->IsDataChanged());
    Equal("changed", model_.IsChanged(), tables_->stored->IsDataChanged());
  }
}

void Steps::WritingNodes(const Operation& operation) {
  if (!live()) {
    return;
  }
  const bool internal = operation.pick % 2 == 0;
  using Aldenta::Qnd::Morene::Zefs::DataCacheNodePointerWithStatus;
  std::vector<DataCacheNodePointerWithStatus> nodes;
  tables_->memory->GetWritingNodes(&nodes, internal);
  Expect(nodes.empty(), "writing nodes in memory");
  tables_->stored->GetWritingNodes(&nodes, internal);
  auto found = nodes.begin();
  for (const int number : model_.WritingNodes()) {
    const Node& node = model_.nodes().at(static_cast<std::size_t>(number));
    const int status = node.ready ? 0 : ModelCache::NotReady(number);
    if (internal && status == 1) {
      continue;
    }
    Expect(found != nodes.end() && tables_->cache.NumberOf(found->node) == number,
           "writing node " + std::to_string(number));
    Equal("status of a writing node", status, found->status);
    Expect(!node.ready || SameId(found->objectID, node.id), "object id of a writing node");
    ++found;
  }
  Expect(found == nodes.end(), "writing nodes behind the last");
  Equal("writing nodes counted", 0UL,
        tables_->memory->GetWritingNodesCount() + tables_->stored->GetWritingNodesCount());
}

}  // namespace zefs::test
