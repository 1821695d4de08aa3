#include "sidefiles/adler32.h"

#include <algorithm>

namespace Aldenta::Qnd::Morene::Zefs {

namespace {

constexpr std::uint32_t kModulus = 65521;  // the largest prime below 2^16
constexpr std::size_t kRun = 5552;         // bytes that may be added up before a reduction

// The sums after a run of the largest bytes, begun with the largest remainders, still fit; after
// one byte more they might not.
constexpr std::uint64_t LargestSum(std::uint64_t run) {
  return 255 * run * (run + 1) / 2 + (run + 1) * (kModulus - 1);
}
static_assert(LargestSum(kRun) <= UINT32_MAX && LargestSum(kRun + 1) > UINT32_MAX);

}  // namespace

std::uint32_t Adler32(const unsigned char* bytes, std::size_t size) {
  std::uint32_t a = 1;
  std::uint32_t b = 0;
  while (size != 0) {
    const std::size_t run = std::min(size, kRun);
    for (std::size_t i = 0; i < run; ++i) {
      a += bytes[i];
      b += a;
    }
    a %= kModulus;
    b %= kModulus;
    bytes += run;
    size -= run;
  }
  return b << 16 | a;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
