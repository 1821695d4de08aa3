#pragma once

#include "table/sys_exception.h"
#include "table/tree_nodes.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// A new shadow of `node`, of the node's own kind; throws SysException(kErrInternal) if there is
/// none.
template <typename Node>
Node& ShadowOf(Node& node, CMappingTable* table) {
  CMapNode* const copy = node.shadow(table);
  if (copy == nullptr || copy->isKeyNode() != node.isKeyNode()) {
    throw SysException(kErrInternal);
  }
  return static_cast<Node&>(*copy);
}

/// `node` if the running change may alter it, else a new shadow of it, with the same items at the
/// same places.
template <typename Node>
Node& Writable(Node& node, CMappingTable* table) {
  return node.dirty ? node : ShadowOf(node, table);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
