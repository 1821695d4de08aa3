#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "host/bloom_filter.h"

namespace zefs::refhost {

/// What a table says it refers to. It may be more than it does, never less.
struct TableReferences {
  std::vector<std::pair<unsigned long, unsigned long>> bytesByDcid;
  std::unique_ptr<BloomFilter> filter;  ///< of fingerprints
};

}  // namespace zefs::refhost
