#pragma once

#include <string>

#include "fuzz/table_directory/case.h"

namespace zefs::fuzz {

/// What a life has come to, for the tally: "loaded", "loaded, operations failed", or why it was
/// refused.
struct LifeResult {
  std::string load;       ///< "loaded", or how the load ended
  unsigned failures = 0;  ///< operations that threw or gave a code
};

/// Loads the table in `directory`, has it do everything that a host asks of a table, in an order of
/// its own, and destroys it. Ends the program as a finding if a walk has no end or an exception
/// tells of an allocation out of all proportion.
LifeResult Live(const LifePlan& plan, const std::string& directory);

}  // namespace zefs::fuzz
