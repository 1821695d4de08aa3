#pragma once

#include <cstddef>
#include <cstdint>

#include "table/extent.h"

namespace zefs::test {

/// An object id whose fingerprint starts with `tag`.
inline Aldenta::Qnd::Morene::Zefs::ObjectID Oid(std::uint64_t dcid, unsigned int tag = 1) {
  Aldenta::Qnd::Morene::Zefs::ObjectID oid;
  oid.dcid = dcid;
  for (std::size_t i = 0; i < sizeof(tag); ++i) {
    oid.fp[i] = static_cast<unsigned char>(tag >> (8 * i));
  }
  oid.attrByte = static_cast<std::uint8_t>(tag + 1);
  oid.attrWord = tag + 2;
  oid.attrFlag = static_cast<std::uint8_t>(tag + 3);
  return oid;
}

}  // namespace zefs::test
