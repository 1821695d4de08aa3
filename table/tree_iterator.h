#pragma once

#include "table/mapping_table.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// A position in the tree: a leaf and an index in it. Behind the end the leaf is null and the index
/// 0. Walks the chain of leaves and never the interior nodes. Another kind of iterator on the other
/// side of an assignment or comparison throws SysException(kErrInternal). Reading at the end is
/// undefined.
class CMappingTable::iteratorimp final : public CMappingTable::iteratorbase {
 public:
  iteratorimp(CExtNode* leaf, int position) : node(leaf), index(position) {}
  iteratorimp(const iteratorimp&) = default;
  iteratorimp& operator=(const iteratorimp& other) {
    node = other.node;
    index = other.index;
    return *this;
  }

  iteratorbase* clone() const override;
  iteratorbase& operator=(const iteratorbase& other) override;
  Ext& operator*() const override;
  Ext* operator->() const override;
  iteratorbase& operator--() override;  ///< from the first extent, and from the end: the end
  iteratorbase& operator++() override;  ///< from the end: the end
  bool operator==(const iteratorbase& other) const override;
  bool operator!=(const iteratorbase& other) const override;

  CExtNode* node;
  int index;
};

}  // namespace Aldenta::Qnd::Morene::Zefs
