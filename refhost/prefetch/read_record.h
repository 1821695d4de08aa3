#pragma once

#include <string>

#include "refhost/prefetch/read_ahead.h"

namespace zefs::refhost {

/// The figures of all runs that a store has seen, in a text file of its own. It only informs: it is
/// not synced, and one that is missing or cannot be understood counts as none.
class ReadRecord {
 public:
  explicit ReadRecord(std::string path) : path_(std::move(path)) {}

  ReadAheadFigures Load() const;

  /// Adds those of one run. A failure is logged.
  void Add(const ReadAheadFigures& figures) const;

 private:
  std::string path_;
};

}  // namespace zefs::refhost
