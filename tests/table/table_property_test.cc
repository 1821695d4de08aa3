#include <algorithm>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <rapidcheck.h>

#include <gtest/gtest.h>

#include "tests/support/property.h"
#include "tests/table/table_fixture.h"

// Random changes of a table, over ranges small enough to collide all the time, against a model that
// knows of every byte which extent holds it. The seed is printed; ZEFS_TEST_SEED sets another.

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;
using zefs::test::ByKeys;
using zefs::test::Oid;
using zefs::test::Seen;

struct Operation {
  enum Kind { kInsert, kAppend, kTruncate, kSetObjectId, kUpdateObjectIds };

  Kind kind = kInsert;
  long offset = 0;
  long length = 1;
  std::uint64_t dcid = 64;
  unsigned int tag = 0;
  std::vector<std::pair<long, std::uint64_t>> list;  // start offsets and containers of an update
};

void showValue(const Operation& op, std::ostream& out) {
  static const char* const kNames[] = {"insert", "append", "truncate", "set oid", "update oids"};
  out << kNames[op.kind] << " at " << op.offset << " length " << op.length << " dcid " << op.dcid
      << " tag " << op.tag;
  for (const auto& [start, dcid] : op.list) {
    out << " (" << start << ", " << dcid << ')';
  }
}

struct Scenario {
  long domain = 64;
  std::vector<Operation> operations;
};

void showValue(const Scenario& scenario, std::ostream& out) {
  out << "domain " << scenario.domain;
  for (const Operation& op : scenario.operations) {
    out << "\n  ";
    showValue(op, out);
  }
}

// --- the model -------------------------------------------------------------------------------

/// Of each byte of [0, domain): the extent that holds it, and what the extent says of it. The
/// pieces that a write leaves of an extent are extents of their own.
class ByteModel {
 public:
  struct Byte {
    std::uint64_t extent;  // tells one extent from the next
    long objectByte;       // place of this byte in its object
    std::uint64_t dcid;
    unsigned int tag;
    long checksum;
    void* node;
  };

  explicit ByteModel(long domain) : bytes_(static_cast<std::size_t>(domain)) {}

  void Write(long sOff, long eOff, const Operation& op, long objOff, long checksum, void* node) {
    CutAt(eOff);
    const std::uint64_t extent = ++lastExtent_;
    for (long at = sOff; at < eOff; ++at) {
      At(at) = Byte{extent, objOff + (at - sOff), op.dcid, op.tag, checksum, node};
    }
  }

  void Truncate(long size) {
    for (long at = std::max(size, 0L); at < End(); ++at) {
      At(at).reset();
    }
  }

  /// Changes the extent that starts at `sOff`.
  template <typename Change>
  void ChangeExtent(long sOff, Change change) {
    const std::uint64_t extent = At(sOff)->extent;
    for (long at = sOff; at < End() && At(at) && At(at)->extent == extent; ++at) {
      change(*At(at));
    }
  }

  struct ModelExtent {
    long sOff;
    long eOff;
    Byte first;
  };

  std::vector<ModelExtent> Extents() const {
    std::vector<ModelExtent> extents;
    for (long at = 0; at < End(); ++at) {
      const auto& byte = bytes_[static_cast<std::size_t>(at)];
      if (!byte) {
        continue;
      }
      if (extents.empty() || extents.back().eOff != at ||
          extents.back().first.extent != byte->extent) {
        extents.push_back({at, at, *byte});
      }
      ++extents.back().eOff;
    }
    return extents;
  }

 private:
  long End() const { return static_cast<long>(bytes_.size()); }
  std::optional<Byte>& At(long at) { return bytes_[static_cast<std::size_t>(at)]; }

  /// An extent that spans `at` goes on as another one from there.
  void CutAt(long at) {
    if (at <= 0 || at >= End() || !At(at) || !At(at - 1) || At(at)->extent != At(at - 1)->extent) {
      return;
    }
    const std::uint64_t old = At(at)->extent;
    const std::uint64_t extent = ++lastExtent_;
    for (; at < End() && At(at) && At(at)->extent == old; ++at) {
      At(at)->extent = extent;
    }
  }

  std::vector<std::optional<Byte>> bytes_;
  std::uint64_t lastExtent_ = 0;
};

// --- one run ---------------------------------------------------------------------------------

class TableRun {
 public:
  explicit TableRun(long domain) : model_(domain) {}

