#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "refhost/store/files.h"
#include "refhost/store/segmenter.h"

namespace zefs::refhost {

/// What the tables of a check did; nothing for tables in memory.
struct TableActivity {
  std::uint64_t flushes = 0;  ///< that wrote something
  std::uint64_t merges = 0;
  std::uint64_t nodes = 0;  ///< of the data cache, each released once
};

/// The store that a check fills: files over tables of one kind, and the containers behind them.
class CheckedStore {
 public:
  virtual ~CheckedStore() = default;

  virtual TableKind kind() const = 0;
  virtual Files& files() = 0;

  /// All that was written so far is stored.
  virtual void Sync() = 0;

  /// All that was written is in its last place. Called once, before the files are read again: a
  /// store that lasts is closed and opened in between.
  virtual void Settle() = 0;

  /// What the store has noticed of itself that is wrong, in one line; empty if nothing.
  virtual std::string Problem() = 0;

  virtual TableActivity Activity() = 0;
  virtual std::uint64_t putBytes() const = 0;     ///< as of ObjectStore
  virtual std::uint64_t storedBytes() const = 0;  ///< as of ObjectStore
  virtual std::uint64_t containers() const = 0;   ///< written
};

/// A store of the given kind in `directory`, which is empty.
std::unique_ptr<CheckedStore> MakeCheckedStore(TableKind kind, const std::string& directory,
                                               const Segmenter& segmenter,
                                               std::uint32_t containerBytes);

}  // namespace zefs::refhost
