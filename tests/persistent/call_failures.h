#pragma once

#include <functional>
#include <string>

#include "tests/persistent/file_calls.h"
#include "tests/support/fault_injection.h"

namespace zefs::test {

/// Failures of one kind of call, whichever of the two nets knows it.
struct CallFailures {
  std::function<void(int nth)> fail;  ///< the nth from now on; 0: none any more
  std::function<bool()> fired;        ///< whether one has, since
};

/// Of calls on what lies below `directory`, which somebody watches.
inline CallFailures FailuresOf(Call call, int code, const std::string& directory) {
  const auto fail = [=](int nth) {
    Faults::Disarm();
    if (nth != 0) {
      Faults::OnlyBelow(directory);
      Faults::FailNth(call, nth, code);
    }
  };
  return {fail, [] { return Faults::Fired(); }};
}

/// Of calls on whatever file, but for the first `beside`.
inline CallFailures FailuresOf(FileCall call, int code, int beside = 0) {
  const auto fail = [=](int nth) { FailFileCall(call, nth == 0 ? 0 : nth + beside, code); };
  return {fail, [] { return FileCallFailed(); }};
}

}  // namespace zefs::test
