#include "tests/system/stress/stored_stress.h"

#include <algorithm>
#include <array>
#include <climits>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include "tests/support/oid.h"

namespace zefs::test::stress {

namespace {

/// Objects of different threads differ, and none is below a container's first id.
Aldenta::Qnd::Morene::Zefs::ObjectID ObjectOf(long stripe, std::size_t number) {
  constexpr std::size_t kMostWrites = 10000000;
  const std::size_t id = static_cast<std::size_t>(stripe) * kMostWrites + number + 100;
  return Oid(id, static_cast<unsigned int>(id));
}

}  // namespace

StoredStress::StoredStress(const std::string& type, bool prefetched, std::uint64_t seed,
                           int threads)
    : Stress(StoredOperations(), seed, threads), type_(type), prefetched_(prefetched) {
  for (int i = 0; i < threads; ++i) {
    stripes_.push_back(std::make_unique<Stripe>(i * kStripe));
  }
  Load();
}

StoredStress::~StoredStress() {
  Destroy();
}

void StoredStress::Load() {
  table_ = std::make_unique<CMappingLMDB>(&cache_, type_);
  EXPECT_EQ(0, table_->load(Directory(), false, ""));
}

void StoredStress::Destroy() {
  if (table_ == nullptr) {
    return;
  }
  Peer(*table_).WaitingForMerge();
  EXPECT_FALSE(Peer(*table_).tmpDb().opened) << "a merge has failed";
  table_.reset();
}

std::vector<std::string> StoredStress::Favourites() const {
  return {"insert",           "checkAndBackfillObjectID",
          "lower_bound",      "GetDCInfoList",
          "GetDCIDAndFPs",    "GetObjectIdsAndOffsets",
          "getFileSize",      "UpdateObjectIdsByRange",
          "BackfillDcOffset", "setFileSize",
          "UpdateExtPath",    "checkAndBackfillObjectID"};
}

unsigned int StoredStress::WeightOf(const std::string& operation) const {
  if (operation == "insert" || operation == "lower_bound") {
    return 16;
  }
  if (operation == "checkAndBackfillObjectID" || operation == "GetDCInfoList") {
    return 10;
  }
  static const std::set<std::string> withoutEffect{"end",
                                                   "save",
                                                   "needCommit",
                                                   "setCommit",
                                                   "SetObjectID",
                                                   "GetDCIDAndFP",
                                                   "GetWritingNodesCount",
                                                   "GetNewReferencedDCID",
                                                   "GetReferencedFP"};
  if (withoutEffect.count(operation) != 0 || operation == "GetObjectIdsAndOffsets" ||
      operation == "Snapshot" || operation == "UpdateExtPath" ||
      operation == "checkAndBackfillObjectIDUnlock") {
    return 1;
  }
  // Each of these is a synced transaction.
  if (operation == "setFileSize" || operation == "SetDOID" || operation == "setExtMapVersion" ||
      operation == "UpdateObjectIdsByRange") {
    return 3;
  }
  return 6;
}

void StoredStress::Prepare(const Round& round) {
  if (round.all.count("GetExtentData") != 0) {
    FlushAll();  // or extents would lose the nodes that are to tell what they are
  }
}

bool StoredStress::Beside(Random* random) {
  bool any = false;
  for (const auto& stripe : stripes_) {
    any = stripe->nodes.MakeReady(1 + (*random)() % 4) || any;
  }
  return any;
}

void StoredStress::Step(int thread, const std::string& operation, Random* random) {
  Stripe* const stripe = &StripeOf(thread);
  if (operation == "insert" || operation == "append") {
    WriteSome(stripe, operation == "append", random);
  } else if (operation == "lower_bound" && (*random)() % 4 == 0) {
    ReadStripe(stripe);
  } else if (operation == "begin" || operation == "find" || operation == "lower_bound" ||
             operation == "lower_bound_in_cache") {
    ReadAnywhere(operation, random);
  } else if (operation == "checkAndBackfillObjectID") {
    Flush((*random)() % 2 == 0, (*random)() % 2 == 0, random);
  } else if (operation == "checkAndBackfillObjectIDUnlock") {
    Flush(true, true, random);
  } else if (operation == "GetDCInfoList") {
    Plan(random);
  } else if (operation == "GetObjectIdsAndOffsets") {
    ListIds((*random)() % 4 == 0 ? 0 : (*random)() % static_cast<std::uint64_t>(End()));
  } else if (operation == "UpdateObjectIdsByRange") {
    RewriteIds(stripe, random);
  } else if (operation == "Snapshot") {
    TakeSnapshot(thread);
  } else if (operation == "GetReferencedFP" ||
             (operation.rfind("Get", 0) == 0 && operation.find("DCID") != std::string::npos)) {
    Refer(operation);
  } else if (operation.find("DcOffset") != std::string::npos) {
    StepOnOffsets(stripe, operation, random);
  } else {
    StepOnTable(stripe, operation, random);
  }
}

// --- writes, reads -----------------------------------------------------------------------------

void StoredStress::WriteSome(Stripe* stripe, bool append, Random* random) {
  constexpr long kLongest = 24;
  const long from = static_cast<long>((*random)() % kStripe);
  const long to = std::min(kStripe, from + 1 + static_cast<long>((*random)() % kLongest));
  const std::size_t number = stripe->writes.size();
  Write write;
  write.oid = ObjectOf(stripe->begin / kStripe, number);
  const bool byNode = (*random)() % 2 == 0 && !stripe->nodes.Full();
  StressNode* const node = byNode ? stripe->nodes.New(write.oid) : nullptr;
  write.node = node;
  const long sOff = stripe->begin + from;
  const long eOff = stripe->begin + to;
  const ObjectID* const oid = byNode ? nullptr : &write.oid;
  void* const data = static_cast<DataCacheNode*>(node);
  const int wanted = byNode || (*random)() % 2 == 0 ? -3 : -1;
  if (append) {
    EXPECT_EQ(0, table_->append(sOff, eOff, oid, sOff, 0, data, nullptr));
  } else {
    EXPECT_EQ(0, table_->insert(sOff, eOff, oid, sOff, 0, data, wanted, nullptr));
  }
  stripe->writes.push_back(write);
  std::fill(stripe->byte.begin() + from, stripe->byte.begin() + to,
            static_cast<std::uint32_t>(number));
}

/// What a look-up at `at` has found in the stripe's own thread.
void StoredStress::ExpectVisible(const Stripe& stripe, long at,
                                 const CMappingLMDB::iterator& found) {
  const long begin = std::max(at, found->sOff);
  const long end = std::min(stripe.begin + kStripe, found->eOff);
  ASSERT_EQ(found->sOff, found->objOff);
  if (prefetched_) {
    return;
  }
  for (long offset = at; offset < std::min(begin, stripe.begin + kStripe); ++offset) {
    ASSERT_EQ(0U, stripe.byte[static_cast<std::size_t>(offset - stripe.begin)]) << "at " << offset;
  }
  for (long offset = begin; offset < end; ++offset) {
    const std::uint32_t number = stripe.byte[static_cast<std::size_t>(offset - stripe.begin)];
    ASSERT_NE(0U, number) << "nothing was written at " << offset;
    const Write& write = stripe.writes[number];
    if (write.node == nullptr || found->objectID.dcid != 0) {
      ASSERT_EQ(write.oid.dcid, found->objectID.dcid) << "at " << offset;
      ASSERT_EQ(write.oid.fp, found->objectID.fp);
    }
    if (found->data != nullptr) {
      ASSERT_EQ(static_cast<const void*>(static_cast<const DataCacheNode*>(write.node)),
                found->data);
    }
  }
}

void StoredStress::ReadStripe(Stripe* stripe) {
  long at = stripe->begin;
  while (at < stripe->begin + kStripe) {
    CMappingLMDB::SharedLock lock;
    const auto found = table_->lower_bound(at, &lock);
    if (found == table_->end()) {
      return;
    }
    ASSERT_GT(found->eOff, at);
    ASSERT_NO_FATAL_FAILURE(ExpectVisible(*stripe, at, found));
    at = found->eOff;
  }
}

void StoredStress::ReadAnywhere(const std::string& operation, Random* random) {
  const long at = static_cast<long>((*random)() % static_cast<std::uint64_t>(End()));
  CMappingLMDB::SharedLock lock;
  CMappingLMDB::iterator found =
      operation == "begin"  ? table_->begin()
      : operation == "find" ? table_->find(at, &lock)
      : operation == "lower_bound"
          ? table_->lower_bound(at, &lock)
          : table_->lower_bound_in_cache(at, (*random)() % 2 == 0 ? &lock : nullptr);
  if (found == table_->end()) {
    return;
  }
  ASSERT_LT(found->sOff, found->eOff);
  ASSERT_EQ(found->sOff, found->objOff);
  ASSERT_GE(found->sOff, 0);
  ASSERT_LE(found->eOff, End());
  if (!lock.owns_lock()) {
    return;
  }
  // The cache stands still as long as the lock that was handed over is kept.
  ASSERT_NE(nullptr, found->data);
  long before = found->eOff;
  for (int i = 0; i < 3; ++i) {
    ++found;
    if (found == table_->end()) {
      return;
    }
    ASSERT_EQ(found->sOff, found->objOff);
    ASSERT_GT(found->eOff, before);
    before = found->eOff;
  }
}

// --- flushes -----------------------------------------------------------------------------------

void StoredStress::Return(const std::set<void*>& released) {
  for (void* const node : released) {
    ++static_cast<StressNode*>(static_cast<DataCacheNode*>(node))->returned;
  }
}

/// With `keep` the table stays locked until the nodes are let go, if there are any.
void StoredStress::Flush(bool force, bool keep, Random* random) {
  std::set<void*> released;
  CMappingLMDB::UniqueLock lock;
  table_->checkAndBackfillObjectID(&released, force, "scope", "share", nullptr,
                                   keep ? &lock : nullptr);
  ++flushes_;
  ASSERT_EQ(keep && !released.empty(), lock.owns_lock());
  Return(released);
  if (lock.owns_lock() && (*random)() % 2 == 0) {
    FlushWithoutANode();
  }
}

/// The flush of a caller that holds the lock, and whose nodes are not told: they are those that the
/// table no longer has.
void StoredStress::FlushWithoutANode() {
  Peer peer(*table_);
  const auto held = [&peer] {
    std::set<void*> nodes = peer.toBeReleased();
    for (const auto& [key, node] : peer.extDataPointers()) {
      nodes.insert(node);
    }
    return nodes;
  };
  std::set<void*> gone = held();
  table_->checkAndBackfillObjectIDUnlock(false);
  ++flushes_;
  for (void* const node : held()) {
    gone.erase(node);
  }
  Return(gone);
}

void StoredStress::FlushAll() {
  for (const auto& stripe : stripes_) {
    stripe->nodes.MakeReady(kMostNodes);
  }
  std::set<void*> released;
  table_->checkAndBackfillObjectID(&released, true, "scope", "share", nullptr, nullptr);
  Return(released);
}

void StoredStress::ExpectAccounted() {
  for (const auto& stripe : stripes_) {
    for (std::size_t i = 0; i < stripe->nodes.size(); ++i) {
      ASSERT_EQ(1, stripe->nodes[i].returned.load()) << "node " << i << " of " << stripe->begin;
    }
  }
}

long StoredStress::nodes() const {
  std::size_t count = 0;
  for (const auto& stripe : stripes_) {
    count += stripe->nodes.size();
  }
  return static_cast<long>(count);
}

// --- what is stored ----------------------------------------------------------------------------

void StoredStress::Plan(Random* random) {
  std::list<CMappingLMDB::DCInfo> plan;
  const long start = static_cast<long>((*random)() % static_cast<std::uint64_t>(End()));
  table_->GetDCInfoList({start, start + 1 + static_cast<long>((*random)() % 100), 7}, &plan);
  for (const auto& container : plan) {
    ASSERT_GE(container.dcid, 64U);
    for (const auto& extent : container.extents) {
      ASSERT_EQ(static_cast<std::uint32_t>(extent.sOff), extent.objOff);
      ASSERT_EQ(container.dcid, extent.objectID.dcid);
      ASSERT_GT(extent.length, 0U);
    }
  }
}

void StoredStress::ListIds(unsigned long start) {
  const auto listed = table_->GetObjectIdsAndOffsets(start, LONG_MAX);
  long before = -1;
  for (const auto& id : listed) {
    ASSERT_LT(id.startOffset, id.endOffset);
    ASSERT_GT(id.endOffset, before);
    before = id.endOffset;
  }
}

/// Gives objects the containers that they have.
void StoredStress::RewriteIds(Stripe* stripe, Random* random) {
  CMappingLMDB::ObjectIDs ids;
  const std::size_t number = (*random)() % stripe->writes.size();
  if (number != 0) {
    ids.push_back({stripe->writes[number].oid, stripe->begin, stripe->begin + kStripe});
  }
  ASSERT_EQ(0, table_->UpdateObjectIdsByRange(0, LONG_MAX, ids));
}

void StoredStress::Refer(const std::string& operation) {
  std::vector<std::pair<unsigned long, unsigned long>> dcids;
  if (operation == "GetDCIDAndFPs") {
    std::unordered_map<unsigned long, unsigned long> bytes;
    std::vector<crfp_digest_t> digests;
    ASSERT_EQ(0, table_->GetDCIDAndFPs(&bytes, &digests));
    ASSERT_LE(bytes.size(), digests.size());
  } else if (operation == "GetDCIDAndBloomFilter") {
    std::unique_ptr<BloomFilter> filter;
    table_->GetDCIDAndBloomFilter(&dcids, &filter);
    ASSERT_NE(nullptr, filter);
    ASSERT_LE(dcids.size(), filter->GetInsertedFingerPrints());
  } else if (operation == "GetDCIDAndFP") {
    std::vector<std::array<char, 65>> digests;
    table_->GetDCIDAndFP(&dcids, &digests);
    ASSERT_TRUE(dcids.empty() && digests.empty()) << "a stored table counts none in memory";
  } else if (operation == "GetNewReferencedDCID") {
    ASSERT_THROW(table_->GetNewReferencedDCID(&dcids), int);
  } else {
    ASSERT_THROW(table_->GetReferencedFP(nullptr), int);
  }
}

void StoredStress::TakeSnapshot(int thread) {
  const auto target = dir_ / ("snapshot" + std::to_string(thread));
  ASSERT_EQ(0, table_->Snapshot(Directory(), target.string()));
  ASSERT_EQ(2, std::distance(boost::filesystem::directory_iterator(target), {}));
  boost::filesystem::remove_all(target);
  ++snapshots_;
}

void StoredStress::StepOnOffsets(Stripe* stripe, const std::string& operation, Random* random) {
  if (operation == "GetEmptyDcOffsetList") {
    std::vector<DCOffset> wanted;
    ASSERT_EQ(0, table_->GetEmptyDcOffsetList(&wanted));
    stripe->offsets.insert(stripe->offsets.end(), wanted.begin(), wanted.end());
  } else if (operation == "BackfillDcOffset") {
    for (DCOffset& offset : stripe->offsets) {
      offset.dcOffset = (*random)() % 4 == 0 ? -1 : offset.key;
    }
    ASSERT_EQ(0, table_->BackfillDcOffset(stripe->offsets));
    stripe->offsets.clear();
  } else {
    const std::size_t number = (*random)() % stripe->writes.size();
    const Write& write = stripe->writes[number];
    if (number != 0 && write.node == nullptr) {
      const long key = stripe->begin + static_cast<long>((*random)() % kStripe);
      ASSERT_EQ(0, table_->AppendToRefreshDcOffsetList(key, write.oid.dcid, write.oid.fp));
    }
  }
}

// --- the rest ----------------------------------------------------------------------------------

void StoredStress::StepOnTable(Stripe* stripe, const std::string& operation, Random* random) {
  if (operation == "setFileSize") {
    ASSERT_EQ(0, table_->setFileSize(End() + static_cast<long>((*random)() % 1000)));
  } else if (operation == "getFileSize") {
    ASSERT_GE(table_->getFileSize(), 0);
  } else if (operation == "end") {
    ASSERT_TRUE(table_->end() == table_->end());
  } else if (operation == "size") {
    ASSERT_GE(table_->size(), 0);
  } else if (operation == "getTableSize") {
    long extents = -1;
    long keys = -1;
    ASSERT_GE(table_->getTableSize(&extents, &keys), 0);
    ASSERT_EQ(0, extents + keys);
  } else if (operation == "needCommit") {
    table_->needCommit();
  } else if (operation == "setCommit") {
    table_->setCommit((*random)() % 2 == 0);
  } else if (operation == "UpdateExtPath") {
    table_->UpdateExtPath(Directory());
  } else if (operation == "save") {
    ASSERT_EQ(0, table_->save("", 0));
  } else if (operation == "SetObjectID") {
    table_->SetObjectID(nullptr, {});
  } else if (operation == "SetDOID") {
    ObjectID oid = Oid((*random)() % 200);
    ASSERT_EQ(0, table_->SetDOID(&oid));
  } else if (operation == "GetDOID") {
    ObjectID oid;
    const bool has = table_->GetDOID(&oid) == 0;
    ASSERT_EQ(has, oid.dcid > 64);
  } else if (operation == "IsDataChanged") {
    table_->IsDataChanged();
  } else if (operation == "GetWritingNodesCount") {
    ASSERT_EQ(0U, table_->GetWritingNodesCount());
  } else if (operation == "GetWritingNodes") {
    std::vector<Aldenta::Qnd::Morene::Zefs::DataCacheNodePointerWithStatus> waiting;
    table_->GetWritingNodes(&waiting, (*random)() % 2 == 0);
    for (const auto& entry : waiting) {
      ASSERT_NE(nullptr, entry.node);
    }
  } else if (operation == "GetExtentData") {
    std::set<void*> released;
    table_->GetExtentData(&released);
    ASSERT_TRUE(released.empty()) << "all were flushed";
  } else if (operation == "setExtMapVersion") {
    ASSERT_EQ(0, table_->setExtMapVersion({2, 0}));
  } else if (operation == "getExtMapVersion") {
    ASSERT_EQ(2, table_->getExtMapVersion().major);
  } else {
    FAIL() << "no step for " << operation << " of " << stripe->begin;
  }
}

// --- alone -------------------------------------------------------------------------------------

void StoredStress::Truncate(long size) {
  FlushAll();
  ASSERT_EQ(0, table_->truncate(size, nullptr));
  EXPECT_EQ(size, table_->getFileSize());
  for (const auto& stripe : stripes_) {
    for (long offset = std::max(size, stripe->begin); offset < stripe->begin + kStripe; ++offset) {
      stripe->byte[static_cast<std::size_t>(offset - stripe->begin)] = 0;
    }
  }
  Count("truncate");
}

void StoredStress::Alone(Random* random) {
  const auto turn = (*random)() % 12;
  if (turn == 0) {
    MergeAll();  // a truncate leaves a tmp database alone
    Truncate(static_cast<long>((*random)() % static_cast<std::uint64_t>(End())));
  } else if (turn == 1) {
    FlushAll();
    Destroy();
    Count("~");
    Load();
    Count("load");
  } else if (turn == 2 && (*random)() % 3 == 0) {
    FlushAll();
    ASSERT_EQ(0, table_->remove(Directory()));
    Count("remove");
    for (const auto& stripe : stripes_) {
      std::fill(stripe->byte.begin(), stripe->byte.end(), 0);
      stripe->offsets.clear();
    }
    Destroy();
    Load();
  } else if (turn < 5) {
    FlushAll();
    ExpectAccounted();
    for (const auto& stripe : stripes_) {
      ReadStripe(stripe.get());
    }
  }
}

void StoredStress::MergeAll() {
  FlushAll();
  Peer(*table_).WaitingForMerge();
  table_->GetObjectIdsAndOffsets(0, LONG_MAX);
}

void StoredStress::ExpectTheModel() {
  const auto expectAll = [this] {
    for (const auto& stripe : stripes_) {
      long at = stripe->begin;
      for (; at < stripe->begin + kStripe;) {
        const auto found = table_->lower_bound(at, nullptr);
        const long end = found == table_->end() ? LONG_MAX : found->eOff;
        const long start = found == table_->end() ? LONG_MAX : found->sOff;
        for (; at < std::min(end, stripe->begin + kStripe); ++at) {
          const std::uint32_t number = stripe->byte[static_cast<std::size_t>(at - stripe->begin)];
          ASSERT_EQ(at >= start, number != 0) << "at " << at;
          if (number != 0) {
            ASSERT_EQ(stripe->writes[number].oid.dcid, found->objectID.dcid) << "at " << at;
            ASSERT_EQ(nullptr, found->data);
            ASSERT_EQ(found->sOff, found->objOff);
          }
        }
      }
    }
  };
  MergeAll();
  ASSERT_NO_FATAL_FAILURE(ExpectAccounted());
  ASSERT_NO_FATAL_FAILURE(expectAll());
  Destroy();
  Load();
  ASSERT_NO_FATAL_FAILURE(expectAll());
}

}  // namespace zefs::test::stress
