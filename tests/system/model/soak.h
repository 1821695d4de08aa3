#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ostream>

#include "tests/system/model/lives.h"

// Program after program with new seeds, in several processes at once.

namespace zefs::test {

struct SoakOptions {
  std::uint64_t seed = 1;      ///< of the first program; the next have the numbers behind it
  std::uint64_t programs = 0;  ///< 0: as many as fit into the time
  double minutes = 0;          ///< 0: no limit
  unsigned int jobs = 1;       ///< processes at once
  std::size_t length = 300;    ///< operations of a program
  int tries = 2000;            ///< programs tried to make a failing one short
};

/// Runs programs until they or the time are over, one shows a difference, or the process is
/// interrupted. Tells on `out` what is being done, a line that is rewritten if `isTerminal`, else
/// one now and then; a difference with its program made short; and at the end the figures. True if
/// there was no difference.
bool Soak(const SoakOptions& options, const TableMakers& makers, bool isTerminal,
          std::ostream* out);

}  // namespace zefs::test