  void Apply(const Operation& op) {
    const auto extents = model_.Extents();
    switch (op.kind) {
      case Operation::kInsert:
        Write(op.offset, op.offset + op.length, op, false);
        break;
      case Operation::kAppend:
        // Nothing keeps an append without bytes out of the tree: that is the caller's to do.
        Write(AppendAt(extents, op), AppendAt(extents, op) + std::max(op.length, 1L), op, true);
        break;
      case Operation::kTruncate:
        table_.truncate(op.offset, nullptr);
        model_.Truncate(op.offset);
        break;
      case Operation::kSetObjectId:
        SetObjectId(extents, op);
        break;
      case Operation::kUpdateObjectIds:
        UpdateObjectIds(extents, op);
        break;
    }
    Check();
  }

 private:
  static long AppendAt(const std::vector<ByteModel::ModelExtent>& extents, const Operation& op) {
    return (extents.empty() ? 0 : extents.back().eOff) + op.offset % 3;
  }

  void Write(long sOff, long eOff, const Operation& op, bool append) {
    if (eOff > kRoom) {
      return;
    }
    const ObjectID oid = Oid(op.dcid, op.tag);
    const long objOff = op.offset * 7;
    const long checksum = ++checksum_;
    void* const node = &checksum_ + checksum % 5;
    if (append) {
      table_.append(sOff, eOff, &oid, objOff, checksum, node, nullptr);
    } else {
      table_.insert(sOff, eOff, &oid, objOff, checksum, node, 4, nullptr);
    }
    if (sOff < eOff) {
      model_.Write(sOff, eOff, op, objOff, checksum, node);
    }
  }

  void SetObjectId(const std::vector<ByteModel::ModelExtent>& extents, const Operation& op) {
    const auto found = table_.find(op.offset, nullptr);
    if (found == table_.end()) {
      return;
    }
    table_.SetObjectID(found.operator->(), Oid(op.dcid, op.tag));
    const auto hit = std::find_if(extents.begin(), extents.end(),
                                  [&](const auto& extent) { return extent.eOff > op.offset; });
    RC_ASSERT(hit != extents.end());
    model_.ChangeExtent(hit->sOff, [&](ByteModel::Byte& byte) {
      byte.dcid = op.dcid;
      byte.tag = op.tag;
    });
  }

  void UpdateObjectIds(const std::vector<ByteModel::ModelExtent>& extents, const Operation& op) {
    CMappingTable::ObjectIDs list;
    for (const auto& [start, dcid] : op.list) {
      list.push_back({Oid(dcid, op.tag), start, start + 1});
    }
    RC_ASSERT(table_.UpdateObjectIdsByRange(0, 0, list) == 0);
    std::size_t element = 0;
    for (const auto& extent : extents) {
      if (op.list.empty() || extent.eOff <= op.list.front().first) {
        continue;
      }
      while (element + 1 < op.list.size() && extent.sOff >= op.list[element].first) {
        ++element;
      }
      if (extent.first.tag == op.tag) {
        model_.ChangeExtent(extent.sOff,
                            [&](ByteModel::Byte& byte) { byte.dcid = op.list[element].second; });
      }
    }
  }

  void Check() {
    const auto extents = model_.Extents();
    RC_ASSERT(peer_.rroot()->checkNode(true));
    RC_ASSERT(peer_.dirtyKeys().empty());
    RC_ASSERT(peer_.dirtyNodes().empty());
    RC_ASSERT(peer_.oldNodes().empty());
    RC_ASSERT((peer_.rroot() == peer_.wroot()));
    RC_ASSERT(peer_.rsize() == peer_.wsize());
    RC_ASSERT(table_.size() == static_cast<long>(extents.size()));

    const auto end = table_.end();
    auto it = table_.begin();
    auto last = end;
    for (const auto& extent : extents) {
      RC_ASSERT(it != end);
      CheckExtent(extent, *it);
      last = it;
      ++it;
    }
    RC_ASSERT(it == end);
    for (auto extent = extents.rbegin(); extent != extents.rend(); ++extent, --last) {
      RC_ASSERT(last != end);
      RC_ASSERT(last->sOff == extent->sOff);
    }
    RC_ASSERT(last == end);
    std::vector<Seen> byKeys;
    ByKeys(peer_.rroot(), false, &byKeys);
    RC_ASSERT(byKeys.size() == extents.size());
    for (std::size_t i = 0; i < extents.size(); ++i) {
      RC_ASSERT(byKeys[i].sOff == extents[i].sOff);
    }
    CheckLookups(extents);
    CheckReferences(extents);
  }

