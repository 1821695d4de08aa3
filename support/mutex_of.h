#pragma once

#include <mutex>

namespace Aldenta::Qnd::Morene::Zefs {

/// A mutex for the object at this address, for classes whose members are laid down and leave no
/// room for one. Objects share some sixty of them: whoever holds one takes no other, and holds it
/// for moments.
std::mutex& MutexOf(const void* object);

}  // namespace Aldenta::Qnd::Morene::Zefs
