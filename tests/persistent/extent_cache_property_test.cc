// Random writes, each with a node of its own, against a model that knows of every byte which piece
// of which write it belongs to. Nodes learn and lose their object ids on the way. The seed is
// printed; ZEFS_TEST_SEED sets another.

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "tests/persistent/extent_cache_fixture.h"
#include "tests/persistent/extent_cache_operations.h"
#include "tests/support/property.h"

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::DataCacheNode;
using zefs::test::Cached;
using zefs::test::CacheOperation;
using zefs::test::Oid;

/// What one byte of the file says of itself. The pieces that a write leaves of an extent are
/// pieces of their own.
struct Byte {
  std::uint64_t piece;
  ObjectID oid;
  std::uint32_t place;  // in its object
  std::int32_t dcOffset;
  DataCacheNode* node;  // null: none, or handed to the host
};

struct Fresh {
  ObjectID oid;
  std::int32_t dcOffset;
};

class ByteModel {
 public:
  explicit ByteModel(long size) : bytes_(static_cast<std::size_t>(size)) {}

  /// Replaces the bytes of [sOff, eOff) and returns the keys of the entries that this changes, in
  /// the order in which they are to be flushed again.
  std::vector<long> Write(long sOff, long eOff, const ObjectID& oid, long objOff, int dcOffset,
                          DataCacheNode* node, const std::map<DataCacheNode*, Fresh>& ready) {
    std::vector<long> changed;
    for (const auto& extent : Extents()) {
      if (extent.eOff <= sOff || eOff <= extent.sOff) {
        continue;
      }
      Cut(extent.sOff, extent.eOff, ready);
      if (eOff < extent.eOff) {
        changed.push_back(extent.eOff);
        const std::uint64_t tail = ++lastPiece_;
        for (long at = eOff; at < extent.eOff; ++at) {
          At(at)->piece = tail;
        }
      }
      if (extent.sOff < sOff) {
        changed.push_back(sOff);
      }
    }
    const std::uint64_t piece = ++lastPiece_;
    for (long at = sOff; at < eOff; ++at) {
      At(at) = Byte{piece, oid, static_cast<std::uint32_t>(objOff + (at - sOff)), dcOffset, node};
    }
    changed.push_back(eOff);
    return changed;
  }

  void ForgetNodes() {
    for (auto& byte : bytes_) {
      if (byte) {
        byte->node = nullptr;
      }
    }
  }

  struct Extent {
    long sOff;
    long eOff;
    Byte first;
  };

  std::vector<Extent> Extents() const {
    std::vector<Extent> extents;
    for (long at = 0; at < static_cast<long>(bytes_.size()); ++at) {
      const auto& byte = bytes_[static_cast<std::size_t>(at)];
      if (!byte) {
        continue;
      }
      if (extents.empty() || extents.back().eOff != at ||
          extents.back().first.piece != byte->piece) {
        extents.push_back({at, at, *byte});
      }
      ++extents.back().eOff;
    }
    return extents;
  }

 private:
  std::optional<Byte>& At(long at) { return bytes_[static_cast<std::size_t>(at)]; }

  /// A cut extent takes the object id that its node has got, and loses two attributes.
  void Cut(long sOff, long eOff, const std::map<DataCacheNode*, Fresh>& ready) {
    for (long at = sOff; at < eOff; ++at) {
      Byte& byte = *At(at);
      const auto fresh = ready.find(byte.node);
      if (fresh != ready.end() && fresh->second.oid.dcid != byte.oid.dcid) {
        byte.oid = fresh->second.oid;
        byte.dcOffset = fresh->second.dcOffset;
      }
      byte.oid.attrByte = 0;
      byte.oid.attrFlag = 0;
    }
  }

  std::vector<std::optional<Byte>> bytes_;
  std::uint64_t lastPiece_ = 0;
};

/// How often the run came to what the property is about.
struct Seen {
  std::uint64_t writes = 0;
  std::uint64_t handedBack = 0;
  std::size_t mostPieces = 0;  // of one node
};

class CacheRun {
 public:
  static constexpr long kDomain = 96;

  explicit CacheRun(Seen* seen) : seen_(*seen) {}

  void Apply(const CacheOperation& op) {
    switch (op.kind) {
      case CacheOperation::kWrite:
        Write(op);
        break;
      case CacheOperation::kReady:
        if (DataCacheNode* const node = AnyNode(op); node != nullptr) {
          const ObjectID oid = Oid(op.dcid, op.tag);
          cache_.MakeReady(node, oid, op.dcOffset);
          ready_[node] = {oid, op.dcOffset};
        }
        break;
      case CacheOperation::kNotReady:
        if (DataCacheNode* const node = AnyNode(op); node != nullptr) {
          cache_.MakeNotReady(node);
          ready_.erase(node);
        }
        break;
      case CacheOperation::kRecycle:
        Recycle();
        break;
      case CacheOperation::kGetExtentData:
        GetExtentData();
        break;
    }
    Check();
  }

  /// A last write over everything: every node has gone back once.
  void Finish() {
    CacheOperation all;
    all.length = kDomain + 1;
    all.hasNode = false;
    Apply(all);
    Recycle();
    RC_ASSERT((handedBack_ == std::set<void*>(nodes_.begin(), nodes_.end())));
    RC_ASSERT(peer_.extDataPointers().empty());
  }

 private:
  DataCacheNode* AnyNode(const CacheOperation& op) const {
    return nodes_.empty() ? nullptr : nodes_[nodes_.size() - 1 - op.node % nodes_.size()];
  }

