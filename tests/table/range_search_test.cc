#include "table/range_search.h"

#include <algorithm>
#include <climits>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace Aldenta::Qnd::Morene::Zefs;

/// Whatever stands in a node, in order or not, the search takes the steps of the standard lower
/// bound.
TEST(RangeSearchTest, EqualsTheStandardLowerBoundForAnyItems) {
  std::mt19937 random(3);
  const auto any = [&random](long n) {
    return static_cast<long>(random() % static_cast<unsigned long>(n));
  };
  for (int round = 0; round < 20000; ++round) {
    std::vector<Key> keys;
    std::vector<Ext> exts;
    long at = 0;
    const bool sorted = round % 2 == 0;
    for (long i = any(12); i > 0; --i) {
      const long sOff = sorted ? at + any(3) : any(20);
      const long eOff = sOff + any(4);  // some without bytes
      at = eOff;
      keys.push_back(Key{sOff, eOff, nullptr, nullptr});
      exts.push_back(Ext::Probe(sOff, eOff));
    }
    const long edges[] = {LONG_MIN, LONG_MAX - 1, any(25), any(25)};
    const long sOff = edges[any(4)];
    const long eOff = any(2) == 0 || sOff == LONG_MAX - 1 ? sOff + 1 : sOff + any(6);
    const auto key =
        std::lower_bound(keys.begin(), keys.end(), Key{sOff, eOff, nullptr, nullptr}, compareKey);
    const auto ext = std::lower_bound(exts.begin(), exts.end(), Ext::Probe(sOff, eOff), compareExt);
    ASSERT_EQ(static_cast<std::size_t>(key - keys.begin()), FirstNotLess(keys, sOff, eOff));
    ASSERT_EQ(static_cast<std::size_t>(ext - exts.begin()), FirstNotLess(exts, sOff, eOff));
  }
}

}  // namespace
