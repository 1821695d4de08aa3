#pragma once

#include <string>

namespace zefs::refhost {

// Directories of tables, as a whole. Failures are StoreErrors.

bool IsDirectory(const std::string& path);

/// Renames the directory. False, with nothing changed, if `to` is on another file system. The two
/// parents are still to be synced.
bool RenameDirectory(const std::string& from, const std::string& to);

/// Copies a table that is not open anywhere: its files, all synced, without locks, to the directory
/// `to`, which is made, its parent still to be synced. After a failure what was copied stays.
void CopyDirectory(const std::string& from, const std::string& to);

}  // namespace zefs::refhost
