#pragma once

#include <string>

namespace Aldenta::Qnd::Morene::Zefs {

/// Looks at what LMDB takes on trust when it opens the database file at `path`, from which a
/// damaged or shortened file would have it die of a signal: the newer of the two meta pages, and
/// whether the file reaches as far as it says. 0 if it can be opened, or is for LMDB to make or to
/// refuse; MDB_INVALID, MDB_CORRUPTED, MDB_INCOMPATIBLE or a system code if it cannot, and the log
/// says why. Costs a few system calls, whatever the size of the file, and refuses nothing that a
/// crash can leave.
///
/// A file that is shorter than its pages is made longer, with zeros that take no room: the last
/// pages of a sound one may never have been written, and a page of zeros that is missed after all
/// is an error to LMDB, not a signal. The caller has no environment of this file open.
int CheckDatabaseFile(const std::string& path);

}  // namespace Aldenta::Qnd::Morene::Zefs
