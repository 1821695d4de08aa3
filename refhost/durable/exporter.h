#pragma once

#include <cstdint>
#include <string>

#include "refhost/durable/durable_store.h"
#include "refhost/durable/importer.h"

namespace zefs::refhost {

/// Writes the file `name` of the store to `destination`, where there is nothing yet, and returns
/// its bytes. Throws DamageError if what was read is not what the last sync saw, StoreError for all
/// else; nothing stays at `destination` then.
std::uint64_t ExportFile(DurableStore* store, const std::string& name,
                         const std::string& destination, const StoreProgress& progress);

}  // namespace zefs::refhost
