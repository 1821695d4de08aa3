#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "host/bloom_filter.h"

// Bloom files put together and taken apart byte by byte, without the code under test.

namespace zefs::test {

// Places in a bloom file.
inline constexpr std::size_t kAtBufferSize = 4;
inline constexpr std::size_t kAtInserted = 20;
inline constexpr std::size_t kAtRate = 36;
inline constexpr std::size_t kAtBloomCrc = 44;
inline constexpr std::size_t kAtListSize = 48;
inline constexpr std::size_t kAtListCrc = 52;
inline constexpr std::size_t kAtFilter = 60;

/// As RFC 1950 defines it, with a division for every byte.
inline std::uint32_t PlainAdler(const std::string& bytes) {
  std::uint32_t a = 1;
  std::uint32_t b = 0;
  for (const char c : bytes) {
    a = (a + static_cast<unsigned char>(c)) % 65521;
    b = (b + a) % 65521;
  }
  return b * 65536 + a;
}

/// The `width` bytes of a number, the lowest first.
inline std::string Little(std::uint64_t number, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) {
    bytes += static_cast<char>(number >> (8 * i) & 255U);
  }
  return bytes;
}

/// The number in the `width` bytes at `at`.
inline std::uint64_t NumberAt(const std::string& bytes, std::size_t at, std::size_t width) {
  std::uint64_t number = 0;
  for (std::size_t i = width; i > 0; --i) {
    number = number << 8U | static_cast<unsigned char>(bytes.at(at + i - 1));
  }
  return number;
}

inline std::uint64_t BitsOf(double number) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &number, sizeof(bits));
  return bits;
}

using DcidList = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

/// What a bloom file says.
struct BloomImage {
  std::uint32_t version = 1;
  std::uint32_t bitmapSize = 0;
  std::uint64_t expected = 0;
  std::uint64_t inserted = 0;
  std::uint32_t positions = 0;
  double rate = 0.02;
  std::string filter;
  DcidList list;

  /// The file, with the right checksums.
  std::string Bytes() const {
    std::string listBytes;
    for (const auto& [dcid, bytes] : list) {
      listBytes += Little(dcid, 8) + Little(bytes, 8);
    }
    const std::string size = Little(filter.size(), 4);
    const std::string insertedBytes = Little(inserted, 8);
    const std::string rateBytes = Little(BitsOf(rate), 8);
    return Little(version, 4) + size + Little(bitmapSize, 4) + Little(expected, 8) + insertedBytes +
           Little(positions, 4) + Little(0, 4) + rateBytes +
           Little(PlainAdler(filter + size + insertedBytes + rateBytes), 4) +
           Little(listBytes.size(), 4) + Little(PlainAdler(listBytes), 4) + Little(0, 4) + filter +
           listBytes;
  }
};

inline std::string DataOf(const BloomFilter& filter) {
  return {reinterpret_cast<const char*>(filter.GetBloom()), filter.GetBufferSize()};
}

inline BloomImage ImageOf(const BloomFilter& filter, const DcidList& list) {
  BloomImage image;
  image.bitmapSize = static_cast<std::uint32_t>(filter.GetBitmapSize());
  image.expected = filter.GetExpectedFingerprints();
  image.inserted = filter.GetInsertedFingerPrints();
  image.positions = filter.GetHashFunctionCount();
  image.rate = filter.GetMaxFalsePositive();
  image.filter = DataOf(filter);
  image.list = list;
  return image;
}

}  // namespace zefs::test
