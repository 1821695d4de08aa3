#pragma once

#include <cstdint>
#include <cstring>
#include <endian.h>

namespace zefs_bench {

/// An end offset as a key of a store that compares bytes: big-endian, never negative.
struct EndKey {
  static constexpr std::size_t kBytes = sizeof(std::uint64_t);

  explicit EndKey(std::int64_t end) : number(htobe64(static_cast<std::uint64_t>(end))) {}

  const char* data() const { return reinterpret_cast<const char*>(&number); }
  static std::int64_t Decode(const char* data) {
    std::uint64_t number = 0;
    std::memcpy(&number, data, sizeof(number));
    return static_cast<std::int64_t>(be64toh(number));
  }

  std::uint64_t number;
};

}  // namespace zefs_bench
