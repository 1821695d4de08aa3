#pragma once

namespace zefs::test {

/// The next thread that the table creates cannot be created, for this error. The handle is left
/// with rubbish in it. For programs that compile thread_switch.cc.
void FailNextThread(int error);

/// How often the table has tried to create one since the last call of this.
int TakeThreadCount();

}  // namespace zefs::test
