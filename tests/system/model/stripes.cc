#include "tests/system/model/stripes.h"

#include <algorithm>
#include <array>
#include <functional>
#include <list>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/system/model/child.h"
#include "tests/system/model/stripe.h"

namespace zefs::test {

namespace {

constexpr std::size_t kStripes = 4;
constexpr std::size_t kWriters = 2;
constexpr std::size_t kReaders = 2;
constexpr std::size_t kWrites = 160;  // of a stripe

class StripeCache final : public DataCacheManagementInterface {
 public:
  int GetNodeObjectID(void* node, DataCacheNode::ObjectID* out, bool /*flag*/) override {
    return refhost::CacheNode::FromTable(node)->Stored(out) ? 0 : -1;
  }
  int ProtectShare(DataTransferManagement* /*transfer*/, const std::string& /*shareScope*/,
                   const std::string& /*share*/) override {
    return 0;
  }
};

Settings StripeSettings(std::uint64_t seed) {
  Settings settings = AnyProgram(seed, 0).settings;
  settings.type = "PROVISION";
  settings.prefetch = false;  // prefetched extents may be older than a write
  settings.mergeEntries = 16 + static_cast<std::uint32_t>(seed % 100);
  return settings;
}

class StripesRun {
 public:
  StripesRun(std::uint64_t seed, const TableMakers& makers, Tally* tally)
      : seed_(seed), makers_(makers), tally_(*tally) {
    for (std::size_t i = 0; i < kStripes; ++i) {
      stripes_.at(i) = std::make_unique<Stripe>(i, kWrites, seed);
    }
  }

  std::optional<std::string> Run() {
    Apply(StripeSettings(seed_));
    memory_ = makers_.memory(&cache_);
    Load();
    std::vector<std::thread> threads;
    std::vector<std::thread> writers;
    for (std::size_t i = 0; i < kWriters; ++i) {
      writers.emplace_back([this, i] { Guarded([&] { Write(i); }); });
    }
    threads.emplace_back([this] { Guarded([&] { Flush(); }); });
    for (std::size_t i = 0; i < kReaders; ++i) {
      threads.emplace_back([this, i] { Guarded([&] { Read(i); }); });
    }
    for (std::thread& writer : writers) {
      writer.join();
    }
    written_ = true;
    for (std::thread& thread : threads) {
      thread.join();
    }
    if (!difference_) {
      Guarded([this] { End(); });
    }
    return difference_;
  }

 private:
  /// Runs a thread, and keeps the first difference that one finds.
  void Guarded(const std::function<void()>& run) {
    try {
      run();
    } catch (const std::exception& e) {
      const std::lock_guard<std::mutex> lock(mutex_);
      difference_ = difference_ ? difference_ : e.what();
      failed_ = true;
    }
  }
  void Expect(bool same, const std::string& what) {
    ++tally_.compares;
    if (!same) {
      throw DifferenceFound(what);
    }
  }

  void Load() {
    stored_ = makers_.stored(&cache_, "PROVISION");
    Expect(stored_->load((directory_ / "table").string(), false, "") == 0, "load");
  }

  // --- writers

  void Write(std::size_t writer) {
    for (std::size_t i = 0; i < kWrites && !failed_; ++i) {
      for (std::size_t s = writer; s < kStripes; s += kWriters) {
        WriteOne(stripes_.at(s).get(), i);
      }
    }
  }

  void WriteOne(Stripe* stripe, std::size_t number) {
    const Piece piece = stripe->PieceOf(number);
    refhost::CacheNode* const node = stripe->write(number).node.get();
    stripe->begun = number + 1;
    stored_->insert(piece.start, stripe->EndOf(number), node == nullptr ? &piece.id : nullptr,
                    piece.objOff, 0, node == nullptr ? nullptr : node->ForTable(), -1, nullptr);
    stripe->done = number + 1;
    {
      // What a look-up in memory finds lives as long as nobody writes: the host serialises.
      const std::unique_lock<std::shared_mutex> lock(host_);
      memory_->insert(piece.start, stripe->EndOf(number), &piece.id, piece.objOff, 0, nullptr, -1,
                      nullptr);
      stripe->inMemory = number + 1;
    }
    constexpr std::size_t kDelay = 5;  // writes until a node learns its object
    if (number >= kDelay) {
      stripe->MakeReady(number - kDelay);
    }
  }

  // --- flushes

  void Flush() {
    std::mt19937_64 random(seed_);
    while (!written_ && !failed_) {
      FlushOnce(random() % 8 == 0);
    }
  }

  void FlushOnce(bool force) {
    std::set<void*> released;
    CMappingTable::UniqueLock lock;
    stored_->checkAndBackfillObjectID(&released, force, "", "", nullptr, &lock);
    Expect(lock.owns_lock() == !released.empty(), "a flush hands its lock over");
    for (void* node : released) {
      Expect(refhost::CacheNode::FromTable(node)->Release(), "a node is released twice");
    }
    tally_.flushes += released.empty() ? 0 : 1;
  }

