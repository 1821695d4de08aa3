#pragma once

#include <cstddef>

namespace zefs::test {

/// While it lives, a database that asks for a map of `wanted` bytes gets one of `bytes` bytes. For
/// programs that compile small_map.cc and have calls of mdb_env_set_mapsize sent there by the
/// linker. One lives at a time.
class SmallMap {
 public:
  SmallMap(std::size_t wanted, std::size_t bytes);
  ~SmallMap();
  SmallMap(const SmallMap&) = delete;
  SmallMap& operator=(const SmallMap&) = delete;
};

}  // namespace zefs::test
