#include "refhost/gc/garbage_collector.h"

#include <optional>
#include <vector>

#include "refhost/gc/catch_up.h"
#include "refhost/gc/survey.h"

namespace zefs::refhost {

Collected CollectGarbage(DurableStore* store, const StoreProgress& progress) {
  Collected collected;
  store->Exclusively([&](DurableStore::Still& still) {
    FinishCompaction(&still);
    const Survey survey = TakeSurvey(&still, progress);
    const std::optional<std::uint64_t> writing = still.objects().writing();
    std::vector<crfp_digest_t> fps;
    std::vector<std::uint64_t> dcids;
    for (const auto& [dcid, container] : survey.containers) {
      for (const IndexedObject& object : container.objects) {
        if (!container.listed || !object.known) {
          fps.push_back(object.fp);
        }
      }
      if (!container.there) {
        continue;
      }
      if (container.listed || dcid == writing) {
        ++collected.containersKept;
        collected.bytesKept += container.fileBytes;
      } else {
        dcids.push_back(dcid);
        collected.bytesReclaimed += container.fileBytes;
      }
    }
    still.objects().Drop(fps, dcids);
    collected.tablesAsked = survey.asked;
    collected.tablesSkipped = survey.skipped;
    collected.entriesDropped = fps.size();
    collected.containersRemoved = dcids.size();
  });
  return collected;
}

}  // namespace zefs::refhost
