#pragma once

#include <string>
#include <utility>
#include <vector>

namespace zefs::test {

/// The arguments of each EnableNommap call of this program since the last time, in their order.
/// Forgets them. For programs that link zefs_nommap_recorder; the calls are from one thread.
std::vector<std::pair<std::string, int>> TakeNommapCalls();

}  // namespace zefs::test
