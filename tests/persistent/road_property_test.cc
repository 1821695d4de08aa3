// The whole road of random writes, over cache, flushes, merges, loads and every other change of a
// table, against a model that knows of every byte what shows there.

#include <algorithm>
#include <iostream>
#include <list>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/persistent/merge_fixture.h"
#include "tests/persistent/merge_model.h"
#include "tests/persistent/road_model.h"
#include "tests/persistent/road_plan.h"
#include "tests/persistent/road_steps.h"
#include "tests/persistent/unsynced.h"
#include "tests/support/fault_injection.h"
#include "tests/support/property.h"

namespace zefs::test {
namespace {

namespace fs = boost::filesystem;

constexpr int kCases = 40;

class RoadTest : public MergeTest {
 protected:
  using Ext = Aldenta::Qnd::Morene::Zefs::Ext;
  using DCInfo = CMappingLMDB::DCInfo;

  RoadTest() {
    Set(&Config::persistBloom, std::uint8_t{1});
    Set(&Config::mergeCommitBatchSize, 3U);
    Set(&Config::dcOffsetTrackingEnabled, true);
    Set(&Config::dcOffsetStoreThreshold, 4U);
    Set(&Config::prefetchSpanBytes, 40U);
  }
  ~RoadTest() override { Set(&Config::prefetchSpanBytes, span_); }

  void Begin(const char* type, bool prefetch) {
    if (table_ != nullptr) {
      Close();
    }
    fs::remove_all(Directory());
    type_ = type;
    prefetch_ = prefetch ? 1 : 0;
    Set(&Config::prefetchEnabled, prefetch_);
    pending_.clear();
    model_ = {};
    LoadAgain();
  }

  /// As a load would be without waiting for the disk.
  void LoadAgain() {
    Load(type_);
    NoSync();
  }
  void NoSync() { DoNotSync(peer().dbChain()); }

  void Take(const Step& step) {
    switch (step.act) {
      case Act::kWriteNode:
      case Act::kWriteKnown:
      case Act::kWriteNothing:
        return Write(step);
      case Act::kMakeReady:
        return pending_.empty() ? void()
                                : MakeReady(static_cast<std::size_t>(step.pick) % pending_.size());
      case Act::kFlush:
        Set(&Config::objIdReadyThreshold, static_cast<std::uint32_t>(step.pick % 4));
        return FlushAndMerge(false);
      case Act::kForcedFlush:
        return FlushAndMerge(true);
      case Act::kMerge:
        return MergeNow();
      case Act::kFailedMerge:
        return FailMerge(step.pick);
      case Act::kTruncateOverTmp:
        Write(step);
        FailMerge(step.pick);
        FailMergeOfFlush(step.pick);
        return Truncate(step.at + step.length / 2);
      case Act::kReload:
        return Reload(type_ == "GENERIC");  // such a life ends with a forced flush
      case Act::kFlushAndReload:
        return Reload(true);
      case Act::kTruncate:
        return Truncate(step.pick % 8 == 0 ? step.at + kRoadDomain : step.at);
      case Act::kPlan:
        return Plan({step.at, step.at + step.length, static_cast<std::uint32_t>(step.pick)});
      case Act::kRewriteIds:
        return RewriteIds(step);
      case Act::kBackfill:
        return Backfill(step);
      case Act::kSnapshot:
        return Snapshot();
    }
  }

  // --- writes and flushes

