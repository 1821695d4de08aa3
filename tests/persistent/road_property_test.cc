// The whole road of random writes, over cache, flushes, merges and loads, against a model that
// knows of every byte what shows there.

#include <algorithm>
#include <iostream>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "tests/persistent/merge_fixture.h"
#include "tests/persistent/merge_model.h"
#include "tests/support/fault_injection.h"
#include "tests/support/property.h"
#include "tests/table/code_of.h"

namespace zefs::test {
namespace {

constexpr long kDomain = 128;
constexpr int kCases = 60;

enum class Act {
  kWriteNode,
  kWriteKnown,
  kWriteNothing,  // neither a node nor an object id: never leaves the cache
  kMakeReady,
  kFlush,
  kForcedFlush,
  kMerge,
  kFailedMerge,
  kReload,
  kFlushAndReload
};

struct Step {
  Act act;
  long at;
  long length;
  int pick;
};

void showValue(const Step& step, std::ostream& out) {
  static const char* const kNames[] = {
      "write node",   "write known", "write nothing", "make ready", "flush",
      "forced flush", "merge",       "failed merge",  "reload",     "flush and reload"};
  out << kNames[static_cast<int>(step.act)] << " [" << step.at << ", " << step.at + step.length
      << ") " << step.pick << '\n';
}

rc::Gen<std::vector<Step>> AnyRoad() {
  using rc::gen::inRange;
  const auto act = rc::gen::weightedElement<Act>({{8, Act::kWriteNode},
                                                  {3, Act::kWriteKnown},
                                                  {1, Act::kWriteNothing},
                                                  {8, Act::kMakeReady},
                                                  {4, Act::kFlush},
                                                  {2, Act::kForcedFlush},
                                                  {2, Act::kMerge},
                                                  {1, Act::kFailedMerge},
                                                  {1, Act::kReload},
                                                  {1, Act::kFlushAndReload}});
  const auto step = rc::gen::build<Step>(rc::gen::set(&Step::act, act),
                                         rc::gen::set(&Step::at, inRange<long>(0, kDomain - 1)),
                                         rc::gen::set(&Step::length, inRange<long>(1, 40)),
                                         rc::gen::set(&Step::pick, inRange<int>(0, 1000)));
  return rc::gen::resize(
      60, rc::gen::container<std::vector<Step>>(rc::gen::resize(rc::kNominalSize, step)));
}

/// One write: the bytes from `start` on show the object of the container from `objOff` on.
struct Written {
  long start;
  long objOff;
  std::uint64_t dcid;
  DataCacheNode* node;  // null: none
  bool isKnown;         // by its writer
  bool isReady;         // its node knows
};

class RoadTest : public MergeTest {
 protected:
  using Bytes = std::vector<std::optional<std::size_t>>;  // which write shows; none: a hole

  RoadTest() {
    Set(&Config::persistBloom, std::uint8_t{1});
    Set(&Config::mergeCommitBatchSize, 3U);
  }

  void Begin(const char* type) {
    if (table_ != nullptr) {
      Close();
    }
    boost::filesystem::remove_all(Directory());
    type_ = type;
    writes_.clear();
    pending_.clear();
    cached_.assign(kDomain, std::nullopt);
    stored_.assign(kDomain, std::nullopt);
    size_ = storedSize_ = 0;
    LoadAgain();
  }

  /// As a load would be without waiting for the disk.
  void LoadAgain() {
    Load(type_);
    NoSync();
  }
  void NoSync() {
    for (LMDBContext* db : peer().dbChain()) {
      ::mdb_env_set_flags(db->env, MDB_NOSYNC, 1);
    }
  }