  void Write(const CacheOperation& op) {
    const long eOff = std::min(op.offset + op.length, kDomain + 1);
    const ObjectID oid = op.hasOid ? Oid(op.dcid, op.tag) : ObjectID{};
    DataCacheNode* node = nullptr;
    if (op.hasNode && eOff > op.offset) {
      nodes_.push_back(cache_.NewNode());
      node = nodes_.back();
    }
    const std::size_t pending = peer_.objList().size();
    peer_.dataChanged() = false;
    RC_ASSERT(table_.insert(op.offset, eOff, op.hasOid ? &oid : nullptr, op.objOff, 0, node,
                            op.dcOffset, nullptr) == 0);
    RC_ASSERT(peer_.dataChanged() == (eOff > op.offset));
    std::vector<long> changed;
    if (eOff > op.offset) {
      ++seen_.writes;
      changed = model_.Write(op.offset, eOff, oid, op.objOff, op.dcOffset, node, ready_);
      fileSize_ = std::max(fileSize_, eOff);
    }
    const auto from = std::next(peer_.objList().begin(), static_cast<std::ptrdiff_t>(pending));
    RC_ASSERT(std::vector<long>(from, peer_.objList().end()) == changed);
    peer_.objList().clear();  // as a flush would
    peer_.objListCount() -= static_cast<std::uint32_t>(pending + changed.size());
  }

  void Recycle() {
    std::set<void*> released;
    peer_.RecycleDanglingPointer(&released);
    RC_ASSERT(peer_.toBeReleased().empty());
    HandBack(released);
  }

  void GetExtentData() {
    std::set<void*> attached;
    for (const auto& extent : model_.Extents()) {
      if (extent.first.node != nullptr) {
        attached.insert(extent.first.node);
      }
    }
    std::set<void*> released;
    table_.GetExtentData(&released);
    RC_ASSERT((released == attached));
    model_.ForgetNodes();
    HandBack(released);
  }

  void HandBack(const std::set<void*>& released) {
    seen_.handedBack += released.size();
    for (void* const node : released) {
      RC_ASSERT(handedBack_.insert(node).second);  // never twice
    }
  }

  void Check() {
    std::vector<Cached> expected;
    std::map<long, void*> nodes;
    std::map<void*, std::set<long>> keys;
    for (const auto& extent : model_.Extents()) {
      const Byte& first = extent.first;
      expected.push_back(zefs::test::Written(extent.sOff, extent.eOff, first.oid,
                                             static_cast<std::int32_t>(first.place),
                                             first.dcOffset));
      if (first.node != nullptr) {
        nodes[extent.eOff] = first.node;
        keys[first.node].insert(extent.eOff);
      }
    }
    RC_ASSERT(zefs::test::CachedIn(peer_.extCache()) == expected);
    RC_ASSERT((std::map<long, void*>(peer_.extDataPointers().begin(),
                                     peer_.extDataPointers().end()) == nodes));
    RC_ASSERT(peer_.fileSize() == fileSize_);
    RC_ASSERT(peer_.objListCount() == peer_.objList().size());
    CheckShares(keys);
    CheckReleased(keys);
  }

  /// Whoever has several pieces shares; a share knows exactly the pieces. One that GetExtentData
  /// left behind is of a node that never comes back.
  void CheckShares(const std::map<void*, std::set<long>>& keys) {
    const auto& shares = peer_.sharedDataPointers();
    for (const auto& [node, ends] : keys) {
      seen_.mostPieces = std::max(seen_.mostPieces, ends.size());
      const auto share = shares.find(node);
      RC_ASSERT(share != shares.end() || ends.size() == 1);
      RC_ASSERT((share == shares.end() || share->second == ends));
    }
    for (const auto& [node, ends] : shares) {
      RC_ASSERT(keys.count(node) + handedBack_.count(node) == 1U);
    }
  }

  /// A node waits for release, or has gone back, exactly if no piece is left of its write.
  void CheckReleased(const std::map<void*, std::set<long>>& keys) {
    const auto& waiting = peer_.toBeReleased();
    for (void* const node : waiting) {
      RC_ASSERT((node != nullptr));
      RC_ASSERT(keys.count(node) + handedBack_.count(node) == 0U);
    }
    for (const auto& [node, ends] : keys) {
      RC_ASSERT(handedBack_.count(node) == 0U);
    }
    RC_ASSERT(waiting.size() + keys.size() + handedBack_.size() == nodes_.size());
  }

  Seen& seen_;
  zefs::test::FakeCache cache_;
  CMappingLMDB table_{&cache_, ZEFS_PROVISION_STR};
  MappingLMDBTestPeer peer_{table_};
  ByteModel model_{kDomain + 1};
  std::map<DataCacheNode*, Fresh> ready_;
  std::vector<DataCacheNode*> nodes_;
  std::set<void*> handedBack_;
  long fileSize_ = -1;
};

TEST(ExtentCachePropertyTest, WritesWithNodesOfTheirOwnLeaveWhatTheByteModelSays) {
  const zefs::refhost::LogRecorder quiet(zefs::kLogFailure);
  Seen seen;
  std::uint64_t steps = 0;
  zefs::test::ExpectToHold("writes leave what the byte model says", 320, [&] {
    const auto operations = *zefs::test::AnyCacheOperations(CacheRun::kDomain);
    CacheRun run(&seen);
    for (const CacheOperation& op : operations) {
      run.Apply(op);
      ++steps;
    }
    run.Finish();
  });
  std::cout << steps << " steps, " << seen.writes << " writes, " << seen.handedBack
            << " nodes handed back, up to " << seen.mostPieces << " pieces on one\n";
  EXPECT_GE(steps, 100000U);
  EXPECT_GE(seen.handedBack, 10000U);
  EXPECT_GE(seen.mostPieces, 5U);
}

}  // namespace
