#pragma once

#include "host/fingerprint.h"
#include "support/visibility.h"

namespace Aldenta::Qnd::Morene::Zefs {

/// The text form of a fingerprint, as it stands in log lines and as map key.
inline FingerprintText TextOf(const crfp_digest_t& fp) {
  FingerprintText text{};
  CRFPDigestToString_r(fp.data(), kCrfpDigestKind, text.data(), text.size());
  return text;
}

/// Compares two fingerprints: 0 if all 32 bytes are equal, else the difference of the first two
/// bytes that differ, as unsigned values. `kind` is kCrfpDigestKind.
ZEFS_EXTMAP_API int CRFPDigestCompare(const unsigned char* a, const unsigned char* b, int kind);

}  // namespace Aldenta::Qnd::Morene::Zefs