  void Take(const Step& step) {
    switch (step.act) {
      case Act::kWriteNode:
      case Act::kWriteKnown:
      case Act::kWriteNothing:
        Write(step);
        break;
      case Act::kMakeReady:
        if (!pending_.empty()) {
          MakeReady(static_cast<std::size_t>(step.pick) % pending_.size());
        }
        break;
      case Act::kFlush:
        Set(&Config::objIdReadyThreshold, static_cast<std::uint32_t>(step.pick % 4));
        FlushAndMerge(false);
        break;
      case Act::kForcedFlush:
        FlushAndMerge(true);
        break;
      case Act::kMerge:
        MergeNow();
        break;
      case Act::kFailedMerge:
        FailMerge(step.pick);
        break;
      case Act::kReload:
        Reload(type_ == "GENERIC");  // such a life ends with a forced flush
        break;
      case Act::kFlushAndReload:
        Reload(true);
        break;
    }
  }

  void Write(const Step& step) {
    const long end = std::min(step.at + step.length, kDomain);
    const std::size_t number = writes_.size();
    Written written{step.at, static_cast<long>(number) * 1000, 100 + number, nullptr, false, false};
    const ObjectID oid = IdOf(written);
    if (step.act == Act::kWriteNode) {
      written.node = cache_.NewNode();
      pending_.push_back(number);
    }
    written.isKnown = step.act == Act::kWriteKnown;
    RC_ASSERT(table().insert(step.at, end, written.isKnown ? &oid : nullptr, written.objOff, 0,
                             written.node, -1, nullptr) == 0);
    writes_.push_back(written);
    std::fill(cached_.begin() + step.at, cached_.begin() + end, number);
    size_ = std::max(size_, end);
  }

  void MakeReady(std::size_t index) {
    Written& written = writes_[pending_[index]];
    cache_.MakeReady(written.node, IdOf(written), static_cast<std::int32_t>(written.dcid));
    written.isReady = true;
    pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(index));
  }

  static ObjectID IdOf(const Written& written) {
    return Oid(written.dcid, static_cast<unsigned int>(written.dcid));
  }

  /// A flush; with a tmp database it starts a merge, which is awaited.
  void FlushAndMerge(bool force) {
    const auto before = peer().extCache();
    const bool tmpWasOpen = peer().tmpDb().opened;
    const Records merged = UnionOf(Full(), Small(), kDomain);
    std::set<void*> released;
    table().checkAndBackfillObjectID(&released, force, "scope", "share", nullptr, nullptr);
    peer().WaitingForMerge();
    for (const auto& [end, entry] : before) {
      const auto still = peer().extCache().find(end);
      if (still == peer().extCache().end()) {
        MoveToStored(entry.startOffset, end);
      } else {
        RC_ASSERT(still->second.startOffset == entry.startOffset);
      }
    }
    if (tmpWasOpen && !peer().tmpDb().opened) {
      CheckMerge(merged);
    }
  }

  void MoveToStored(long start, long end) {
    const auto number = cached_.at(static_cast<std::size_t>(start));
    RC_ASSERT(number.has_value());
    RC_ASSERT((writes_[*number].isKnown || writes_[*number].isReady));
    for (auto at = static_cast<std::size_t>(start); at < static_cast<std::size_t>(end); ++at) {
      RC_ASSERT(cached_[at] == number);
      stored_[at] = number;
      cached_[at].reset();
    }
    storedSize_ = std::max(storedSize_, end);
  }

  /// After a forced flush with all nodes ready only what nobody has an object id for is left.
  void FlushAll() {
    while (!pending_.empty()) {
      MakeReady(0);
    }
    FlushAndMerge(true);
    for (const auto& number : cached_) {
      RC_ASSERT((!number || (writes_[*number].node == nullptr && !writes_[*number].isKnown)));
    }
  }

  void MergeNow() {
    const Records merged = UnionOf(Full(), Small(), kDomain);
    peer().StartMergeThread();
    peer().WaitingForMerge();
    CheckMerge(merged);
  }

