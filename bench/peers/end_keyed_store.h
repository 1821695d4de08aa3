#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <utility>

#include <absl/container/btree_map.h>

#include "bench/peers/extent_value.h"

// The ordered maps under EndKeyedPeer: the key is an extent's end offset, the entry holds its
// start. A store names its map, tells how an entry is made and reached, and moves an entry to a
// smaller key that keeps its place in the order.

namespace zefs_bench {

struct Entry {
  std::int64_t sOff = 0;
  ExtentValue value;
};

/// std::map, entries inside the nodes.
struct StdMapStore {
  using Map = std::map<std::int64_t, Entry>;
  static Entry Make(std::int64_t sOff, const ExtentValue& value) { return {sOff, value}; }
  static Entry& At(Map::iterator it) { return it->second; }
  static const Entry& At(Map::const_iterator it) { return it->second; }

  static Map::iterator Rekey(Map& map, Map::iterator it, std::int64_t key) {
    const auto next = std::next(it);
    auto node = map.extract(it);
    node.key() = key;
    return map.insert(next, std::move(node));
  }
};

/// An Abseil B-tree, entries inside its nodes.
struct BtreeStore {
  using Map = absl::btree_map<std::int64_t, Entry>;
  static Entry Make(std::int64_t sOff, const ExtentValue& value) { return {sOff, value}; }
  static Entry& At(Map::iterator it) { return it->second; }
  static const Entry& At(Map::const_iterator it) { return it->second; }

  static Map::iterator Rekey(Map& map, Map::iterator it, std::int64_t key) {
    const Entry entry = it->second;
    const auto next = map.erase(it);
    return map.emplace_hint(next, key, entry);
  }
};

/// An Abseil B-tree of pointers to entries.
struct BtreePointerStore {
  using Map = absl::btree_map<std::int64_t, std::unique_ptr<Entry>>;
  static std::unique_ptr<Entry> Make(std::int64_t sOff, const ExtentValue& value) {
    return std::make_unique<Entry>(Entry{sOff, value});
  }
  static Entry& At(Map::iterator it) { return *it->second; }
  static const Entry& At(Map::const_iterator it) { return *it->second; }

  static Map::iterator Rekey(Map& map, Map::iterator it, std::int64_t key) {
    auto entry = std::move(it->second);
    const auto next = map.erase(it);
    return map.emplace_hint(next, key, std::move(entry));
  }
};

}  // namespace zefs_bench
