#pragma once

#include <cstddef>
#include <vector>

#include "table/extent.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Index of the first item that RangeLess does not put before [sOff, eOff); the item count if there is
/// none. The standard lower bound, halving the count and moving past the middle item when it is less.
/// The steps are free of branches, which nothing could predict, and as a search that waits for each
/// comparison would also wait for memory line by line, all lines of the node are asked for at once.
template <typename Item>
std::size_t FirstNotLess(const std::vector<Item>& items, std::int64_t sOff, std::int64_t eOff) {
  const Item* const all = items.data();
  std::size_t count = items.size();
  for (std::size_t i = 1; i < count; i += 2) {
    __builtin_prefetch(&all[i].sOff);
  }
  std::size_t first = 0;
  while (count > 0) {
    const std::size_t half = count / 2;
    const Item& middle = all[first + half];
    const std::size_t less = RangeLess(middle.sOff, middle.eOff, sOff, eOff) ? 1 : 0;
    first += (half + 1) & (0 - less);     // past the middle item if it is less
    count = half - (less & (count ^ 1));  // what lies behind it then is one less if they were even
  }
  return first;
}

}  // namespace Aldenta::Qnd::Morene::Zefs
