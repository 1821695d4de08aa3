#include "tests/system/faults/memory_faults.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define ZEFS_FAILING_MALLOC
// The C library's own, behind the names that this file takes from it.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
}
#endif

namespace zefs::test {
namespace {

std::atomic<bool> watching{false};
std::array<std::atomic<int>, 2> counts{};
Allocator failing{};
int failsAt = 0;  // 0: never
bool failsForGood = false;
std::atomic<bool> fired{false};
std::atomic<long> live{0};
thread_local int spared = 0;

bool Fails(Allocator allocator) {
  if (!watching.load(std::memory_order_relaxed) || spared != 0) {
    return false;
  }
  const int number = ++counts.at(static_cast<std::size_t>(allocator));
  if (failsAt == 0 || allocator != failing ||
      !(number == failsAt || (failsForGood && number > failsAt))) {
    return false;
  }
  fired = true;
  return true;
}

void* Allocate(std::size_t size) noexcept {
  if (Fails(Allocator::kNew)) {
    return nullptr;
  }
#ifdef ZEFS_FAILING_MALLOC
  void* const memory = __libc_malloc(size == 0 ? 1 : size);
#else
  void* const memory = std::malloc(size == 0 ? 1 : size);
#endif
  live += memory != nullptr ? 1 : 0;
  return memory;
}

void* AllocateOrThrow(std::size_t size) {
  void* const memory = Allocate(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void Free(void* memory) noexcept {
  live -= memory != nullptr ? 1 : 0;
  std::free(memory);
}

}  // namespace

void MemoryFaults::Start() {
  counts[0] = 0;
  counts[1] = 0;
  failsAt = 0;
  fired = false;
  watching = true;
}

void MemoryFaults::Stop() {
  watching = false;
}

void MemoryFaults::FailNth(Allocator allocator, int nth, bool forGood) {
  failing = allocator;
  failsAt = nth;
  failsForGood = forGood;
}

int MemoryFaults::Count(Allocator allocator) {
  return counts.at(static_cast<std::size_t>(allocator));
}

bool MemoryFaults::Fired() {
  return fired;
}

long MemoryFaults::Live() {
  return live;
}

MemoryFaults::Spared::Spared() {
  ++spared;
}

MemoryFaults::Spared::~Spared() {
  --spared;
}

}  // namespace zefs::test

// All forms of operator new but the over-aligned ones, lest a sanitizer's own be mixed with these.
void* operator new(std::size_t size) {
  return zefs::test::AllocateOrThrow(size);
}
void* operator new[](std::size_t size) {
  return zefs::test::AllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return zefs::test::Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return zefs::test::Allocate(size);
}
void operator delete(void* memory) noexcept {
  zefs::test::Free(memory);
}
void operator delete[](void* memory) noexcept {
  zefs::test::Free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  zefs::test::Free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  zefs::test::Free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  zefs::test::Free(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
  zefs::test::Free(memory);
}

#ifdef ZEFS_FAILING_MALLOC
extern "C" {

__attribute__((visibility("default"))) void* malloc(std::size_t size) noexcept {
  if (zefs::test::Fails(zefs::test::Allocator::kMalloc)) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_malloc(size);
}
__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) noexcept {
  if (zefs::test::Fails(zefs::test::Allocator::kMalloc)) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_calloc(count, size);
}
__attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size) noexcept {
  if (zefs::test::Fails(zefs::test::Allocator::kMalloc)) {
    errno = ENOMEM;
    return nullptr;
  }
  return __libc_realloc(memory, size);
}

}  // extern "C"
#endif