  static void CheckExtent(const ByteModel::ModelExtent& extent, const Ext& ext) {
    RC_ASSERT(ext.sOff == extent.sOff);
    RC_ASSERT(ext.eOff == extent.eOff);
    RC_ASSERT(ext.objOff == extent.first.objectByte);
    RC_ASSERT(ext.objCksum == extent.first.checksum);
    RC_ASSERT((ext.data == extent.first.node));
    RC_ASSERT(ext.dcOffset == -1);
    RC_ASSERT(ext.objectID.dcid == extent.first.dcid);
    RC_ASSERT(ext.objectID.fp == Oid(0, extent.first.tag).fp);
  }

  /// Around both ends of every extent the finder gives the first one that ends above the offset.
  void CheckLookups(const std::vector<ByteModel::ModelExtent>& extents) {
    const auto end = table_.end();
    for (std::size_t i = 0; i < extents.size(); ++i) {
      for (const long offset : {extents[i].sOff, extents[i].eOff - 1, extents[i].eOff}) {
        const std::size_t expected = i + (offset == extents[i].eOff ? 1 : 0);
        const auto found = table_.lower_bound(offset, nullptr);
        if (expected == extents.size()) {
          RC_ASSERT(found == end);
        } else {
          RC_ASSERT(found != end);
          RC_ASSERT(found->sOff == extents[expected].sOff);
        }
      }
    }
  }

  void CheckReferences(const std::vector<ByteModel::ModelExtent>& extents) {
    DcidReferences dcids;
    FingerprintReferences fps;
    for (const auto& extent : extents) {
      if (extent.first.dcid >= 64) {
        dcids[extent.first.dcid] += static_cast<unsigned long>(extent.eOff - extent.sOff);
        ++fps[TextOf(Oid(0, extent.first.tag).fp)];
      }
    }
    RC_ASSERT(dcids == peer_.dcids());
    RC_ASSERT(fps == peer_.fps());
  }

 public:
  static constexpr long kRoom = 2048;

 private:
  CMappingTable table_{nullptr};
  MappingTableTestPeer peer_{table_};
  ByteModel model_;
  long checksum_ = 0;
};

// --- generators ------------------------------------------------------------------------------

rc::Gen<Operation> AnyOperation(long domain) {
  using rc::gen::inRange;
  const auto length = rc::gen::weightedOneOf<long>(
      {{8, inRange<long>(0, domain / 16 + 2)}, {1, inRange<long>(0, domain / 2)}});
  const auto kind = rc::gen::weightedElement<Operation::Kind>({{14, Operation::kInsert},
                                                               {4, Operation::kAppend},
                                                               {1, Operation::kTruncate},
                                                               {2, Operation::kSetObjectId},
                                                               {2, Operation::kUpdateObjectIds}});
  const auto dcid = inRange<std::uint64_t>(62, 70);
  const auto list =
      // Short lists, though with elements from the whole domain: a size narrows ranges as well.
      rc::gen::resize(
          4, rc::gen::container<std::vector<std::pair<long, std::uint64_t>>>(
                 rc::gen::resize(rc::kNominalSize, rc::gen::pair(inRange<long>(0, domain), dcid))));
  return rc::gen::build<Operation>(rc::gen::set(&Operation::kind, kind),
                                   rc::gen::set(&Operation::offset, inRange<long>(0, domain)),
                                   rc::gen::set(&Operation::length, length),
                                   rc::gen::set(&Operation::dcid, dcid),
                                   rc::gen::set(&Operation::tag, inRange<unsigned int>(0, 6)),
                                   rc::gen::set(&Operation::list, list));
}

rc::Gen<Scenario> AnyScenario() {
  return rc::gen::mapcat(rc::gen::element<long>(64, 256, 1024), [](long domain) {
    return rc::gen::map(
        rc::gen::resize(600, rc::gen::container<std::vector<Operation>>(AnyOperation(domain))),
        [domain](std::vector<Operation> operations) {
          return Scenario{domain, std::move(operations)};
        });
  });
}

TEST(TablePropertyTest, AnyChangesLeaveWhatTheByteModelSays) {
  constexpr int kCases = zefs::test::CasesOf(800);
  std::uint64_t applied = 0;
  std::size_t largest = 0;
  const auto property = [&] {
    const Scenario scenario = *AnyScenario();
    TableRun run(TableRun::kRoom);
    for (const Operation& op : scenario.operations) {
      run.Apply(op);
      ++applied;
    }
    largest = std::max(largest, scenario.operations.size());
  };
  zefs::test::ExpectToHold("any changes leave what the byte model says", kCases, property);
  std::cout << applied << " changes, up to " << largest << " in a row\n";
  EXPECT_GE(applied, 250U * kCases);
}

}  // namespace
