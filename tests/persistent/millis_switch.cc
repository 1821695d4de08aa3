#include "tests/persistent/millis_switch.h"

#include <utility>

namespace {

bool switched = false;
std::uint64_t next = 0;
std::function<void()> hook;

}  // namespace

// The linker sends the calls of the host's function to the second, and offers its own as the first.
unsigned long RealMillis() asm("__real__Z10get_millisv");
unsigned long SwitchedMillis() asm("__wrap__Z10get_millisv");

unsigned long SwitchedMillis() {
  if (!switched) {
    return RealMillis();
  }
  if (hook) {
    hook();
  }
  return next++;
}

namespace zefs::test {

MillisSwitch::MillisSwitch(std::uint64_t first, std::function<void()> atEach) {
  next = first;
  hook = std::move(atEach);
  switched = true;
}

MillisSwitch::~MillisSwitch() {
  switched = false;
  hook = nullptr;
}

}  // namespace zefs::test
