#include "refhost/durable/store_figures.h"

#include <cstring>
#include <filesystem>
#include <string_view>

#include <sys/stat.h>

#include "refhost/index/lmdb_file.h"
#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kBlockBytes = 512;  // of st_blocks

/// Extents have their end as key, 8 bytes and above 0; what a table keeps besides has keys below 0.
std::uint64_t CountExtents(const std::string& database) {
  if (!fs::exists(database)) {
    return 0;
  }
  std::uint64_t extents = 0;
  LmdbFile::ToLookAt(database).ForEach([&](std::string_view key, std::string_view /*value*/) {
    std::int64_t end = 0;
    if (key.size() == sizeof end) {
      std::memcpy(&end, key.data(), sizeof end);
    }
    extents += end > 0 ? 1 : 0;
  });
  return extents;
}

/// Calls `take` with the status of everything below `directory`.
template <typename Take>
void ForAllBelow(const std::string& directory, const Take& take) {
  std::error_code error;
  fs::recursive_directory_iterator entry(directory, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    struct stat status {};
    if (::lstat(entry->path().c_str(), &status) == 0) {
      take(status);
    }
  }
  if (error) {
    throw SystemError("list", directory, error.value());
  }
}

}  // namespace

void CountRecords(const std::string& directory, DatabaseRecords* records) {
  records->tmp += CountExtents(directory + "/tmp.mdb");
  records->small += CountExtents(directory + "/lsml0.mdb");
  records->full += CountExtents(directory + "/data.mdb");
}

StoreFigures FiguresOf(DurableStore* store) {
  StoreFigures figures;
  figures.tables.resize(store->directory().volumes());
  for (const auto& [name, entry] : store->Catalogued()) {
    ++figures.files;
    figures.changing += entry.changing ? 1 : 0;
    figures.logicalBytes += static_cast<std::uint64_t>(entry.size);
    ++figures.tables.at(VolumeOf(entry.table));
    CountRecords(store->directory().table(entry.table), &figures.records);
  }
  figures.objects = store->objects().objects();
  ForAllBelow(store->directory().containers(), [&](const struct stat& status) {
    ++figures.containers;
    figures.containerBytes += static_cast<std::uint64_t>(status.st_size);
  });
  const auto addBlocks = [&](const struct stat& status) {
    figures.diskBytes += static_cast<std::uint64_t>(status.st_blocks) * kBlockBytes;
  };
  ForAllBelow(store->directory().path(), addBlocks);
  for (std::size_t i = 0; i < store->directory().format().volumes.size(); ++i) {
    ForAllBelow(store->directory().tables(i), addBlocks);
  }
  return figures;
}

}  // namespace zefs::refhost
