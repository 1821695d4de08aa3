#include "refhost/cache/node_ledger.h"

#include <utility>

namespace zefs::refhost {

std::string NodeCounts::Problem() const {
  std::string problem;
  const auto add = [&problem](const std::atomic<std::uint64_t>& count, const char* what) {
    if (count != 0) {
      problem += (problem.empty() ? "" : ", ") + std::to_string(count) + " " + what;
    }
  };
  add(releasedTwice, "released twice");
  add(foreign, "released by a table that they are not of");
  add(leaked, "never released");
  add(askedAfterRelease, "asked for their object after their release");
  add(readAfterRelease, "read after their release");
  return problem.empty() ? problem : "nodes of the data cache: " + problem;
}

CacheNode* NodeLedger::Make(CacheNode::Bytes bytes) {
  auto node = std::make_unique<CacheNode>(std::move(bytes));
  CacheNode* const made = node.get();
  nodes_.emplace(made->ForTable(), std::move(node));
  ++counts_.made;
  return made;
}

void NodeLedger::Release(const std::set<void*>& nodes) {
  for (void* const node : nodes) {
    const auto known = nodes_.find(node);
    if (known == nodes_.end()) {
      ++counts_.foreign;
    } else if (known->second->Release()) {
      ++counts_.released;
    } else {
      ++counts_.releasedTwice;
    }
  }
}

void NodeLedger::Settle() {
  FreeAll(&counts_.leaked);
}

void NodeLedger::Drop() {
  FreeAll(&counts_.dropped);
}

void NodeLedger::FreeAll(std::atomic<std::uint64_t>* notReleased) {
  for (const auto& [address, node] : nodes_) {
    if (!node->released()) {
      ++*notReleased;
    }
  }
  counts_.freed += nodes_.size();
  nodes_.clear();
}

}  // namespace zefs::refhost
