#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "table/extent.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// Index of the first item that RangeLess does not put before [sOff, eOff); the item count if there
/// is none. The standard lower bound, halving the count and moving past the middle item when it is
/// less.
template <typename Item>
std::size_t FirstNotLess(const std::vector<Item>& items, std::int64_t sOff, std::int64_t eOff) {
  const auto place = std::lower_bound(items.begin(), items.end(), sOff,
                                      [eOff](const Item& item, std::int64_t probe) {
                                        return RangeLess(item.sOff, item.eOff, probe, eOff);
                                      });
  return static_cast<std::size_t>(place - items.begin());
}

}  // namespace Aldenta::Qnd::Morene::Zefs
