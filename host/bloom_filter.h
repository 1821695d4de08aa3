#pragma once

#include <memory>

#include "host/fingerprint.h"
#include "host/visibility.h"

/// A filter of fingerprints: it may answer yes for one that was never inserted, never no for one
/// that was. Supplied by the host; the library creates, fills, stores and reloads it.
///
/// The library stores the bytes at GetBloom() and later copies them into a new
/// BloomFilter(GetBufferSize(), GetMaxFalsePositive()). That filter must answer as the first did,
/// though it was built for another count. So the sizing rule maps its own buffer size to itself,
/// the number of positions of a fingerprint depends on the rate alone, and the buffer holds at
/// least as many bytes as the count given to the constructor.
///
/// Not synchronised: one writer, or any number of readers.
class ZEFS_HOST_API BloomFilter {
 public:
  /// An empty filter for `n` entries at the false-positive rate `falsePositive`, which lies
  /// strictly between 0 and 1. A count that could be the buffer size of a stored filter is taken
  /// for one and gets just as many bytes, whatever the rate. Throws std::invalid_argument for any
  /// other rate, NaN included, and std::length_error when the filter data would exceed what
  /// GetBufferSize can express.
  BloomFilter(unsigned long n, double falsePositive);
  virtual ~BloomFilter();

  BloomFilter(const BloomFilter&) = delete;
  BloomFilter& operator=(const BloomFilter&) = delete;

  /// Adds one fingerprint and counts it.
  void Insert(const crfp_digest_t& fp);

  /// False if `fp` was certainly never inserted.
  bool Contains(const crfp_digest_t& fp) const;

  /// Bytes of filter data.
  unsigned int GetBufferSize() const;

  /// The filter data, writable, GetBufferSize() bytes. Owned by the filter.
  unsigned char* GetBloom() const;

  /// Bits of filter data.
  unsigned long GetBitmapSize() const;

  /// The capacity given to the constructor.
  unsigned long GetExpectedFingerprints() const;

  /// Number of Insert calls so far, or what SetInsertedFingerPrints set.
  unsigned long GetInsertedFingerPrints() const;
  void SetInsertedFingerPrints(unsigned long count);

  /// Positions that each fingerprint sets.
  unsigned int GetHashFunctionCount() const;

  /// The rate given to the constructor.
  double GetMaxFalsePositive() const;

 private:
  unsigned long expected_;
  unsigned long inserted_ = 0;
  double maxFalsePositive_;
  unsigned int hashFunctionCount_;
  unsigned int bufferSize_;
  std::unique_ptr<unsigned char[]> bits_;
};
