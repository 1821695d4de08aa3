#include "host/fingerprint.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <tuple>

// Fingerprints are SHA-256 digests; their text is lower-case hexadecimal and nothing else, so that
// a fingerprint has exactly one text. The empty fingerprint is all zero.

namespace {

constexpr std::size_t kBytes = std::tuple_size_v<crfp_digest_t>;
constexpr std::size_t kDigits = 2 * kBytes;
constexpr std::uint8_t kNoDigit = 0xff;

/// The two digits of each byte, one after the other.
constexpr std::array<char, 2 * 256> MakePairs() {
  constexpr char digits[] = "0123456789abcdef";
  std::array<char, 2 * 256> pairs{};
  for (std::size_t byte = 0; byte < 256; ++byte) {
    pairs[2 * byte] = digits[byte >> 4];
    pairs[2 * byte + 1] = digits[byte & 15];
  }
  return pairs;
}

constexpr std::array<std::uint8_t, 256> MakeValues() {
  std::array<std::uint8_t, 256> values{};
  for (std::uint8_t& value : values) {
    value = kNoDigit;
  }
  for (std::uint8_t value = 0; value < 16; ++value) {
    values[static_cast<std::size_t>(value < 10 ? '0' + value : 'a' + value - 10)] = value;
  }
  return values;
}

constexpr std::array<char, 2 * 256> kPairs = MakePairs();
constexpr std::array<std::uint8_t, 256> kValues = MakeValues();
constexpr char kEmptyText[] = "0000000000000000000000000000000000000000000000000000000000000000";
static_assert(sizeof(kEmptyText) == kDigits + 1);

}  // namespace

int CRFPDigestToString_r(const unsigned char* digest, int kind, char* buffer, unsigned long size) {
  if (kind != kCrfpDigestKind || size <= kDigits) {
    return -1;
  }
  for (std::size_t i = 0; i < kBytes; ++i) {
    std::memcpy(buffer + 2 * i, &kPairs[2 * std::size_t{digest[i]}], 2);
  }
  buffer[kDigits] = '\0';
  return 0;
}

int CRFPStringToDigest_r(const char* text, int kind, unsigned char* digest) {
  if (kind != kCrfpDigestKind) {
    return -1;
  }
  crfp_digest_t parsed;
  for (std::size_t i = 0; i < kBytes; ++i) {  // stops at a NUL: it is no digit
    const std::uint8_t high = kValues[static_cast<unsigned char>(text[2 * i])];
    if (high == kNoDigit) {
      return -1;
    }
    const std::uint8_t low = kValues[static_cast<unsigned char>(text[2 * i + 1])];
    if (low == kNoDigit) {
      return -1;
    }
    parsed[i] = static_cast<unsigned char>(high << 4 | low);
  }
  if (text[kDigits] != '\0') {
    return -1;
  }
  std::copy(parsed.begin(), parsed.end(), digest);
  return 0;
}

int CRFPIsEmptyDigest(const unsigned char* digest, int kind) {
  return kind == kCrfpDigestKind &&
                 std::all_of(digest, digest + kBytes, [](unsigned char byte) { return byte == 0; })
             ? 1
             : 0;
}

const char* CRFPEmptyFP(int kind) {
  return kind == kCrfpDigestKind ? kEmptyText : "";
}
