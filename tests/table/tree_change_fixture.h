#pragma once

#include <vector>

#include "tests/table/table_fixture.h"

namespace zefs::test {

/// A table whose tree is changed one node operation at a time, and committed by hand.
class TreeChangeTest : public TableTest {
 protected:
  /// What `addExt` and `deleteExt` of the writer's root said.
  struct Outcome {
    int result;
    std::vector<lib::CMapNode*> out;
  };

  Outcome Add(long sOff, long eOff) {
    Outcome outcome;
    const lib::ObjectID oid = Oid(64);
    outcome.result =
        peer_.wroot()->addExt(&table_, lib::Ext(sOff, eOff, &oid, 0, 0, nullptr), &outcome.out);
    return outcome;
  }
  Outcome Delete(long sOff, long eOff) {
    Outcome outcome;
    outcome.result = peer_.wroot()->deleteExt(&table_, sOff, eOff, &outcome.out);
    return outcome;
  }
  void Commit() {
    table_.consist();
    peer_.FreeOldNodes();
  }
  std::vector<Seen> WriterView() {
    std::vector<Seen> seen;
    ByKeys(peer_.wroot(), true, &seen);
    return seen;
  }
  std::vector<Seen> ReaderView() {
    std::vector<Seen> seen;
    ByKeys(peer_.rroot(), false, &seen);
    return seen;
  }

  /// A table of `leaves` leaves with 2 extents each, [10, 12), [14, 16), [20, 22), [24, 26) ...:
  /// there is room for a third in each leaf's own range.
  void TwoALeaf(int leaves) {
    for (long i = 1; i <= leaves; ++i) {
      Append(i * 10, i * 10 + 2);
      Append(i * 10 + 4, i * 10 + 6);
    }
    ASSERT_EQ(leaves, static_cast<int>(LeafSizes().size()));
  }
};

}  // namespace zefs::test
