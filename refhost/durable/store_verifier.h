#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "refhost/durable/durable_store.h"
#include "refhost/durable/importer.h"
#include "refhost/store/dedup_index.h"

namespace zefs::refhost {

/// What is not as it has to be.
struct StoreProblem {
  std::string name;  ///< of the file
  std::string text;  ///< one line
};

struct StoreVerification {
  std::uint64_t files = 0;
  std::uint64_t changing = 0;  ///< of these: written to after their last sync, so without a digest
  std::uint64_t bytes = 0;
  std::uint64_t extents = 0;
  std::uint64_t objects = 0;  ///< different ones, each read whole and fingerprinted again
  std::vector<StoreProblem> problems;
};

/// Reads every byte of every file. For each extent: its object is in the index, where the extent
/// says, is long enough, and gives its fingerprint. For each file: its size, and the digest of what
/// it reads as, are those of its last sync. What cannot be read for another reason than damage
/// throws StoreError.
class StoreVerifier {
 public:
  StoreVerifier(DurableStore* store, const StoreProgress& progress);

  void Run(StoreVerification* result);

 private:
  void VerifyFile(const std::string& name, const CatalogueEntry& entry);
  void VerifyMap(const std::string& name, std::int64_t size);
  void VerifyExtent(Aldenta::Qnd::Morene::Zefs::Ext& ext);
  void VerifyBytes(const std::string& name, const CatalogueEntry& entry);

  DurableStore& store_;
  const StoreProgress& progress_;
  StoreVerification* result_ = nullptr;
  std::string block_;
  std::uint64_t total_ = 0;
  std::unordered_set<crfp_digest_t, FingerprintHash> sound_;  // objects that were read
};

}  // namespace zefs::refhost
