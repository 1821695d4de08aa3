#pragma once

#include <cstdint>

namespace Aldenta::Qnd::Morene::Zefs {

/// A number of 64 bits as the conversion %lld of a log line takes it.
inline long long Printed(std::int64_t number) {
  return static_cast<long long>(number);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
