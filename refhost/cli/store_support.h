#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

#include "refhost/cache/node_counts.h"
#include "refhost/cli/report.h"
#include "refhost/durable/durable_store.h"
#include "refhost/store/store_error.h"

// What the commands on a store share.

namespace zefs::refhost {

class Stopwatch {
 public:
  double seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start_ = Clock::now();
};

inline double PerSecond(std::uint64_t count, double seconds) {
  return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}

/// For a store that has to be there.
inline DurableStoreOptions Existing(const ReadAheadOptions& readAhead = {}) {
  DurableStoreOptions options;
  options.readAhead = readAhead;
  options.missing = StoreDirectory::Missing::kIsAnError;
  return options;
}

inline void Print(const char* headline, const Report& report, bool json, std::ostream& out) {
  if (json) {
    out << report.Json();
  } else {
    out << headline << ":\n" << report.Text();
  }
}

inline void RequireSound(const NodeCounts& nodes) {
  if (const std::string problem = nodes.Problem(); !problem.empty()) {
    throw DamageError(problem);
  }
}

}  // namespace zefs::refhost
