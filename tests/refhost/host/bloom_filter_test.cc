#include "host/bloom_filter.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "refhost/host/sha256.h"

namespace zefs::refhost {
namespace {

constexpr double kRates[] = {0.999, 0.5,  0.1,   0.02,   0.01,
                             0.001, 1e-6, 1e-12, 1e-300, std::numeric_limits<double>::denorm_min()};
constexpr unsigned long kCounts[] = {0,   1,   2,    63,   64,   65,    100,    127,
                                     128, 129, 1000, 1024, 1025, 10000, 100000, 131072};

crfp_digest_t Fingerprint(unsigned long number) {
  return Sha256(&number, sizeof(number));
}

void InsertRange(BloomFilter* filter, unsigned long from, unsigned long to) {
  for (unsigned long number = from; number < to; ++number) {
    filter->Insert(Fingerprint(number));
  }
}

/// How many of `probes` fingerprints that were never inserted the filter takes for known.
double WrongAnswers(const BloomFilter& filter, unsigned long probes) {
  int wrong = 0;
  for (unsigned long probe = 0; probe < probes; ++probe) {
    wrong += filter.Contains(Fingerprint(1000000 + probe)) ? 1 : 0;
  }
  return wrong;
}

/// What storing and reading a filter does.
std::unique_ptr<BloomFilter> Reloaded(const BloomFilter& filter) {
  const std::vector<unsigned char> bytes(filter.GetBloom(),
                                         filter.GetBloom() + filter.GetBufferSize());
  auto loaded = std::make_unique<BloomFilter>(filter.GetBufferSize(), filter.GetMaxFalsePositive());
  std::copy(bytes.begin(), bytes.end(), loaded->GetBloom());
  return loaded;
}

TEST(BloomFilterTest, SizeRuleMapsItsOwnSizeToItself) {
  for (const double rate : kRates) {
    for (const unsigned long count : kCounts) {
      const BloomFilter filter(count, rate);
      const unsigned long size = filter.GetBufferSize();
      EXPECT_GE(size, count) << rate;
      EXPECT_EQ(size & (size - 1), 0U) << rate << " " << count;
      EXPECT_EQ(BloomFilter(size, rate).GetBufferSize(), size) << rate << " " << count;
      EXPECT_EQ(filter.GetBitmapSize(), 8 * size);
    }
  }
}

TEST(BloomFilterTest, PositionsFollowFromTheRateAlone) {
  for (const double rate : kRates) {
    const unsigned int positions = BloomFilter(1, rate).GetHashFunctionCount();
    EXPECT_GE(positions, 1U);
    for (const unsigned long count : kCounts) {
      EXPECT_EQ(BloomFilter(count, rate).GetHashFunctionCount(), positions) << rate << " " << count;
    }
  }
}

TEST(BloomFilterTest, NothingIsDeniedAfterAReload) {
  for (const double rate : kRates) {
    for (const unsigned long count : kCounts) {
      BloomFilter filter(count, rate);
      const unsigned long inserted = std::min(count, 2000UL);
      InsertRange(&filter, 0, inserted);
      const std::unique_ptr<BloomFilter> loaded = Reloaded(filter);
      for (unsigned long number = 0; number < inserted; ++number) {
        ASSERT_TRUE(filter.Contains(Fingerprint(number))) << rate << " " << count;
        ASSERT_TRUE(loaded->Contains(Fingerprint(number))) << rate << " " << count;
      }
    }
  }
}

TEST(BloomFilterTest, AReloadedFilterAnswersAsTheFirstDid) {
  BloomFilter filter(3000, 0.02);
  InsertRange(&filter, 0, 3000);
  const std::unique_ptr<BloomFilter> loaded = Reloaded(filter);
  for (unsigned long number = 0; number < 20000; ++number) {
    const crfp_digest_t fp = Fingerprint(number);
    ASSERT_EQ(filter.Contains(fp), loaded->Contains(fp)) << number;
  }
}

TEST(BloomFilterTest, MoreThanExpectedIsStillNeverDenied) {
  BloomFilter filter(10, 0.02);
  InsertRange(&filter, 0, 10000);
  for (unsigned long number = 0; number < 10000; ++number) {
    ASSERT_TRUE(filter.Contains(Fingerprint(number)));
  }
}

TEST(BloomFilterTest, FalsePositivesStayBelowTheRateAskedFor) {
  // Counts that come close to filling what the rule gives them, and some that do not.
  for (const double rate : {0.5, 0.1, 0.02, 0.01, 0.001}) {
    for (const unsigned long count : {900UL, 3000UL, 7500UL, 15000UL, 30000UL}) {
      BloomFilter filter(count, rate);
      InsertRange(&filter, 0, count);
      constexpr unsigned long kProbes = 20000;
      // Four standard deviations of the count that the rate allows.
      const double allowed = rate * kProbes;
      EXPECT_LE(WrongAnswers(filter, kProbes), allowed + 4 * std::sqrt(allowed))
          << rate << " " << count;
    }
  }
}

TEST(BloomFilterTest, ACountThatIsASizeHasEightBitsAnEntry) {
  BloomFilter filter(8192, 0.02);
  EXPECT_EQ(filter.GetBufferSize(), 8192U);
  InsertRange(&filter, 0, 8192);
  EXPECT_LT(WrongAnswers(filter, 20000), 20000 * 0.03);
}

TEST(BloomFilterTest, AnEmptyFilterIsZeroedAndDeniesAll) {
  const BloomFilter filter(1000, 0.02);
  EXPECT_TRUE(std::all_of(filter.GetBloom(), filter.GetBloom() + filter.GetBufferSize(),
                          [](unsigned char byte) { return byte == 0; }));
  EXPECT_FALSE(filter.Contains(crfp_digest_t{}));
  EXPECT_FALSE(filter.Contains(Fingerprint(1)));
}

TEST(BloomFilterTest, TheEmptyFingerprintCanBeInserted) {
  BloomFilter filter(1, 1e-6);
  filter.Insert(crfp_digest_t{});
  EXPECT_TRUE(filter.Contains(crfp_digest_t{}));
  EXPECT_FALSE(filter.Contains(Fingerprint(1)));
}

TEST(BloomFilterTest, CountsInsertsAndTakesAStoredCount) {
  BloomFilter filter(5, 0.02);
  EXPECT_EQ(filter.GetInsertedFingerPrints(), 0U);
  filter.Insert(Fingerprint(1));
  filter.Insert(Fingerprint(1));
  EXPECT_EQ(filter.GetInsertedFingerPrints(), 2U);
  filter.SetInsertedFingerPrints(77);
  filter.Insert(Fingerprint(2));
  EXPECT_EQ(filter.GetInsertedFingerPrints(), 78U);
  EXPECT_EQ(filter.GetExpectedFingerprints(), 5U);
  EXPECT_EQ(filter.GetMaxFalsePositive(), 0.02);
}

TEST(BloomFilterTest, NonsensicalRatesAreRefused) {
  using Limits = std::numeric_limits<double>;
  for (const double rate : {0.0, -0.0, -0.02, -1.0, 1.0, 1.5, 50.0, Limits::quiet_NaN(),
                            Limits::infinity(), -Limits::infinity()}) {
    EXPECT_THROW(BloomFilter(100, rate), std::invalid_argument) << rate;
  }
}

TEST(BloomFilterTest, ASizeBeyondThirtyTwoBitsIsRefused) {
  for (const unsigned long count :
       {(1UL << 31) + 1, 1UL << 32, std::numeric_limits<unsigned long>::max()}) {
    EXPECT_THROW(BloomFilter(count, 0.02), std::length_error) << count;
  }
  EXPECT_THROW(BloomFilter((1UL << 31) - 1, 0.02), std::length_error);  // the rate needs more
}

}  // namespace
}  // namespace zefs::refhost
