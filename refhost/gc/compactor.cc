#include "refhost/gc/compactor.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <set>

#include "refhost/gc/catch_up.h"
#include "refhost/gc/survey.h"
#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

using KeptReferences = DurableStore::Still::KeptReferences;

constexpr std::uint64_t kPerCent = 100;
constexpr std::uint64_t kBytesPerCommit = std::uint64_t{64} << 20;

/// Bytes of the objects that tables know, each of which would be moved once and whole. The bytes
/// that tables tell would not do: they count an object once for each extent that shares it, and one
/// that is used in part for that part.
std::uint64_t LiveBytes(const SurveyedContainer& container) {
  std::uint64_t bytes = 0;
  for (const IndexedObject& object : container.objects) {
    bytes += object.known ? object.length : 0;
  }
  return bytes;
}

bool IsSparse(const SurveyedContainer& container, unsigned below) {
  return container.there && container.listed &&
         LiveBytes(container) * kPerCent < container.fileBytes * below;
}

class Compactor {
 public:
  Compactor(DurableStore::Still* still, const StoreProgress& progress, Compacted* result)
      : still_(*still), progress_(progress), result_(*result) {}

  void Run(unsigned below) {
    const Survey survey = TakeSurvey(&still_, progress_);
    result_.tablesAsked = survey.asked;
    result_.tablesSkipped = survey.skipped;
    for (const auto& [dcid, container] : survey.containers) {
      if (IsSparse(container, below)) {
        sparse_.insert(dcid);
        ++result_.sparseContainers;
        result_.sparseBytes += container.fileBytes;
        toMove_ += LiveBytes(container);
      }
    }
    if (sparse_.empty()) {
      return;
    }
    BeginCompacting(&still_);
    still_.objects().BeginContainer();  // the one that is written may be sparse
    std::vector<std::string> names;
    for (const auto& [name, dcids] : survey.listedBy) {
      if (std::any_of(dcids.begin(), dcids.end(),
                      [this](std::uint64_t dcid) { return sparse_.count(dcid) != 0; })) {
        names.push_back(name);
      }
    }
    const SmallFilters small;
    still_.VisitAll(names, [this](const std::string& name, StoredFile& file, KeptReferences* kept) {
      kept->reset();  // what is only merged does not count as a change
      CompactOne(name, &file);
    });
    EndCompacting(&still_);
  }

 private:
  void CompactOne(const std::string& name, StoredFile* file) {
    const MappingTable::ObjectIDs extents = MergedExtents(file);
    {
      // Of one file after the other: what is read together lies together.
      const std::lock_guard<std::mutex> lock(mutex_);
      for (const auto& extent : extents) {
        MoveIfSparse(extent.objectID.fp);
      }
    }
    still_.objects().MakeDurable();  // also what others have moved that this file shares
    const std::uint64_t rewritten = CatchUp(name, file, still_.objects(), /*merged=*/true);
    const std::lock_guard<std::mutex> lock(mutex_);
    result_.extentsRewritten += rewritten;
    result_.tablesRewritten += rewritten != 0 ? 1 : 0;
  }

  void MoveIfSparse(const crfp_digest_t& fp) {
    const std::optional<Location> where = still_.objects().Find(fp);
    if (!where.has_value() || sparse_.count(where->dcid) == 0 || damaged_.count(fp) != 0) {
      return;
    }
    try {
      result_.bytesMoved += still_.objects().Move(fp);
      ++result_.objectsMoved;
    } catch (const DamageError& damage) {
      damaged_.insert(fp);
      result_.damaged.emplace_back(damage.what());
    }
    if (result_.bytesMoved - committed_ >= kBytesPerCommit) {
      still_.objects().MakeDurable();
      committed_ = result_.bytesMoved;
    }
    if (progress_) {
      progress_("move", std::min(result_.bytesMoved, toMove_), toMove_);
    }
  }

  DurableStore::Still& still_;
  const StoreProgress& progress_;
  Compacted& result_;
  std::set<std::uint64_t> sparse_;
  std::mutex mutex_;  // guards what follows, and result_
  std::set<crfp_digest_t> damaged_;
  std::uint64_t toMove_ = 0;
  std::uint64_t committed_ = 0;
};

}  // namespace

Compacted Compact(DurableStore* store, unsigned below, const StoreProgress& progress) {
  Compacted result;
  store->Exclusively([&](DurableStore::Still& still) {
    FinishCompaction(&still);
    Compactor(&still, progress, &result).Run(below);
  });
  return result;
}

}  // namespace zefs::refhost
