#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace zefs::refhost {

/// Parts of containers in memory, up to a number of bytes; what was used least recently goes first.
/// Containers only ever grow, so nothing in here becomes wrong. They are kept in blocks of one
/// size, whose place is the block's number times that size; the last one of a container may be
/// shorter.
///
/// A block is begun, and then put or given up by whoever began it. Thread-safe.
class ContainerCache {
 public:
  static constexpr std::uint32_t kBlockBytes = 64 * 1024;
  using BlockNumbers = std::vector<std::uint32_t>;
  using Bytes = std::shared_ptr<const char[]>;

  explicit ContainerCache(std::size_t mostBytes) : mostBytes_(mostBytes) {}

  /// Begins those of the blocks `wanted` of the container `dcid`, of which `end` bytes can be read,
  /// that are neither there nor begun, as long as there is room for them, and adds their numbers to
  /// `*begun`, those of a failure included.
  void Begin(std::uint64_t dcid, const BlockNumbers& wanted, std::int64_t end, BlockNumbers* begun);

  /// The bytes of a block that was begun, LengthOf of them; and the end of one that cannot be read.
  void Put(std::uint64_t dcid, std::uint32_t number, Bytes bytes);
  void GiveUp(std::uint64_t dcid, std::uint32_t number);

  /// Copies `size` bytes at `offset` of the container to `out`, once the blocks that were begun are
  /// there. False, and nothing copied, if not all of them are.
  bool Read(std::uint64_t dcid, std::int64_t offset, std::uint32_t size, char* out);

  /// Bytes of a block of a container of `end` bytes.
  static std::uint32_t LengthOf(std::uint32_t number, std::int64_t end);

  std::size_t bytes() const;  ///< kept, and begun

 private:
  using Key = std::pair<std::uint64_t, std::uint32_t>;  // container, number
  struct Block {
    std::uint32_t length = 0;
    Bytes bytes;                      // null: begun
    std::list<Key>::iterator recent;  // if it is there
  };
  using Blocks = std::map<Key, Block>;

  bool IsKept(const Key& key, std::uint32_t length);
  bool MakeRoomFor(std::uint32_t length);
  void Remove(Blocks::iterator block);

  const std::size_t mostBytes_;
  mutable std::mutex mutex_;
  std::condition_variable ended_;  // a block that was begun
  Blocks blocks_;
  std::list<Key> recent_;  // of those that are there; the one used last in front
  std::size_t bytes_ = 0;
};

}  // namespace zefs::refhost