  void Write(const Step& step) {
    const long end = std::min(step.at + step.length, kRoadDomain);
    const std::size_t number = model_.AddFresh(step.at);
    RoadWrite& written = model_.write(number);
    written.isKnown = step.act == Act::kWriteKnown || step.act == Act::kTruncateOverTmp;
    if (step.act == Act::kWriteNode) {
      written.node = cache_.NewNode();
      pending_.push_back(number);
    }
    const auto& run = peer().prefetchExts();
    const long first = run.empty() ? kRoadDomain : run.front().sOff;
    const long last = run.empty() ? 0 : run.back().eOff;
    const bool drops = (step.at <= first && first < end) || (step.at < last && last <= end);
    const ObjectID oid = written.Id();
    RC_ASSERT(table().insert(step.at, end, written.isKnown ? &oid : nullptr, written.objOff, 0,
                             written.node, -1, nullptr) == 0);
    model_.Cache(step.at, end, number);
    RC_ASSERT(run.empty() == (drops || last == 0));  // what the write reaches
    if (!run.empty() && step.at < last && first < end) {
      peer().prefetchExts().clear();  // it would go on showing what was there before
    }
  }

  void MakeReady(std::size_t index) {
    RoadWrite& written = model_.write(pending_[index]);
    const bool located = written.tag % 2 == 0;
    cache_.MakeReady(written.node, written.Id(), located ? static_cast<int>(written.tag) : -1);
    written.isReady = true;
    pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(index));
  }

  /// A flush; with a tmp database it starts a merge, which is awaited.
  void FlushAndMerge(bool force) {
    const auto before = peer().extCache();
    const bool toTmp = peer().tmpDb().opened;
    const Records merged = UnionOf(Full(), Small(), kRoadDomain);
    std::set<void*> released;
    table().checkAndBackfillObjectID(&released, force, "scope", "share", nullptr, nullptr);
    peer().WaitingForMerge();
    long maxEnd = 0;
    for (const auto& [end, entry] : before) {
      const auto still = peer().extCache().find(end);
      if (still != peer().extCache().end()) {
        RC_ASSERT(still->second.startOffset == entry.startOffset);
        continue;
      }
      const RoadWrite& written = WriteAt(model_.cached(), entry.startOffset);
      RC_ASSERT((written.isKnown || written.isReady));
      RC_ASSERT(model_.Store(entry.startOffset, end, toTmp));
      maxEnd = end;
    }
    model_.Commit(maxEnd, toTmp);
    RC_ASSERT((maxEnd == 0 || peer().prefetchExts().empty()));
    if (toTmp && !peer().tmpDb().opened) {
      CheckMerge(merged);
    }
  }

  /// After a forced flush with all nodes ready only what nobody has an object id for is left.
  void FlushAll() {
    while (!pending_.empty()) {
      MakeReady(0);
    }
    FlushAndMerge(true);
    for (const auto& number : model_.cached()) {
      RC_ASSERT((!number || (model_.write(*number).node == nullptr &&  //
                             !model_.write(*number).isKnown)));
    }
  }

  void Reload(bool flush) {
    if (flush) {
      FlushAll();
    }
    MergeIfTmp();
    Destroy();
    pending_.clear();
    model_.Reload();
    LoadAgain();
    ++loads_;
  }

  // --- merges

  void MergeNow() {
    const Records merged = UnionOf(Full(), Small(), kRoadDomain);
    peer().StartMergeThread();
    peer().WaitingForMerge();
    CheckMerge(merged);
  }
  void MergeIfTmp() {
    if (peer().tmpDb().opened) {
      MergeNow();
    }
  }

  /// A merge that fails at one of its commits or puts: the tmp database stays.
  void FailMerge(int pick) {
    const WatchCalls watch(dir_.path().string());
    SetFault(pick);
    std::thread([this] { RC_ASSERT(peer().MergeAndSwitch() == 0); }).join();
    RC_ASSERT(peer().tmpDb().opened);
    model_.FailMerge(peer().committedFileSize());
    NoSync();
    ++failed_;
  }
  /// The merge that a flush into the tmp database starts.
  void FailMergeOfFlush(int pick) {
    const WatchCalls watch(dir_.path().string());
    SetFault(pick);
    FlushAndMerge(true);
    RC_ASSERT(Faults::Fired());
    RC_ASSERT(peer().tmpDb().opened);
    model_.FailMerge(peer().committedFileSize());
  }
  static void SetFault(int pick) {
    Faults::OnlyDatabase("mergedb");
    Faults::FailNth(pick % 2 == 0 ? Call::kMdbTxnCommit : Call::kMdbPut, 2, ENOSPC);
  }

