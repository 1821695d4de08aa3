#include "host/bloom_filter.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <stdexcept>

// Sizing. A filter is stored as its bytes and comes back as BloomFilter(bufferSize, rate):
// bufferSize is then taken for a count. Fingerprints keep their positions because
//  - the number of positions follows from the rate alone, and
//  - the size is a power of two from kSmallest up, and a count that is itself such a number gets
//    exactly that many bytes.
// Every other count gets the room that its rate needs. So a count that happens to be a power of two
// has to make do with eight bits an entry, however small the rate; it cannot be told from a reload.

namespace {

constexpr unsigned long kSmallest = 64;        // bytes, one cache line
constexpr unsigned long kLargest = 1UL << 31;  // the largest power of two in an unsigned int
constexpr double kMostPositions = 64;          // below a rate of 2^-64 no filter gets better

bool IsPowerOfTwo(unsigned long n) {
  return n != 0 && (n & (n - 1)) == 0;
}

/// The best number for a filter of that rate, rounded up.
unsigned int PositionsFor(double falsePositive) {
  if (!(falsePositive > 0 && falsePositive < 1)) {  // false for NaN
    throw std::invalid_argument("a bloom filter needs a false-positive rate between 0 and 1");
  }
  return static_cast<unsigned int>(
      std::clamp(std::ceil(-std::log2(falsePositive)), 1.0, kMostPositions));
}

unsigned int BufferSizeFor(unsigned long n, unsigned int positions) {
  const double bytesPerEntry = std::max(1.0, positions / (8 * std::log(2)));
  const bool ownSize = IsPowerOfTwo(n) && n >= kSmallest;
  const double needed = static_cast<double>(n) * (ownSize ? 1.0 : bytesPerEntry);
  if (needed > static_cast<double>(kLargest)) {
    throw std::length_error("a bloom filter for so many fingerprints is too large");
  }
  unsigned long size = kSmallest;
  while (static_cast<double>(size) < needed) {
    size *= 2;
  }
  return static_cast<unsigned int>(size);
}

/// Calls `visit(byte, bit)` for each position of `fp` in a filter of `size` bytes, a power of two,
/// until it returns false. True if it never did. A fingerprint is itself a good hash: its first two
/// words are start and step. The step grows, or positions of many fingerprints would overlap in
/// rows.
template <typename Visit>
bool VisitPositions(const crfp_digest_t& fp, unsigned int positions, unsigned int size,
                    Visit visit) {
  std::uint64_t position;
  std::uint64_t step;
  std::memcpy(&position, fp.data(), sizeof(position));
  std::memcpy(&step, fp.data() + sizeof(position), sizeof(step));
  const std::uint64_t mask = std::uint64_t{size} * 8 - 1;
  for (unsigned int i = 0; i < positions; ++i) {
    const std::uint64_t bit = position & mask;
    if (!visit(bit / 8, static_cast<unsigned char>(1U << bit % 8))) {
      return false;
    }
    position += step;
    step += i + 1;
  }
  return true;
}

}  // namespace

BloomFilter::BloomFilter(unsigned long n, double falsePositive)
    : expected_(n),
      maxFalsePositive_(falsePositive),
      hashFunctionCount_(PositionsFor(falsePositive)),
      bufferSize_(BufferSizeFor(n, hashFunctionCount_)),
      bits_(std::make_unique<unsigned char[]>(bufferSize_)) {}  // zeroed

BloomFilter::~BloomFilter() = default;

void BloomFilter::Insert(const crfp_digest_t& fp) {
  unsigned char* const bits = bits_.get();
  VisitPositions(fp, hashFunctionCount_, bufferSize_,
                 [bits](std::uint64_t byte, unsigned char bit) {
                   bits[byte] |= bit;
                   return true;
                 });
  ++inserted_;
}

bool BloomFilter::Contains(const crfp_digest_t& fp) const {
  const unsigned char* const bits = bits_.get();
  return VisitPositions(
      fp, hashFunctionCount_, bufferSize_,
      [bits](std::uint64_t byte, unsigned char bit) { return (bits[byte] & bit) != 0; });
}

unsigned int BloomFilter::GetBufferSize() const {
  return bufferSize_;
}

unsigned char* BloomFilter::GetBloom() const {
  return bits_.get();
}

unsigned long BloomFilter::GetBitmapSize() const {
  return 8UL * bufferSize_;
}

unsigned long BloomFilter::GetExpectedFingerprints() const {
  return expected_;
}

unsigned long BloomFilter::GetInsertedFingerPrints() const {
  return inserted_;
}

void BloomFilter::SetInsertedFingerPrints(unsigned long count) {
  inserted_ = count;
}

unsigned int BloomFilter::GetHashFunctionCount() const {
  return hashFunctionCount_;
}

double BloomFilter::GetMaxFalsePositive() const {
  return maxFalsePositive_;
}
