#pragma once

#include <cstddef>
#include <cstdint>

namespace Aldenta::Qnd::Morene::Zefs {

/// Adler-32 of RFC 1950 over the `size` bytes at `bytes`; 1 if there are none.
std::uint32_t Adler32(const unsigned char* bytes, std::size_t size);

}  // namespace Aldenta::Qnd::Morene::Zefs
