#include <cstddef>

// LMDB takes offsets and lengths of a damaged page on trust, and writes up to 64 KiB behind the
// page that it has on the heap: what then lies there is damaged too, and the crash comes later, in
// code that is not to blame. So everything of the size of pages gets that much room behind it. The
// address sanitizer finds such writes itself.

#ifndef __SANITIZE_ADDRESS__
// NOLINTBEGIN(bugprone-reserved-identifier): the C library's name
extern "C" void* __libc_malloc(std::size_t size);
// NOLINTEND(bugprone-reserved-identifier)

extern "C" void* malloc(std::size_t size) noexcept {
  constexpr std::size_t kPage = 4096;
  constexpr std::size_t kSlack = std::size_t{1} << 17;
  return __libc_malloc(size != 0 && size % kPage == 0 ? size + kSlack : size);
}
#endif
