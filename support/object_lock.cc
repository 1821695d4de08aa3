#include "support/object_lock.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

std::mutex& MutexOf(const void* object) {
  constexpr std::size_t kLine = 64;  // bytes of a line of the processor's cache
  struct alignas(kLine) Alone {
    std::mutex mutex;
  };
  static std::array<Alone, 61> mutexes;
  return mutexes.at(reinterpret_cast<std::uintptr_t>(object) / kLine % mutexes.size()).mutex;
}

}  // namespace

ObjectLock::ObjectLock(const void* object) : lock_(MutexOf(object)) {}

}  // namespace Aldenta::Qnd::Morene::Zefs
