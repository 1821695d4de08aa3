#include "tests/system/faults/small_map.h"

#include <atomic>
#include <lmdb.h>

namespace zefs::test {
namespace {

std::atomic<std::size_t> replaced{0};
std::atomic<std::size_t> replacement{0};

}  // namespace

SmallMap::SmallMap(std::size_t wanted, std::size_t bytes) {
  replacement = bytes;
  replaced = wanted;
}

SmallMap::~SmallMap() {
  replaced = 0;
}

}  // namespace zefs::test

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
extern "C" {

int __real_mdb_env_set_mapsize(MDB_env* env, std::size_t size);
int __wrap_mdb_env_set_mapsize(MDB_env* env, std::size_t size) {
  const bool isSmall = size == zefs::test::replaced;
  return __real_mdb_env_set_mapsize(env, isSmall ? zefs::test::replacement.load() : size);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
