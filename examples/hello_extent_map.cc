// Maps a file made of two objects, overwrites its middle with a third, and reads the map back.
#include <cstdio>
#include <memory>

#include "table/mapping_table.h"

using Aldenta::Qnd::Morene::Zefs::CMappingTable;
using Aldenta::Qnd::Morene::Zefs::CreateMappingTable;
using Aldenta::Qnd::Morene::Zefs::ObjectID;

int main() {
  const ObjectID first{64, {0xa1}}, second{64, {0xb2}}, third{65, {0xc3}};

  const std::unique_ptr<CMappingTable> table(CreateMappingTable(nullptr, ""));
  table->append(0, 16384, &first, 0, 0, nullptr, nullptr);
  table->append(16384, 32768, &second, 0, 0, nullptr, nullptr);
  table->insert(12288, 20480, &third, 0, 0, nullptr, -1, nullptr);

  for (auto extent = table->begin(); extent != table->end(); ++extent) {
    std::printf("[%5ld, %5ld) object %02x, container %lu, from its byte %ld on\n", extent->sOff,
                extent->eOff, extent->objectID.fp[0], extent->objectID.dcid, extent->objOff);
  }

  std::vector<std::pair<unsigned long, unsigned long>> containers;
  table->GetNewReferencedDCID(&containers);
  for (const auto& [dcid, bytes] : containers) {
    std::printf("container %lu: %lu bytes referenced\n", dcid, bytes);
  }
}
