#pragma once

#include <ctime>

namespace zefs::test {

/// From now on each look at the clock of the process, by `time`, sees it `step` seconds later than
/// the look before; 0 gives the real clock back. For one thread that looks.
void SetClockStep(std::time_t step);

/// From now on each look sees this time, until SetClockStep.
void StopClockAt(std::time_t seconds);

}  // namespace zefs::test
