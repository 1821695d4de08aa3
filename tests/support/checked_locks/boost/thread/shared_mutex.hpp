#pragma once
#pragma GCC system_header  // as what it stands in front of

// Stands in front of Boost's header of this name in a build that checks locks: the class there gets
// another name, and the one of that name here tells the checker what is done with each lock, and
// the thread sanitizer that its readers do not order each other.

#define shared_mutex unchecked_shared_mutex  // NOLINT(cppcoreguidelines-macro-usage)
#include_next <boost/thread/shared_mutex.hpp>
#undef shared_mutex

#include "tests/support/checked_locks/checked_shared_mutex.h"

namespace boost {
using shared_mutex = zefs::test::locks::CheckedSharedMutex;
}
