#pragma once

#include <string>

#include "refhost/store/file_handle.h"

namespace zefs::refhost {

class StoreError;

/// Opens a file that is to be read into a store, and that was a regular one when it was found.
/// Throws StoreError if it cannot be opened or is not regular any more.
FileHandle OpenSource(const std::string& path);

/// Why a file is passed over whose opening or reading threw `error`. The path is told beside it.
std::string ReasonToSkip(const StoreError& error);

}  // namespace zefs::refhost