  void CheckMerge(const Records& merged) {
    model_.Merge();
    RC_ASSERT(!peer().merging());
    RC_ASSERT(!peer().tmpDb().opened);
    RC_ASSERT(Full() == merged);
    NoSync();
    std::vector<std::pair<unsigned long, unsigned long>> dcids;
    std::unique_ptr<BloomFilter> filter;
    table().GetDCIDAndBloomFilter(&dcids, &filter);
    RC_ASSERT(filter->GetInsertedFingerPrints() == Full().size() + Small().size());
    for (const auto& number : model_.stored()) {
      RC_ASSERT((!number || filter->Contains(model_.write(*number).Id().fp)));
    }
    ++merges_;
  }

  // --- the other changes

  void Truncate(long size) {
    truncatedTmp_ += model_.HoldsInTmpFrom(size) ? 1 : 0;
    RC_ASSERT(table().truncate(size, nullptr) == 0);
    model_.Truncate(size);
    RC_ASSERT(!fs::exists(File("bloom")));
    RC_ASSERT(peer().prefetchExts().empty());
    ++truncates_;
  }

  /// Gives the stored extents of one fingerprint another container, after a listing of all.
  void RewriteIds(const Step& step) {
    MergeIfTmp();
    const Records merged = UnionOf(Full(), Small(), kRoadDomain);
    const auto listed = table().GetObjectIdsAndOffsets(0, kRoadDomain);
    CheckMerge(merged);
    RoadModel::Layer shown(static_cast<std::size_t>(kRoadDomain));
    for (const auto& extent : listed) {
      for (auto at = static_cast<std::size_t>(extent.startOffset);
           at < static_cast<std::size_t>(extent.endOffset); ++at) {
        const auto& number = model_.stored().at(at);
        RC_ASSERT((number.has_value() && !shown[at].has_value()));
        RC_ASSERT(extent.objectID.dcid == model_.write(*number).dcid);
        RC_ASSERT(extent.objectID.fp == model_.write(*number).Id().fp);
        shown[at] = number;
      }
    }
    RC_ASSERT(shown == model_.stored());  // whatever is stored is listed
    if (listed.empty()) {
      return;
    }
    const std::size_t picked = static_cast<std::size_t>(step.pick) % listed.size();
    const auto fp = listed[picked].objectID.fp;
    const std::uint64_t dcid = 100'000 + model_.writes().size();
    CMappingLMDB::ObjectIDs ids;
    for (auto extent : listed) {
      if (extent.objectID.fp == fp) {
        extent.objectID.dcid = dcid;
        ids.push_back(extent);
      }
    }
    RC_ASSERT(table().UpdateObjectIdsByRange(0, kRoadDomain, ids) == 0);
    for (const std::size_t number : NumbersIn(model_.stored())) {
      RoadWrite written = model_.write(number);
      if (written.Id().fp == fp) {
        written.dcOffset = written.StoredDcOffset();
        written.dcid = dcid;
        written.node = nullptr;
        written.isKnown = true;
        model_.Replace(number, model_.Add(written));
      }
    }
    RC_ASSERT(peer().prefetchExts().empty());
    rewritten_ += static_cast<int>(ids.size());
  }

