#include "refhost/gc/survey.h"

#include <memory>
#include <mutex>

#include "refhost/gc/table_references.h"
#include "refhost/host/sha256.h"
#include "table/extent.h"

namespace zefs::refhost {

namespace {

using KeptReferences = DurableStore::Still::KeptReferences;

/// The object id that a table is given once its references are known: one without counts as changed
/// for ever. Nothing lies in a container under it.
StoredTable::ObjectID IdOf(const TableReferences& references) {
  Sha256Hasher hasher;
  for (const auto& [dcid, bytes] : references.bytesByDcid) {
    hasher.Update(&dcid, sizeof dcid);
    hasher.Update(&bytes, sizeof bytes);
  }
  hasher.Update(references.filter->GetBloom(), references.filter->GetBufferSize());
  StoredTable::ObjectID id;
  id.dcid = Aldenta::Qnd::Morene::Zefs::kFirstDcid + 1;  // the lowest that a table takes
  id.fp = hasher.Finish();
  return id;
}

KeptReferences Ask(MappingTable* table) {
  auto references = std::make_shared<TableReferences>();
  table->GetDCIDAndBloomFilter(&references->bytesByDcid, &references->filter);
  StoredTable::ObjectID id = IdOf(*references);
  table->SetDOID(&id);
  return references;
}

/// Only tables that list a container can refer to an object in it, so the others are not asked
/// about its fingerprints: they could only mistake them.
void Count(const TableReferences& references, Survey* survey) {
  for (const auto& [dcid, bytes] : references.bytesByDcid) {
    SurveyedContainer& container = survey->containers[dcid];
    container.listed = true;
    for (IndexedObject& object : container.objects) {
      object.known = object.known || references.filter->Contains(object.fp);
    }
  }
}

}  // namespace

Survey TakeSurvey(DurableStore::Still* still, const StoreProgress& progress) {
  Survey survey;
  for (const auto& [dcid, bytes] : still->objects().ContainerSizes()) {
    survey.containers[dcid].there = true;
    survey.containers[dcid].fileBytes = bytes;
  }
  still->objects().ForEach([&](const crfp_digest_t& fp, const Location& where) {
    survey.containers[where.dcid].objects.push_back({fp, where.length, false});
  });
  std::mutex mutex;
  const std::vector<std::string> names = still->Names();
  still->VisitAll(names, [&](const std::string& name, StoredFile& file, KeptReferences* kept) {
    const bool asked = *kept == nullptr || file.table().IsDataChanged();
    if (asked) {
      kept->reset();
      *kept = Ask(&file.table());
    }
    const std::lock_guard<std::mutex> lock(mutex);
    ++(asked ? survey.asked : survey.skipped);
    Count(**kept, &survey);
    for (const auto& [dcid, bytes] : (*kept)->bytesByDcid) {
      survey.listedBy[name].push_back(dcid);
    }
    if (progress) {
      progress("references", survey.asked + survey.skipped, names.size());
    }
  });
  return survey;
}

}  // namespace zefs::refhost
