#pragma once

#include <cstdint>

#include "bench/workload.h"

namespace zefs_bench {

/// What every peer keeps behind a range: all that the table keeps.
struct ExtentValue {
  ObjectID objectID;
  std::int64_t objCksum = 0;
  std::int64_t objOff = 0;
  void* data = nullptr;
  std::int32_t dcOffset = -1;
};

/// An extent as the maps are asked for it.
struct Extent {
  std::int64_t sOff = 0;
  std::int64_t eOff = 0;
  ExtentValue value;
};

inline ExtentValue ValueOf(const Write& write) {
  return {write.objectID, write.objCksum, write.objOff, nullptr, -1};
}

}  // namespace zefs_bench