  // --- readers

  void Read(std::size_t reader) {
    std::mt19937_64 random(seed_ * 31 + reader);
    std::vector<StripeState> states;
    for (const auto& stripe : stripes_) {
      states.emplace_back(stripe.get());
    }
    constexpr std::size_t kLeast = 200;  // also if the writers are done before it begins
    for (std::size_t i = 0; (i < kLeast || !written_) && !failed_; ++i) {
      const std::size_t number = random() % kStripes;
      const long offset = stripes_.at(number)->begin() +
                          static_cast<long>(random() % Stripe::kUnits) * Stripe::kUnit;
      const std::uint64_t choice = random() % 64;
      if (choice < 4) {
        Plan(number, &states.at(number));
      } else if (choice < 8) {
        WalkMemory(number);
      } else if (choice == 8) {
        Count();
      } else {
        LookUp(number, offset, &states.at(number), choice % 2 == 0);
      }
      tally_.readings += 1;
    }
  }

  /// Whether `holds` of the stripe as it was after some number of writes from `before` to `behind`.
  template <typename Holds>
  static bool AtSomeTime(StripeState* state, std::size_t before, std::size_t behind,
                         const Holds& holds) {
    state->AdvanceTo(before);
    StripeState later = *state;
    for (;;) {
      if (holds(later)) {
        return true;
      }
      if (later.applied() == behind) {
        return false;
      }
      later.AdvanceTo(later.applied() + 1);
    }
  }

  bool Shows(const Stripe& stripe, const Seen& expected, const Aldenta::Qnd::Morene::Zefs::Ext& ext,
             bool mayBeUnknown) const {
    const bool unknown =
        mayBeUnknown && ext.objectID.dcid == 0 && stripe.write(expected.layer).node != nullptr;
    return ext.sOff == expected.piece.start && ext.eOff == expected.end &&
           ext.objOff == expected.piece.objOff &&
           (unknown || SameObject(ext.objectID, expected.piece.id));
  }

  void LookUp(std::size_t number, long offset, StripeState* state, bool find) {
    const Stripe& stripe = *stripes_.at(number);
    const std::size_t before = stripe.done;
    const auto found =
        find ? stored_->find(offset, nullptr) : stored_->lower_bound(offset, nullptr);
    const std::size_t behind = stripe.begun;
    const bool none = found == stored_->end() || found->sOff >= stripe.end();
    Expect(AtSomeTime(state, before, behind,
                      [&](const StripeState& at) {
                        const auto expected = at.LookUp(offset);
                        return expected ? !none && Shows(stripe, *expected, *found, true) : none;
                      }),
           "a look-up at " + std::to_string(offset) + " beside writers shows [" +
               std::to_string(found->sOff) + ", " + std::to_string(found->eOff) + ") from " +
               std::to_string(found->objOff) + " of " + std::to_string(found->objectID.dcid) +
               ", which was never so from write " + std::to_string(before) + " to " +
               std::to_string(behind));
  }

  void Plan(std::size_t number, StripeState* state) {
    const Stripe& stripe = *stripes_.at(number);
    std::list<CMappingTable::DCInfo> plan;
    const std::size_t before = stripe.done;
    stored_->GetDCInfoList({stripe.begin(), stripe.end(), 7}, &plan);
    const std::size_t behind = stripe.begun;
    Expect(AtSomeTime(state, before, behind,
                      [&](const StripeState& at) { return IsPlanOf(stripe, at, plan); }),
           "a plan beside writers was never right from write " + std::to_string(before) + " to " +
               std::to_string(behind));
  }

  /// Whether all that is planned of the stripe shows in this state; what has no object yet is not.
  static bool IsPlanOf(const Stripe& stripe, const StripeState& state,
                       const std::list<CMappingTable::DCInfo>& plan) {
    std::set<long> planned;
    for (const auto& container : plan) {
      for (const auto& extent : container.extents) {
        if (extent.sOff >= stripe.end()) {
          continue;
        }
        const auto expected = state.LookUp(extent.sOff);
        if (!expected || expected->piece.start != extent.sOff ||
            expected->end - extent.sOff != static_cast<long>(extent.length) ||
            !SameObject(extent.objectID, expected->piece.id)) {
          return false;
        }
        planned.insert(extent.sOff);
      }
    }
    for (auto seen = state.LookUp(stripe.begin()); seen;
         seen = seen->end < stripe.end() ? state.LookUp(seen->end) : std::nullopt) {
      if (stripe.write(seen->layer).node == nullptr && planned.count(seen->piece.start) == 0) {
        return false;
      }
    }
    return true;
  }

