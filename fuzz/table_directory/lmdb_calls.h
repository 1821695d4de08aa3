#pragma once

namespace zefs::fuzz {

/// Calls of LMDB by this program so far.
unsigned long LmdbCalls();

/// The LMDB function that some thread is inside, or null. Of two threads the last to enter counts.
const char* InsideLmdb();

}  // namespace zefs::fuzz
