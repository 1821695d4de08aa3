#pragma once

#include <cstdint>
#include <functional>

// What get_millis says in this program. For programs that compile millis_switch.cc and let the
// linker wrap get_millis.

namespace zefs::test {

/// While an object of this class lives, get_millis says `first`, then `first` + 1 and so on, and
/// runs `atEach` before it answers: a plan asks once for each extent that it lists. One object at a
/// time.
class MillisSwitch {
 public:
  explicit MillisSwitch(std::uint64_t first, std::function<void()> atEach = {});
  ~MillisSwitch();
  MillisSwitch(const MillisSwitch&) = delete;
  MillisSwitch& operator=(const MillisSwitch&) = delete;
};

}  // namespace zefs::test
