#pragma once

#include <cstdint>
#include <vector>

#include "persistent/ext_lmdb.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Extents by offset that do not overlap.
using PrefetchRun = std::vector<ExtLMDB>;

/// Merges the run `fetched`, which is not empty, into `*run`. Runs that are apart, and one that
/// covers what was there, replace it; one that lies inside it changes nothing. Of two that overlap,
/// the one that begins first goes first, and the other adds what begins behind the start of its
/// last extent. From the old run only those extents are kept, and to an old run only those added,
/// whose start lies within `span` bytes of the start of `fetched`.
void MergePrefetched(PrefetchRun fetched, std::uint32_t span, PrefetchRun* run);

}  // namespace Aldenta::Qnd::Morene::Zefs