  /// Takes the list of extents without a container offset, and hands it back filled in: offsets
  /// that were found, one that is given up, and one that is still open.
  void Backfill(const Step& step) {
    std::vector<zefs::DCOffset> list;
    RC_ASSERT(table().GetEmptyDcOffsetList(&list) == 0);
    struct Found {
      long start;
      long end;
      std::size_t number;
    };
    std::vector<Found> matched;
    Set(&Config::prefetchEnabled, 0);
    for (std::size_t i = 0; i < list.size(); ++i) {
      const int offset = static_cast<int>((static_cast<std::size_t>(step.pick) + i) % 5) - 2;
      list[i].dcOffset = offset < 0 ? offset : 70'000 + step.pick + static_cast<int>(i);
      const auto found = table().lower_bound(list[i].key, nullptr);
      if (found != table().end() && found->objectID.dcid == list[i].dcid &&
          found->objectID.fp == list[i].fp) {
        RoadWrite written = WriteShown(found->sOff);
        written.dcOffset = static_cast<std::int32_t>(list[i].dcOffset);
        written.node = static_cast<DataCacheNode*>(found->data);
        written.isKnown = true;
        matched.push_back({found->sOff, found->eOff, model_.Add(written)});
      }
    }
    Set(&Config::prefetchEnabled, prefetch_);
    RC_ASSERT(table().BackfillDcOffset(list) == 0);
    for (const Found& extent : matched) {
      model_.Cache(extent.start, extent.end, extent.number);
    }
    RC_ASSERT(!fs::exists(File("dcoffset.tmp")));
    RC_ASSERT(peer().prefetchExts().empty());
    backfilled_ += static_cast<int>(matched.size());
  }

  /// A copy holds what the two databases hold, and can be loaded beside the table.
  void Snapshot() {
    const fs::path to = dir_ / "snapshot";
    fs::remove_all(to);
    RC_ASSERT(table().Snapshot(Directory().string(), to.string()) == 0);
    RC_ASSERT(ReadPlainDatabase(to / "data.mdb") == All(peer().fullDb()));
    RC_ASSERT(ReadPlainDatabase(to / "lsml0.mdb") == All(peer().smallDb()));
    CMappingLMDB copy(&cache_, "PROVISION");
    RC_ASSERT(copy.load(to.string(), false, "") == 0);
    RC_ASSERT(copy.getFileSize() == model_.SizeInFiles());
    CheckShown(
        &copy, [this](long at) { return model_.stored()[static_cast<std::size_t>(at)]; },
        [](long /*at*/) { return false; });
    ++snapshots_;
  }

  // --- what shows

  /// Every offset reads as the model says.
  void Check() {
    RC_ASSERT(table().getFileSize() == model_.FileSize());
    prefetched_ += peer().prefetchExts().empty() ? 0 : 1;
    CheckShown(
        &table(), [this](long at) { return model_.At(at); },
        [this](long at) { return model_.IsCached(at); });
  }

  template <typename At, typename IsCached>
  void CheckShown(CMappingLMDB* table, const At& at, const IsCached& isCached) {
    for (long offset = 0; offset < kRoadDomain; ++offset) {
      const long first = FirstShown(offset, at);
      const auto found = table->lower_bound(offset, nullptr);
      if (first == kRoadDomain) {
        RC_ASSERT(found == table->end());
        continue;
      }
      RC_ASSERT(found != table->end());
      RC_ASSERT(found->sOff <= first);
      RC_ASSERT(found->eOff > first);
      RC_ASSERT((found->sOff == first || first == offset));
      CheckIs(*found, first, model_.write(*at(first)), isCached(first));
    }
  }

  /// `ext` shows this write at `offset`.
  static void CheckIs(const Ext& ext, long offset, const RoadWrite& written, bool isCached) {
    RC_ASSERT(ext.objOff + (offset - ext.sOff) == written.objOff + (offset - written.start));
    const bool mayBeUnknown = isCached && !written.isKnown;
    const bool mayBeKnown = written.isKnown || written.isReady;
    RC_ASSERT(
        ((mayBeUnknown && ext.objectID.dcid == 0) ||
         (mayBeKnown && ext.objectID.dcid == written.dcid && ext.objectID.fp == written.Id().fp)));
    if (!isCached || written.node == nullptr) {
      RC_ASSERT(ext.dcOffset == written.StoredDcOffset());
    }
  }

