#pragma once

#include <array>
#include <cstdint>
#include <map>

#include "bench/workload.h"
#include "host/fingerprint.h"

// What a peer knows of the objects that its extents refer to. A policy of the peers: the same map
// is measured with and without.

namespace zefs_bench {

/// The table's two counts: bytes by container, and extents by fingerprint text. The text is made
/// from the 32 bytes at each change of a fingerprint's count. Entries that fall to zero go.
class ReferenceCounts {
 public:
  static constexpr bool kCounts = true;
  using ByContainer = std::map<std::uint64_t, std::uint64_t>;
  using ByFingerprint = std::map<FingerprintText, std::uint64_t>;

  /// An extent of `bytes` bytes came.
  void Add(const ObjectID& oid, std::int64_t bytes) {
    byContainer_[oid.dcid] += static_cast<std::uint64_t>(bytes);
    ++byFingerprint_[TextOf(oid)];
  }

  /// An extent of `bytes` bytes went.
  void Remove(const ObjectID& oid, std::int64_t bytes) {
    Shrink(oid, bytes);
    const auto entry = byFingerprint_.find(TextOf(oid));
    if (--entry->second == 0) {
      byFingerprint_.erase(entry);
    }
  }

  /// An extent lost `bytes` bytes and stays, so that its fingerprint is left alone.
  void Shrink(const ObjectID& oid, std::int64_t bytes) {
    const auto entry = byContainer_.find(oid.dcid);
    entry->second -= static_cast<std::uint64_t>(bytes);
    if (entry->second == 0) {
      byContainer_.erase(entry);
    }
  }

  const ByContainer& by_container() const { return byContainer_; }
  const ByFingerprint& by_fingerprint() const { return byFingerprint_; }

 private:
  static FingerprintText TextOf(const ObjectID& oid) {
    FingerprintText text{};
    CRFPDigestToString_r(oid.fp.data(), kCrfpDigestKind, text.data(), text.size());
    return text;
  }

  ByContainer byContainer_;
  ByFingerprint byFingerprint_;
};

/// Counts nothing.
class NoCounts {
 public:
  static constexpr bool kCounts = false;
  void Add(const ObjectID&, std::int64_t) {}
  void Remove(const ObjectID&, std::int64_t) {}
  void Shrink(const ObjectID&, std::int64_t) {}
};

}  // namespace zefs_bench
