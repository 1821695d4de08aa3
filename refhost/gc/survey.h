#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "refhost/durable/durable_store.h"
#include "refhost/durable/importer.h"

namespace zefs::refhost {

/// What is in a container, as the index has it.
struct IndexedObject {
  crfp_digest_t fp;
  std::uint32_t length;
  bool known;  ///< to the filter of a table that lists the container
};

struct SurveyedContainer {
  bool there = false;           ///< as a file
  std::uint64_t fileBytes = 0;  ///< of it
  bool listed = false;          ///< by a table
  std::vector<IndexedObject> objects;
};

/// What a store holds and what its tables refer to.
struct Survey {
  std::map<std::uint64_t, SurveyedContainer> containers;       ///< by id
  std::map<std::string, std::vector<std::uint64_t>> listedBy;  ///< containers by file
  std::uint64_t asked = 0;                                     ///< tables
  std::uint64_t skipped = 0;  ///< tables that have not changed since they were last asked
};

/// Asks the tables of all files what they refer to. A table that says it has not changed, and whose
/// last answer is kept, is not asked again.
Survey TakeSurvey(DurableStore::Still* still, const StoreProgress& progress);

}  // namespace zefs::refhost
