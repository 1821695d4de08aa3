#pragma once

#include <string>
#include <vector>

#include "support/visibility.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Chooses the volume that a new table goes to. With `multiVolume`, tables are spread over
/// `volumes`, paths of directories, by a hash of `key`; one whose volume is full goes to the first
/// other volume but the first in the list that is not, and, if there is none, to the first. Empty
/// without `multiVolume` and for an empty list. The answer may change as volumes fill up: the host
/// keeps it.
///
/// A volume is measured every 10 seconds at most. The measurements are shared by the whole process
/// and not synchronised: the host asks from one thread at a time.
ZEFS_EXTMAP_API std::string GetExtentPathInMVolume(const std::vector<std::string>& volumes,
                                                   bool multiVolume, const std::string& key);

/// Whether 92 percent of a volume, or more, cannot be written by an ordinary user. A volume that
/// cannot be measured is full. Not synchronised, as above.
bool isVolumeFull(const std::string& volume);

}  // namespace Aldenta::Qnd::Morene::Zefs