  /// A plan lists what look-ups find, container by container.
  void Plan(const CMappingLMDB::PrefetchRange& range) {
    std::list<DCInfo> expected;
    Set(&Config::prefetchEnabled, 0);
    long offset = range.start;
    do {
      const auto found = table().lower_bound(offset, nullptr);
      if (found == table().end()) {
        break;
      }
      AddToPlan(*found, range, &expected);
      offset = found->eOff;
    } while (offset + 1 < range.end);
    Set(&Config::prefetchEnabled, prefetch_);

    std::list<DCInfo> plan;
    table().GetDCInfoList(range, &plan);
    RC_ASSERT(std::equal(plan.begin(), plan.end(), expected.begin(), expected.end(), SamePlanned));
    RC_ASSERT((prefetch_ != 0 || peer().prefetchExts().empty()));
    plannedContainers_ += static_cast<int>(plan.size());
  }
  const RoadWrite& WriteAt(const RoadModel::Layer& layer, long offset) {
    const auto& number = layer.at(static_cast<std::size_t>(offset));
    RC_ASSERT(number.has_value());
    return model_.write(*number);
  }
  const RoadWrite& WriteShown(long offset) {
    RC_ASSERT(model_.At(offset).has_value());
    return model_.write(*model_.At(offset));
  }
  static std::set<std::size_t> NumbersIn(const RoadModel::Layer& layer) {
    std::set<std::size_t> numbers;
    for (const auto& number : layer) {
      if (number) {
        numbers.insert(*number);
      }
    }
    return numbers;
  }

  std::string type_;
  std::int32_t prefetch_ = 0;
  RoadModel model_;
  std::vector<std::size_t> pending_;  // writes whose node has no object id yet
  int merges_ = 0;
  int failed_ = 0;
  int loads_ = 0;
  int truncates_ = 0;
  int truncatedTmp_ = 0;  // with newer extents behind the size that stay
  int rewritten_ = 0;
  int backfilled_ = 0;
  int snapshots_ = 0;
  int plannedContainers_ = 0;
  int prefetched_ = 0;  // steps after which look-ups go through prefetched extents
  const std::uint32_t span_ = Config::GetInstance().Get(&Config::prefetchSpanBytes);
  const refhost::LogRecorder quiet_{kLogFailure};
};

TEST_F(RoadTest, EveryOffsetReadsAsItWasWrittenAfterEveryStep) {
  ExpectToHold("every offset reads as it was written", kCases, [this] {
    Begin(*rc::gen::element<const char*>("PROVISION", "INGEST", "GENERIC"),
          *rc::gen::arbitrary<bool>());
    for (const Step& step : *AnyRoad()) {
      Take(step);
      Check();
    }
    FlushAll();
    MergeNow();
    Check();
  });
  std::cout << merges_ << " merges, " << failed_ << " failed ones, " << loads_ << " loads, "
            << truncates_ << " truncates, " << truncatedTmp_ << " of them over a tmp database, "
            << rewritten_ << " extents rewritten, " << backfilled_ << " backfilled, "
            << plannedContainers_ << " containers planned, " << prefetched_
            << " looks through prefetched extents, " << snapshots_ << " snapshots\n";
  EXPECT_GT(merges_, kCases);
  constexpr int kSome = kCases / 8;
  EXPECT_GT(failed_, kSome);
  EXPECT_GT(loads_, kSome);
  EXPECT_GT(truncates_, kSome);
  EXPECT_GT(truncatedTmp_, kSome);
  EXPECT_GT(rewritten_, kSome);
  EXPECT_GT(backfilled_, kSome);
  EXPECT_GT(plannedContainers_, kSome);
  EXPECT_GT(prefetched_, kSome);
  EXPECT_GT(snapshots_, kSome);
}

}  // namespace
}  // namespace zefs::test