  /// A merge that fails at one of its commits or puts: the tmp database stays.
  void FailMerge(int pick) {
    const WatchCalls watch(dir_.path().string());
    Faults::OnlyDatabase("mergedb");
    Faults::FailNth(pick % 2 == 0 ? Call::kMdbTxnCommit : Call::kMdbPut, 2, ENOSPC);
    std::thread([this] { RC_ASSERT(peer().MergeAndSwitch() == 0); }).join();
    RC_ASSERT(peer().tmpDb().opened);
    NoSync();
    ++failed_;
  }

  void CheckMerge(const Records& merged) {
    RC_ASSERT(!peer().merging());
    RC_ASSERT(!peer().tmpDb().opened);
    RC_ASSERT(Full() == merged);
    NoSync();
    std::vector<std::pair<unsigned long, unsigned long>> dcids;
    std::unique_ptr<BloomFilter> filter;
    table().GetDCIDAndBloomFilter(&dcids, &filter);
    RC_ASSERT(filter->GetInsertedFingerPrints() == Full().size() + Small().size());
    for (const auto& number : stored_) {
      RC_ASSERT((!number || filter->Contains(IdOf(writes_[*number]).fp)));
    }
    ++merges_;
  }

  void Reload(bool flush) {
    if (flush) {
      FlushAll();
    }
    if (peer().tmpDb().opened) {
      MergeNow();
    }
    Destroy();
    cached_.assign(kDomain, std::nullopt);
    pending_.clear();
    size_ = storedSize_;
    LoadAgain();
    ++loads_;
  }

  /// Every offset reads as the model says.
  void Check() {
    RC_ASSERT(table().getFileSize() == std::max(size_, storedSize_));
    for (long offset = 0; offset < kDomain; ++offset) {
      const long first = FirstShown(offset);
      const auto found = table().lower_bound(offset, nullptr);
      if (first == kDomain) {
        RC_ASSERT(found == table().end());
        continue;
      }
      RC_ASSERT(found != table().end());
      RC_ASSERT(found->sOff <= first);
      RC_ASSERT(found->eOff > first);
      RC_ASSERT((found->sOff == first || first == offset));
      const bool isCached = cached_[static_cast<std::size_t>(first)].has_value();
      const Written& written = writes_[*At(first)];
      RC_ASSERT(found->objOff + (first - found->sOff) == written.objOff + (first - written.start));
      const bool mayBeUnknown = isCached && !written.isKnown;
      const bool mayBeKnown = written.isKnown || written.isReady;
      RC_ASSERT(((mayBeUnknown && found->objectID.dcid == 0) ||
                 (mayBeKnown && found->objectID.dcid == written.dcid &&
                  found->objectID.fp == IdOf(written).fp)));
    }
  }
  const std::optional<std::size_t>& At(long offset) const {
    const auto at = static_cast<std::size_t>(offset);
    return cached_[at] ? cached_[at] : stored_[at];
  }
  long FirstShown(long offset) const {
    while (offset < kDomain && !At(offset)) {
      ++offset;
    }
    return offset;
  }

  std::string type_;
  std::vector<Written> writes_;
  std::vector<std::size_t> pending_;  // writes whose node has no object id yet
  Bytes cached_;
  Bytes stored_;
  long size_ = 0;
  long storedSize_ = 0;
  int merges_ = 0;
  int failed_ = 0;
  int loads_ = 0;
  const refhost::LogRecorder quiet_{kLogFailure};
};

TEST_F(RoadTest, EveryOffsetReadsAsItWasWrittenAfterEveryStep) {
  ExpectToHold("every offset reads as it was written", kCases, [this] {
    Begin(*rc::gen::element<const char*>("PROVISION", "INGEST", "GENERIC"));
    for (const Step& step : *AnyRoad()) {
      Take(step);
      Check();
    }
    FlushAll();
    MergeNow();
    Check();
  });
  std::cout << merges_ << " merges, " << failed_ << " failed ones, " << loads_ << " loads\n";
  EXPECT_GT(merges_, kCases);
  EXPECT_GT(failed_, kCases / 4);
  EXPECT_GT(loads_, kCases / 4);
}

}  // namespace
}  // namespace zefs::test
