#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "tests/system/model/pieces.h"

// What the cache of a stored table holds, and what it owes the host for it.

namespace zefs::test {

/// A node of the host's data cache.
struct Node {
  ObjectID id;                 ///< once it is ready
  std::int32_t dcOffset = -1;  ///< likewise
  bool ready = false;
  bool takenBack = false;  ///< by the host, which then never makes it ready
};

/// Nodes by their number; number 0 is none.
using Nodes = std::vector<Node>;

/// The object id and container offset with which an extent is to be stored.
struct ToStore {
  ObjectID id;
  std::int32_t dcOffset = -1;
};

class CacheModel {
 public:
  using Released = std::set<int>;

  /// A write. What it cuts learns the object id of its node if that is known by now.
  void Write(long start, long end, const Piece& written, const Nodes& nodes);

  /// The table ends at `size`: nodes behind it are released even if a piece before it uses them.
  void Truncate(long size);

  /// What a flush takes off the list, by end; unforced only if `readyThreshold` nodes in a row are
  /// ready, and without the last of these. The extents stay until they are stored.
  std::map<long, ToStore> Collect(bool force, std::uint32_t readyThreshold, const Nodes& nodes,
                                  Released* released);

  /// Nodes that nothing needs any more.
  Released TakeDangling();

  /// The host takes all nodes back; the extents stay.
  Released ForgetNodes();

  /// Nodes of extents on the list, each once, in the order of the list.
  std::vector<int> Waiting() const;

  const Layer& extents() const { return extents_; }
  void Erase(long end) { extents_.erase(end); }
  std::size_t pending() const { return list_.size(); }

 private:
  Layer::iterator CutOne(Layer::iterator at, long start, long end, int node, const Nodes& nodes);
  void Drop(int node, int writing);
  bool IsShared(int node) const { return shares_.count(node) != 0; }
  bool Scan(std::uint32_t readyThreshold, const Nodes& nodes);

  Layer extents_;
  std::vector<long> list_;  // ends, by arrival; may repeat, or name what is gone
  // Nodes that several pieces have used, with the ends of those pieces. A truncate does not tell
  // it, so that it may name an end that is gone.
  std::map<int, std::set<long>> shares_;
  Released dangling_;
  std::size_t scanned_ = 0;  // of the list: found ready, or without a node, by unforced flushes
  std::uint32_t ready_ = 0;  // of these: with a node
};

}  // namespace zefs::test
