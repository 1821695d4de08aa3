#include "table/fingerprint.h"

#include <algorithm>

namespace Aldenta::Qnd::Morene::Zefs {

int CRFPDigestCompare(const unsigned char* a, const unsigned char* b, int /*kind*/) {
  const unsigned char* const end = a + crfp_digest_t{}.size();
  const auto [inA, inB] = std::mismatch(a, end, b);
  return inA == end ? 0 : static_cast<int>(*inA) - static_cast<int>(*inB);
}

}  // namespace Aldenta::Qnd::Morene::Zefs