  void WalkMemory(std::size_t number) {
    const Stripe& stripe = *stripes_.at(number);
    const std::shared_lock<std::shared_mutex> lock(host_);
    StripeState state(&stripe);
    state.AdvanceTo(stripe.inMemory);
    CheckWalk(stripe, state, memory_.get());
  }

  void CheckWalk(const Stripe& stripe, const StripeState& state, CMappingTable* table) {
    auto at = table->lower_bound(stripe.begin(), nullptr);
    for (auto seen = state.LookUp(stripe.begin()); seen;
         seen = seen->end < stripe.end() ? state.LookUp(seen->end) : std::nullopt) {
      Expect(at != table->end() && Shows(stripe, *seen, *at, false),
             "a walk: expected " + Words(seen));
      ++at;
    }
    Expect(at == table->end() || at->sOff >= stripe.end(), "a walk behind a stripe");
  }

  void Count() {
    std::unordered_map<unsigned long, unsigned long> dcids;
    std::vector<crfp_digest_t> fps;
    long written = 0;
    for (const auto& stripe : stripes_) {
      written = std::max(written, stripe->done > 0 ? stripe->EndOf(0) : 0L);
    }
    Expect(stored_->getFileSize() >= written, "file size beside writers");
    Expect(stored_->GetDCIDAndFPs(&dcids, &fps) == 0 && stored_->size() >= 0, "references");
    for (const auto& [dcid, bytes] : dcids) {
      Expect(dcid >= 64 && dcid < 64 + 50 && bytes > 0, "a container nobody has written to");
    }
    // Any start but 0, which would merge.
    for (const auto& listed : stored_->GetObjectIdsAndOffsets(1, kStripes * Stripe::kBytes)) {
      const Stripe& stripe =
          *stripes_.at(static_cast<std::size_t>(listed.startOffset / Stripe::kBytes));
      Expect(listed.startOffset < listed.endOffset && listed.endOffset <= stripe.end(),
             "an extent listed across stripes");
    }
    const std::shared_lock<std::shared_mutex> lock(host_);
    std::vector<std::pair<unsigned long, unsigned long>> referenced;
    memory_->GetNewReferencedDCID(&referenced);
    unsigned long bytes = 0;
    for (const auto& [dcid, count] : referenced) {
      bytes += count;
    }
    unsigned long covered = 0;
    for (auto at = memory_->begin(); at != memory_->end(); ++at) {
      covered += static_cast<unsigned long>(at->eOff - at->sOff);
    }
    Expect(bytes == covered, "bytes referenced in memory");
  }

  // --- the end

  void End() {
    for (const auto& stripe : stripes_) {
      for (std::size_t i = 0; i < kWrites; ++i) {
        stripe->MakeReady(i);
      }
    }
    FlushOnce(true);
    Aldenta::Qnd::Morene::Zefs::MappingLMDBTestPeer(dynamic_cast<CMappingLMDB&>(*stored_))
        .WaitingForMerge();
    FlushOnce(true);  // what came free meanwhile
    for (const auto& stripe : stripes_) {
      for (std::size_t i = 0; i < kWrites; ++i) {
        const auto& node = stripe->write(i).node;
        Expect(node == nullptr || node->released(), "a node never came back");
      }
    }
    CheckAll();
    stored_->GetObjectIdsAndOffsets(0, 0);  // merges, so that no tmp database stays open
    CheckAll();
    stored_.reset();
    Load();
    CheckAll();
    stored_.reset();
    tally_.reloads += 1;
  }

  void CheckAll() {
    for (const auto& stripe : stripes_) {
      StripeState state(stripe.get());
      state.AdvanceTo(kWrites);
      CheckWalk(*stripe, state, stored_.get());
      CheckWalk(*stripe, state, memory_.get());
    }
  }

  const std::uint64_t seed_;
  const TableMakers& makers_;
  Tally& tally_;
  const TempDir directory_;
  StripeCache cache_;
  std::array<std::unique_ptr<Stripe>, kStripes> stripes_;
  std::unique_ptr<CMappingTable> memory_;
  std::unique_ptr<CMappingTable> stored_;
  std::shared_mutex host_;  // of the table in memory
  std::atomic<bool> written_{false};
  std::atomic<bool> failed_{false};
  std::mutex mutex_;
  std::optional<std::string> difference_;
};

}  // namespace

std::optional<std::string> RunStripes(std::uint64_t seed, const TableMakers& makers, Tally* tally) {
  return StripesRun(seed, makers, tally).Run();
}

std::optional<std::string> RunStripesInChild(std::uint64_t seed, const TableMakers& makers,
                                             Tally* tally) {
  return InChild([&] { return RunStripes(seed, makers, tally); });
}

}  // namespace zefs::test
