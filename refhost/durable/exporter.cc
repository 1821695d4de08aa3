#include "refhost/durable/exporter.h"

#include <fcntl.h>
#include <unistd.h>

#include "refhost/host/sha256.h"
#include "refhost/store/file_handle.h"
#include "refhost/store/store_error.h"

namespace zefs::refhost {

namespace {

constexpr std::size_t kBlockBytes = std::size_t{1} << 20;

std::uint64_t CopyOut(DurableStore* store, const std::string& name, FileHandle* out,
                      const StoreProgress& progress) {
  const auto size = static_cast<std::uint64_t>(store->SizeOf(name));
  Sha256Hasher hasher;
  std::string block(kBlockBytes, '\0');
  std::uint64_t done = 0;
  for (;;) {
    const auto at = static_cast<std::int64_t>(done);
    const std::size_t got = store->Read(name, at, block.data(), block.size());
    if (got == 0) {
      break;
    }
    hasher.Update(block.data(), got);
    out->WriteAt(at, std::string_view(block).substr(0, got));
    done += got;
    if (progress) {
      progress("get", done, size);
    }
  }
  const CatalogueEntry entry = store->Catalogued().at(name);
  if (!entry.changing && hasher.Finish() != entry.digest) {
    throw DamageError("'" + name + "' is not as it was at its last sync: its digest differs");
  }
  return done;
}

}  // namespace

std::uint64_t ExportFile(DurableStore* store, const std::string& name,
                         const std::string& destination, const StoreProgress& progress) {
  store->SizeOf(name);  // or there is no such file
  FileHandle out = FileHandle::Open(destination, O_WRONLY | O_CREAT | O_EXCL);
  try {
    return CopyOut(store, name, &out, progress);
  } catch (...) {
    ::unlink(destination.c_str());
    throw;
  }
}

}  // namespace zefs::refhost
