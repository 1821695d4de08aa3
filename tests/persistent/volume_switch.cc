#include "tests/persistent/volume_switch.h"

#include <cerrno>
#include <utility>

#include <sys/statvfs.h>

namespace zefs::test {
namespace {

Volumes* known = nullptr;

}  // namespace

Volumes::Volumes() {
  known = this;
}

Volumes::~Volumes() {
  known = nullptr;
}

std::vector<std::string> Volumes::TakeMeasured() {
  return std::exchange(measured_, {});
}

const VolumeSize* Volumes::Measure(const std::string& path) {
  measured_.push_back(path);
  const auto size = sizes_.find(path);
  return size == sizes_.end() ? nullptr : &size->second;
}

}  // namespace zefs::test

// The linker sends the library's calls of `statvfs64` here.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the names that the linker's --wrap prescribes
int __real_statvfs64(const char* path, struct statvfs64* out);
int __wrap_statvfs64(const char* path, struct statvfs64* out) {
  if (zefs::test::known == nullptr) {
    return __real_statvfs64(path, out);
  }
  const zefs::test::VolumeSize* const size = zefs::test::known->Measure(path);
  if (size == nullptr || size->error != 0) {
    errno = size == nullptr ? ENOENT : size->error;
    return -1;
  }
  *out = {};
  out->f_bsize = 2 * size->unit;  // what a volume prefers to transfer; nothing is counted in it
  out->f_frsize = size->unit;
  out->f_blocks = size->blocks;
  out->f_bfree = size->free;
  out->f_bavail = size->available;
  return 0;
}
// NOLINTEND(bugprone-reserved-identifier)
}
