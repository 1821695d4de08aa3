#pragma once

#include <cstdint>
#include <string>

#include "refhost/host/sha256.h"
#include "refhost/replay/piece.h"

namespace zefs::refhost {

/// Sums up a final state: which line wrote each byte last. Pieces come in rising order of unit and
/// offset.
class FinalState {
 public:
  /// Adds one piece. A piece that goes on where the last one of the same unit ended, with the same
  /// line, belongs to the same run.
  void Add(unsigned long unit, const Piece& piece);

  /// Ends the last run. To be called once, before the results are taken.
  void Finish();

  /// Maximal runs of bytes with one last writer.
  std::uint64_t runs() const { return runs_; }
  /// Bytes that have a writer.
  std::uint64_t bytes() const { return bytes_; }
  /// SHA-256, as text, of one line for each run: unit, start, end and line of the trace counted
  /// from 0, in decimal, with one space between them and a newline behind them.
  const std::string& digest() const { return digest_; }

 private:
  void EndRun();

  Sha256Hasher hasher_;
  unsigned long unit_ = 0;
  Piece run_;
  bool open_ = false;  // run_ has not been hashed yet
  std::uint64_t runs_ = 0;
  std::uint64_t bytes_ = 0;
  std::string digest_;
};

}  // namespace zefs::refhost
