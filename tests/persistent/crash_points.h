#pragma once

#include <cstddef>
#include <string>

#include "tests/persistent/lmdb_writes.h"
#include "tests/support/fault_injection.h"

namespace zefs::test {

/// A point at which the process dies: the nth call of a kind, or, behind the last kind, the nth
/// time that LMDB itself writes or syncs.
struct CrashPoint {
  std::size_t kind;
  int nth;
};
inline constexpr std::size_t kCrashKinds = kCalls + 1;

/// The process dies there, of all calls on what lies below `directory`. For programs that compile
/// lmdb_writes.cc.
inline void Arm(const std::string& directory, CrashPoint point) {
  Faults::OnlyBelow(directory);
  if (point.kind < kCalls) {
    Faults::KillNth(static_cast<Call>(point.kind), point.nth);
  } else {
    DieAtLmdbWrite(point.nth);
  }
}

/// It lives.
inline void Disarm() {
  DieAtLmdbWrite(0);
  Faults::Reset();
}

}  // namespace zefs::test
