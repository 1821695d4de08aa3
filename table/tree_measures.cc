#include <iostream>
#include <iterator>
#include <string>

#include "table/mapping_table.h"
#include "table/tree_nodes.h"

// Tools for a developer at a debugger or in a test bed: the tree checks, prints and measures
// itself.

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

constexpr int kBlanksALevel = 3;

/// "start, end" of whatever has a range.
std::string Range(long start, long end) {
  return std::to_string(start) + ", " + std::to_string(end);
}
std::string RangeOf(CMapNode& node) {
  return Range(node.getStartOffset(), node.getEndOffset());
}

/// Writes one finding to standard output. Always false: the check that found it has failed.
bool Finding(const std::string& line) {
  std::cout << line << std::endl;
  return false;
}

void Indent(int level, FILE* file) {
  if (file != nullptr) {
    fprintf(file, "%*s", kBlanksALevel * level, "");
  } else {
    std::cout << std::string(static_cast<std::size_t>(kBlanksALevel * level), ' ');
  }
}

}  // namespace

bool CKeyNode::checkNode(bool isRoot) {
  if (dirty) {
    return Finding("node [" + RangeOf(*this) + "] is dirty node");
  }
  if (!isRoot && !hasEnoughItems()) {
    return Finding("node [" + RangeOf(*this) +
                   "] has not enough Items :  " + std::to_string(keys.size()));
  }
  if (hasTooManyItems()) {
    return Finding("node [" + RangeOf(*this) +
                   "] has too many Items : " + std::to_string(keys.size()));
  }
  for (auto key = keys.begin(); key != keys.end(); ++key) {
    const auto where = [&] {
      return "At node [" + RangeOf(*this) + "], key [" + Range(key->sOff, key->eOff);
    };
    if (key->rnode->getStartOffset() != key->sOff || key->rnode->getEndOffset() != key->eOff) {
      return Finding(where() + "] has different range with it's point [" + RangeOf(*key->rnode) +
                     "] ");
    }
    if (key->rnode != key->wnode) {
      return Finding(where() + "]'s rnode and wnode is not consist");
    }
    if (key->eOff <= key->sOff) {
      return Finding(where() + "] is not valid");
    }
    if (std::next(key) != keys.end() && std::next(key)->sOff < key->eOff) {
      return Finding(where() + "] is not ordered");
    }
    if (!key->rnode->checkNode(false)) {
      return false;
    }
  }
  return true;
}

bool CExtNode::checkNode(bool isRoot) {
  if (shadowNode != nullptr) {
    return Finding("node [" + RangeOf(*this) + "] has shadow node");
  }
  if (dirty) {
    return Finding("node [" + RangeOf(*this) + "] is dirty node");
  }
  if (!isRoot && !hasEnoughItems()) {
    return Finding("node [" + RangeOf(*this) +
                   "] has not enough Items :  " + std::to_string(extents.size()));
  }
  if (hasTooManyItems()) {
    return Finding("node [" + RangeOf(*this) +
                   "] has too many Items : " + std::to_string(extents.size()));
  }
  if (next != nullptr && next->prev != this) {
    return Finding("node [" + RangeOf(*this) + "]'s next node's prev node is not itself");
  }
  if (prev != nullptr && prev->next != this) {
    return Finding("node [" + RangeOf(*this) + "]'s prev node's next node is not itself");
  }
  for (auto ext = extents.begin(); ext != extents.end(); ++ext) {
    const auto where = [&] {
      return "At node [" + RangeOf(*this) + "], extent [" + Range(ext->sOff, ext->eOff);
    };
    if (ext->eOff <= ext->sOff) {
      return Finding(where() + "] is not valid");
    }
    if (std::next(ext) != extents.end() && std::next(ext)->sOff < ext->eOff) {
      return Finding(where() + "] is not ordered.");
    }
  }
  return true;
}

void CKeyNode::dump(int level, bool writerView, FILE* file) {
  for (const Key& key : keys) {
    Indent(level, file);
    if (file != nullptr) {
      fprintf(file, "[%ld, %ld]\n", key.sOff, key.eOff);
    } else {
      std::cout << '[' << Range(key.sOff, key.eOff) << ']' << std::endl;
    }
    (writerView ? key.wnode : key.rnode)->dump(level + 1, writerView, file);
  }
}

void CExtNode::dump(int level, bool /*writerView*/, FILE* file) {
  for (const Ext& ext : extents) {
    Indent(level, file);
    const auto sOff = static_cast<unsigned long>(ext.sOff);
    const auto eOff = static_cast<unsigned long>(ext.eOff);
    const auto objOff = static_cast<unsigned long>(ext.objOff);
    if (file != nullptr) {
      fprintf(file, "[%lu, %lu, %lu]\n", sOff, eOff, objOff);
    } else {
      std::cout << '[' << sOff << ", " << eOff << ", " << objOff << ']' << std::endl;
    }
  }
}

long CKeyNode::getTreeSize(long* nodes, long* slots) {
  long bytes = 0;
  for (const Key& key : keys) {
    bytes += key.rnode->getTreeSize(nodes, slots);
  }
  const auto capacity = static_cast<long>(keys.capacity());
  *nodes += 1;
  *slots += capacity;
  return bytes + kKeyBytes * capacity + kKeyNodeBytes;
}

long CExtNode::getTreeSize(long* nodes, long* slots) {
  const auto capacity = static_cast<long>(extents.capacity());
  *nodes += 1;
  *slots += capacity;
  return kExtBytes * capacity + kExtNodeBytes;
}

void CKeyNode::GetSize(unsigned long* bytes, unsigned long* keyNodes, unsigned long* keySlots,
                       unsigned long* extNodes, unsigned long* extSlots) {
  const unsigned long capacity = keys.capacity();
  *bytes += kKeyBytes * capacity + kKeyNodeBytes;
  *keyNodes += 1;
  *keySlots += capacity;
  for (const Key& key : keys) {
    if (key.rnode != nullptr) {
      key.rnode->GetSize(bytes, keyNodes, keySlots, extNodes, extSlots);
    }
    if (key.wnode != nullptr && key.wnode != key.rnode) {
      key.wnode->GetSize(bytes, keyNodes, keySlots, extNodes, extSlots);
    }
  }
}

void CExtNode::GetSize(unsigned long* bytes, unsigned long* /*keyNodes*/,
                       unsigned long* /*keySlots*/, unsigned long* extNodes,
                       unsigned long* extSlots) {
  const unsigned long capacity = extents.capacity();
  *bytes += kExtBytes * capacity + kExtNodeBytes;
  *extNodes += 1;
  *extSlots += capacity;
}

long CMappingTable::getTableSize(long* nodes, long* slots) {
  const SharedLock lock(tableLock_);
  std::cout << "Ext size : " << kExtBytes << ", Key size : " << kKeyBytes << std::endl;
  *nodes = 0;
  *slots = 0;
  return rroot_ == nullptr ? 0 : rroot_->getTreeSize(nodes, slots);
}

bool CMappingTable::checkTable() {
  return true;
}

void CMappingTable::dump(FILE* file) {
  if (file != nullptr) {
    fputc('\n', file);
  }
}

void CMappingTable::dumpTree(bool /*writerView*/, FILE* /*file*/) {}

}  // namespace Aldenta::Qnd::Morene::Zefs
