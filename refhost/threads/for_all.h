#pragma once

#include <cstddef>
#include <functional>

namespace zefs::refhost {

/// Calls `work` with 0 up to `count` - 1, in up to `threads` threads at once. For work that waits:
/// syncs of many files take little longer together than one alone. Throws what the first call that
/// failed threw, when all that had begun have ended; the rest is not begun then.
void ForAll(std::size_t count, std::size_t threads, const std::function<void(std::size_t)>& work);

}  // namespace zefs::refhost
