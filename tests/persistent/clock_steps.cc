#include "tests/persistent/clock_steps.h"

namespace {

std::time_t step = 0;
std::time_t now = 0;
bool stopped = false;

}  // namespace

// The linker sends calls of `time` here.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the names that the linker's --wrap prescribes
std::time_t __real_time(std::time_t* out);
std::time_t __wrap_time(std::time_t* out) {
  if (step == 0 && !stopped) {
    return __real_time(out);
  }
  now += step;
  return now;
}
// NOLINTEND(bugprone-reserved-identifier)
}

void zefs::test::SetClockStep(std::time_t seconds) {
  step = seconds;
  stopped = false;
}

void zefs::test::StopClockAt(std::time_t seconds) {
  step = 0;
  stopped = true;
  now = seconds;
}
